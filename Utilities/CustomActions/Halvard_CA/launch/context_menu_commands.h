#pragma once

#include <string>

// What installs the packaged context-menu extension. Paths are pasted in between single quotes as
// they are, so that one with such a quote breaks its script.

namespace halvard {

/// The fixed folder of the package below the root of the system drive, with a final backslash. The
/// installation folder has no say in it.
std::wstring ContextMenuFolder(const std::wstring& systemDriveRoot);

/// For the command interpreter: lets PowerShell trust a certificate machine-wide.
std::wstring ImportCertificateCommand(const std::wstring& certificatePath);

/// For the command interpreter: lets PowerShell add a package.
std::wstring AddPackageCommand(const std::wstring& packagePath);

} // namespace halvard
