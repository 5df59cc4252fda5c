#pragma once

#include <algorithm>
#include <cstdint>

// The arithmetic of waiting for a service: spans of time in milliseconds, and ticks that start
// again at 0 about every 49.7 days.

namespace halvard {

/// How long to sleep between two looks at a service whose change is pending: a tenth of its wait
/// hint, but at least 1000 and at most 10000.
constexpr std::uint32_t PollMilliseconds(std::uint32_t waitHint) noexcept {
    return std::clamp<std::uint32_t>(waitHint / 10, 1000, 10000);
}

/// Whether more than `limit` has passed from the tick `start` to the tick `now`, which lies less
/// than 2^32 behind it.
constexpr bool HasPassed(std::uint32_t start, std::uint32_t now, std::uint32_t limit) noexcept {
    return now - start > limit;
}

} // namespace halvard
