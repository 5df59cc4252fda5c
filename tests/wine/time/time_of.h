#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>

namespace halvard_tests {

using Duration = std::chrono::duration<double>;

template <class Action>
Duration TimeOf(Action action) {
    const auto start = std::chrono::steady_clock::now();
    action();
    return std::chrono::steady_clock::now() - start;
}

/// A tenth of the time of ten runs: these take as long as one run of ten times the work, so that
/// what disturbs the machine disturbs both alike.
template <class TimedRun>
Duration OneOfTen(TimedRun timedRun) {
    Duration ten = Duration::zero();
    for (int run = 0; run < 10; ++run) {
        ten += timedRun();
    }
    return ten / 10;
}

/// How many times as long `many` takes as `few`; both return the Duration that they measured. The
/// shortest of up to nine runs counts, taken in turns, for what disturbs a run only makes it
/// longer. The second run is the last when the ratio is within `limit` then, or any later one; a
/// `few` that was disturbed both times makes the ratio a little smaller than it is.
template <class Few, class Many>
double Growth(Few few, Many many, double limit) {
    constexpr int runs = 9;
    Duration shortestFew = Duration::max();
    Duration shortestMany = Duration::max();
    for (int run = 0; run < runs; ++run) {
        shortestFew = std::min<Duration>(shortestFew, few());
        shortestMany = std::min<Duration>(shortestMany, many());
        if (run > 0 && shortestMany <= limit * shortestFew) {
            break;
        }
    }
    return shortestMany / shortestFew;
}

/// Expects ten times the work on files, `many`, within twelve times the time of `few`. Where the
/// file system itself does not manage that, which some below Wine do not, `many` may take three
/// times as long as `bare`, the system's calls for as much work without anything of the library.
template <class Few, class Many, class Bare>
void ExpectLinear(Few few, Many many, Bare bare) {
    const double growth = Growth(few, many, 12);
    if (growth > 12) {
        EXPECT_LE(Growth(bare, many, 3), 3) << "ten times the work takes " << growth << " times";
    }
}

} // namespace halvard_tests
