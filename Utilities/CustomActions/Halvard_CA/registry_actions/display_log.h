#pragma once

#include <windows.h>
#include <msi.h>

namespace halvard {

extern "C" {

/// Tells the maker's display driver where to write its diagnostic log: makes the folder
/// "Zenvo\PV\Analytics" in the temporary folder and sets "DalDCELogFilePath" and
/// "DalDCEFilePathSize" in the driver's class key of every present display adapter of the maker.
///
/// Deferred action, result ignored, without CustomActionData. Inputs: the temporary folder, and the
/// manufacturer and the driver key of the display adapters, at most 4096 bytes each and of any
/// type.
/// Results: 0. An adapter that cannot be read or written is skipped; without
/// a temporary folder whose log path fits 1023 wide characters nothing is done. The class keys that
/// were written and the list of adapters stay open. Throws std::bad_alloc only.
UINT __stdcall SetDCLogFileRegistry(MSIHANDLE session);

} // extern "C"

} // namespace halvard
