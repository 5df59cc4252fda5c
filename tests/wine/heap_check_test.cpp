#include "heap_check.h"

#include <gtest/gtest.h>

#include <windows.h>

#include <cstring>

using namespace halvard_tests;

namespace {

constexpr std::size_t kSize = 10;

// What the test writes is meant to be wrong, so that no compiler may see where it goes.
unsigned char* Anywhere(void* memory) {
    static unsigned char* volatile hidden;
    hidden = static_cast<unsigned char*>(memory);
    return hidden;
}

} // namespace

TEST(HeapCheck, CountsABlockThatWasWrittenBehindOrBefore) {
    for (const std::ptrdiff_t offset : {std::ptrdiff_t{kSize}, std::ptrdiff_t{kSize + 15},
                                        std::ptrdiff_t{-1}, std::ptrdiff_t{-16}}) {
        auto* const memory = static_cast<unsigned char*>(operator new(kSize));
        Anywhere(memory)[offset] ^= 1;
        operator delete(memory);
        EXPECT_EQ(TakeDamagedBlocks(), 1) << offset;
    }
    auto* const whole = static_cast<unsigned char*>(operator new(kSize));
    std::memset(whole, 0, kSize);
    operator delete(whole);
    EXPECT_EQ(TakeDamagedBlocks(), 0);
}

TEST(HeapCheck, SeesAWriteBehindABlockOfTheSystem) {
    // Above what an engine may keep in a part of the heap without marks.
    constexpr std::size_t large = 100000;
    EXPECT_TRUE(SeesAWriteBehind(large));
    EXPECT_TRUE(HeapsAreSound());
}
