#pragma once

#include "import_hook.h"

#include <functional>
#include <vector>

namespace halvard_tests {

/// Takes the place of GetTickCount and Sleep: no wait takes time, and each is written down.
class StandInClock {
public:
    explicit StandInClock(DWORD start = 0) : now(start) {}

    /// The tick, in milliseconds. Sleeping adds to it.
    DWORD now;

    /// What each look at the clock adds to it, before it is answered.
    DWORD perLook = 0;

    /// Called at the end of each sleep.
    std::function<void()> afterSleep;

    /// How long the sleeps were meant to be, in milliseconds.
    const std::vector<DWORD>& Sleeps() const { return sleeps_; }

private:
    std::vector<DWORD> sleeps_;

    HOOK(look_, GetTickCount, [this] { return now += perLook; });
    HOOK(sleep_, Sleep, [this](DWORD milliseconds) {
        sleeps_.push_back(milliseconds);
        now += milliseconds;
        if (afterSleep) {
            afterSleep();
        }
    });
};

} // namespace halvard_tests
