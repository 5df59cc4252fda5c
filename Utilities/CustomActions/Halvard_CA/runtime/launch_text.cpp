#include "runtime/launch_text.h"

namespace halvard {

std::optional<std::wstring> CommandIfItFits(std::wstring command, std::size_t limit) {
    if (command.size() >= limit) {
        return std::nullopt;
    }
    return command;
}

std::wstring CmdCommandLine(const std::wstring& command) {
    return L"cmd.exe /C \"" + command + L"\"";
}

std::wstring FailedLaunchText(const std::wstring& commandLine, std::uint32_t code) {
    return L"\nFailed to lauch >" + commandLine + L"<\n Last error return: " +
           std::to_wstring(code) + L"\n";
}

const wchar_t* ShellExecuteErrorText(std::intptr_t code) {
    switch (code) {
    case 0:
        return L"The operating system is out of memory or resources";
    case 2: // SE_ERR_FNF
        return L"File not found.";
    case 3: // SE_ERR_PNF
        return L"Path not found.";
    case 5: // SE_ERR_ACCESSDENIED
        return L"Access denied.";
    case 8: // SE_ERR_OOM
        return L"Out of memory.";
    case 26: // SE_ERR_SHARE
        return L"Cannot share an open file.";
    case 27: // SE_ERR_ASSOCINCOMPLETE
        return L"File association information not complete.";
    case 28: // SE_ERR_DDETIMEOUT
        return L" The DDE transaction could not be completed because the request timed out";
    case 29: // SE_ERR_DDEFAIL
        return L"DDE operation failed.";
    case 30: // SE_ERR_DDEBUSY
        return L"DDE operation is busy.";
    case 31: // SE_ERR_NOASSOC
        return L"File association not available.";
    case 32: // SE_ERR_DLLNOTFOUND
        return L"Dynamic-link library not found.";
    default:
        return L"Unknown error, could be SE_ERR_FNF, or SE_ERR_PNF";
    }
}

} // namespace halvard
