#include "runtime/session.h"

#include "allocation_failure.h"
#include "call_trace.h"
#include "import_hook.h"
#include "stand_in_session.h"

#include <msi.h>
#include <msiquery.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <new>

using halvard::LogMessage;
using halvard::ReadCustomActionData;
using halvard_tests::CallTrace;
using halvard_tests::kInstaller;
using halvard_tests::StandInSession;

namespace {

const MSIHANDLE sessionAtProgramStart = halvard::CurrentSession();

} // namespace

TEST(LogMessage, WritesOneInformationMessage) {
    const StandInSession session;
    LogMessage(session.Get(), L"Quenby_CA plain\n");
    const std::vector<halvard_tests::SessionMessage> expected = {
        {0x04000000, L"Quenby_CA plain\n"}};
    EXPECT_EQ(session.Messages(), expected);
}

TEST(LogMessage, AddsNothingToTheText) {
    const StandInSession session;
    LogMessage(session.Get(), L"no prefix, no line end");
    EXPECT_EQ(session.LogLines(), Lines{L"no prefix, no line end"});
}

TEST(LogMessage, FormatsAsWsprintfDoes) {
    const StandInSession session;
    LogMessage(session.Get(), L"%s|%ls|%d|%%", L"\u0416wide", L"also wide", -7);
    EXPECT_EQ(session.LogLines(), Lines{L"\u0416wide|also wide|-7|%"});
}

TEST(LogMessage, CreatesSetsSendsAndClosesARecordWithoutFields) {
    const StandInSession session;
    const CallTrace calls(kInstaller);
    LogMessage(session.Get(), L"text");
    EXPECT_EQ(calls.All(),
              (Lines{L"create record 0", L"set field 0 text",
                     L"send 0x4000000 to " + std::to_wstring(session.Get()), L"close record"}));
}

TEST(LogMessage, LeavesSquareBracketsToTheEngine) {
    const StandInSession session;
    const CallTrace calls(kInstaller);
    LogMessage(session.Get(), L"%s", L"C:\\[ProductName]");
    EXPECT_EQ(calls.Rests(L"set field 0 "), Lines{L"C:\\[ProductName]"});
    EXPECT_EQ(session.LogLines(), Lines{L"C:\\Stand-in"});
}

TEST(LogMessage, SendsTextsThatFitAndNeverACutOne) {
    const StandInSession session;
    const std::pair<std::size_t, bool> lengths[] = {
        {0, true},     {518, true},   {519, true},   {520, false},  {521, false},
        {1022, false}, {1023, false}, {1024, false}, {2000, false}, {30000, false},
    };
    for (const auto& [length, fits] : lengths) {
        const std::wstring text(length, L'x');
        const CallTrace calls(kInstaller);
        LogMessage(session.Get(), L"%s", text.c_str());
        EXPECT_EQ(calls.Rests(L"set field 0 "), Lines{fits ? text : L"CA buffer overflow\n"})
            << length;
    }
}

TEST(LogMessage, ReportsAFailedFormattingAsOverflow) {
    const StandInSession session;
    FAIL_CALL(formatting, wvsprintfW, 0, -1, ERROR_SUCCESS);
    LogMessage(session.Get(), L"text");
    EXPECT_EQ(session.LogLines(), Lines{L"CA buffer overflow\n"});
}

// The stack protector ends this program when the formatter's own limit does not fit.
TEST(LogMessage, HasRoomForAllThatTheFormatterMayWrite) {
    const StandInSession session;
    HOOK(formatting, wvsprintfW, [](LPWSTR buffer, LPCWSTR, va_list) {
        std::fill(buffer, buffer + 1024, L'x');
        buffer[1024] = L'\0';
        return 1024;
    });
    LogMessage(session.Get(), L"text");
    EXPECT_EQ(session.LogLines(), Lines{L"CA buffer overflow\n"});
}

TEST(LogMessage, MakesItsCallsButClosesNothingWithoutARecord) {
    const StandInSession session;
    const CallTrace calls(kInstaller, 1);
    LogMessage(session.Get(), L"text");
    EXPECT_EQ(calls.All(), (Lines{L"create record 0", L"set field 0 text",
                                  L"send 0x4000000 to " + std::to_wstring(session.Get())}));
    EXPECT_EQ(session.LogLines(), Lines{});
}

TEST(LogMessage, IgnoresThatTheTextCannotBeSetOrSent) {
    const StandInSession session;
    for (const std::size_t failing : {2U, 3U}) {
        const CallTrace calls(kInstaller, failing);
        LogMessage(session.Get(), L"text");
        EXPECT_EQ(calls.All().size(), 4U);
        EXPECT_EQ(calls.LeftOpen(), Lines{});
    }
}

TEST(LogMessage, LosesTheTextWithoutASession) {
    const StandInSession session;
    const CallTrace calls(kInstaller);
    LogMessage(0, L"lost");
    EXPECT_EQ(calls.All(), (Lines{L"create record 0", L"set field 0 lost", L"send 0x4000000 to 0",
                                  L"close record"}));
    EXPECT_EQ(session.Messages().size(), 0U);
}

TEST(ReadCustomActionData, ReturnsAndLogsTheWholeProperty) {
    const StandInSession session;
    session.SetProperty(L"CustomActionData", L"InstallDir=C:\\X;DLLName=a.dll");
    EXPECT_EQ(ReadCustomActionData(session.Get()), L"InstallDir=C:\\X;DLLName=a.dll");
    EXPECT_EQ(session.LogLines(), Lines{L"CustomActionData: InstallDir=C:\\X;DLLName=a.dll"});
}

TEST(ReadCustomActionData, AMissingPropertyIsEmpty) {
    const StandInSession session;
    EXPECT_EQ(ReadCustomActionData(session.Get()), L"");
    EXPECT_EQ(session.LogLines(), Lines{L"CustomActionData: "});
}

TEST(ReadCustomActionData, AnInvalidSessionGivesAnEmptyText) {
    EXPECT_EQ(ReadCustomActionData(0), L"");
}

TEST(ReadCustomActionData, ReadsPropertiesOfAnyLength) {
    const StandInSession session;
    for (const std::size_t length : {1U, 500U, 501U, 30000U}) {
        const std::wstring data(length, L'v');
        session.SetProperty(L"CustomActionData", data);
        EXPECT_EQ(ReadCustomActionData(session.Get()), data) << length;
    }
    // "CustomActionData: " has 18 characters, and 519 fit the line.
    EXPECT_EQ(session.LogLines(),
              (Lines{L"CustomActionData: v", L"CustomActionData: " + std::wstring(500, L'v'),
                     L"CustomActionData: " + std::wstring(501, L'v'), L"CA buffer overflow\n"}));
}

TEST(ReadCustomActionData, AsksForTheLengthFirstAndThenForTheText) {
    const StandInSession session;
    session.SetProperty(L"CustomActionData", L"abc");
    std::vector<DWORD> capacities;
    HOOK(reading, MsiGetPropertyW,
         [&](MSIHANDLE handle, LPCWSTR name, LPWSTR buffer, LPDWORD length) {
             EXPECT_EQ(handle, session.Get());
             EXPECT_STREQ(name, L"CustomActionData");
             EXPECT_NE(buffer, nullptr);
             EXPECT_EQ(buffer[0], L'\0');
             capacities.push_back(*length);
             return reading.Original(handle, name, buffer, length);
         });
    EXPECT_EQ(ReadCustomActionData(session.Get()), L"abc");
    EXPECT_EQ(capacities, (std::vector<DWORD>{0, 4}));
}

TEST(ReadCustomActionData, IgnoresTheResultsOfBothCalls) {
    const StandInSession session;
    HOOK(reading, MsiGetPropertyW, [&](MSIHANDLE, LPCWSTR, LPWSTR buffer, LPDWORD length) {
        if (reading.Calls() == 1) {
            *length = 3;
        } else {
            std::copy_n(L"ab", 3, buffer);
        }
        return ERROR_INVALID_HANDLE;
    });
    EXPECT_EQ(ReadCustomActionData(session.Get()), L"ab");
    EXPECT_EQ(session.LogLines(), Lines{L"CustomActionData: ab"});
}

TEST(ReadCustomActionData, APropertyThatGrowsBetweenTheCallsIsCutToWhatFits) {
    const StandInSession session;
    session.SetProperty(L"CustomActionData", L"abc");
    HOOK(reading, MsiGetPropertyW,
         [&](MSIHANDLE handle, LPCWSTR name, LPWSTR buffer, LPDWORD length) {
             if (reading.Calls() == 2) {
                 session.SetProperty(L"CustomActionData", L"abcdefgh");
             }
             return reading.Original(handle, name, buffer, length);
         });
    EXPECT_EQ(ReadCustomActionData(session.Get()), L"abc");
}

TEST(ReadCustomActionData, AnEngineThatFillsTheBufferToTheBrimIsNoOverrun) {
    const StandInSession session;
    HOOK(reading, MsiGetPropertyW, [&](MSIHANDLE, LPCWSTR, LPWSTR buffer, LPDWORD length) {
        if (reading.Calls() == 1) {
            *length = 3;
        } else {
            std::fill(buffer, buffer + *length, L'f');
        }
        return ERROR_SUCCESS;
    });
    EXPECT_EQ(ReadCustomActionData(session.Get()), L"ffff");
}

TEST(ReadCustomActionData, LetsAFailedAllocationThrough) {
    const StandInSession session;
    session.SetProperty(L"CustomActionData", std::wstring(100, L'v'));
    const halvard_tests::AllocationFailure failure(1);
    EXPECT_THROW(ReadCustomActionData(session.Get()), std::bad_alloc);
    EXPECT_TRUE(failure.Happened());
}

TEST(CurrentSession, IsZeroUntilAnActionStoresOne) {
    EXPECT_EQ(sessionAtProgramStart, 0U);
}

TEST(CurrentSession, KeepsTheHandleStoredLast) {
    halvard::SetCurrentSession(17);
    halvard::SetCurrentSession(18);
    EXPECT_EQ(halvard::CurrentSession(), 18U);
    halvard::SetCurrentSession(0);
    EXPECT_EQ(halvard::CurrentSession(), 0U);
}
