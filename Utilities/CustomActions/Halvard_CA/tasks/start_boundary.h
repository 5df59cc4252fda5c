#pragma once

#include <ctime>
#include <string>

namespace halvard {

/// The start of the day after `now` as a task's start boundary tells it, in local time:
/// 2024-03-15T00:00:00, without a fraction of a second and without a time zone.
///
/// Today's midnight is read as standard time and 24 hours are added, so in a daylight-saving period
/// the text says 01:00. `now` counts seconds from 1970 and is meant to lie before the year 3000.
/// Throws std::bad_alloc only.
std::wstring NextMidnightText(std::time_t now);

} // namespace halvard
