#include "launch/context_menu.h"

#include "launch/context_menu_commands.h"
#include "runtime/launch.h"

namespace halvard {

DWORD ImportPackageCertificate(const std::wstring& certificatePath) {
    return RunCmdCommand(ImportCertificateCommand(certificatePath), nullptr);
}

DWORD AddContextMenuPackage(const std::wstring& packagePath) {
    return RunCmdCommand(AddPackageCommand(packagePath), nullptr);
}

UINT __stdcall InstallContextMenuMSIX(MSIHANDLE /*session*/) {
    const std::wstring folder = ContextMenuFolder(GetSystemDriveRoot());
    const DWORD imported = ImportPackageCertificate(folder + L"MyKey.cer");
    // The certificate may be trusted already, so the package is tried in any case.
    const DWORD added = AddContextMenuPackage(folder + L"PhotoStoreDemoPkg.msix");
    return imported == 0 && added == 0 ? ERROR_SUCCESS : ERROR_INSTALL_FAILURE;
}

} // namespace halvard
