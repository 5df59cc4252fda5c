#include "registry_actions/display_log.h"

#include "call_trace.h"
#include "child_programs.h"
#include "display_adapter.h"
#include "files.h"
#include "import_hook.h"
#include "open_handles.h"
#include "registry_key.h"

#include <setupapi.h>
#include <shlobj.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <vector>

using halvard::SetDCLogFileRegistry;
using halvard_tests::BytesOf;
using halvard_tests::CallTrace;
using halvard_tests::DisplayAdapter;
using halvard_tests::EnvironmentVariable;
using halvard_tests::IsThere;
using halvard_tests::kDevices;
using halvard_tests::kFolders;
using halvard_tests::kRegistry;
using halvard_tests::OpenHandleCount;
using halvard_tests::RegistryValueAt;
using halvard_tests::ScratchFolder;
using halvard_tests::ScratchKey;
using namespace std::string_literals;

namespace {

using Bytes = std::vector<BYTE>;
using Value = ScratchKey::Value;

const std::wstring kClasses = L"SYSTEM\\CurrentControlSet\\Control\\Class\\";

Bytes Terminated(const std::wstring& text) {
    return BytesOf(text + L'\0');
}

/// A driver's class key for the length of a scope.
class ClassKey : public ScratchKey {
public:
    explicit ClassKey(const std::wstring& driver)
        : ScratchKey(kClasses + driver), driver_(driver) {}

    const std::wstring& Driver() const { return driver_; }

    std::optional<Value> LogFile() const { return RegistryValueAt(Path(), L"DalDCELogFilePath"); }
    std::optional<Value> LogFileSize() const {
        return RegistryValueAt(Path(), L"DalDCEFilePathSize");
    }

    DWORD ValueCount() const {
        DWORD count = 0;
        RegQueryInfoKeyW(Get(), nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, &count,
                         nullptr, nullptr, nullptr, nullptr);
        return count;
    }

private:
    std::wstring driver_;
};

std::wstring DriverName(int number) {
    return L"{4d36e968-e325-11ce-bfc1-08002be10318}\\" + std::to_wstring(9000 + number);
}

class SetDCLogFileRegistryTest : public testing::Test {
protected:
    std::wstring LogFolder() const { return scratch_.File(L"Zenvo\\PV\\Analytics"); }
    std::wstring LogFile() const { return LogFolder() + L"\\qtkmd_dce.log"; }

    static Value LogFileValue(const std::wstring& logFile) { return {REG_SZ, Terminated(logFile)}; }
    static Value LogFileSizeValue(const std::wstring& logFile) {
        Bytes bytes = BytesOf(L"260");
        bytes.resize(Terminated(logFile).size());
        return {REG_SZ, bytes};
    }

    void ExpectWritten(const ClassKey& key) const {
        EXPECT_EQ(key.LogFile(), LogFileValue(LogFile()));
        EXPECT_EQ(key.LogFileSize(), LogFileSizeValue(LogFile()));
        EXPECT_EQ(key.ValueCount(), 2U);
    }
    void ExpectUntouched(const ClassKey& key) const { EXPECT_EQ(key.ValueCount(), 0U); }

    ScratchFolder scratch_;
    EnvironmentVariable temporaryFolder_{L"TMP", scratch_.Path()};
};

} // namespace

TEST_F(SetDCLogFileRegistryTest, WritesTheLogFileForTheAdaptersOfTheMakerOnly) {
    const struct {
        std::wstring manufacturer;
        bool makers;
    } cases[] = {
        {L"Another Corporation", false},
        {L"Built by Zenvo Corporation Ltd.", true},
        {L"Zenvo Graphics", true},
        {L"The Zenvo Company", false},
        {L"Qorta \u0416 devices", true},
        {L"New Qorta", false},
        {L"zenvo", false},
        {L"", false},
    };
    std::vector<std::unique_ptr<ClassKey>> keys;
    std::vector<std::unique_ptr<DisplayAdapter>> adapters;
    for (const auto& [manufacturer, makers] : cases) {
        keys.push_back(std::make_unique<ClassKey>(DriverName(static_cast<int>(keys.size()))));
        adapters.push_back(std::make_unique<DisplayAdapter>(manufacturer, keys.back()->Driver()));
    }
    EXPECT_EQ(SetDCLogFileRegistry(0), 0U);
    for (std::size_t index = 0; index < keys.size(); ++index) {
        SCOPED_TRACE(index);
        if (cases[index].makers) {
            ExpectWritten(*keys[index]);
        } else {
            ExpectUntouched(*keys[index]);
        }
    }
}

TEST_F(SetDCLogFileRegistryTest, MakesTheFolderAndWritesNothingWithoutAnAdapterOfTheMaker) {
    const ClassKey key(DriverName(1));
    const DisplayAdapter adapter(L"Another", key.Driver());
    COUNT_CALLS(opening, RegOpenKeyExW);
    COUNT_CALLS(setting, RegSetValueExW);
    EXPECT_EQ(SetDCLogFileRegistry(0), 0U);
    EXPECT_EQ(opening.Calls(), 0);
    EXPECT_EQ(setting.Calls(), 0);
    EXPECT_TRUE(IsThere(LogFolder()));
    EXPECT_FALSE(IsThere(LogFile()));
}

TEST_F(SetDCLogFileRegistryTest, GoesOnBehindAdaptersThatLackSomething) {
    const ClassKey nobodys(DriverName(1));
    const ClassKey last(DriverName(2));
    DisplayAdapter withoutManufacturer;
    withoutManufacturer.SetDriver(nobodys.Driver());
    DisplayAdapter withoutDriver;
    withoutDriver.SetManufacturer(L"Zenvo");
    const DisplayAdapter withoutKey(L"Zenvo", DriverName(99));
    const DisplayAdapter complete(L"Zenvo", last.Driver());
    EXPECT_EQ(SetDCLogFileRegistry(0), 0U);
    ExpectUntouched(nobodys);
    ExpectWritten(last);
    EXPECT_EQ(RegistryValueAt(kClasses + DriverName(99), L"DalDCELogFilePath"), std::nullopt);
}

TEST_F(SetDCLogFileRegistryTest, SetsTheValuesAnewAndLeavesOthers) {
    const ClassKey key(DriverName(1));
    const DisplayAdapter adapter(L"Zenvo", key.Driver());
    key.SetString(L"DriverVersion", L"1");
    key.SetString(L"DalDCELogFilePath", L"x");
    key.SetBytes(L"DalDCEFilePathSize", REG_DWORD, {1, 0, 0, 0});
    EXPECT_EQ(SetDCLogFileRegistry(0), 0U);
    EXPECT_EQ(key.LogFile(), LogFileValue(LogFile()));
    EXPECT_EQ(key.LogFileSize(), LogFileSizeValue(LogFile()));
    EXPECT_EQ(key.ReadCharacters(L"DriverVersion"), L"1\0"s);
}

TEST_F(SetDCLogFileRegistryTest, ReadersOfTheSizeSeeItsTextWhateverTheLengthOfThePath) {
    const ClassKey key(DriverName(1));
    const DisplayAdapter adapter(L"Zenvo", key.Driver());
    for (const std::wstring& folder : {L"t"s, L"With blanks \u0416"s, std::wstring(120, L'f')}) {
        halvard_tests::CreateFolders(scratch_.File(folder));
        const EnvironmentVariable temporaryFolder(L"TMP", scratch_.File(folder));
        const std::wstring logFile =
            scratch_.File(folder) + L"\\Zenvo\\PV\\Analytics\\qtkmd_dce.log";
        EXPECT_EQ(SetDCLogFileRegistry(0), 0U);
        EXPECT_EQ(key.LogFile(), LogFileValue(logFile));
        EXPECT_EQ(key.LogFileSize(), LogFileSizeValue(logFile));
        EXPECT_TRUE(IsThere(logFile.substr(0, logFile.rfind(L'\\'))));
    }
}

TEST_F(SetDCLogFileRegistryTest, MakesItsCallsInThisOrder) {
    const ClassKey key(DriverName(1));
    const DisplayAdapter adapter(L"Zenvo", key.Driver());
    const CallTrace trace(kFolders | kDevices | kRegistry);
    EXPECT_EQ(SetDCLogFileRegistry(0), 0U);
    // The adapters that the machine has of its own have no manufacturer.
    Lines calls = WithoutRepeats(
        trace.Of({L"temporary folder", L"make folder", L"list", L"property", L"open", L"set"}));
    calls.resize(8);
    const std::wstring size = std::to_wstring(2 * LogFile().size() + 2);
    EXPECT_EQ(calls, (Lines{
                         L"temporary folder 1024",
                         L"make folder " + LogFolder(),
                         L"list devices {4D36E968-E325-11CE-BFC1-08002BE10318} 2",
                         L"property 11 4096",
                         L"property 9 4096",
                         L"open HKLM\\" + key.Path() + L" 0xf003f",
                         L"set HKLM\\" + key.Path() + L" DalDCELogFilePath 1 " + size + L" bytes",
                         L"set HKLM\\" + key.Path() + L" DalDCEFilePathSize 1 " + size + L" bytes",
                     }));
    const Lines devices = trace.Of({L"device "});
    ASSERT_GE(devices.size(), 2U);
    for (std::size_t index = 0; index < devices.size(); ++index) {
        EXPECT_EQ(devices[index], L"device " + std::to_wstring(index) + L" " +
                                      std::to_wstring(sizeof(SP_DEVINFO_DATA)) + L" bytes");
    }
}

TEST_F(SetDCLogFileRegistryTest, LeavesTheKeysAndTheListOpen) {
    const ClassKey first(DriverName(1));
    const ClassKey second(DriverName(2));
    const DisplayAdapter one(L"Zenvo", first.Driver());
    const DisplayAdapter other(L"Qorta", second.Driver());
    const int before = OpenHandleCount();
    const CallTrace trace(kDevices | kRegistry);
    EXPECT_EQ(SetDCLogFileRegistry(0), 0U);
    EXPECT_EQ(trace.LeftOpen(), (Lines{L"list devices {4D36E968-E325-11CE-BFC1-08002BE10318} 2",
                                       L"open HKLM\\" + first.Path() + L" 0xf003f",
                                       L"open HKLM\\" + second.Path() + L" 0xf003f"}));
    EXPECT_GE(OpenHandleCount() - before, 2);
}

TEST_F(SetDCLogFileRegistryTest, WritesTheValuesWhateverBecomesOfTheFolder) {
    const ClassKey key(DriverName(1));
    const DisplayAdapter adapter(L"Zenvo", key.Driver());
    halvard_tests::WriteWholeFile(scratch_.File(L"Zenvo"), std::string("in the way"));
    EXPECT_EQ(SetDCLogFileRegistry(0), 0U);
    EXPECT_FALSE(IsThere(LogFolder()));
    ExpectWritten(key);

    DeleteFileW(scratch_.File(L"Zenvo").c_str());
    halvard_tests::CreateFolders(LogFolder());
    EXPECT_EQ(SetDCLogFileRegistry(0), 0U);
    EXPECT_TRUE(IsThere(LogFolder()));
    ExpectWritten(key);
}

TEST_F(SetDCLogFileRegistryTest, DoesNothingWithoutATemporaryFolder) {
    const ClassKey key(DriverName(1));
    const DisplayAdapter adapter(L"Zenvo", key.Driver());
    COUNT_CALLS(making, SHCreateDirectoryExW);
    COUNT_CALLS(listing, SetupDiGetClassDevsW);
    for (const DWORD length : {0U, 1024U, 5000U}) {
        // What a failure leaves in the buffer is anyone's guess.
        HOOK(asking, GetTempPathW, [&](DWORD capacity, LPWSTR buffer) {
            std::fill(buffer, buffer + capacity, L'x');
            return length;
        });
        EXPECT_EQ(SetDCLogFileRegistry(0), 0U);
    }
    EXPECT_EQ(making.Calls(), 0);
    EXPECT_EQ(listing.Calls(), 0);
    ExpectUntouched(key);
}

TEST_F(SetDCLogFileRegistryTest, DoesNothingForALogFileOfMoreThan1023Characters) {
    const ClassKey key(DriverName(1));
    const DisplayAdapter adapter(L"Zenvo", key.Driver());
    HOOK(making, SHCreateDirectoryExW, [](HWND, LPCWSTR, const SECURITY_ATTRIBUTES*) {
        return static_cast<int>(ERROR_FILENAME_EXCED_RANGE);
    });
    const std::size_t longest = 1023 - std::wcslen(L"Zenvo\\PV\\Analytics\\qtkmd_dce.log");
    for (const std::size_t length : {std::size_t{1023}, longest + 1, longest}) {
        ExpectUntouched(key);
        EXPECT_EQ(making.Calls(), 0);
        HOOK(asking, GetTempPathW, [&](DWORD, LPWSTR buffer) {
            std::fill(buffer, buffer + length, L'x');
            return static_cast<DWORD>(length);
        });
        EXPECT_EQ(SetDCLogFileRegistry(0), 0U);
    }
    EXPECT_EQ(making.Calls(), 1);
    EXPECT_EQ(key.LogFile().value_or(Value()).bytes.size(), 2048U);
    EXPECT_EQ(key.LogFileSize().value_or(Value()).bytes.size(), 2048U);
}

TEST_F(SetDCLogFileRegistryTest, StopsWhenTheAdaptersCannotBeListed) {
    const ClassKey key(DriverName(1));
    const DisplayAdapter adapter(L"Zenvo", key.Driver());
    FAIL_CALL(listing, SetupDiGetClassDevsW, 1, INVALID_HANDLE_VALUE, ERROR_ACCESS_DENIED);
    COUNT_CALLS(enumerating, SetupDiEnumDeviceInfo);
    EXPECT_EQ(SetDCLogFileRegistry(0), 0U);
    EXPECT_EQ(enumerating.Calls(), 0);
    EXPECT_TRUE(IsThere(LogFolder()));
    ExpectUntouched(key);
}

TEST_F(SetDCLogFileRegistryTest, EndsWithTheFirstIndexThatFails) {
    const ClassKey key(DriverName(1));
    const DisplayAdapter adapter(L"Zenvo", key.Driver());
    FAIL_CALL(enumerating, SetupDiEnumDeviceInfo, 1, FALSE, ERROR_ACCESS_DENIED);
    EXPECT_EQ(SetDCLogFileRegistry(0), 0U);
    EXPECT_EQ(enumerating.Calls(), 1);
    ExpectUntouched(key);
}

namespace {

/// How a read of a property ends: what it returns and leaves as the last error.
struct ReadEnd {
    BOOL result;
    DWORD lastError;
    bool counts;
};

} // namespace

TEST_F(SetDCLogFileRegistryTest, JudgesReadsByTheLastErrorAlone) {
    const ReadEnd ends[] = {
        {TRUE, NO_ERROR, true},
        {FALSE, NO_ERROR, true},
        {TRUE, ERROR_ACCESS_DENIED, false},
        {FALSE, ERROR_ACCESS_DENIED, false},
    };
    for (const DWORD changed : {SPDRP_MFG, SPDRP_DRIVER}) {
        for (const auto& [result, lastError, counts] : ends) {
            const ClassKey key(DriverName(1));
            const DisplayAdapter adapter(L"Zenvo", key.Driver());
            int changes = 0;
            HOOK(reading, SetupDiGetDeviceRegistryPropertyW,
                 [&, result = result,
                  lastError = lastError](HDEVINFO adapters, PSP_DEVINFO_DATA data, DWORD property,
                                         PDWORD type, PBYTE buffer, DWORD size, PDWORD required) {
                     const BOOL done =
                         reading.Original(adapters, data, property, type, buffer, size, required);
                     if (property != changed || done == FALSE) {
                         return done;
                     }
                     ++changes;
                     SetLastError(lastError);
                     return result;
                 });
            EXPECT_EQ(SetDCLogFileRegistry(0), 0U);
            EXPECT_GE(changes, 1);
            EXPECT_EQ(key.ValueCount(), counts ? 2U : 0U) << changed << " " << lastError;
        }
    }
}

TEST_F(SetDCLogFileRegistryTest, StartsEachReadWithNoErrorAndAnEmptyBuffer) {
    const ClassKey first(DriverName(1));
    const ClassKey second(DriverName(2));
    const DisplayAdapter one(L"Zenvo", first.Driver());
    const DisplayAdapter other(L"Zenvo", second.Driver());
    HOOK(opening, RegOpenKeyExW,
         [&](HKEY root, LPCWSTR subkey, DWORD options, REGSAM access, PHKEY opened) {
             const LSTATUS status = opening.Original(root, subkey, options, access, opened);
             SetLastError(ERROR_GEN_FAILURE); // as other calls may leave it
             return status;
         });
    HOOK(enumerating, SetupDiEnumDeviceInfo,
         [&](HDEVINFO adapters, DWORD index, PSP_DEVINFO_DATA data) {
             const BOOL done = enumerating.Original(adapters, index, data);
             SetLastError(ERROR_GEN_FAILURE);
             return done;
         });
    HOOK(reading, SetupDiGetDeviceRegistryPropertyW,
         [&](HDEVINFO adapters, PSP_DEVINFO_DATA data, DWORD property, PDWORD type, PBYTE buffer,
             DWORD size, PDWORD required) {
             EXPECT_EQ(GetLastError(), static_cast<DWORD>(NO_ERROR));
             EXPECT_EQ(std::count(buffer, buffer + size, BYTE{0}), 4096);
             const BOOL done =
                 reading.Original(adapters, data, property, type, buffer, size, required);
             if (property == SPDRP_MFG && done != FALSE) {
                 SetLastError(NO_ERROR);
             }
             return done;
         });
    EXPECT_EQ(SetDCLogFileRegistry(0), 0U);
    EXPECT_GE(reading.Calls(), 4);
    ExpectWritten(first);
    ExpectWritten(second);
}

TEST_F(SetDCLogFileRegistryTest, AReadThatFillsTheWholeBufferIsNotReadBeyond) {
    const ClassKey key(DriverName(1));
    const DisplayAdapter adapter(L"Zenvo", key.Driver());
    HOOK(reading, SetupDiGetDeviceRegistryPropertyW,
         [&](HDEVINFO adapters, PSP_DEVINFO_DATA data, DWORD property, PDWORD type, PBYTE buffer,
             DWORD size, PDWORD required) {
             const BOOL done =
                 reading.Original(adapters, data, property, type, buffer, size, required);
             if (property == SPDRP_MFG && done != FALSE) {
                 std::wstring text = L"Zenvo";
                 text.resize(size / sizeof(wchar_t), L'o');
                 std::memcpy(buffer, text.data(), size);
             }
             return done;
         });
    EXPECT_EQ(SetDCLogFileRegistry(0), 0U);
    ExpectWritten(key);
}

TEST_F(SetDCLogFileRegistryTest, ManufacturersOfEveryTypeAndLength) {
    std::wstring filling = L"Zenvo";
    filling.resize(2048, L'o');
    const struct {
        DWORD type;
        Bytes bytes;
        bool makers;
    } cases[] = {
        {REG_SZ, {}, false},
        {REG_SZ, {'Z'}, false},
        {REG_SZ, BytesOf(L"Zenvo"), true},
        {REG_SZ, Terminated(L"\0Zenvo"s), false},
        {REG_SZ, BytesOf(filling), true},
        {REG_SZ, BytesOf(filling + L"o"), false},
        {REG_SZ, Bytes(70000, 'Z'), false},
        {REG_DWORD, {1, 0, 0, 0}, false},
    };
    for (const auto& [type, bytes, makers] : cases) {
        const ClassKey key(DriverName(1));
        DisplayAdapter adapter(L"x", key.Driver());
        adapter.Store(SPDRP_MFG, type, bytes);
        EXPECT_EQ(SetDCLogFileRegistry(0), 0U);
        EXPECT_EQ(key.ValueCount(), makers ? 2U : 0U) << type << " " << bytes.size();
    }
}

TEST_F(SetDCLogFileRegistryTest, TakesThePropertiesBytesForTextWhateverTheirType) {
    for (const DWORD type : {REG_SZ, REG_EXPAND_SZ, REG_MULTI_SZ, REG_BINARY, REG_NONE}) {
        const ClassKey key(DriverName(1));
        DisplayAdapter adapter;
        adapter.Store(SPDRP_MFG, type, Terminated(L"Zenvo"));
        adapter.Store(SPDRP_DRIVER, type, Terminated(key.Driver()));
        EXPECT_EQ(SetDCLogFileRegistry(0), 0U);
        EXPECT_EQ(key.ValueCount(), 2U) << type;
    }
}

TEST_F(SetDCLogFileRegistryTest, DriverKeysOfEveryName) {
    const std::wstring longest(255 - kClasses.size(), L'k');
    for (const std::wstring& driver :
         {L"HalvardTest"s, L"Halvard Test \u0416\u00e9 !#$%&'()+,-.;=@[]^_`{}~/:*?\"<>|"s,
          longest}) {
        const ClassKey key(driver);
        const DisplayAdapter adapter(L"Zenvo", driver);
        EXPECT_EQ(SetDCLogFileRegistry(0), 0U);
        ExpectWritten(key);
    }

    const ClassKey tooLong(longest + L"k");
    const ClassKey cut(longest);
    const DisplayAdapter adapter(L"Zenvo", tooLong.Driver());
    EXPECT_EQ(SetDCLogFileRegistry(0), 0U);
    ExpectUntouched(tooLong);
    ExpectUntouched(cut);
}

TEST_F(SetDCLogFileRegistryTest, AnEmptyOrOversizedDriverNameIsSkipped) {
    for (const Bytes& name : {Terminated(L""), Bytes(), Bytes(4098, 'k')}) {
        DisplayAdapter adapter(L"Zenvo", L"x");
        adapter.Store(SPDRP_DRIVER, REG_SZ, name);
        COUNT_CALLS(opening, RegOpenKeyExW);
        EXPECT_EQ(SetDCLogFileRegistry(0), 0U);
        EXPECT_EQ(opening.Calls(), 0);
    }
}

TEST_F(SetDCLogFileRegistryTest, AClassKeyThatIsRefusedIsSkipped) {
    const ClassKey first(DriverName(1));
    const ClassKey second(DriverName(2));
    const DisplayAdapter one(L"Zenvo", first.Driver());
    const DisplayAdapter other(L"Zenvo", second.Driver());
    {
        FAIL_CALL(opening, RegOpenKeyExW, 1, ERROR_ACCESS_DENIED, ERROR_ACCESS_DENIED);
        EXPECT_EQ(SetDCLogFileRegistry(0), 0U);
        EXPECT_EQ(opening.Calls(), 2);
    }
    EXPECT_EQ(first.ValueCount() + second.ValueCount(), 2U);
}

TEST_F(SetDCLogFileRegistryTest, AValueThatIsRefusedDoesNotKeepTheOthersOut) {
    for (const int refused : {1, 2}) {
        const ClassKey first(DriverName(1));
        const ClassKey second(DriverName(2));
        const DisplayAdapter one(L"Zenvo", first.Driver());
        const DisplayAdapter other(L"Zenvo", second.Driver());
        FAIL_CALL(setting, RegSetValueExW, refused, ERROR_ACCESS_DENIED, ERROR_ACCESS_DENIED);
        EXPECT_EQ(SetDCLogFileRegistry(0), 0U);
        EXPECT_EQ(setting.Calls(), 4);
        EXPECT_EQ(first.ValueCount() + second.ValueCount(), 3U);
    }
}
