#include "steady_starts.h"

#include "import_hook.h"

#include <windows.h>

#include <gtest/gtest.h>

#include <vector>

using halvard_tests::StartOnceMoreIfLost;

namespace {

struct Starts {
    std::vector<DWORD> codes; // of the calls in turn, NO_ERROR for a start
    std::size_t calls;
    int started;
    DWORD lastError;
};

} // namespace

TEST(SteadyStarts, WhatTheEngineLostIsStartedOnceMoreAndNothingElse) {
    const Starts cases[] = {
        {{NO_ERROR}, 1, TRUE, NO_ERROR},
        {{ERROR_INTERNAL_ERROR, NO_ERROR}, 2, TRUE, NO_ERROR},
        {{ERROR_INTERNAL_ERROR, ERROR_INTERNAL_ERROR}, 2, FALSE, ERROR_INTERNAL_ERROR},
        {{ERROR_INTERNAL_ERROR, ERROR_ACCESS_DENIED}, 2, FALSE, ERROR_ACCESS_DENIED},
        {{ERROR_FILE_NOT_FOUND, NO_ERROR}, 1, FALSE, ERROR_FILE_NOT_FOUND},
    };
    for (const Starts& each : cases) {
        std::size_t calls = 0;
        std::size_t told = 0;
        const auto start = [&] {
            SetLastError(each.codes[calls++]);
            return GetLastError() == NO_ERROR ? TRUE : FALSE;
        };
        const int started = StartOnceMoreIfLost(start, [&] { ++told; });
        EXPECT_EQ(calls, each.calls);
        EXPECT_EQ(told, each.calls - 1);
        EXPECT_EQ(started, each.started);
        EXPECT_EQ(GetLastError(), each.lastError);
    }
}

TEST(SteadyStarts, ATestSeesItsCallsOnceAndMayRefuseThem) {
    FAIL_CALL(creating, CreateProcessW, 0, FALSE, ERROR_INTERNAL_ERROR);
    wchar_t line[] = L"none.exe";
    STARTUPINFOW startup = {};
    startup.cb = sizeof(startup);
    PROCESS_INFORMATION created = {};
    EXPECT_EQ(CreateProcessW(nullptr, line, nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup,
                             &created),
              FALSE);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INTERNAL_ERROR));
    EXPECT_EQ(creating.Calls(), 1);
}

TEST(SteadyStarts, HoldForTheWholeProgram) {
    HMODULE owner = nullptr;
    GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS |
                           GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                       static_cast<LPCWSTR>(*halvard_tests::ImportSlot("CreateProcessW")), &owner);
    EXPECT_EQ(owner, GetModuleHandleW(nullptr));
}
