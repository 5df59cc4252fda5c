#include "call_trace.h"

#include "registry_key.h"
#include "stand_in_session.h"

#include <gtest/gtest.h>

#include <shlwapi.h>

using halvard_tests::CallTrace;
using halvard_tests::kEveryCall;
using halvard_tests::kFileQuestions;
using halvard_tests::kRegistry;
using halvard_tests::kRegistryListing;
using halvard_tests::ScratchKey;

namespace {

// Reads a value that is missing.
LSTATUS ReadBelow(const ScratchKey& scratch) {
    HKEY key = nullptr;
    const LSTATUS status =
        RegOpenKeyExW(HKEY_LOCAL_MACHINE, scratch.Path().c_str(), 0, KEY_READ, &key);
    if (status != ERROR_SUCCESS) {
        return status;
    }
    const LSTATUS read =
        RegGetValueW(key, nullptr, L"none", RRF_RT_REG_SZ, nullptr, nullptr, nullptr);
    RegCloseKey(key);
    return read;
}

} // namespace

TEST(CallTrace, ShowsTheCallsOfItsGroupsByWhatTheyAreMadeFor) {
    const ScratchKey scratch;
    const std::wstring path = L"HKLM\\" + scratch.Path();
    const CallTrace trace(kRegistry);
    PathFileExistsW(L"C:\\");
    ReadBelow(scratch);
    EXPECT_EQ(trace.All(), (Lines{L"open " + path + L" 0x20019", L"size of " + path + L" none 0x2",
                                  L"close " + path}));
    EXPECT_EQ(trace.Count(), 2U);
    EXPECT_EQ(trace.Of({L"size", L"close"}).size(), 2U);
    EXPECT_EQ(trace.Rests(L"close "), Lines{path});
}

TEST(CallTrace, MakesTheCallOfANumberFail) {
    const ScratchKey scratch;
    {
        const CallTrace trace(kRegistry, 1, ERROR_BUSY);
        EXPECT_EQ(ReadBelow(scratch), ERROR_BUSY);
        EXPECT_EQ(trace.All().size(), 1U);
    }
    const CallTrace trace(kRegistry, 2);
    EXPECT_EQ(ReadBelow(scratch), ERROR_ACCESS_DENIED);
    EXPECT_EQ(ReadBelow(scratch), ERROR_FILE_NOT_FOUND);
}

TEST(CallTrace, MakesTheCallFailWhoseLineBeginsSo) {
    const ScratchKey scratch;
    CallTrace trace(kRegistry);
    trace.Fail(L"size of", ERROR_BUSY, 2);
    EXPECT_EQ(ReadBelow(scratch), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(ReadBelow(scratch), ERROR_BUSY);
    EXPECT_EQ(ReadBelow(scratch), ERROR_FILE_NOT_FOUND);
}

TEST(CallTrace, MakesEachCallFailWhoseLineBeginsSo) {
    const ScratchKey scratch;
    CallTrace trace(kRegistry);
    trace.Fail(L"size of", ERROR_BUSY, 0);
    EXPECT_EQ(ReadBelow(scratch), ERROR_BUSY);
    EXPECT_EQ(ReadBelow(scratch), ERROR_BUSY);
}

TEST(CallTrace, MakesTheCallFailThatIsAboutToCome) {
    const ScratchKey scratch;
    CallTrace trace(kRegistry);
    trace.before = [&](const std::wstring& line) {
        if (trace.Count() == 2) {
            trace.Fail(line, ERROR_BUSY);
        }
    };
    EXPECT_EQ(ReadBelow(scratch), ERROR_BUSY);
    EXPECT_EQ(ReadBelow(scratch), ERROR_FILE_NOT_FOUND);
}

TEST(CallTrace, FailsEachFunctionInItsOwnWay) {
    const CallTrace trace(kEveryCall, 1, ERROR_BUSY);
    EXPECT_EQ(GetFileAttributesW(L"C:\\"), INVALID_FILE_ATTRIBUTES);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_BUSY));
    EXPECT_NE(GetFileAttributesW(L"C:\\"), INVALID_FILE_ATTRIBUTES);
}

TEST(CallTrace, TellsWhatIsLeftOpen) {
    const ScratchKey scratch;
    const CallTrace trace(kRegistry);
    HKEY key = nullptr;
    ASSERT_EQ(RegOpenKeyExW(HKEY_LOCAL_MACHINE, scratch.Path().c_str(), 0, KEY_READ, &key),
              ERROR_SUCCESS);
    EXPECT_EQ(trace.LeftOpen(), Lines{L"open HKLM\\" + scratch.Path() + L" 0x20019"});
    RegCloseKey(key);
    EXPECT_EQ(trace.LeftOpen(), Lines{});
}

TEST(CallTrace, PassesOverWhatIsCalledInBetween) {
    const ScratchKey scratch;
    CallTrace trace(kRegistry | kFileQuestions, 2);
    Lines before;
    trace.before = [&](const std::wstring& line) {
        before.push_back(line);
        ReadBelow(scratch);
    };
    PathFileExistsW(L"C:\\");
    EXPECT_EQ(before, Lines{L"is there C:\\"});
    EXPECT_EQ(trace.All(), before);
}

TEST(CallTrace, LetsAHookStandInBelowIt) {
    const ScratchKey scratch;
    FAIL_CALL(opening, RegOpenKeyExW, 1, ERROR_BUSY, NO_ERROR);
    const CallTrace trace(kRegistry);
    EXPECT_EQ(ReadBelow(scratch), ERROR_BUSY);
    EXPECT_EQ(trace.All().size(), 1U);
    EXPECT_EQ(trace.LeftOpen(), Lines{});
}
