#include "launch/context_menu_commands.h"

namespace halvard {

namespace {

// The command interpreter expands the variable.
std::wstring PowerShellCommand(const std::wstring& script) {
    return L"\"%SYSTEMROOT%\\System32\\WindowsPowerShell\\v1.0\\powershell.exe\" \"" + script +
           L"\"";
}

} // namespace

std::wstring ContextMenuFolder(const std::wstring& systemDriveRoot) {
    return systemDriveRoot + L"Program Files\\ContextMenuDemo\\";
}

std::wstring ImportCertificateCommand(const std::wstring& certificatePath) {
    return PowerShellCommand(L"Import-Certificate -FilePath '" + certificatePath +
                             L"' -CertStoreLocation Cert:\\LocalMachine\\Root");
}

std::wstring AddPackageCommand(const std::wstring& packagePath) {
    return PowerShellCommand(L"Add-AppxPackage -Path '" + packagePath + L"'");
}

} // namespace halvard
