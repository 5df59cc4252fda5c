#pragma once

#include <windows.h>
#include <msi.h>

namespace halvard {

extern "C" {

/// Asks the settings application to quit: starts "pvcmd.exe exit" in the installation folder and
/// does not wait for it, so the application may still be closing when the action is over.
///
/// Deferred action, result ignored, without CustomActionData. Inputs: HKLM
/// "SOFTWARE\Qorta Technologies\Install\Pivot", REG_SZ "Location" (the installation folder).
/// Results: 0, 1603. ERROR_SUCCESS also when the folder does not exist, when the command tool could
/// not be started, and when its command has more than 518 wide characters and is not started;
/// ERROR_INSTALL_FAILURE when the folder holds no command tool.
/// Throws RegKeyError when the key or the value is missing, std::bad_alloc, and
/// std::filesystem::filesystem_error ("exists") when the folder or the command tool cannot be
/// looked at.
UINT __stdcall ShutDownPivotConsole(MSIHANDLE session);

/// Asks the desktop video recorder to quit: starts "VSServCmd.exe exit" in its installation folder
/// and does not wait for it.
///
/// Deferred action, result ignored, without CustomActionData. Inputs: HKLM
/// "SOFTWARE\Qorta Technologies\Install\Zenvo DVR", REG_SZ "Location" (the installation folder).
/// Results: 0, 1603. ERROR_SUCCESS also when the folder does not exist, when the command tool could
/// not be started, and when its command has more than 518 wide characters and is not started;
/// ERROR_INSTALL_FAILURE when the folder holds no command tool. One that cannot be looked at counts
/// as not there, and on Windows so does one whose path has 260 characters and more (assumed; the
/// page "PathFileExistsW function" allows MAX_PATH).
/// Throws RegKeyError when the key or the value is missing, std::bad_alloc, and
/// std::filesystem::filesystem_error ("exists") when the folder cannot be looked at.
UINT __stdcall ShutDownDVR(MSIHANDLE session);

/// Hands TaskKill.exe the programs VireoSettings.exe and, when the first start was refused,
/// VireoSoftware.exe, in a working directory that does not exist: Windows refuses both starts
/// (assumed: ERROR_DIRECTORY from 24H2 on, ERROR_INVALID_NAME before) and no process is ended.
///
/// Deferred action, result ignored, without CustomActionData. Inputs: none.
/// Results: 0, 1603. ERROR_INSTALL_FAILURE, or ERROR_SUCCESS should a start succeed after all.
/// Throws std::bad_alloc only.
UINT __stdcall TerminatePivotApp(MSIHANDLE session);

/// Ends all processes of ZenvoVSServ.exe by force with TaskKill.exe, for which it waits without
/// limit.
///
/// Deferred action, result ignored, without CustomActionData. Inputs: none.
/// Results: 0, 1603. ERROR_SUCCESS when TaskKill.exe started, whatever it did: no process of this
/// name is a success too. ERROR_INSTALL_FAILURE when it could not be started.
/// Throws std::bad_alloc only.
UINT __stdcall TerminateDVRApp(MSIHANDLE session);

} // extern "C"

} // namespace halvard
