#include "import_hook.h"

#include "allocation_failure.h"

#include <gtest/gtest.h>

#include <memory>
#include <new>
#include <vector>

TEST(ImportHook, ReplacesAFunctionForTheLengthOfTheScope) {
    const DWORD real = GetCurrentProcessId();
    {
        HOOK(process, GetCurrentProcessId, [&] { return process.Original() + 1; });
        EXPECT_EQ(GetCurrentProcessId(), real + 1);
        EXPECT_EQ(process.Calls(), 1);
    }
    EXPECT_EQ(GetCurrentProcessId(), real);
}

TEST(ImportHook, MakesOneCallFailAndLetsTheOthersThrough) {
    FAIL_CALL(attributes, GetFileAttributesW, 2, INVALID_FILE_ATTRIBUTES, ERROR_ACCESS_DENIED);
    EXPECT_NE(GetFileAttributesW(L"C:\\"), INVALID_FILE_ATTRIBUTES);
    EXPECT_EQ(GetFileAttributesW(L"C:\\"), INVALID_FILE_ATTRIBUTES);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_ACCESS_DENIED));
    EXPECT_NE(GetFileAttributesW(L"C:\\"), INVALID_FILE_ATTRIBUTES);
    EXPECT_EQ(attributes.Calls(), 3);
}

TEST(ImportHook, MakesEveryCallFail) {
    FAIL_CALL(attributes, GetFileAttributesW, 0, INVALID_FILE_ATTRIBUTES, ERROR_ACCESS_DENIED);
    EXPECT_EQ(GetFileAttributesW(L"C:\\"), INVALID_FILE_ATTRIBUTES);
    EXPECT_EQ(GetFileAttributesW(L"C:\\"), INVALID_FILE_ATTRIBUTES);
}

TEST(ImportHook, RefusesWhatTheProgramDoesNotImport) {
    EXPECT_THROW(halvard_tests::ImportSlot("NoSuchFunctionW"), std::runtime_error);
}

TEST(ImportHook, StandsInFrontOfAnEarlierHookOfTheFunction) {
    const DWORD real = GetCurrentProcessId();
    HOOK(first, GetCurrentProcessId, [&] { return first.Original() + 1; });
    {
        HOOK(second, GetCurrentProcessId, [&] { return 2 * second.Original(); });
        EXPECT_EQ(GetCurrentProcessId(), 2 * (real + 1));
    }
    EXPECT_EQ(GetCurrentProcessId(), real + 1);
    EXPECT_EQ(first.Calls(), 2);
}

TEST(ImportHook, MayGoBeforeALaterOne) {
    const DWORD real = GetCurrentProcessId();
    {
        auto first = std::make_unique<halvard_tests::ImportHook<&GetCurrentProcessId>>(
            "GetCurrentProcessId", [] { return DWORD{1}; });
        HOOK(second, GetCurrentProcessId, [&] { return second.Original() + 1; });
        EXPECT_EQ(GetCurrentProcessId(), 2U);
        first.reset();
        EXPECT_EQ(GetCurrentProcessId(), real + 1);
    }
    EXPECT_EQ(GetCurrentProcessId(), real);
}

TEST(ImportHook, TellsWhatAHookCallsItselfFromWhatTheCodeCalls) {
    std::vector<int> depths;
    HOOK(inner, GetCurrentProcessId, [&] {
        depths.push_back(halvard_tests::HookDepth());
        return inner.Original();
    });
    GetCurrentProcessId();
    HOOK(outer, GetTickCount, [&] { return GetCurrentProcessId(); });
    GetTickCount();
    EXPECT_EQ(depths, (std::vector<int>{1, 2}));
    EXPECT_EQ(halvard_tests::HookDepth(), 0);
}

TEST(ImportHook, AllocatesWithoutBeingCounted) {
    std::vector<int> kept;
    HOOK(process, GetCurrentProcessId, [&] {
        kept.push_back(1);
        return process.Original();
    });
    bool atTheHook = false;
    bool afterIt = false;
    {
        const halvard_tests::AllocationFailure failure(1);
        GetCurrentProcessId();
        atTheHook = failure.Happened();
        try {
            kept = std::vector<int>(2);
        } catch (const std::bad_alloc&) {
            afterIt = true;
        }
    }
    EXPECT_FALSE(atTheHook);
    EXPECT_TRUE(afterIt);
}
