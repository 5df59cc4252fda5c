#include "runtime/launch_conditions.h"

#include "runtime/session.h"

#include "allocation_failure.h"
#include "call_trace.h"
#include "current_session.h"
#include "import_hook.h"
#include "stand_in_session.h"

#include <msi.h>
#include <msiquery.h>

#include <gtest/gtest.h>

#include <new>
#include <optional>

using halvard::BlockLaunch;
using halvard::LaunchedFromMIM;
using halvard_tests::CallTrace;
using halvard_tests::CurrentSessionScope;
using halvard_tests::kInstaller;
using halvard_tests::StandInSession;

namespace {

constexpr wchar_t kRefusalLine[] = L"QUENBY_CA Not Launched from MIM and unable to get property";
constexpr wchar_t kRefusalMessage[] =
    L"This package requires Zenvo Installer Setup.\nPlease obtain and install Zenvo Installer from "
    L"www.zenvo.example to continue installing this package.\nThis application will now abort.";

void SetLaunchedFromMIM(const StandInSession& session, const std::optional<std::wstring>& value) {
    if (value) {
        session.SetProperty(L"LAUNCHED_FROM_MIM", *value);
    }
}

} // namespace

class AcceptedLaunch : public testing::TestWithParam<std::wstring> {};

TEST_P(AcceptedLaunch, GoesOnAndSaysSoInTheLog) {
    for (const auto action : {LaunchedFromMIM, BlockLaunch}) {
        const StandInSession session;
        SetLaunchedFromMIM(session, GetParam());
        EXPECT_EQ(action(session.Get()), 0U);
        const std::vector<halvard_tests::SessionMessage> expected = {
            {0x04000000, L"QUENBY_CA Launched from MIM: " + GetParam() + L" \n"}};
        EXPECT_EQ(session.Messages(), expected);
    }
}

INSTANTIATE_TEST_SUITE_P(LaunchConditions, AcceptedLaunch,
                         testing::Values(L"1", L"1x", L"100", L"1" + std::wstring(258, L'0')));

class RefusedLaunch : public testing::TestWithParam<std::optional<std::wstring>> {};

TEST_P(RefusedLaunch, LogsALineTellsTheUserAndReports1612) {
    const StandInSession session;
    SetLaunchedFromMIM(session, GetParam());
    EXPECT_EQ(LaunchedFromMIM(session.Get()), 1612U);
    const std::vector<halvard_tests::SessionMessage> expected = {{0x04000000, kRefusalLine},
                                                                 {0x03000000, kRefusalMessage}};
    EXPECT_EQ(session.Messages(), expected);
}

TEST_P(RefusedLaunch, BlocksWith1603AndTheSameMessage) {
    const StandInSession session;
    SetLaunchedFromMIM(session, GetParam());
    EXPECT_EQ(BlockLaunch(session.Get()), 1603U);
    const std::vector<halvard_tests::SessionMessage> expected = {{0x04000000, kRefusalLine},
                                                                 {0x03000000, kRefusalMessage}};
    EXPECT_EQ(session.Messages(), expected);
}

INSTANTIATE_TEST_SUITE_P(LaunchConditions, RefusedLaunch,
                         testing::Values(std::nullopt, L"", L"0", L" 1", L"01", L"x1",
                                         L"1" + std::wstring(259, L'0'),
                                         std::wstring(30000, L'1')));

TEST(LaunchedFromMIM, ReadsThePropertyIntoABufferOf260Characters) {
    const StandInSession session;
    session.SetProperty(L"LAUNCHED_FROM_MIM", L"1");
    HOOK(reading, MsiGetPropertyW,
         [&](MSIHANDLE handle, LPCWSTR name, LPWSTR buffer, LPDWORD length) {
             EXPECT_EQ(handle, session.Get());
             EXPECT_STREQ(name, L"LAUNCHED_FROM_MIM");
             EXPECT_EQ(*length, 260U);
             return reading.Original(handle, name, buffer, length);
         });
    EXPECT_EQ(LaunchedFromMIM(session.Get()), 0U);
    EXPECT_EQ(reading.Calls(), 1);
}

TEST(LaunchedFromMIM, RefusesWhenThePropertyCannotBeRead) {
    const StandInSession session;
    session.SetProperty(L"LAUNCHED_FROM_MIM", L"1");
    HOOK(reading, MsiGetPropertyW,
         [&](MSIHANDLE handle, LPCWSTR name, LPWSTR buffer, LPDWORD length) {
             reading.Original(handle, name, buffer, length);
             return ERROR_INVALID_HANDLE;
         });
    EXPECT_EQ(LaunchedFromMIM(session.Get()), 1612U);
    EXPECT_EQ(session.LogLines(), Lines{kRefusalLine});
}

TEST(LaunchedFromMIM, SendsTheMessageInARecordOfTwoFieldsAndClosesIt) {
    const StandInSession session;
    const std::wstring number = std::to_wstring(session.Get());
    const CallTrace calls(kInstaller);
    LaunchedFromMIM(session.Get());
    EXPECT_EQ(calls.All(),
              (Lines{L"create record 0", std::wstring(L"set field 0 ") + kRefusalLine,
                     L"send 0x4000000 to " + number, L"close record", L"create record 2",
                     std::wstring(L"set field 0 ") + kRefusalMessage,
                     L"send 0x3000000 to " + number, L"close record"}));
}

TEST(LaunchedFromMIM, KeepsItsResultWhateverBecomesOfTheMessages) {
    for (int nth = 1; nth <= 2; ++nth) {
        const StandInSession session;
        {
            FAIL_CALL(creating, MsiCreateRecord, nth, 0, ERROR_SUCCESS);
            COUNT_CALLS(closing, MsiCloseHandle);
            EXPECT_EQ(LaunchedFromMIM(session.Get()), 1612U);
            EXPECT_EQ(creating.Calls(), 2);
            EXPECT_EQ(closing.Calls(), 1);
        }
        {
            FAIL_CALL(setting, MsiRecordSetStringW, nth, ERROR_INVALID_HANDLE, ERROR_SUCCESS);
            COUNT_CALLS(closing, MsiCloseHandle);
            EXPECT_EQ(LaunchedFromMIM(session.Get()), 1612U);
            EXPECT_EQ(closing.Calls(), 2);
        }
        {
            FAIL_CALL(sending, MsiProcessMessage, nth, -1, ERROR_SUCCESS);
            COUNT_CALLS(closing, MsiCloseHandle);
            EXPECT_EQ(LaunchedFromMIM(session.Get()), 1612U);
            EXPECT_EQ(sending.Calls(), 2);
            EXPECT_EQ(closing.Calls(), 2);
        }
    }
}

// No action catches: the installer records one that ends like this as failed.
TEST(LaunchConditions, LetAnExceptionLeave) {
    const CurrentSessionScope current;
    const StandInSession session;
    session.SetProperty(L"LAUNCHED_FROM_MIM", L"1 and a text that needs memory");
    for (const auto action : {LaunchedFromMIM, BlockLaunch}) {
        const halvard_tests::AllocationFailure failure(1);
        EXPECT_THROW(action(session.Get()), std::bad_alloc);
        EXPECT_TRUE(failure.Happened());
    }
}

TEST(LaunchedFromMIM, LeavesTheCurrentSessionAlone) {
    const StandInSession session;
    const CurrentSessionScope current(99);
    LaunchedFromMIM(session.Get());
    EXPECT_EQ(halvard::CurrentSession(), 99U);
}

TEST(BlockLaunch, StoresItsSessionAsTheCurrentOne) {
    const StandInSession session;
    const CurrentSessionScope current(99);
    // Stored before anything else happens.
    HOOK(reading, MsiGetPropertyW,
         [&](MSIHANDLE handle, LPCWSTR name, LPWSTR buffer, LPDWORD length) {
             EXPECT_EQ(halvard::CurrentSession(), session.Get());
             return reading.Original(handle, name, buffer, length);
         });
    BlockLaunch(session.Get());
    EXPECT_EQ(reading.Calls(), 1);
    EXPECT_EQ(halvard::CurrentSession(), session.Get());
}
