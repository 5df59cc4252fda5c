#include "prefix_guard.h"

#include <gtest/gtest.h>

#include <cstdio>

int main(int argc, char** argv) {
    const std::wstring danger = halvard_tests::PrefixDanger();
    if (!danger.empty()) {
        std::fwprintf(stderr, L"unsafe prefix, no test is run: %ls\n", danger.c_str());
        return 1;
    }
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
