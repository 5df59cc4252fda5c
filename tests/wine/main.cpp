#include "heap_check.h"
#include "prefix_guard.h"

#include <windows.h>

#include <gtest/gtest.h>

#include <cstdio>

namespace {

class HeapCheckAfterEachTest : public testing::EmptyTestEventListener {
    void OnTestEnd(const testing::TestInfo&) override {
        EXPECT_EQ(halvard_tests::TakeDamagedBlocks(), 0) << "memory was written outside a block";
        EXPECT_TRUE(halvard_tests::HeapsAreSound()) << "memory was written outside a block";
    }
};

// The exit code does not tell it: the engine's debugger may end the process before its own code
// does.
LONG WINAPI TellOfUndefinedArithmetic(EXCEPTION_POINTERS* fault) {
    if (fault->ExceptionRecord->ExceptionCode == EXCEPTION_ILLEGAL_INSTRUCTION) {
        std::printf("ERROR: arithmetic that is not defined\n");
        std::fflush(stdout);
    }
    return EXCEPTION_CONTINUE_SEARCH;
}

} // namespace

int main(int argc, char** argv) {
    const std::wstring danger = halvard_tests::PrefixDanger();
    if (!danger.empty()) {
        std::fwprintf(stderr, L"unsafe prefix, no test is run: %ls\n", danger.c_str());
        return 1;
    }
    SetUnhandledExceptionFilter(TellOfUndefinedArithmetic);
    testing::InitGoogleTest(&argc, argv);
    testing::UnitTest::GetInstance()->listeners().Append(new HeapCheckAfterEachTest);
    return RUN_ALL_TESTS();
}
