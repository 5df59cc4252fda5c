#pragma once

#include <windows.h>
#include <msi.h>

namespace halvard {

extern "C" {

/// Deletes HKLM "SOFTWARE\Qorta", the maker's former root, with all below it.
///
/// Deferred action, result ignored, without CustomActionData. Inputs: none.
/// Results: 0, whatever became of it. Throws nothing.
UINT __stdcall DeleteQortaKey(MSIHANDLE session);

} // extern "C"

} // namespace halvard
