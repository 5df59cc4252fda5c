#pragma once

#include <windows.h>
#include <msi.h>

#include <string>

namespace halvard {

/// What the commands for every entry of a folder have in common.
struct PermissionContext {
    std::wstring userName;
    std::wstring workingDirectory;
};

/// Makes the user the owner of one file or folder and grants the built-in Users group full control
/// of it, waiting for each command. What becomes of them is not looked at. `path` loses a slash at
/// its end. Throws std::bad_alloc only.
void ApplyEntryPermissions(const PermissionContext& context, std::wstring& path);

/// ApplyEntryPermissions to a folder and to all it holds, a folder before what is in it. Links in
/// it, and a link as the folder, have their own two commands and are never entered. What does not
/// exist or is not a folder is left alone.
///
/// Throws std::filesystem::filesystem_error: "exists" or "status" when the folder cannot be asked,
/// "recursive_directory_iterator::recursive_directory_iterator" or
/// "recursive_directory_iterator::operator++" when a folder cannot be listed.
void ApplyFolderPermissions(const std::wstring& folder, const std::wstring& userName);

/// Unregisters a COM server, whatever comes of it, and registers it again. The result is that of
/// the registration: regsvr32's exit code, or the Win32 code with which the command interpreter
/// could not be started. Throws std::bad_alloc only.
DWORD RegisterComServer(const std::wstring& dllName, const std::wstring& installDir);

extern "C" {

/// Gives the installation folder with all it holds to a user, grants the built-in Users group full
/// control of each entry, and registers the COM server in it anew. Links are not entered.
///
/// Deferred action, result checked. Inputs: the items InstallDir=, DLLName= and Username= of
/// CustomActionData, the folder, the DLL's name relative to it, and the account. An absent one is
/// not detected: its value is then the data from index 10, 7 or 8 onward. All three are pasted into
/// commands as they are.
/// With an InstallDir that does not end in a backslash the server is registered, but not
/// unregistered before.
/// Results: 0, 1603. ERROR_SUCCESS, whatever became of the permissions, or ERROR_INSTALL_FAILURE
/// when the server could not be registered, as for a folder that does not exist.
/// Throws std::out_of_range when InstallDir= is absent and the data has fewer than 10 characters,
/// std::filesystem::filesystem_error when the folder cannot be asked or listed (nothing is
/// registered then), and std::bad_alloc.
UINT __stdcall SetPermissionsRegisterDLL(MSIHANDLE session);

/// Unregisters a COM server.
///
/// Deferred action, result ignored. Inputs: the items InstallDir= and DLLName= of CustomActionData.
/// InstallDir has to end in a backslash: nothing is put between it and the DLL's name. An absent
/// item is as in SetPermissionsRegisterDLL.
/// Results: 0, 1603. ERROR_INSTALL_FAILURE when the server could not be unregistered.
/// Throws std::out_of_range as SetPermissionsRegisterDLL does, and std::bad_alloc.
UINT __stdcall UnregisterDLL(MSIHANDLE session);

} // extern "C"

} // namespace halvard
