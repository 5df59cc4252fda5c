#include "tasks/schtasks_commands.h"

namespace halvard {

namespace {

std::optional<std::wstring> IfItFits(std::wstring command) {
    if (command.size() >= kSchtasksCommandLimit) {
        return std::nullopt;
    }
    return command;
}

} // namespace

std::optional<std::wstring> CreateTaskCommand(const std::wstring& taskName,
                                              const std::wstring& xmlPath) {
    return IfItFits(L"schtasks /Create /TN \"" + taskName + L"\" /XML \"" + xmlPath + L"\"");
}

std::optional<std::wstring> ChangeTaskCommand(const std::wstring& taskName,
                                              const std::wstring& programPath,
                                              const std::wstring& argument) {
    return IfItFits(L"schtasks /change /TN \"" + taskName + L"\" /TR \"\\\"" + programPath +
                    L"\\\" " + argument + L"\"");
}

std::wstring DeleteTaskCommand(const std::wstring& taskName) {
    return L"schtasks /delete /TN \"" + taskName + L"\" /F";
}

std::wstring RunTaskCommand(const std::wstring& taskName) {
    return L"schtasks /run /TN \"" + taskName + L"\"";
}

std::wstring FileInFolder(const std::wstring& folder, const std::wstring& fileName) {
    const bool endsInSlash = !folder.empty() && (folder.back() == L'/' || folder.back() == L'\\');
    return folder + (endsInSlash ? L"" : L"\\") + fileName;
}

std::wstring ProgramInFolder(const std::wstring& folder, const std::wstring& fileName) {
    return folder + L"\\" + fileName;
}

} // namespace halvard
