#include "allocation_failure.h"

#include <cstdlib>
#include <new>

namespace {

// 0 while no failure is wanted, else how many allocations are left until the one that fails.
int allocationsLeft = 0;
bool happened = false;

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

} // namespace halvard_tests

void* operator new(std::size_t size) {
    if (allocationsLeft > 0 && --allocationsLeft == 0) {
        happened = true;
        throw std::bad_alloc();
    }
    void* const memory = std::malloc(size == 0 ? 1 : size);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}

void* operator new[](std::size_t size) {
    return operator new(size);
}
void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete[](void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}
void operator delete[](void* memory, std::size_t) noexcept {
    std::free(memory);
}
