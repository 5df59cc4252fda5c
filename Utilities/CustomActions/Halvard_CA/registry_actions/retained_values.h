#pragma once

#include <windows.h>
#include <msi.h>

namespace halvard {

extern "C" {

/// Empties the branding folder of the settings application but for the entries that the branding
/// key names. Only the folder's own entries are looked at: one that is not named goes with all it
/// holds.
///
/// Deferred action, result ignored, without CustomActionData. Inputs: HKLM "SOFTWARE\Zenvo\PV\",
/// "PVBrandingInstallDir" (the branding folder, a value of any type), and HKLM
/// "SOFTWARE\ZenvoBranding", where each REG_SZ value holds the full path of an entry to keep and
/// the subkey "Skins" keeps every entry with that word in its path. Values of more than 260 bytes
/// count as absent, subkeys of more than 254 wide characters too. Without the key nothing is kept.
/// Results: 0. Files that cannot be deleted stay, and so do those whose path
/// has more than 255 wide characters, folders whose path has 260 and more, and entries whose name
/// ends in a dot or a blank: such a path would lead to another entry, perhaps one to keep.
/// Throws std::filesystem::filesystem_error when the branding folder cannot be asked for ("exists")
/// and as RemoveDirectoryTree does for a subfolder that cannot be removed; the entries behind it
/// stay.
UINT __stdcall DeleteandRetainValues(MSIHANDLE session);

} // extern "C"

} // namespace halvard
