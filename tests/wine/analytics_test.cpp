#include "registry_actions/analytics.h"

#include "runtime/registry.h"

#include "call_trace.h"
#include "current_session.h"
#include "import_hook.h"
#include "open_handles.h"
#include "registry_error.h"
#include "registry_key.h"
#include "stand_in_session.h"

#include <msi.h>
#include <msiquery.h>

#include <gtest/gtest.h>

using halvard::DeleteAnalyticsKey;
using halvard::DisabelAnalyticsKey;
using halvard::EnableAnalyticsKey;
using halvard::MarkTeloInstalled;
using halvard::RegKeyError;
using halvard::TrackDVRAnalytics;
using halvard_tests::AbsentKeys;
using halvard_tests::CallTrace;
using halvard_tests::CurrentSessionScope;
using halvard_tests::KeyExists;
using halvard_tests::kRegistry;
using halvard_tests::OpenHandleCount;
using halvard_tests::RegistryValueAt;
using halvard_tests::ScratchKey;
using halvard_tests::StandInSession;
using Bytes = std::vector<BYTE>;
using Value = ScratchKey::Value;
using namespace std::string_literals;

namespace {

const std::wstring kZenvo = L"SOFTWARE\\Zenvo";
const std::wstring kConsent = L"SOFTWARE\\Zenvo\\ZenvoAnalytics";
const std::wstring kTelo = L"SOFTWARE\\Zenvo\\Install";
const std::wstring kInstall = L"SOFTWARE\\Qorta Technologies\\Install";
const std::wstring kMarker = L"SOFTWARE\\ZenvoDVR";

const Value kTrue = {REG_SZ, {'t', 0, 'r', 0, 'u', 0, 'e', 0, 0, 0}};
const Value kFalse = {REG_SZ, {'f', 0, 'a', 0, 'l', 0, 's', 0, 'e', 0, 0, 0}};
const Value kZero = {REG_DWORD, {0, 0, 0, 0}};
const Value kOne = {REG_DWORD, {1, 0, 0, 0}};

std::optional<Value> Consent() {
    return RegistryValueAt(kConsent, L"AnalyticsAccepted");
}

std::optional<Value> Telo() {
    return RegistryValueAt(kTelo, L"Telo");
}

std::optional<Value> Tracked() {
    return RegistryValueAt(kMarker, L"ZenvoDVR_Tracked");
}

class AnalyticsTest : public testing::Test {
    AbsentKeys keys_{{L"SOFTWARE\\Zenvo", L"SOFTWARE\\Qorta Technologies", L"SOFTWARE\\ZenvoDVR"}};
};

// What an action did to the registry, the call of number `failing` refused.
struct Outcome {
    UINT result = 4711;
    Lines calls;
};

template <class Action>
Outcome OutcomeOf(Action action, MSIHANDLE session, std::size_t failing) {
    Outcome run;
    const CallTrace calls(kRegistry, failing);
    run.result = action(session);
    run.calls = calls.All();
    return run;
}

} // namespace

class DisabelAnalyticsKeyTest : public AnalyticsTest {};

TEST_F(DisabelAnalyticsKeyTest, APropertyThatBeginsWithYesWithdrawsTheConsent) {
    const StandInSession session;
    for (const std::wstring& text : {L"YES"s, L"yes"s, L"Yes"s, L"yEs please"s, L"yesterday"s,
                                     L"YES" + std::wstring(256, L'x')}) {
        const ScratchKey consent(kConsent);
        session.SetProperty(L"DISABLEANALYTICS", text);
        const Outcome run = OutcomeOf(DisabelAnalyticsKey, session.Get(), 0);
        EXPECT_EQ(run.result, 0U);
        EXPECT_EQ(run.calls, (Lines{L"open HKLM\\" + kConsent + L" 0xf003f",
                                    L"set HKLM\\" + kConsent + L" AnalyticsAccepted 1 12 bytes",
                                    L"close HKLM\\" + kConsent}));
        EXPECT_EQ(Consent(), kFalse);
        EXPECT_EQ(Telo(), std::nullopt);
    }
}

TEST_F(DisabelAnalyticsKeyTest, AnyOtherPropertyChangesNothing) {
    const ScratchKey consent(kConsent);
    consent.SetString(L"AnalyticsAccepted", L"true");
    const StandInSession session;
    EXPECT_EQ(OutcomeOf(DisabelAnalyticsKey, session.Get(), 0).calls, Lines{});
    for (const std::wstring& text :
         {L""s, L"no"s, L"NO"s, L"1"s, L"Y"s, L"YE"s, L" YES"s, L"EYES"s, L"Y ES"s,
          L"YES" + std::wstring(257, L'x'), L"YES" + std::wstring(30000, L'x')}) {
        session.SetProperty(L"DISABLEANALYTICS", text);
        const Outcome run = OutcomeOf(DisabelAnalyticsKey, session.Get(), 0);
        EXPECT_EQ(run.result, 0U);
        EXPECT_EQ(run.calls, Lines{});
    }
    EXPECT_EQ(Consent(), kTrue);
}

TEST_F(DisabelAnalyticsKeyTest, ReadsThePropertyOnceIntoABufferOf260Characters) {
    const ScratchKey consent(kConsent);
    const StandInSession session;
    session.SetProperty(L"DISABLEANALYTICS", L"YES");
    {
        HOOK(reading, MsiGetPropertyW,
             [&](MSIHANDLE handle, LPCWSTR name, LPWSTR buffer, LPDWORD length) -> UINT {
                 EXPECT_EQ(handle, session.Get());
                 EXPECT_STREQ(name, L"DISABLEANALYTICS");
                 EXPECT_EQ(*length, 260U);
                 reading.Original(handle, name, buffer, length);
                 return ERROR_INVALID_HANDLE;
             });
        EXPECT_EQ(DisabelAnalyticsKey(session.Get()), 0U);
        EXPECT_EQ(reading.Calls(), 1);
    }
    EXPECT_EQ(Consent(), std::nullopt);
}

TEST_F(DisabelAnalyticsKeyTest, DoesNotCreateTheKey) {
    const StandInSession session;
    session.SetProperty(L"DISABLEANALYTICS", L"YES");
    EXPECT_EQ(DisabelAnalyticsKey(session.Get()), 0U);
    EXPECT_FALSE(KeyExists(kZenvo));
    const ScratchKey zenvo(kZenvo);
    EXPECT_EQ(DisabelAnalyticsKey(session.Get()), 0U);
    EXPECT_FALSE(KeyExists(kConsent));
}

TEST_F(DisabelAnalyticsKeyTest, EachCallRefusedLeavesTheConsent) {
    const ScratchKey consent(kConsent);
    consent.SetString(L"AnalyticsAccepted", L"true");
    const StandInSession session;
    session.SetProperty(L"DISABLEANALYTICS", L"YES");
    const int before = OpenHandleCount();
    for (const std::size_t failing : {1, 2}) {
        EXPECT_EQ(OutcomeOf(DisabelAnalyticsKey, session.Get(), failing).result, 0U);
        EXPECT_EQ(Consent(), kTrue);
    }
    EXPECT_EQ(DisabelAnalyticsKey(session.Get()), 0U);
    EXPECT_EQ(Consent(), kFalse);
    EXPECT_EQ(OpenHandleCount(), before);
}

class EnableAnalyticsKeyTest : public AnalyticsTest {};

TEST_F(EnableAnalyticsKeyTest, CreatesBothKeysAndWritesTheirValues) {
    const Outcome run = OutcomeOf(EnableAnalyticsKey, 0, 0);
    EXPECT_EQ(run.result, 0U);
    EXPECT_EQ(
        run.calls,
        (Lines{L"open HKLM\\" + kTelo + L" 0xf003f", L"create HKLM\\" + kTelo + L" 0x2",
               L"set HKLM\\" + kTelo + L" Telo 4 4 bytes", L"close HKLM\\" + kTelo,
               L"open HKLM\\" + kConsent + L" 0xf003f", L"create HKLM\\" + kConsent + L"\\ 0x2001f",
               L"close HKLM\\" + kConsent + L"\\", L"open HKLM\\" + kConsent + L" 0xf003f",
               L"set HKLM\\" + kConsent + L" AnalyticsAccepted 1 10 bytes",
               L"close HKLM\\" + kConsent}));
    EXPECT_EQ(Telo(), kZero);
    EXPECT_EQ(Consent(), kTrue);
}

TEST_F(EnableAnalyticsKeyTest, WritesIntoKeysThatAreThereWhateverTheyHold) {
    const ScratchKey telo(kTelo);
    const ScratchKey consent(kConsent);
    telo.SetString(L"Telo", L"another type");
    consent.SetBytes(L"AnalyticsAccepted", REG_BINARY, Bytes(65536, 'x'));
    const Outcome run = OutcomeOf(EnableAnalyticsKey, 0, 0);
    EXPECT_EQ(run.result, 0U);
    EXPECT_EQ(run.calls, (Lines{L"open HKLM\\" + kTelo + L" 0xf003f",
                                L"set HKLM\\" + kTelo + L" Telo 4 4 bytes", L"close HKLM\\" + kTelo,
                                L"open HKLM\\" + kConsent + L" 0xf003f",
                                L"set HKLM\\" + kConsent + L" AnalyticsAccepted 1 10 bytes",
                                L"close HKLM\\" + kConsent}));
    EXPECT_EQ(Telo(), kZero);
    EXPECT_EQ(Consent(), kTrue);
}

TEST_F(EnableAnalyticsKeyTest, ConsultsNoProperty) {
    const StandInSession session;
    session.SetProperty(L"DISABLEANALYTICS", L"YES");
    COUNT_CALLS(reading, MsiGetPropertyW);
    EXPECT_EQ(EnableAnalyticsKey(session.Get()), 0U);
    EXPECT_EQ(reading.Calls(), 0);
    EXPECT_EQ(Consent(), kTrue);
}

TEST_F(EnableAnalyticsKeyTest, EachCallRefusedInTurnFromNothing) {
    struct Refusal {
        const char* what;
        bool throws;
        std::optional<Value> telo;
        std::optional<Value> consent;
    };
    // In the order of the calls of CreatesBothKeysAndWritesTheirValues.
    const Refusal refusals[] = {
        {"open Install", false, kZero, kTrue},
        {"create Install", false, {}, kTrue},
        {"set Telo", false, {}, kTrue},
        {"open the consent", false, kZero, kTrue},
        {"create the consent", true, kZero, {}},
        {"open it again", false, kZero, {}},
        {"set AnalyticsAccepted", false, kZero, {}},
        {"none", false, kZero, kTrue},
    };
    EXPECT_THROW(throw RegKeyError(5, std::system_category(), "first"), RegKeyError);
    std::size_t number = 0;
    for (const Refusal& refusal : refusals) {
        const int before = OpenHandleCount();
        ++number;
        if (refusal.throws) {
            const CallTrace calls(kRegistry, number);
            halvard_tests::ExpectRegKeyError([] { EnableAnalyticsKey(0); },
                                             "Unable to get create registry key",
                                             ERROR_ACCESS_DENIED);
        } else {
            EXPECT_EQ(OutcomeOf(EnableAnalyticsKey, 0, number).result, 0U) << refusal.what;
        }
        EXPECT_EQ(Telo(), refusal.telo) << refusal.what;
        EXPECT_EQ(Consent(), refusal.consent) << refusal.what;
        EXPECT_EQ(OpenHandleCount(), before) << refusal.what;
        RegDeleteTreeW(HKEY_LOCAL_MACHINE, kZenvo.c_str());
    }
}

TEST_F(EnableAnalyticsKeyTest, AValueThatCannotBeSetDoesNotLeadToACreation) {
    const ScratchKey telo(kTelo);
    const ScratchKey consent(kConsent);
    const Outcome run = OutcomeOf(EnableAnalyticsKey, 0, 4);
    EXPECT_EQ(run.result, 0U);
    EXPECT_EQ(run.calls.size(), 6U);
    EXPECT_EQ(Consent(), std::nullopt);
}

class MarkTeloInstalledTest : public AnalyticsTest {};

TEST_F(MarkTeloInstalledTest, TellsWhetherItWrote) {
    const auto mark = [](MSIHANDLE) -> UINT {
        return MarkTeloInstalled() ? 1 : 0;
    };
    const Outcome uncreated = OutcomeOf(mark, 0, 2);
    EXPECT_EQ(uncreated.result, 0U);
    EXPECT_EQ(uncreated.calls.size(), 2U);
    EXPECT_FALSE(KeyExists(kTelo));
    EXPECT_EQ(OutcomeOf(mark, 0, 3).result, 0U);
    EXPECT_TRUE(KeyExists(kTelo));
    EXPECT_EQ(Telo(), std::nullopt);
    EXPECT_EQ(OutcomeOf(mark, 0, 2).result, 0U);
    EXPECT_EQ(Telo(), std::nullopt);
    // What cannot be opened with all access may still be created, or opened by that.
    EXPECT_EQ(OutcomeOf(mark, 0, 1).result, 1U);
    EXPECT_EQ(Telo(), kZero);
    EXPECT_TRUE(MarkTeloInstalled());
    EXPECT_FALSE(KeyExists(kConsent));
}

class DeleteAnalyticsKeyTest : public AnalyticsTest {};

TEST_F(DeleteAnalyticsKeyTest, DeletesAKeyWithItsValues) {
    const ScratchKey consent(kConsent);
    consent.SetString(L"AnalyticsAccepted", L"true");
    const ScratchKey telo(kTelo);
    const StandInSession session;
    const Outcome run = OutcomeOf(DeleteAnalyticsKey, session.Get(), 0);
    EXPECT_EQ(run.result, 0U);
    EXPECT_EQ(run.calls,
              (Lines{L"open HKLM\\" + kConsent + L" 0xf003f",
                     L"delete key HKLM\\" + kConsent + L" 0xf003f", L"close HKLM\\" + kConsent}));
    EXPECT_EQ(session.LogLines(), Lines{L"UPA Key deleted"});
    EXPECT_EQ(session.Messages().size(), 1U);
    EXPECT_FALSE(KeyExists(kConsent));
    EXPECT_TRUE(KeyExists(kTelo));
}

TEST_F(DeleteAnalyticsKeyTest, KeepsAKeyWithSubkeys) {
    const ScratchKey consent(kConsent);
    consent.SetString(L"AnalyticsAccepted", L"true");
    consent.CreateSubkey(L"below");
    const StandInSession session;
    EXPECT_EQ(DeleteAnalyticsKey(session.Get()), 0U);
    EXPECT_EQ(session.LogLines(), Lines{L"UPA Key not deleted"});
    EXPECT_TRUE(KeyExists(kConsent + L"\\below"));
    EXPECT_EQ(Consent(), kTrue);
}

TEST_F(DeleteAnalyticsKeyTest, SaysThatTheKeyCannotBeAccessed) {
    const StandInSession session;
    EXPECT_EQ(DeleteAnalyticsKey(session.Get()), 0U);
    EXPECT_EQ(session.LogLines(), Lines{L"Could not access UPA Key"});
}

TEST_F(DeleteAnalyticsKeyTest, EachCallRefusedInTurn) {
    const ScratchKey consent(kConsent);
    const StandInSession session;
    const int before = OpenHandleCount();
    const Outcome open = OutcomeOf(DeleteAnalyticsKey, session.Get(), 1);
    EXPECT_EQ(open.result, 0U);
    EXPECT_EQ(open.calls.size(), 1U);
    const Outcome deletion = OutcomeOf(DeleteAnalyticsKey, session.Get(), 2);
    EXPECT_EQ(deletion.result, 0U);
    EXPECT_EQ(session.LogLines(), (Lines{L"Could not access UPA Key", L"UPA Key not deleted"}));
    EXPECT_TRUE(KeyExists(kConsent));
    EXPECT_EQ(OpenHandleCount(), before);
}

TEST_F(DeleteAnalyticsKeyTest, LogsToItsOwnSessionBeforeItClosesTheKey) {
    const ScratchKey consent(kConsent);
    const StandInSession session;
    const CurrentSessionScope current(99);
    const CallTrace calls(kRegistry);
    Lines callsBeforeTheLine;
    HOOK(sending, MsiProcessMessage, [&](MSIHANDLE handle, INSTALLMESSAGE type, MSIHANDLE record) {
        EXPECT_EQ(handle, session.Get());
        callsBeforeTheLine = calls.All();
        return sending.Original(handle, type, record);
    });
    DeleteAnalyticsKey(session.Get());
    EXPECT_EQ(sending.Calls(), 1);
    EXPECT_EQ(callsBeforeTheLine.size(), 2U);
    EXPECT_EQ(calls.All().size(), 3U);
}

class TrackDVRAnalyticsTest : public AnalyticsTest {};

TEST_F(TrackDVRAnalyticsTest, TheFirstRunCreatesTheMarkerAndReports1) {
    const ScratchKey install(kInstall);
    install.SetBytes(L"ZenvoDVR_Enabled", REG_DWORD, {1, 0, 0, 0});
    const Outcome first = OutcomeOf(TrackDVRAnalytics, 0, 0);
    EXPECT_EQ(first.result, 1U);
    const Lines reading = {L"open HKLM\\" + kInstall + L" 0xf003f",
                           L"query HKLM\\" + kInstall + L" ZenvoDVR_Enabled 4 bytes",
                           L"close HKLM\\" + kInstall, L"open HKLM\\" + kMarker + L" 0xf003f"};
    Lines expected = reading;
    expected.insert(expected.end(), {L"create HKLM\\" + kMarker + L" 0xf003f",
                                     L"set HKLM\\" + kMarker + L" ZenvoDVR_Tracked 4 4 bytes",
                                     L"close HKLM\\" + kMarker});
    EXPECT_EQ(first.calls, expected);
    EXPECT_EQ(Tracked(), kOne);

    const Outcome second = OutcomeOf(TrackDVRAnalytics, 0, 0);
    EXPECT_EQ(second.result, 0U);
    expected = reading;
    expected.push_back(L"close HKLM\\" + kMarker);
    EXPECT_EQ(second.calls, expected);
}

TEST_F(TrackDVRAnalyticsTest, AKeyThatIsThereIsTheMarkerWithoutItsValue) {
    const ScratchKey install(kInstall);
    install.SetBytes(L"ZenvoDVR_Enabled", REG_DWORD, {1, 0, 0, 0});
    const ScratchKey marker(kMarker);
    EXPECT_EQ(TrackDVRAnalytics(0), 0U);
    EXPECT_EQ(Tracked(), std::nullopt);
}

TEST_F(TrackDVRAnalyticsTest, ARecorderThatIsNotEnabledIsNotTracked) {
    EXPECT_EQ(TrackDVRAnalytics(0), 0U);
    EXPECT_FALSE(KeyExists(kInstall));
    const ScratchKey install(kInstall);
    EXPECT_EQ(TrackDVRAnalytics(0), 0U);
    const Value others[] = {
        {REG_DWORD, {0, 0, 0, 0}},
        {REG_DWORD, {2, 0, 0, 0}},
        {REG_DWORD, {1, 0, 0, 1}},
        {REG_DWORD, {255, 255, 255, 255}},
        {REG_DWORD_BIG_ENDIAN, {0, 0, 0, 1}},
        {REG_DWORD, {}},
        {REG_SZ, {'1', 0, 0, 0}},
        {REG_SZ, {'1', 0}},
        {REG_QWORD, {1, 0, 0, 0, 0, 0, 0, 0}},
        {REG_BINARY, {1, 0, 0, 0, 0}},
        {REG_BINARY, Bytes(65536, 1)},
        {REG_MULTI_SZ, {0, 0, 0, 0}},
        {REG_NONE, {}},
    };
    for (const Value& value : others) {
        install.SetBytes(L"ZenvoDVR_Enabled", value.type, value.bytes);
        EXPECT_EQ(TrackDVRAnalytics(0), 0U) << "type " << value.type << ", " << value.bytes.size();
        EXPECT_FALSE(KeyExists(kMarker));
    }
}

TEST_F(TrackDVRAnalyticsTest, UpTo4BytesOfAnyTypeThatAreTheNumber1Enable) {
    const ScratchKey install(kInstall);
    for (const DWORD type : {REG_DWORD, REG_BINARY, REG_NONE, 4711}) {
        for (const std::size_t length : {1, 2, 3, 4}) {
            Bytes bytes(length);
            bytes[0] = 1;
            install.SetBytes(L"ZenvoDVR_Enabled", type, bytes);
            EXPECT_EQ(TrackDVRAnalytics(0), 1U) << "type " << type << ", " << length << " bytes";
            EXPECT_EQ(Tracked(), kOne);
            RegDeleteTreeW(HKEY_LOCAL_MACHINE, kMarker.c_str());
        }
    }
    install.SetString(L"ZenvoDVR_Enabled", L"\x1");
    EXPECT_EQ(TrackDVRAnalytics(0), 1U);
}

TEST_F(TrackDVRAnalyticsTest, EachCallRefusedInTurn) {
    const ScratchKey install(kInstall);
    install.SetBytes(L"ZenvoDVR_Enabled", REG_DWORD, {1, 0, 0, 0});
    struct Refusal {
        const char* what;
        UINT result;
        std::size_t calls;
        bool marker;
        std::optional<Value> tracked;
    };
    const Refusal refusals[] = {
        {"open Install", 0, 1, false, {}},
        {"query", 0, 3, false, {}},
        {"open the marker", 1, 7, true, kOne},
        {"create", 0, 5, false, {}},
        {"set", 1, 7, true, {}},
    };
    std::size_t number = 0;
    for (const Refusal& refusal : refusals) {
        const int before = OpenHandleCount();
        const Outcome run = OutcomeOf(TrackDVRAnalytics, 0, ++number);
        EXPECT_EQ(run.result, refusal.result) << refusal.what;
        EXPECT_EQ(run.calls.size(), refusal.calls) << refusal.what;
        EXPECT_EQ(KeyExists(kMarker), refusal.marker) << refusal.what;
        EXPECT_EQ(Tracked(), refusal.tracked) << refusal.what;
        EXPECT_EQ(OpenHandleCount(), before) << refusal.what;
        RegDeleteTreeW(HKEY_LOCAL_MACHINE, kMarker.c_str());
    }
}

TEST_F(TrackDVRAnalyticsTest, WhatAFailedReadLeavesDoesNotCount) {
    const ScratchKey install(kInstall);
    install.SetBytes(L"ZenvoDVR_Enabled", REG_DWORD, {1, 0, 0, 0});
    HOOK(reading, RegQueryValueExW,
         [&](HKEY key, LPCWSTR name, LPDWORD reserved, LPDWORD type, LPBYTE data,
             LPDWORD size) -> LSTATUS {
             EXPECT_EQ(reading.Original(key, name, reserved, type, data, size), ERROR_SUCCESS);
             return ERROR_MORE_DATA;
         });
    EXPECT_EQ(TrackDVRAnalytics(0), 0U);
    EXPECT_FALSE(KeyExists(kMarker));
}

TEST_F(TrackDVRAnalyticsTest, AMarkerThatCannotBeOpenedButCreatedIsWrittenAgain) {
    const ScratchKey install(kInstall);
    install.SetBytes(L"ZenvoDVR_Enabled", REG_DWORD, {1, 0, 0, 0});
    const ScratchKey marker(kMarker);
    marker.SetString(L"Other", L"x");
    EXPECT_EQ(OutcomeOf(TrackDVRAnalytics, 0, 3).result, 1U);
    EXPECT_EQ(Tracked(), kOne);
    EXPECT_EQ(marker.ReadCharacters(L"Other"), L"x\0"s);
}
