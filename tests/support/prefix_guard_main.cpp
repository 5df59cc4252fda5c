// prefix_guard: exit code 0 when programs that delete folders may run in this Wine prefix, else 1
// and the reason on standard error.

#include "prefix_guard.h"

#include <cstdio>

int main() {
    const std::wstring danger = halvard_tests::PrefixDanger();
    if (!danger.empty()) {
        std::fwprintf(stderr, L"unsafe prefix: %ls\n", danger.c_str());
        return 1;
    }
    return 0;
}
