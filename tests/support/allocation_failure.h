#pragma once

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

} // namespace halvard_tests
