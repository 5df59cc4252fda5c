// Faults that the checkers have to report. Nothing but their reports fails these tests, each of
// which the test runner starts by itself and wants to see fail.

#include <gtest/gtest.h>

#include <climits>
#include <cstddef>

namespace {

// Read when it runs, so that no compiler sees where a fault goes or leaves it out.
volatile std::size_t blockSize = 10;
volatile int largest = INT_MAX;
volatile int bitsOfNoInt = 40;
volatile int sink;

volatile char* NewBlock() {
    static char* volatile block;
    block = new char[blockSize];
    return block;
}

} // namespace

TEST(Canary, WritesBehindABlock) {
    volatile char* const block = NewBlock();
    block[blockSize] = 1;
    delete[] block;
}

TEST(Canary, WritesIntoAFreeBlock) {
    volatile char* const block = NewBlock();
    delete[] block;
    block[0] = 1;
}

TEST(Canary, ShiftsTooFar) {
    sink = 1 << bitsOfNoInt;
}

TEST(Canary, OverflowsAnInt) {
    sink = largest + 1;
}
