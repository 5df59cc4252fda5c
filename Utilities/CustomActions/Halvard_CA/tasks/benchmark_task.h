#pragma once

#include <windows.h>
#include <msi.h>

namespace halvard {

extern "C" {

/// Creates the task "StartPVBM", which runs the settings application's benchmark (pvcmd.exe with
/// the argument "benchmark") at the next local midnight, read as standard time: 01:00 during
/// daylight-saving time.
///
/// Deferred action, as the user who installs, result ignored, without CustomActionData. Inputs:
/// HKCU "SOFTWARE\Zenvo\PV", REG_SZ "VxBench"; HKLM
/// "SOFTWARE\Qorta Technologies\Install\Pivot", REG_SZ "Location" (the installation folder);
/// StartPVBM.xml in that folder, with a StartBoundary element that is not empty. The task is made
/// from a rewritten copy of the file, which stays in the temporary folder.
/// Results: 0. Nothing is done when "VxBench" is "1" and the current
/// directory holds a file or folder of that name, and when the installation folder or its
/// StartPVBM.xml does not exist. A create or change command of 260 wide characters and more is not
/// run.
/// Throws RegKeyError when a key or a value is missing.
UINT __stdcall CreateBenchMarkRunOnceSchTask(MSIHANDLE session);

/// Deletes the task "StartPVBM" and waits for schtasks.
///
/// Deferred action, result ignored, without CustomActionData. Inputs: none.
/// Results: 0, 1. The latter, no code of the installer, when schtasks started, whatever it did, and
/// 0 when it could not be started. Throws std::bad_alloc only.
UINT __stdcall RemoveBenchMarkRunOnceSchedularTask(MSIHANDLE session);

} // extern "C"

} // namespace halvard
