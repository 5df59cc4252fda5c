#include "heap_check.h"
#include "prefix_guard.h"

#include <gtest/gtest.h>

#include <cstdio>

namespace {

class HeapCheckAfterEachTest : public testing::EmptyTestEventListener {
    void OnTestEnd(const testing::TestInfo&) override {
        EXPECT_EQ(halvard_tests::TakeDamagedBlocks(), 0) << "memory was written outside a block";
        EXPECT_TRUE(halvard_tests::HeapsAreSound()) << "memory was written outside a block";
    }
};

} // namespace

int main(int argc, char** argv) {
    const std::wstring danger = halvard_tests::PrefixDanger();
    if (!danger.empty()) {
        std::fwprintf(stderr, L"unsafe prefix, no test is run: %ls\n", danger.c_str());
        return 1;
    }
    testing::InitGoogleTest(&argc, argv);
    testing::UnitTest::GetInstance()->listeners().Append(new HeapCheckAfterEachTest);
    return RUN_ALL_TESTS();
}
