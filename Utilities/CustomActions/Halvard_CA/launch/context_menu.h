#pragma once

#include <windows.h>
#include <msi.h>

#include <string>

namespace halvard {

/// Lets PowerShell put a certificate into the machine's store of trusted roots, and waits. The
/// result is PowerShell's exit code, or the Win32 code with which the command interpreter was
/// refused. Throws std::bad_alloc only.
DWORD ImportPackageCertificate(const std::wstring& certificatePath);

/// Lets PowerShell add a package, and waits. Results and exceptions as ImportPackageCertificate.
DWORD AddContextMenuPackage(const std::wstring& packagePath);

extern "C" {

/// Installs the packaged context-menu extension: trusts its certificate, then adds the package.
///
/// Deferred action, result ignored, without CustomActionData. Inputs: the files MyKey.cer and
/// PhotoStoreDemoPkg.msix in "Program Files\ContextMenuDemo" of the system drive, wherever the
/// package installs to. Logs nothing and waits for each step without a time limit.
/// Results: 0, 1603. ERROR_SUCCESS when both steps ended with 0, else ERROR_INSTALL_FAILURE. A
/// certificate that cannot be imported does not keep the package from being added.
/// Windows adds no package for the system (documented: "Troubleshooting packaging, deployment, and
/// query of Windows apps", 0x80073CF9), so a package has this action once more as the user.
/// Throws std::bad_alloc only.
UINT __stdcall InstallContextMenuMSIX(MSIHANDLE session);

} // extern "C"

} // namespace halvard
