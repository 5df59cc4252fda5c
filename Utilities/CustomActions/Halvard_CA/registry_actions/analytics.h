#pragma once

#include <windows.h>
#include <msi.h>

namespace halvard {

/// Records that the telemetry programme belongs to this installation: HKLM
/// "SOFTWARE\Zenvo\Install", REG_DWORD "Telo" = 0, in a key that is created when it cannot be
/// opened. Returns whether the value was written.
bool MarkTeloInstalled();

extern "C" {

/// Withdraws the user's consent to analytics when the installation is told to.
///
/// Immediate action, result checked, in a package that runs elevated. Input: the property
/// DISABLEANALYTICS, at most 259 wide characters. When it begins with "YES" in any case, HKLM
/// "SOFTWARE\Zenvo\ZenvoAnalytics", REG_SZ "AnalyticsAccepted", becomes "false"; the key is not
/// created.
/// Results: 0, whatever became of it. Throws std::bad_alloc only.
UINT __stdcall DisabelAnalyticsKey(MSIHANDLE session);

/// Records that the telemetry programme belongs to this installation, and the user's consent to
/// analytics, whatever DISABLEANALYTICS says: HKLM "SOFTWARE\Zenvo\Install", REG_DWORD "Telo" = 0,
/// and HKLM "SOFTWARE\Zenvo\ZenvoAnalytics", REG_SZ "AnalyticsAccepted" = "true". Creates both
/// keys.
///
/// Deferred action, result checked, without CustomActionData. Inputs: none.
/// Results: 0, also when a value could not be written. Throws RegKeyError ("Unable to get create
/// registry key") when the key of the consent can neither be opened nor created.
UINT __stdcall EnableAnalyticsKey(MSIHANDLE session);

/// Deletes HKLM "SOFTWARE\Zenvo\ZenvoAnalytics" when it has no subkeys.
///
/// Deferred action, result ignored, without CustomActionData. Inputs: none. Logs what became of the
/// key: "UPA Key deleted", "UPA Key not deleted" or "Could not access UPA Key".
/// Results: 0, whatever became of it. Throws nothing.
UINT __stdcall DeleteAnalyticsKey(MSIHANDLE session);

/// Marks once that the recorder's analytics have been tracked: creates HKLM "SOFTWARE\ZenvoDVR"
/// with REG_DWORD "ZenvoDVR_Tracked" = 1 when the recorder is enabled and the key cannot be opened.
///
/// Deferred action, result ignored, without CustomActionData. Inputs: HKLM
/// "SOFTWARE\Qorta Technologies\Install", "ZenvoDVR_Enabled": the recorder is enabled when its
/// bytes, at most 4 and of any type, are those of the number 1.
/// Results: 0, 1. The latter, no code of the installer, when this run created the marker, its value
/// written or not, else ERROR_SUCCESS. Throws nothing.
UINT __stdcall TrackDVRAnalytics(MSIHANDLE session);

} // extern "C"

} // namespace halvard
