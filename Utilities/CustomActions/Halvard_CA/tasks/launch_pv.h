#pragma once

#include <windows.h>
#include <msi.h>

namespace halvard {

extern "C" {

/// Runs the task "StartPV" now and waits for schtasks, not for the application.
///
/// Deferred action, result ignored, without CustomActionData. Inputs: none.
/// Results: 1, whatever became of schtasks; no code of the installer. Throws std::bad_alloc only.
UINT __stdcall LaunchPV(MSIHANDLE session);

} // extern "C"

} // namespace halvard
