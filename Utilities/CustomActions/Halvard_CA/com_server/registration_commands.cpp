#include "com_server/registration_commands.h"

#include "runtime/file_paths.h"

namespace halvard {

void DropTrailingSlash(std::wstring& path) {
    if (!path.empty() && IsSlash(path.back())) {
        path.pop_back();
    }
}

std::wstring OwnerCommand(const std::wstring& path, const std::wstring& userName) {
    return L"icacls \"" + path + L"\" /setowner " + userName;
}

std::wstring GrantCommand(const std::wstring& path) {
    return L"icacls \"" + path + L"\" /grant Users:F";
}

// Packages give the folder with and without a backslash at its end and live with what each of these
// two makes of it: they stay unlike.
std::wstring UnregisterCommand(const std::wstring& installDir, const std::wstring& dllName) {
    return L"regsvr32.exe /u /s \"" + installDir + dllName + L"\"";
}

std::wstring RegisterCommand(const std::wstring& installDir, const std::wstring& dllName) {
    return L"regsvr32.exe /s \"" + installDir + L"\\" + dllName + L"\"";
}

} // namespace halvard
