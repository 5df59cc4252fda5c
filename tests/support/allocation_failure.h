#pragma once

#include <cstddef>
#include <new>

namespace halvard_tests {

/// Makes one allocation of the scope fail with std::bad_alloc: the `nth`, counted from 1. Those
/// that hooks make do not count.
class AllocationFailure {
public:
    explicit AllocationFailure(int nth);
    ~AllocationFailure();
    AllocationFailure(const AllocationFailure&) = delete;
    AllocationFailure& operator=(const AllocationFailure&) = delete;

    /// Whether the allocation was reached.
    bool Happened() const;
};

/// Calls `run` with the first of its allocations failing, then with the second, and so on, at last
/// with none. `prepare` comes before each call; `after` behind it, and is told whether
/// std::bad_alloc left the call. Returns how many allocations failed.
template <class Prepare, class Run, class After>
int FailEachAllocation(Prepare prepare, Run run, After after) {
    for (int nth = 1;; ++nth) {
        prepare();
        bool thrown = false;
        bool happened = false;
        {
            const AllocationFailure failure(nth);
            try {
                run();
            } catch (const std::bad_alloc&) {
                thrown = true;
            }
            happened = failure.Happened();
        }
        after(thrown);
        if (!happened) {
            return nth - 1;
        }
    }
}

/// Counts the bytes that operator new hands out in its scope, less those that come back.
class LiveBytes {
public:
    LiveBytes();
    ~LiveBytes();
    LiveBytes(const LiveBytes&) = delete;
    LiveBytes& operator=(const LiveBytes&) = delete;

    /// The most bytes that were out at a time.
    std::size_t Peak() const;
};

} // namespace halvard_tests
