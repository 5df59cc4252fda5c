// Blocks that do not come from operator new, whose damage the system's check of the heap has to
// show.

#include <gtest/gtest.h>

#include <windows.h>

#include <cstdlib>

namespace {

// Above what an engine may keep in a part of the heap without marks.
constexpr std::size_t kBlockSize = 100000;

// No compiler sees that the fault goes behind the block.
void WriteBehind(void* memory) {
    static volatile char* volatile block;
    block = static_cast<volatile char*>(memory);
    block[kBlockSize] = 1;
}

} // namespace

TEST(Canary, WritesBehindABlockOfTheSystem) {
    WriteBehind(HeapAlloc(GetProcessHeap(), 0, kBlockSize));
}

TEST(Canary, WritesBehindABlockOfTheRunTime) {
    WriteBehind(std::malloc(kBlockSize));
}
