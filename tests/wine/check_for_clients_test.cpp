#include "agent/check_for_clients.h"

#include "runtime/session.h"

#include "allocation_failure.h"
#include "call_trace.h"
#include "import_hook.h"
#include "open_handles.h"
#include "registry_key.h"
#include "stand_in_session.h"

#include <msi.h>
#include <msiquery.h>

#include <gtest/gtest.h>

#include <clocale>
#include <functional>
#include <iterator>
#include <stdexcept>

using halvard::CheckForClients;
using halvard::SetClientStatus;
using halvard_tests::AbsentKeys;
using halvard_tests::BytesOf;
using halvard_tests::CallTrace;
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

const std::wstring kTelo = L"SOFTWARE\\Telo";
const std::wstring kQorta = L"SOFTWARE\\Qorta Technologies";
const std::wstring kAgent = L"SOFTWARE\\Qorta Technologies\\Install\\UPA";
const std::wstring kUserKey = L"HKCU\\" + kTelo;
const std::wstring kStatusKey = L"HKLM\\" + kTelo;
const std::wstring kAgentKey = L"HKLM\\" + kAgent;
constexpr UINT kSkip = ERROR_NO_MORE_ITEMS;

Value Text(const std::wstring& text) {
    return {REG_SZ, BytesOf(text + L'\0')};
}

Value Number(BYTE number) {
    return {REG_DWORD, {number, 0, 0, 0}};
}

// Stores exactly these bytes: a text without a terminator gets one from the system where a null
// character happens to stand behind it in memory.
void SetValue(HKEY root, const std::wstring& key, const wchar_t* name, DWORD type, Bytes bytes) {
    const auto size = static_cast<DWORD>(bytes.size());
    bytes.insert(bytes.end(), 4, 0xFF);
    ASSERT_EQ(RegSetKeyValueW(root, key.c_str(), name, type, bytes.data(), size), ERROR_SUCCESS);
    const auto stored = RegistryValueAt(root, key, name);
    ASSERT_TRUE(stored.has_value());
    ASSERT_EQ(stored->bytes.size(), size);
}

void SetLastClient(DWORD type, const Bytes& bytes) {
    SetValue(HKEY_CURRENT_USER, kTelo, L"TeloClient", type, bytes);
}

void SetLastClient(const std::wstring& name) {
    SetLastClient(REG_SZ, Text(name).bytes);
}

std::optional<Value> LastClient() {
    return RegistryValueAt(HKEY_CURRENT_USER, kTelo, L"TeloClient");
}

std::optional<Value> Status(const std::wstring& valueName) {
    return RegistryValueAt(kTelo, valueName);
}

void SetStatus(const std::wstring& valueName, BYTE number) {
    SetValue(HKEY_LOCAL_MACHINE, kTelo, valueName.c_str(), REG_DWORD, Number(number).bytes);
}

void SetInstalledVersion(DWORD type, const Bytes& bytes) {
    SetValue(HKEY_LOCAL_MACHINE, kAgent, L"ProductVersion", type, bytes);
}

void SetInstalledVersion(const std::wstring& version) {
    SetInstalledVersion(REG_SZ, Text(version).bytes);
}

std::wstring Data(const std::wstring& client, const std::wstring& action,
                  const std::wstring& version) {
    return L"ClientName=" + client + L";Action=" + action + L";CurrentVersion=" + version;
}

// Sets the locale back at the end.
class LocaleScope {
public:
    LocaleScope() = default;
    ~LocaleScope() { std::setlocale(LC_ALL, before_.c_str()); }
    LocaleScope(const LocaleScope&) = delete;
    LocaleScope& operator=(const LocaleScope&) = delete;

private:
    std::string before_ = std::setlocale(LC_ALL, nullptr);
};

class CheckForClientsTest : public testing::Test {
public:
    CheckForClientsTest() = default;
    ~CheckForClientsTest() override { halvard::SetCurrentSession(0); }
    CheckForClientsTest(const CheckForClientsTest&) = delete;
    CheckForClientsTest& operator=(const CheckForClientsTest&) = delete;

protected:
    UINT Run(const std::wstring& data) const {
        session.SetProperty(L"CustomActionData", data);
        return CheckForClients(session.Get());
    }

    UINT Install(const std::wstring& client, const std::wstring& version = L"1.2.3.4") const {
        return Run(Data(client, L"", version));
    }

    UINT Remove(const std::wstring& client) const { return Run(Data(client, L"ALL", L"1.2.3.4")); }

    // Runs with this call to the registry refused; no handle stays open. How many calls came.
    std::size_t ExpectWithRefusal(std::size_t number, UINT result, const char* what) const {
        const int before = OpenHandleCount();
        std::size_t count = 0;
        {
            const CallTrace calls(kRegistry, number);
            EXPECT_EQ(CheckForClients(session.Get()), result) << what;
            count = calls.Count();
        }
        EXPECT_EQ(OpenHandleCount(), before) << what;
        return count;
    }

    void RemoveKeys() const {
        ofMachine_.Remove();
        ofUser_.Remove();
    }

    const StandInSession session;

private:
    AbsentKeys ofMachine_{{kTelo, kQorta}};
    AbsentKeys ofUser_{{kTelo}, HKEY_CURRENT_USER};
};

} // namespace

TEST_F(CheckForClientsTest, AnInstallationLogsItsInputsInOrder) {
    const std::wstring data = Data(L"Foo", L"Remove", L"1.2.3.4");
    EXPECT_EQ(Run(data), 0U);
    EXPECT_EQ(session.LogLines(), (Lines{L"CustomActionData: " + data, L"Client Name Foo",
                                         L"Action Remove", L"Current Version 1.2.3.4"}));
    EXPECT_EQ(session.Messages().size(), 4U);
}

TEST_F(CheckForClientsTest, ARemovalLogsTheNameThatItReadAsWell) {
    const std::wstring data = Data(L"Foo", L"ALL", L"");
    EXPECT_EQ(Run(data), 0U);
    const Lines inputs = {L"CustomActionData: " + data, L"Client Name Foo", L"Action ALL",
                          L"Current Version "};
    EXPECT_EQ(session.LogLines(), inputs);

    SetLastClient(L"Last");
    const StandInSession again;
    EXPECT_EQ(Run(data), 0U);
    Lines expected = inputs;
    expected.emplace_back(L"Client Name (Uninstall) Last");
    EXPECT_EQ(again.LogLines(), expected);
}

TEST_F(CheckForClientsTest, LogsToItsSessionBeforeItChangesAnything) {
    SetLastClient(L"Last");
    session.SetProperty(L"CustomActionData", Data(L"Foo", L"ALL", L"1.2"));
    halvard::SetCurrentSession(99);
    const CallTrace calls(kRegistry);
    std::vector<std::size_t> callsBefore;
    HOOK(sending, MsiProcessMessage, [&](MSIHANDLE handle, INSTALLMESSAGE type, MSIHANDLE record) {
        EXPECT_EQ(handle, session.Get());
        callsBefore.push_back(calls.All().size());
        return sending.Original(handle, type, record);
    });
    EXPECT_EQ(CheckForClients(session.Get()), 0U);
    EXPECT_EQ(halvard::CurrentSession(), session.Get());
    // The last line stands behind the reading of the user's key, which is closed then.
    EXPECT_EQ(callsBefore, (std::vector<std::size_t>{0, 0, 0, 0, 3}));
}

TEST_F(CheckForClientsTest, ANameTooLongForTheLogIsUsedAllTheSame) {
    const std::wstring name(508, L'n');
    EXPECT_EQ(Install(name), 0U);
    EXPECT_EQ(session.LogLines(), (Lines{L"CA buffer overflow\n", L"CA buffer overflow\n",
                                         L"Action ", L"Current Version 1.2.3.4"}));
    EXPECT_EQ(Status(name + L"_TeloStatus"), Number(1));
    EXPECT_EQ(LastClient(), Text(name));
}

TEST_F(CheckForClientsTest, AnActionThatBeginsWithAllIsARemoval) {
    for (const wchar_t* action : {L"ALL", L"all", L"All", L"aLl", L"ALLUSERS", L"all, but"}) {
        RemoveKeys();
        EXPECT_EQ(Run(Data(L"Foo", action, L"1.2")), 0U) << action;
        EXPECT_EQ(Status(L"Foo_TeloStatus"), Number(2)) << action;
    }
    for (const wchar_t* action :
         {L"", L"Remove", L"AL", L"A L L", L" ALL", L"Feature,ALL", L"xALL", L"\u0391LL"}) {
        RemoveKeys();
        EXPECT_EQ(Run(Data(L"Foo", action, L"1.2")), 0U) << action;
        EXPECT_EQ(Status(L"Foo_TeloStatus"), Number(1)) << action;
    }
}

TEST_F(CheckForClientsTest, WithoutAClientNameItWorksWithTheEmptyName) {
    EXPECT_EQ(Run(L"Action=;CurrentVersion=1.2.3.4"), 0U);
    EXPECT_EQ(session.LogLines()[1], L"Client Name ");
    EXPECT_EQ(LastClient(), Text(L""));
    EXPECT_EQ(Status(L"_TeloStatus"), Number(1));
    // The empty name finds its status again.
    EXPECT_EQ(Run(L"Action=ALL;CurrentVersion=1.2.3.4"), 0U);
    EXPECT_EQ(Status(L"_TeloStatus"), Number(2));
    EXPECT_EQ(Run(L"ClientName=;Action=;CurrentVersion=1.2.3.4"), 0U);
    EXPECT_EQ(Status(L"_TeloStatus"), Number(1));
}

TEST_F(CheckForClientsTest, AbsentItemsGiveWhatStandsInTheirPlace) {
    // From index 6 for the action, from index 14 for the version.
    EXPECT_EQ(Run(L"ClientName=Foo;CurrentVersion=1.2"), 0U);
    EXPECT_EQ(session.LogLines()[2], L"Action Name=Foo");
    EXPECT_EQ(Status(L"Foo_TeloStatus"), Number(1));

    const StandInSession removing;
    EXPECT_EQ(Run(L"Index All that follows;ClientName=Foo;CurrentVersion=1.2"), 0U);
    EXPECT_EQ(removing.LogLines()[2], L"Action All that follows");
    EXPECT_EQ(Status(L"Foo_TeloStatus"), Number(2));

    // What stands in the place of an item ends at its semicolon too.
    const StandInSession cutting;
    EXPECT_EQ(Run(L"Suite all;ClientName=Foo;CurrentVersion=1.2"), 0U);
    EXPECT_EQ(cutting.LogLines()[2], L"Action all");
    EXPECT_EQ(Status(L"Foo_TeloStatus"), Number(2));

    const StandInSession comparing;
    SetInstalledVersion(L"1.2");
    EXPECT_EQ(Run(L"Action=;Filler1.1;ClientName=Foo"), kSkip);
    EXPECT_EQ(comparing.LogLines()[3], L"Current Version 1.1");
}

TEST_F(CheckForClientsTest, DataTooShortForAnAbsentItemLeavesTheAction) {
    for (const wchar_t* data : {L"", L"ALL", L"Foo=x", L"Action=ALL", L"Action=ALL;x"}) {
        SetLastClient(L"Last");
        const StandInSession logging;
        const CallTrace calls(kRegistry);
        EXPECT_THROW(Run(data), std::out_of_range) << data;
        EXPECT_EQ(calls.All(), Lines{});
        EXPECT_EQ(logging.LogLines(), Lines{L"CustomActionData: "s + data});
        EXPECT_EQ(halvard::CurrentSession(), session.Get());
        halvard::SetCurrentSession(0);
    }
}

TEST_F(CheckForClientsTest, TheFirstClientCreatesItsValues) {
    const CallTrace calls(kRegistry);
    EXPECT_EQ(Run(Data(L"Foo", L"", L"1.2")), 0U);
    EXPECT_EQ(calls.All(),
              (Lines{L"open " + kStatusKey + L" 0x20019", L"open " + kUserKey + L" 0xf003f",
                     L"create " + kUserKey + L" 0x2", L"set " + kUserKey + L" TeloClient 1 8 bytes",
                     L"close " + kUserKey, L"open " + kStatusKey + L" 0xf003f",
                     L"create " + kStatusKey + L" 0x2",
                     L"set " + kStatusKey + L" Foo_TeloStatus 4 4 bytes", L"close " + kStatusKey}));
    EXPECT_EQ(LastClient(), Text(L"Foo"));
    EXPECT_EQ(Status(L"Foo_TeloStatus"), Number(1));
}

TEST_F(CheckForClientsTest, TheFirstClientProceedsWhateverVersionIsThere) {
    for (const wchar_t* version : {L"1.2", L"9.9.9.9", L"*"}) {
        RemoveKeys();
        SetInstalledVersion(version);
        EXPECT_EQ(Install(L"Foo", L"1.2"), 0U);
        EXPECT_EQ(Status(L"Foo_TeloStatus"), Number(1));
    }
}

TEST_F(CheckForClientsTest, TheFirstClientMayBeOneThatIsRemoved) {
    EXPECT_EQ(Remove(L"Foo"), 0U);
    EXPECT_EQ(Status(L"Foo_TeloStatus"), Number(2));
    EXPECT_EQ(LastClient(), Text(L"Foo"));
}

TEST_F(CheckForClientsTest, OtherValuesOfTheKeyAreNoClients) {
    const ScratchKey key(kTelo);
    key.SetString(L"GUID", L"x");
    key.SetBytes(L"", REG_DWORD, {1, 0, 0, 0});
    key.SetBytes(L"Bar_telostatus", REG_DWORD, {1, 0, 0, 0});
    key.CreateSubkey(L"below");
    SetInstalledVersion(L"1.2");
    EXPECT_EQ(Install(L"Foo", L"1.2"), 0U);
    EXPECT_EQ(Status(L"Foo_TeloStatus"), Number(1));
}

TEST_F(CheckForClientsTest, AnInstallationReadsEveryStatusAndTheVersion) {
    SetStatus(L"Bar_TeloStatus", 2);
    SetStatus(L"Foo_TeloStatus", 2);
    SetStatus(L"Other", 1);
    SetInstalledVersion(L"1.2.3");
    SetLastClient(L"Last");
    const CallTrace calls(kRegistry);
    EXPECT_EQ(Run(Data(L"Foo", L"", L"1.2.3.4")), 0U);
    const std::wstring status = L"open " + kStatusKey + L" 0xf003f";
    EXPECT_EQ(
        calls.All(),
        (Lines{L"open " + kStatusKey + L" 0x20019", L"close " + kStatusKey,
               L"open " + kUserKey + L" 0xf003f", L"set " + kUserKey + L" TeloClient 1 8 bytes",
               L"close " + kUserKey, status, L"query " + kStatusKey + L" Bar_TeloStatus 4 bytes",
               L"close " + kStatusKey, status, L"query " + kStatusKey + L" Foo_TeloStatus 4 bytes",
               L"close " + kStatusKey, L"open " + kAgentKey + L" 0xf003f",
               L"query " + kAgentKey + L" ProductVersion 260 bytes", L"close " + kAgentKey, status,
               L"set " + kStatusKey + L" Foo_TeloStatus 4 4 bytes", L"close " + kStatusKey}));
    EXPECT_EQ(LastClient(), Text(L"Foo"));
    EXPECT_EQ(Status(L"Foo_TeloStatus"), Number(1));
}

TEST_F(CheckForClientsTest, ARemovalReadsTheLastClientAndNoVersion) {
    SetStatus(L"Bar_TeloStatus", 2);
    SetStatus(L"Foo_TeloStatus", 1);
    SetInstalledVersion(L"9.9");
    SetLastClient(L"Foo");
    const CallTrace calls(kRegistry);
    EXPECT_EQ(Run(Data(L"Bar", L"ALL", L"1.2")), 0U);
    const std::wstring status = L"open " + kStatusKey + L" 0xf003f";
    EXPECT_EQ(
        calls.All(),
        (Lines{L"open " + kUserKey + L" 0xf003f", L"query " + kUserKey + L" TeloClient 260 bytes",
               L"close " + kUserKey, L"open " + kStatusKey + L" 0x20019", L"close " + kStatusKey,
               L"open " + kUserKey + L" 0xf003f", L"set " + kUserKey + L" TeloClient 1 8 bytes",
               L"close " + kUserKey, status, L"query " + kStatusKey + L" Bar_TeloStatus 4 bytes",
               L"close " + kStatusKey, status, L"query " + kStatusKey + L" Foo_TeloStatus 4 bytes",
               L"close " + kStatusKey, status, L"set " + kStatusKey + L" Foo_TeloStatus 4 4 bytes",
               L"close " + kStatusKey}));
    EXPECT_EQ(LastClient(), Text(L"Foo"));
    EXPECT_EQ(Status(L"Foo_TeloStatus"), Number(2));
    EXPECT_EQ(Status(L"Bar_TeloStatus"), Number(2));
}

TEST_F(CheckForClientsTest, AnotherActiveClientSkipsTheAgentAndTheStatusIsWritten) {
    SetStatus(L"Bar_TeloStatus", 1);
    EXPECT_EQ(Install(L"Foo"), kSkip);
    EXPECT_EQ(Status(L"Foo_TeloStatus"), Number(1));
    EXPECT_EQ(Status(L"Bar_TeloStatus"), Number(1));
    EXPECT_EQ(Install(L"Foo"), kSkip);

    EXPECT_EQ(Remove(L"Foo"), kSkip);
    EXPECT_EQ(Status(L"Foo_TeloStatus"), Number(2));
    EXPECT_EQ(Status(L"Bar_TeloStatus"), Number(1));
    EXPECT_EQ(Remove(L"Foo"), kSkip);
}

TEST_F(CheckForClientsTest, TheOnlyClientIsRemovedWithTheAgent) {
    SetStatus(L"Foo_TeloStatus", 1);
    EXPECT_EQ(Remove(L"Foo"), 0U);
    EXPECT_EQ(Status(L"Foo_TeloStatus"), Number(2));
    SetInstalledVersion(L"9.9");
    SetStatus(L"Bar_TeloStatus", 2);
    EXPECT_EQ(Remove(L"Foo"), 0U);
}

TEST_F(CheckForClientsTest, OneClientAmongSeveralIsEnoughToSkip) {
    SetStatus(L"A_TeloStatus", 2);
    SetStatus(L"B_TeloStatus", 0);
    SetStatus(L"C_TeloStatus", 3);
    SetStatus(L"Foo_TeloStatus", 1);
    EXPECT_EQ(Install(L"Foo"), 0U);
    EXPECT_EQ(Remove(L"Foo"), 0U);
    for (const wchar_t* active : {L"A_TeloStatus", L"B_TeloStatus", L"C_TeloStatus"}) {
        SetStatus(active, 1);
        EXPECT_EQ(Install(L"Foo"), kSkip) << active;
        EXPECT_EQ(Remove(L"Foo"), kSkip) << active;
        SetStatus(active, 2);
    }
}

TEST_F(CheckForClientsTest, AStatusThatCannotBeReadIsNotThatOfTheClientBefore) {
    const ScratchKey key(kTelo);
    // Listed behind a value of this client that holds 1.
    SetStatus(L"Foo_TeloStatus", 1);
    key.SetBytes(L"Zoo_TeloStatus", REG_QWORD, {1, 0, 0, 0, 0, 0, 0, 0});
    EXPECT_EQ(Install(L"Foo"), 0U);
    EXPECT_EQ(Remove(L"Foo"), 0U);
    // Up to 4 bytes of any type are a number.
    key.SetBytes(L"Zoo_TeloStatus", REG_BINARY, {1});
    EXPECT_EQ(Install(L"Foo"), kSkip);
    EXPECT_EQ(Remove(L"Foo"), kSkip);
}

TEST_F(CheckForClientsTest, AnInstallationIsSkippedWhenTheAgentIsNotOlder) {
    struct Case {
        const wchar_t* installed;
        const wchar_t* current;
        UINT result;
    };
    const Case cases[] = {
        {L"1.2.3", L"1.2.3.0", kSkip},
        {L"1.2.10.0", L"1.2.9.9", kSkip},
        {L"1.2.3.4", L"1.3", 0},
        {L"5", L"1.2", 0},
        {L"1.2a.3", L"1.2", 0},
        {L"1.2", L"1.2a.3", 0},
        {L"5", L"*", kSkip},
        {L"*", L"5", kSkip},
        {L"", L"1.2", 0},
    };
    for (const Case& tested : cases) {
        SetStatus(L"Foo_TeloStatus", 2);
        SetInstalledVersion(tested.installed);
        EXPECT_EQ(Install(L"Foo", tested.current), tested.result)
            << tested.installed << L" " << tested.current;
        EXPECT_EQ(Status(L"Foo_TeloStatus"), Number(1));
        EXPECT_EQ(Remove(L"Foo"), 0U);
        EXPECT_EQ(Status(L"Foo_TeloStatus"), Number(2));
    }
}

TEST_F(CheckForClientsTest, WithoutAVersionTheOtherClientsDecide) {
    SetStatus(L"Foo_TeloStatus", 2);
    EXPECT_EQ(Install(L"Foo", L"*"), 0U);
    EXPECT_EQ(Status(L"Foo_TeloStatus"), Number(1));
    const ScratchKey agent(kAgent);
    EXPECT_EQ(Install(L"Foo", L"*"), 0U);
    EXPECT_EQ(Status(L"Foo_TeloStatus"), Number(1));
    SetStatus(L"Bar_TeloStatus", 1);
    EXPECT_EQ(Install(L"Foo", L"*"), kSkip);
}

TEST_F(CheckForClientsTest, AVersionMayHave260BytesOfAnyType) {
    struct Case {
        const char* what;
        DWORD type;
        Bytes bytes;
        UINT result;
    };
    const std::wstring zeros(126, L'0');
    const Case cases[] = {
        {"129 characters and a terminator", REG_SZ, Text(zeros + L"9.9").bytes, kSkip},
        {"130 characters without one", REG_SZ, BytesOf(zeros + L"09.9"), kSkip},
        {"130 characters and a terminator", REG_SZ, Text(zeros + L"09.9").bytes, 0},
        {"131 characters without one", REG_SZ, BytesOf(zeros + L"009.9"), 0},
        {"another type", REG_EXPAND_SZ, Text(L"9.9").bytes, kSkip},
        {"bytes", REG_BINARY, BytesOf(L"9.9"), kSkip},
        {"two strings", REG_MULTI_SZ, BytesOf(L"9.9\0x\0\0"s), kSkip},
        {"an odd byte", REG_BINARY, {'9', 0, '.', 0, '9'}, kSkip},
        {"nothing", REG_SZ, {}, 0},
    };
    for (const Case& tested : cases) {
        SetStatus(L"Foo_TeloStatus", 2);
        SetInstalledVersion(tested.type, tested.bytes);
        EXPECT_EQ(Install(L"Foo", L"1.2"), tested.result) << tested.what;
    }
}

TEST_F(CheckForClientsTest, ARemovalTakesTheLastClientWhateverItsOwnName) {
    SetStatus(L"Foo_TeloStatus", 1);
    SetStatus(L"Last_TeloStatus", 1);
    SetLastClient(L"Last");
    EXPECT_EQ(Remove(L"Foo"), kSkip);
    EXPECT_EQ(Status(L"Foo_TeloStatus"), Number(1));
    EXPECT_EQ(Status(L"Last_TeloStatus"), Number(2));
    EXPECT_EQ(LastClient(), Text(L"Last"));
    // An installation makes its own client the last one, and then the removal is that of Foo.
    EXPECT_EQ(Install(L"Foo"), 0U);
    EXPECT_EQ(LastClient(), Text(L"Foo"));
    EXPECT_EQ(Remove(L"Foo"), 0U);
    EXPECT_EQ(Status(L"Foo_TeloStatus"), Number(2));
}

TEST_F(CheckForClientsTest, TheLastClientMayHave260BytesOfAnyType) {
    struct Case {
        const char* what;
        DWORD type;
        Bytes bytes;
        std::wstring name;
    };
    const std::wstring n129(129, L'n');
    const std::wstring n130(130, L'n');
    const Case cases[] = {
        {"an empty name", REG_SZ, Text(L"").bytes, L""},
        {"no byte at all", REG_SZ, {}, L""},
        {"129 characters", REG_SZ, Text(n129).bytes, n129},
        {"130 characters", REG_SZ, Text(n130).bytes, L"Foo"},
        {"130 characters without a terminator", REG_SZ, BytesOf(n130), n130},
        {"129 characters without a terminator", REG_SZ, BytesOf(n129), n129},
        {"131 characters without a terminator", REG_SZ, BytesOf(n130 + L"n"), L"Foo"},
        {"a name of many", REG_SZ, Text(std::wstring(5000, L'n')).bytes, L"Foo"},
        {"a text behind the first", REG_SZ, BytesOf(L"Bar\0x\0"s), L"Bar"},
        {"bytes", REG_BINARY, BytesOf(L"Bar"), L"Bar"},
        {"an odd byte", REG_BINARY, {'B', 0, 'a', 0, 'r'}, L"Bar"},
        {"one byte", REG_SZ, {'B'}, L"B"},
    };
    for (const Case& tested : cases) {
        RemoveKeys();
        SetLastClient(tested.type, tested.bytes);
        const StandInSession logging;
        EXPECT_EQ(Remove(L"Foo"), 0U) << tested.what;
        EXPECT_EQ(Status(tested.name + L"_TeloStatus"), Number(2)) << tested.what;
        EXPECT_EQ(LastClient(), Text(tested.name)) << tested.what;
        const bool replaced = tested.name != L"Foo";
        EXPECT_EQ(logging.LogLines().size(), replaced ? 5U : 4U) << tested.what;
        if (replaced) {
            EXPECT_EQ(logging.LogLines().back(), L"Client Name (Uninstall) " + tested.name);
        }
    }
}

TEST_F(CheckForClientsTest, ATextEndsInsideTheBufferWhateverTheReadLeavesInIt) {
    // All that the declared size allows, and as much again: the buffer is twice as long.
    for (const std::size_t length : {130U, 259U}) {
        RemoveKeys();
        SetLastClient(L"Last");
        {
            HOOK(query, RegQueryValueExW,
                 [&](HKEY, LPCWSTR, LPDWORD, LPDWORD, LPBYTE data, LPDWORD size) -> LSTATUS {
                     EXPECT_EQ(*size, 260U);
                     std::fill_n(reinterpret_cast<wchar_t*>(data), length, L'n');
                     return ERROR_SUCCESS;
                 });
            EXPECT_EQ(Remove(L"Foo"), 0U);
            EXPECT_EQ(query.Calls(), 1);
        }
        EXPECT_EQ(Status(std::wstring(length, L'n') + L"_TeloStatus"), Number(2));
    }
}

TEST_F(CheckForClientsTest, AnInstallationOverwritesTheLastClientUnread) {
    for (const std::size_t length : {0, 1, 129, 130, 1000}) {
        const std::wstring name(length, L'n');
        RemoveKeys();
        SetLastClient(REG_BINARY, Bytes(5000, 'x'));
        EXPECT_EQ(Install(name), 0U);
        EXPECT_EQ(LastClient(), Text(name));
        EXPECT_EQ(Status(name + L"_TeloStatus"), Number(1));
        // Of a name that long the next removal reads nothing, and takes its own.
        EXPECT_EQ(Remove(length < 130 ? L"Other" : name), 0U);
        EXPECT_EQ(LastClient(), Text(name));
        EXPECT_EQ(Status(name + L"_TeloStatus"), Number(2));
    }
}

TEST_F(CheckForClientsTest, TheClientStandsBeforeTheFirstUnderscore) {
    SetStatus(L"Foo_X_TeloStatus", 1);
    EXPECT_EQ(Install(L"Foo"), 0U);
    EXPECT_EQ(Status(L"Foo_X_TeloStatus"), Number(1));
    EXPECT_EQ(Status(L"Foo_TeloStatus"), std::nullopt);
    EXPECT_EQ(Remove(L"Foo"), 0U);
    EXPECT_EQ(Status(L"Foo_X_TeloStatus"), Number(2));
    EXPECT_EQ(Status(L"Foo_TeloStatus"), std::nullopt);

    // A name with an underscore does not find its own status: it is taken for that of another.
    RemoveKeys();
    EXPECT_EQ(Install(L"Foo_X"), 0U);
    EXPECT_EQ(Install(L"Foo_X"), kSkip);
    EXPECT_EQ(Remove(L"Foo_X"), kSkip);
    EXPECT_EQ(Status(L"Foo_X_TeloStatus"), Number(2));
    EXPECT_EQ(Remove(L"Foo_X"), 0U);
}

TEST_F(CheckForClientsTest, AValueWithoutUnderscoreBelongsToItsWholeName) {
    SetStatus(L"FooTeloStatus", 1);
    EXPECT_EQ(Install(L"Foo"), kSkip);
    RemoveKeys();
    SetStatus(L"FooTeloStatus", 1);
    EXPECT_EQ(Remove(L"FooTeloStatus"), 0U);
    EXPECT_EQ(Status(L"FooTeloStatus"), Number(2));
    EXPECT_EQ(Status(L"FooTeloStatus_TeloStatus"), std::nullopt);
}

TEST_F(CheckForClientsTest, ANameInOtherLettersIsAnotherClientOfTheSameValue) {
    SetStatus(L"foo_TeloStatus", 1);
    EXPECT_EQ(Remove(L"Foo"), kSkip);
    // Value names are one to the registry in whatever letters.
    EXPECT_EQ(Status(L"foo_TeloStatus"), Number(2));
    EXPECT_EQ(Remove(L"Foo"), 0U);
}

TEST_F(CheckForClientsTest, ALaterValueOfTheClientIsWritten) {
    // First by its name, and first by its creation: no engine lists them otherwise.
    SetStatus(L"Foo_A_TeloStatus", 2);
    SetStatus(L"Foo_B_TeloStatus", 2);
    EXPECT_EQ(Install(L"Foo"), 0U);
    EXPECT_EQ(Status(L"Foo_A_TeloStatus"), Number(2));
    EXPECT_EQ(Status(L"Foo_B_TeloStatus"), Number(1));
    EXPECT_EQ(Status(L"Foo_TeloStatus"), std::nullopt);
}

TEST_F(CheckForClientsTest, KeysBelowCountByTheirNamesAlone) {
    const ScratchKey key(kTelo);
    // A key of such a name is no value that could be read, and still a client.
    key.CreateSubkey(L"Bar_TeloStatus");
    SetInstalledVersion(L"1.2");
    EXPECT_EQ(Install(L"Foo", L"1.2"), kSkip);
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, kAgent.c_str());
    EXPECT_EQ(Install(L"Foo", L"1.2"), 0U);

    // A value below is looked for in the key itself.
    key.CreateSubkey(L"below");
    SetValue(key.Get(), L"below", L"Zoo_TeloStatus", REG_DWORD, Number(1).bytes);
    EXPECT_EQ(Install(L"Foo", L"1.2"), 0U);
    SetStatus(L"Zoo_TeloStatus", 1);
    EXPECT_EQ(Install(L"Foo", L"1.2"), kSkip);
}

TEST_F(CheckForClientsTest, ANameWithABackslashIsListedByItsEnd) {
    EXPECT_EQ(Install(L"A\\B"), 0U);
    EXPECT_EQ(Status(L"A\\B_TeloStatus"), Number(1));
    // Listed as B_TeloStatus, which cannot be read: a client, and not an active one.
    EXPECT_EQ(Install(L"C"), 0U);
    EXPECT_EQ(Status(L"C_TeloStatus"), Number(1));
    EXPECT_EQ(Status(L"B_TeloStatus"), std::nullopt);
    EXPECT_EQ(Remove(L"B"), 0U);
}

TEST_F(CheckForClientsTest, AFirstClientWithEachCallRefusedInTurn) {
    struct Refusal {
        const char* what;
        std::optional<Value> lastClient;
        bool statusIsWritten;
    };
    // In the order of the calls of TheFirstClientCreatesItsValues.
    const Refusal refusals[] = {
        {"list the clients", Text(L"Foo"), true},
        {"open the user's key", Text(L"Foo"), true},
        {"create it", {}, true},
        {"set the last client", {}, true},
        {"open the status key", Text(L"Foo"), true},
        {"create it", Text(L"Foo"), false},
        {"set the status", Text(L"Foo"), false},
        {"none", Text(L"Foo"), true},
    };
    for (const bool removal : {false, true}) {
        session.SetProperty(L"CustomActionData", Data(L"Foo", removal ? L"ALL" : L"", L"1.2"));
        const Value status = Number(removal ? 2 : 1);
        // A removal first finds no key of the user.
        const std::size_t more = removal ? 1 : 0;
        std::size_t number = 0;
        for (const Refusal& refusal : refusals) {
            RemoveKeys();
            ++number;
            // A key that cannot be created is not written to.
            const std::size_t made = number == 3 || number == 6 ? 6 : 7;
            EXPECT_EQ(ExpectWithRefusal(number + more, 0, refusal.what), made + more)
                << refusal.what;
            EXPECT_EQ(LastClient(), refusal.lastClient) << refusal.what;
            EXPECT_EQ(Status(L"Foo_TeloStatus"),
                      refusal.statusIsWritten ? std::optional(status) : std::nullopt)
                << refusal.what;
        }
    }
}

TEST_F(CheckForClientsTest, AnInstallationAmongClientsWithEachCallRefusedInTurn) {
    struct Refusal {
        const char* what;
        UINT result;
        std::optional<Value> lastClient;
        std::optional<Value> status;
    };
    // Bar is active, and an agent of this version is there: two reasons to skip.
    const Value last = Text(L"Last");
    const Value foo = Text(L"Foo");
    const Refusal refusals[] = {
        {"list the clients", 0, foo, Number(1)},
        {"open the user's key", kSkip, foo, Number(1)},
        {"set the last client", kSkip, last, Number(1)},
        {"open the key for Bar", kSkip, foo, Number(1)},
        {"read Bar", kSkip, foo, Number(1)},
        {"open the key for Foo", kSkip, foo, Number(1)},
        {"read Foo", kSkip, foo, Number(1)},
        {"open the agent's key", kSkip, foo, Number(1)},
        {"read the version", kSkip, foo, Number(1)},
        {"open the status key", kSkip, foo, Number(1)},
        {"set the status", kSkip, foo, Number(2)},
        {"none", kSkip, foo, Number(1)},
    };
    session.SetProperty(L"CustomActionData", Data(L"Foo", L"", L"1.2"));
    // With one reason only each of them falls with the calls that find it.
    for (const bool barIsActive : {true, false}) {
        for (const bool agentIsThere : {true, false}) {
            std::size_t number = 0;
            for (const Refusal& refusal : refusals) {
                ++number;
                SetStatus(L"Bar_TeloStatus", barIsActive ? 1 : 2);
                SetStatus(L"Foo_TeloStatus", 2);
                SetInstalledVersion(agentIsThere ? L"1.2" : L"1.1");
                SetLastClient(L"Last");
                const bool barIsSeen = barIsActive && number != 4 && number != 5;
                const bool agentIsSeen = agentIsThere && number != 8 && number != 9;
                const UINT expected = barIsSeen || agentIsSeen ? refusal.result : 0U;
                const std::size_t made = ExpectWithRefusal(number, expected, refusal.what);
                EXPECT_TRUE(number < std::size(refusals) || made == number - 1) << made;
                EXPECT_EQ(LastClient(), refusal.lastClient) << refusal.what;
                EXPECT_EQ(Status(L"Foo_TeloStatus"), refusal.status) << refusal.what;
                EXPECT_EQ(Status(L"Bar_TeloStatus"), Number(barIsActive ? 1 : 2));
            }
        }
    }
}

TEST_F(CheckForClientsTest, ARemovalAmongClientsWithEachCallRefusedInTurn) {
    struct Refusal {
        const char* what;
        UINT result;
        std::optional<Value> lastClient;
        std::optional<Value> foo;
        std::optional<Value> last;
    };
    // Foo is told to go, and Last goes; without its name Foo goes.
    const Value last = Text(L"Last");
    const Refusal refusals[] = {
        {"open the user's key", kSkip, Text(L"Foo"), Number(2), Number(1)},
        {"read the last client", kSkip, Text(L"Foo"), Number(2), Number(1)},
        {"list the clients", 0, last, Number(1), Number(2)},
        {"open the user's key again", kSkip, last, Number(1), Number(2)},
        {"set the last client", kSkip, last, Number(1), Number(2)},
        {"open the key for Foo", 0, last, Number(1), Number(2)},
        {"read Foo", 0, last, Number(1), Number(2)},
        {"open the key for Last", kSkip, last, Number(1), Number(2)},
        {"read Last", kSkip, last, Number(1), Number(2)},
        {"open the status key", kSkip, last, Number(1), Number(2)},
        {"set the status", kSkip, last, Number(1), Number(1)},
        {"none", kSkip, last, Number(1), Number(2)},
    };
    session.SetProperty(L"CustomActionData", Data(L"Foo", L"ALL", L"1.2"));
    std::size_t number = 0;
    for (const Refusal& refusal : refusals) {
        SetStatus(L"Foo_TeloStatus", 1);
        SetStatus(L"Last_TeloStatus", 1);
        SetLastClient(L"Last");
        const std::size_t made = ExpectWithRefusal(++number, refusal.result, refusal.what);
        EXPECT_TRUE(number < std::size(refusals) || made == number - 1) << made;
        EXPECT_EQ(LastClient(), refusal.lastClient) << refusal.what;
        EXPECT_EQ(Status(L"Foo_TeloStatus"), refusal.foo) << refusal.what;
        EXPECT_EQ(Status(L"Last_TeloStatus"), refusal.last) << refusal.what;
    }
}

// As for a user without the right to write: clients are listed, but neither read nor written.
TEST_F(CheckForClientsTest, AKeyThatNeitherOpensForWritingNorIsCreatedLeavesEverythingAsItIs) {
    SetStatus(L"Bar_TeloStatus", 1);
    SetStatus(L"Foo_TeloStatus", 2);
    SetInstalledVersion(L"1.2.3.4");
    SetLastClient(L"Last");
    HOOK(opening, RegOpenKeyExW,
         [&](HKEY root, LPCWSTR subkey, DWORD options, REGSAM access, PHKEY key) -> LSTATUS {
             return access == KEY_ALL_ACCESS ? ERROR_ACCESS_DENIED
                                             : opening.Original(root, subkey, options, access, key);
         });
    HOOK(creating, RegCreateKeyExW,
         [](HKEY, LPCWSTR, DWORD, LPWSTR, DWORD, REGSAM, LPSECURITY_ATTRIBUTES, PHKEY,
            LPDWORD) -> LSTATUS { return ERROR_ACCESS_DENIED; });
    COUNT_CALLS(setting, RegSetValueExW);
    EXPECT_EQ(Install(L"Foo"), 0U);
    EXPECT_EQ(creating.Calls(), 2);
    EXPECT_EQ(Remove(L"Foo"), 0U);
    EXPECT_EQ(creating.Calls(), 4);
    EXPECT_EQ(setting.Calls(), 0);
    EXPECT_EQ(LastClient(), Text(L"Last"));
    EXPECT_EQ(Status(L"Bar_TeloStatus"), Number(1));
    EXPECT_EQ(Status(L"Foo_TeloStatus"), Number(2));
}

TEST_F(CheckForClientsTest, WhatTheRegistryDoesNotListIsNoClient) {
    SetStatus(L"Bar_TeloStatus", 1);
    SetStatus(L"Zoo_TeloStatus", 2);
    {
        FAIL_CALL(asking, RegQueryInfoKeyW, 1, ERROR_ACCESS_DENIED, NO_ERROR);
        EXPECT_EQ(Remove(L"Zoo"), 0U);
    }
    {
        FAIL_CALL(listing, RegEnumValueW, 1, ERROR_ACCESS_DENIED, NO_ERROR);
        EXPECT_EQ(Remove(L"Zoo"), 0U);
        EXPECT_EQ(listing.Calls(), 2);
    }
    {
        FAIL_CALL(listing, RegEnumValueW, 2, ERROR_ACCESS_DENIED, NO_ERROR);
        EXPECT_EQ(Remove(L"Zoo"), kSkip);
        EXPECT_EQ(listing.Calls(), 2);
    }
    // What stands below a key that is not listed is not listed either.
    SetValue(HKEY_LOCAL_MACHINE, kTelo + L"\\below", L"Bar_TeloStatus", REG_DWORD, Number(1).bytes);
    FAIL_CALL(listing, RegEnumKeyExW, 1, ERROR_ACCESS_DENIED, NO_ERROR);
    FAIL_CALL(values, RegEnumValueW, 1, ERROR_ACCESS_DENIED, NO_ERROR);
    EXPECT_EQ(Remove(L"Zoo"), 0U);
    EXPECT_EQ(listing.Calls(), 1);
    EXPECT_EQ(values.Calls(), 2);
}

TEST_F(CheckForClientsTest, AClientThatComesOrGoesMeanwhileKeepsItsOwnStatus) {
    // What happens behind the listing.
    const auto installFooWhile = [this](const std::function<void()>& change) {
        CallTrace calls(kRegistry);
        calls.before = [&](const std::wstring&) {
            if (calls.Count() == 2) {
                change();
            }
        };
        EXPECT_EQ(Install(L"Foo", L"1.2"), 0U);
    };
    SetStatus(L"Bar_TeloStatus", 1);
    // Bar goes: its value is there and says so.
    installFooWhile([] { SetStatus(L"Bar_TeloStatus", 2); });
    EXPECT_EQ(Status(L"Foo_TeloStatus"), Number(1));
    EXPECT_EQ(Status(L"Bar_TeloStatus"), Number(2));
    // Zoo comes, and the value of Bar goes.
    installFooWhile([] {
        SetStatus(L"Zoo_TeloStatus", 1);
        SetLastClient(L"Zoo");
        RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, kTelo.c_str(), L"Bar_TeloStatus");
    });
    EXPECT_EQ(LastClient(), Text(L"Foo"));
    EXPECT_EQ(Status(L"Foo_TeloStatus"), Number(1));
    EXPECT_EQ(Status(L"Zoo_TeloStatus"), Number(1));
    EXPECT_EQ(Status(L"Bar_TeloStatus"), std::nullopt);
    EXPECT_EQ(Install(L"Foo", L"1.2"), kSkip);
}

TEST_F(CheckForClientsTest, LeavesNoHandleOpenWhenMemoryRunsOut) {
    SetStatus(L"Bar_TeloStatus", 1);
    SetInstalledVersion(L"1.2");
    SetLastClient(L"Last");
    for (const wchar_t* action : {L"", L"ALL"}) {
        EXPECT_EQ(Run(Data(L"Foo", action, L"1.2.3.4")), kSkip);
        const int before = OpenHandleCount();
        int thrown = 0;
        const int reached =
            halvard_tests::FailEachAllocation([] {}, [&] { CheckForClients(session.Get()); },
                                              [&](bool threw) {
                                                  thrown += threw ? 1 : 0;
                                                  EXPECT_EQ(OpenHandleCount(), before);
                                              });
        EXPECT_EQ(thrown, reached);
        EXPECT_GT(reached, 10);
    }
}

TEST_F(CheckForClientsTest, AFailedReadOfItsDataLeavesTheAction) {
    session.SetProperty(L"CustomActionData", Data(L"Foo", L"", L"1.2"));
    FAIL_CALL(reading, MsiGetPropertyW, 0, ERROR_INVALID_HANDLE, NO_ERROR);
    EXPECT_THROW(CheckForClients(session.Get()), std::out_of_range);
    EXPECT_FALSE(KeyExists(kTelo));
}

class ReadClientsTest : public CheckForClientsTest {};

TEST_F(ReadClientsTest, AStatusThatCannotBeReadIsTakenOverFromTheRecordBefore) {
    SetStatus(L"Foo_TeloStatus", 1);
    SetStatus(L"Other_TeloStatus", 2);
    SetValue(HKEY_LOCAL_MACHINE, kTelo, L"Long_TeloStatus", REG_QWORD, Bytes(8, 3));
    const std::wstring path = L"HKEY_LOCAL_MACHINE\\" + kTelo;
    const halvard::ClientList clients = halvard::ReadClients(
        {path + L"\\absent_TeloStatus", path + L"\\Foo_TeloStatus", path + L"\\below",
         path + L"\\below\\Long_TeloStatus", path + L"\\GUID", path + L"\\Other_TeloStatus",
         path + L"\\TeloStatus"},
        L"Foo");
    Lines records;
    for (const halvard::ClientRecord& record : clients.records) {
        records.push_back(record.clientName + (record.enabled ? L" enabled" : L"") +
                          (record.self ? L" self " : L" ") + std::to_wstring(record.status));
    }
    EXPECT_EQ(records,
              (Lines{L"absent 0", L"Foo enabled self 1", L"Long 1", L"Other 2", L"TeloStatus 2"}));
    EXPECT_EQ(clients.statusName, L"Foo_TeloStatus");
}

class SetClientStatusTest : public CheckForClientsTest {};

TEST_F(SetClientStatusTest, WritesTheStatusUnderTheClientsName) {
    const CallTrace calls(kRegistry);
    SetClientStatus(L"Foo", 1);
    EXPECT_EQ(Status(L"Foo_TeloStatus"), Number(1));
    SetClientStatus(L"Foo", 2);
    EXPECT_EQ(Status(L"Foo_TeloStatus"), Number(2));
    SetClientStatus(L"", 1);
    EXPECT_EQ(Status(L"_TeloStatus"), Number(1));
    EXPECT_EQ(Lines(calls.All().begin(), calls.All().begin() + 4),
              (Lines{L"open " + kStatusKey + L" 0xf003f", L"create " + kStatusKey + L" 0x2",
                     L"set " + kStatusKey + L" Foo_TeloStatus 4 4 bytes", L"close " + kStatusKey}));
}

TEST(IsVersionAtLeast, IsTheSameInALocaleWithAnotherDecimalPoint) {
    const LocaleScope locale;
    ASSERT_NE(std::setlocale(LC_ALL, "German_Germany"), nullptr);
    ASSERT_STREQ(std::localeconv()->decimal_point, ",");
    const auto atLeast = [](const wchar_t* a, const wchar_t* b) {
        return halvard::IsVersionAtLeast(halvard::ParseVersion(a), halvard::ParseVersion(b));
    };
    EXPECT_TRUE(atLeast(L"1.2.10.0", L"1.2.9.9"));
    EXPECT_FALSE(atLeast(L"1.2.9.9", L"1.2.10.0"));
    EXPECT_TRUE(atLeast(L"1.1000", L"1.999"));
    EXPECT_EQ(halvard::ParseVersion(L"1.2,5").kind, halvard::VersionKind::Invalid);
}
