#pragma once

#include <string>

// The commands with which a COM server's folder is prepared. Values are pasted in as they are, for
// the command interpreter to read.

namespace halvard {

/// Takes one character off a path that ends in a slash of either kind, and only one.
void DropTrailingSlash(std::wstring& path);

/// Makes `userName` the owner of a file or folder.
std::wstring OwnerCommand(const std::wstring& path, const std::wstring& userName);

/// Grants the built-in Users group full control of a file or folder.
std::wstring GrantCommand(const std::wstring& path);

/// Unregisters a COM server. Nothing is put between folder and name, so `installDir` has to end in
/// a backslash to name the DLL.
std::wstring UnregisterCommand(const std::wstring& installDir, const std::wstring& dllName);

/// Registers a COM server, always with a backslash between folder and name: an `installDir` that
/// ends in one gives two, which Windows takes for one (assumed).
std::wstring RegisterCommand(const std::wstring& installDir, const std::wstring& dllName);

} // namespace halvard
