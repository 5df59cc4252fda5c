#pragma once

#include <windows.h>
#include <msi.h>

namespace halvard {

extern "C" {

/// Tells whether the install manager started this installation; tells the user to get the install
/// manager when it did not.
///
/// Immediate action, result ignored. Input: the property LAUNCHED_FROM_MIM, at most 259 wide
/// characters.
/// Results: 0, 1612. ERROR_SUCCESS when the property begins with "1", else
/// ERROR_INSTALL_SOURCE_ABSENT after a log line and a message that the full user interface shows as
/// a box with one OK button. A property that is missing, empty or longer counts as not begun with
/// "1".
/// Throws std::bad_alloc only.
UINT __stdcall LaunchedFromMIM(MSIHANDLE session);

/// Stops an installation that the install manager did not start. Runs LaunchedFromMIM, its message
/// included, and turns its refusal into a code that fails the installation.
///
/// Immediate action, result checked. Input: as LaunchedFromMIM. Stores its session as the current
/// session.
/// Results: 0, 1603. ERROR_INSTALL_FAILURE where LaunchedFromMIM refuses. Throws std::bad_alloc
/// only.
UINT __stdcall BlockLaunch(MSIHANDLE session);

} // extern "C"

} // namespace halvard
