#include "import_hook.h"

#include <gtest/gtest.h>

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

TEST(ImportHook, RefusesASecondHookOfOneFunction) {
    COUNT_CALLS(first, GetCurrentProcessId);
    EXPECT_THROW(COUNT_CALLS(second, GetCurrentProcessId), std::logic_error);
    GetCurrentProcessId();
    EXPECT_EQ(first.Calls(), 1);
}
