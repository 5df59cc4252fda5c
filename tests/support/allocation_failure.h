#pragma once

#include <cstddef>

namespace halvard_tests {

/// Makes one allocation of the scope fail with std::bad_alloc: the `nth`, counted from 1.
class AllocationFailure {
public:
    explicit AllocationFailure(int nth);
    ~AllocationFailure();
    AllocationFailure(const AllocationFailure&) = delete;
    AllocationFailure& operator=(const AllocationFailure&) = delete;

    /// Whether the allocation was reached.
    bool Happened() const;
};

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
