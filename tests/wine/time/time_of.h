#pragma once

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

/// How many times as long `many` takes as `few`; both return the Duration that they measured. The
/// shortest of several runs counts, taken in turns, for what disturbs a run only makes it longer;
/// no more runs are made than it takes to come down to `limit`.
template <class Few, class Many>
double Growth(Few few, Many many, double limit) {
    constexpr int runs = 20;
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

} // namespace halvard_tests
