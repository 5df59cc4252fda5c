#pragma once

#include <windows.h>
#include <msi.h>

// Removal of the installation folders. None of the actions catches anything, and only
// DeleteDMFTDirectory logs. A folder goes by RemoveDirectoryTree: what is not there or is not a
// folder is left alone, links are never entered, and what was removed before an error stays so.

namespace halvard {

/// Asks the command tool of the settings application to exit, and gives it 30000 ms; what it
/// answers, and whether it ends in time, does not matter. Called before its folder is removed. The
/// tool may be over before the application has let go of that folder.
///
/// Throws RegKeyError when the install key or its "Location" is missing, and std::system_error when
/// the tool cannot be started or asked.
void ExitPivotCommandProcessor();

extern "C" {

/// Removes the folder of the settings application, after its command tool was asked to exit.
///
/// Deferred action, result ignored, without CustomActionData. Inputs: HKLM
/// "SOFTWARE\Qorta Technologies\Install\Pivot", REG_SZ "Location" (the folder, which holds
/// pvcmd.exe). Stores its session as the current session.
/// Results: 0, other. ERROR_SUCCESS when the folder was there. When it was not, another number each
/// time, never 0.
/// Throws RegKeyError when the key or the value is missing, std::system_error when pvcmd.exe cannot
/// be started ("Unable to create process") or asked ("Unable to process exit code"), and
/// std::filesystem::filesystem_error ("exists", "status", "remove_all"). With either of the
/// first two nothing has been removed.
UINT __stdcall DeletePVFolder(MSIHANDLE session);

/// Removes the Store package of the settings application for all users, by PowerShell and however
/// long that takes, and then the folder of the application.
///
/// Deferred action, result ignored, without CustomActionData. Inputs: as DeletePVFolder, but for
/// pvcmd.exe. Stores its session as the current session.
/// PowerShell is named by the variable SYSTEMROOT, and the shell is not asked to expand it
/// (SEE_MASK_DOENVSUBST, documented: "SHELLEXECUTEINFOW"). Whether it does is open; where it does
/// not, PowerShell never starts and the folder stays.
/// Results: 0, whatever PowerShell did and whether the folder was there.
/// Throws std::system_error when PowerShell cannot be started or asked, before the registry is
/// read; RegKeyError and std::filesystem::filesystem_error as DeletePVFolder.
UINT __stdcall DeletePVINSTALLDIRFolder(MSIHANDLE session);

/// Removes the folder of the slim package.
///
/// Deferred action, result ignored, without CustomActionData. Inputs: HKLM
/// "SOFTWARE\Qorta\Sable\Packages\Core-Static" in the 32-bit view, REG_SZ "Location" (the folder).
/// Stores its session as the current session.
/// Results: 0. Nothing is removed when there is no such value.
/// Throws RegKeyError when the key is missing, and std::filesystem::filesystem_error ("exists",
/// "status", "remove_all").
UINT __stdcall DeletePVSlimINSTALLDIRFolder(MSIHANDLE session);

/// Removes a folder that the package names.
///
/// Deferred action, result ignored. Inputs: the item InstallDir= of CustomActionData (the folder).
/// Results: 0. Nothing is removed when there is no such item.
/// Throws std::filesystem::filesystem_error ("exists", "status", "remove_all").
UINT __stdcall DeleteDMFTDirectory(MSIHANDLE session);

/// Removes the folder of the desktop video recorder, and the folder that held it if nothing else is
/// left there, after the command tool of the settings application was asked to exit.
///
/// Deferred action, result ignored, without CustomActionData. Inputs: those of DeletePVFolder, HKLM
/// "SOFTWARE\Qorta Technologies\Install\XVR64", "InstallDir": its bytes, at most 520 and of any
/// type, up to a null character. The folder is that text with "XVR" behind it and nothing between,
/// so the text has to end in a backslash; without the value it is "XVR" in the current directory.
/// Stores its session as the current session. The key XVR64 stays open.
/// Results: 0, other. When the folder is not there, the type of the value, such as 1 for REG_SZ, or
/// 0 when it could not be read; else ERROR_SUCCESS.
/// Throws RegKeyError and std::system_error as DeletePVFolder for pvcmd.exe and what leads to it,
/// before anything else is looked at; std::filesystem::filesystem_error ("exists", "status",
/// "remove_all", and "remove" with the folder above); std::out_of_range, with the folder removed,
/// when its path has no backslash.
UINT __stdcall DeleteXVRFolder(MSIHANDLE session);

} // extern "C"

} // namespace halvard
