#include "allocation_failure.h"

#include "heap_check.h"
#include "import_hook.h"

#include <algorithm>
#include <cstdint>
#include <new>

namespace {

// 0 while no failure is wanted, else how many allocations are left until the one that fails.
int allocationsLeft = 0;
bool happened = false;

// Below zero when blocks come back that were handed out before the count.
bool counting = false;
std::int64_t live = 0;
std::int64_t peak = 0;

void Count(void* memory, int sign) {
    if (counting && memory != nullptr) {
        live += sign * static_cast<std::int64_t>(halvard_tests::GuardedSize(memory));
        peak = std::max(peak, live);
    }
}

} // namespace

namespace halvard_tests {

AllocationFailure::AllocationFailure(int nth) {
    happened = false;
    allocationsLeft = nth;
}

AllocationFailure::~AllocationFailure() {
    allocationsLeft = 0;
}

bool AllocationFailure::Happened() const {
    return happened;
}

LiveBytes::LiveBytes() {
    live = 0;
    peak = 0;
    counting = true;
}

LiveBytes::~LiveBytes() {
    counting = false;
}

std::size_t LiveBytes::Peak() const {
    return static_cast<std::size_t>(peak);
}

} // namespace halvard_tests

void* operator new(std::size_t size) {
    if (allocationsLeft > 0 && halvard_tests::HookDepth() == 0 && --allocationsLeft == 0) {
        happened = true;
        throw std::bad_alloc();
    }
    void* const memory = halvard_tests::AllocateGuarded(size);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    Count(memory, 1);
    return memory;
}

void* operator new[](std::size_t size) {
    return operator new(size);
}
void operator delete(void* memory) noexcept {
    Count(memory, -1);
    halvard_tests::FreeGuarded(memory);
}
void operator delete[](void* memory) noexcept {
    operator delete(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
    operator delete(memory);
}
void operator delete[](void* memory, std::size_t) noexcept {
    operator delete(memory);
}
