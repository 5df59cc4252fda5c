#pragma once

#include <windows.h>
#include <msi.h>

extern "C" {

/// Creates the task "StartPVBM", which runs the settings application's benchmark (pvcmd.exe with
/// the argument "benchmark") at the next local midnight, read as standard time: 01:00 during
/// daylight-saving time.
///
/// Deferred action, without CustomActionData. Inputs: HKCU "SOFTWARE\Zenvo\PV", REG_SZ "VxBench";
/// HKLM "SOFTWARE\Qorta Technologies\Install\Pivot", REG_SZ "Location" (the installation folder);
/// StartPVBM.xml in that folder, with a StartBoundary element that is not empty. The task is made
/// from a rewritten copy of the file, which stays in the temporary folder.
/// Results: always ERROR_SUCCESS (0). Nothing is done when "VxBench" is "1" and the current
/// directory holds a file or folder of that name, and when the installation folder or its
/// StartPVBM.xml does not exist. A create or change command of 260 wide characters and more is not
/// run.
/// Throws RegKeyError when a key or a value is missing.
UINT __stdcall CreateBenchMarkRunOnceSchTask(MSIHANDLE session);

/// Deletes the task "StartPVBM" and waits for schtasks.
///
/// Deferred action, without CustomActionData. Inputs: none.
/// Results: 1 when schtasks started, whatever it did, and 0 when it could not be started. No code
/// of the installer: declare the action's result as ignored. Throws std::bad_alloc only.
UINT __stdcall RemoveBenchMarkRunOnceSchedularTask(MSIHANDLE session);

} // extern "C"
