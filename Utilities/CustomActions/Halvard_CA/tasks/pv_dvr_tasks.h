#pragma once

#include <windows.h>
#include <msi.h>

namespace halvard {

extern "C" {

/// Creates the logon task "StartPV" of the settings application from the installed StartPV.xml and
/// points it at pvcmd.exe with the argument "startwithdelay"; removes the Run value "StartPV".
///
/// Deferred action, result checked, without CustomActionData. Inputs: HKLM
/// "SOFTWARE\Qorta Technologies\Install\Pivot", REG_SZ "Location" (the installation folder), and
/// StartPV.xml in that folder.
/// Leaves a copy of StartPV.xml, its working directory rewritten, in the temporary folder; the task
/// is made from the installed file all the same. A principal with a password lets schtasks /change
/// wait for one, unseen and without end (documented: "schtasks change").
/// Results: 0, 1603. ERROR_SUCCESS, whatever became of schtasks and of the rewriting, or
/// ERROR_INSTALL_FAILURE when the installation folder does not exist. A create or change command of
/// 260 wide characters and more is not run.
/// Throws RegKeyError when the key or the value is missing; the Run value is gone by then.
UINT __stdcall CreateLogonSchTask(MSIHANDLE session);

/// Creates the logon task "StartDVR" of the desktop video recorder from the installed StartDVR.xml
/// and points it at VSServCmd.exe with an empty argument; removes the Run value "StartDVR".
///
/// Deferred action, result checked, without CustomActionData. Inputs: as CreateLogonSchTask, with
/// StartDVR.xml.
/// Results: 0, 1603. As those of CreateLogonSchTask. Throws RegKeyError as CreateLogonSchTask.
UINT __stdcall CreateDVRLogonSchTask(MSIHANDLE session);

/// Deletes the task "StartPV" and waits for schtasks.
///
/// Deferred action, result ignored, without CustomActionData. Inputs: none.
/// Results: 0, 1. The latter, no code of the installer, when schtasks started, whatever it did, and
/// 0 when it could not be started. Throws std::bad_alloc only.
UINT __stdcall RemovePVSchedularTask(MSIHANDLE session);

/// Deletes the task "StartDVR" and waits for schtasks.
///
/// Deferred action, result ignored, without CustomActionData. Inputs: none.
/// Results: 0, 1. As those of RemovePVSchedularTask. Throws std::bad_alloc only.
UINT __stdcall RemoveDVRSchedularTask(MSIHANDLE session);

/// Deletes the task "StartPV" when a branded package does not want it, and waits for schtasks.
///
/// Deferred action, result checked, without CustomActionData. Inputs: HKLM "SOFTWARE\Zenvo\PV",
/// "LazeStart": the task is deleted when its bytes, at most 4 and of any type, are those of the
/// number 1.
/// Results: 0, whatever became of it. The key stays open. Throws std::bad_alloc only.
UINT __stdcall DeleteSchedTaskonBranding(MSIHANDLE session);

} // extern "C"

} // namespace halvard
