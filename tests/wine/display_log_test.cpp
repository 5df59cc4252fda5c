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
#include <functional>
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

/// A present adapter with the class key of its driver.
struct Adapter : ClassKey {
    explicit Adapter(const std::wstring& manufacturer = L"Zenvo",
                     const std::wstring& driver = DriverName(1))
        : ClassKey(driver), device(manufacturer, driver) {}
    DisplayAdapter device;
};

/// Watches the reads of properties. `before` sees the buffer; `after` sees one that succeeded, and
/// says what it answers. No trace changes an answer.
struct PropertyReads {
    std::function<void(const BYTE* buffer, DWORD size)> before;
    std::function<BOOL(DWORD property, BYTE* buffer, DWORD size)> after;
    HOOK(reading, SetupDiGetDeviceRegistryPropertyW,
         [this](HDEVINFO adapters, PSP_DEVINFO_DATA data, DWORD property, PDWORD type, PBYTE buffer,
                DWORD size, PDWORD required) {
             if (before) {
                 before(buffer, size);
             }
             const BOOL done =
                 reading.Original(adapters, data, property, type, buffer, size, required);
             return done == FALSE ? done : after(property, buffer, size);
         });
};

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
    std::vector<std::unique_ptr<Adapter>> keys;
    for (const auto& [manufacturer, makers] : cases) {
        const int number = static_cast<int>(keys.size());
        keys.push_back(std::make_unique<Adapter>(manufacturer, DriverName(number)));
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
    const Adapter key(L"Another");
    const CallTrace calls(kDevices | kRegistry);
    EXPECT_EQ(SetDCLogFileRegistry(0), 0U);
    // Its driver is not asked for.
    EXPECT_EQ(calls.Of({L"property 9 ", L"open HKLM", L"set "}), Lines{});
    EXPECT_TRUE(IsThere(LogFolder()));
    EXPECT_FALSE(IsThere(LogFile()));
}

TEST_F(SetDCLogFileRegistryTest, GoesOnBehindAdaptersThatLackSomething) {
    const ClassKey nobodys(DriverName(1));
    DisplayAdapter withoutManufacturer;
    withoutManufacturer.SetDriver(nobodys.Driver());
    DisplayAdapter withoutDriver;
    withoutDriver.SetManufacturer(L"Zenvo");
    const DisplayAdapter withoutKey(L"Zenvo", DriverName(99));
    const Adapter last(L"Zenvo", DriverName(2));
    EXPECT_EQ(SetDCLogFileRegistry(0), 0U);
    ExpectUntouched(nobodys);
    ExpectWritten(last);
    EXPECT_EQ(RegistryValueAt(kClasses + DriverName(99), L"DalDCELogFilePath"), std::nullopt);
}

TEST_F(SetDCLogFileRegistryTest, SetsTheValuesAnewAndLeavesOthers) {
    const Adapter key;
    key.SetString(L"DriverVersion", L"1");
    key.SetString(L"DalDCELogFilePath", L"x");
    key.SetBytes(L"DalDCEFilePathSize", REG_DWORD, {1, 0, 0, 0});
    EXPECT_EQ(SetDCLogFileRegistry(0), 0U);
    EXPECT_EQ(key.LogFile(), LogFileValue(LogFile()));
    EXPECT_EQ(key.LogFileSize(), LogFileSizeValue(LogFile()));
    EXPECT_EQ(key.ReadCharacters(L"DriverVersion"), L"1\0"s);
}

TEST_F(SetDCLogFileRegistryTest, ReadersOfTheSizeSeeItsTextWhateverTheLengthOfThePath) {
    const Adapter key;
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
    const Adapter key;
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
    const Adapter first;
    const Adapter second(L"Qorta", DriverName(2));
    const int before = OpenHandleCount();
    const CallTrace trace(kDevices | kRegistry);
    EXPECT_EQ(SetDCLogFileRegistry(0), 0U);
    EXPECT_EQ(trace.LeftOpen(), (Lines{L"list devices {4D36E968-E325-11CE-BFC1-08002BE10318} 2",
                                       L"open HKLM\\" + first.Path() + L" 0xf003f",
                                       L"open HKLM\\" + second.Path() + L" 0xf003f"}));
    EXPECT_GE(OpenHandleCount() - before, 2);
}

TEST_F(SetDCLogFileRegistryTest, WritesTheValuesWhateverBecomesOfTheFolder) {
    const Adapter key;
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

TEST_F(SetDCLogFileRegistryTest, DoesNothingWithoutATemporaryFolderOrForALogFileThatDoesNotFit) {
    const Adapter key;
    // The path of the file has up to 1023 characters.
    const auto longest =
        static_cast<DWORD>(1023 - std::wcslen(L"Zenvo\\PV\\Analytics\\qtkmd_dce.log"));
    for (const DWORD length :
         {DWORD{0}, DWORD{1024}, DWORD{5000}, DWORD{1023}, longest + 1, longest}) {
        ExpectUntouched(key);
        // What a failure leaves in the buffer is anyone's guess.
        HOOK(asking, GetTempPathW, [&](DWORD capacity, LPWSTR buffer) {
            std::fill(buffer, buffer + capacity, L'x');
            return length;
        });
        CallTrace calls(kFolders | kDevices);
        calls.Fail(L"make folder ", ERROR_FILENAME_EXCED_RANGE);
        EXPECT_EQ(SetDCLogFileRegistry(0), 0U);
        EXPECT_EQ(calls.All().front(), L"temporary folder 1024");
        EXPECT_EQ(calls.Of({L"make folder "}).size(), length == longest ? 1U : 0U);
    }
    EXPECT_EQ(key.LogFile().value_or(Value()).bytes.size(), 2048U);
    EXPECT_EQ(key.LogFileSize().value_or(Value()).bytes.size(), 2048U);
}

TEST_F(SetDCLogFileRegistryTest, StopsWhereTheAdaptersCannotBeListed) {
    const Adapter key;
    const std::wstring list = L"list devices {4D36E968-E325-11CE-BFC1-08002BE10318} 2";
    for (const Lines& calls : {Lines{list}, Lines{list, L"device 0 32 bytes"}}) {
        CallTrace trace(kDevices);
        trace.Fail(calls.back());
        EXPECT_EQ(SetDCLogFileRegistry(0), 0U);
        EXPECT_EQ(trace.All(), calls);
        EXPECT_TRUE(IsThere(LogFolder()));
        ExpectUntouched(key);
    }
}

TEST_F(SetDCLogFileRegistryTest, JudgesReadsByTheLastErrorAlone) {
    for (const DWORD changed : {SPDRP_MFG, SPDRP_DRIVER}) {
        for (const BOOL result : {TRUE, FALSE}) {
            for (const DWORD lastError : {NO_ERROR, ERROR_ACCESS_DENIED}) {
                const Adapter key;
                int changes = 0;
                PropertyReads reads;
                reads.after = [&](DWORD property, BYTE*, DWORD) {
                    changes += property == changed ? 1 : 0;
                    SetLastError(property == changed ? lastError : DWORD{NO_ERROR});
                    return property == changed ? result : TRUE;
                };
                EXPECT_EQ(SetDCLogFileRegistry(0), 0U);
                EXPECT_GE(changes, 1);
                EXPECT_EQ(key.ValueCount(), lastError == NO_ERROR ? 2U : 0U)
                    << changed << " " << result;
            }
        }
    }
}

TEST_F(SetDCLogFileRegistryTest, StartsEachReadWithNoErrorAndAnEmptyBuffer) {
    const Adapter first;
    const Adapter second(L"Zenvo", DriverName(2));
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
    PropertyReads reads;
    reads.before = [](const BYTE* buffer, DWORD size) {
        EXPECT_EQ(GetLastError(), static_cast<DWORD>(NO_ERROR));
        EXPECT_EQ(std::count(buffer, buffer + size, BYTE{0}), 4096);
    };
    reads.after = [](DWORD, BYTE*, DWORD) {
        SetLastError(NO_ERROR);
        return TRUE;
    };
    EXPECT_EQ(SetDCLogFileRegistry(0), 0U);
    EXPECT_GE(reads.reading.Calls(), 4);
    ExpectWritten(first);
    ExpectWritten(second);
}

TEST_F(SetDCLogFileRegistryTest, AReadThatFillsTheWholeBufferIsNotReadBeyond) {
    const Adapter key;
    PropertyReads reads;
    reads.after = [](DWORD property, BYTE* buffer, DWORD size) {
        if (property == SPDRP_MFG) {
            std::wstring text = L"Zenvo";
            text.resize(size / sizeof(wchar_t), L'o');
            std::memcpy(buffer, text.data(), size);
        }
        return TRUE;
    };
    EXPECT_EQ(SetDCLogFileRegistry(0), 0U);
    ExpectWritten(key);
}

TEST_F(SetDCLogFileRegistryTest, PropertiesOfEveryTypeAndLength) {
    std::wstring filling = L"Zenvo";
    filling.resize(2048, L'o');
    const struct {
        DWORD property;
        DWORD type;
        Bytes bytes;
        bool counts;
    } cases[] = {
        {SPDRP_MFG, REG_SZ, {}, false},
        {SPDRP_MFG, REG_SZ, {'Z'}, false},
        {SPDRP_MFG, REG_SZ, BytesOf(L"Zenvo"), true},
        {SPDRP_MFG, REG_SZ, Terminated(L"\0Zenvo"s), false},
        {SPDRP_MFG, REG_SZ, BytesOf(filling), true},
        {SPDRP_MFG, REG_SZ, BytesOf(filling + L"o"), false},
        {SPDRP_MFG, REG_SZ, Bytes(70000, 'Z'), false},
        {SPDRP_MFG, REG_DWORD, {1, 0, 0, 0}, false},
        {SPDRP_DRIVER, REG_SZ, Terminated(L""), false},
        {SPDRP_DRIVER, REG_SZ, {}, false},
        {SPDRP_DRIVER, REG_SZ, Bytes(4098, 'k'), false},
    };
    for (const auto& [property, type, bytes, counts] : cases) {
        const Adapter key;
        key.device.Store(property, type, bytes);
        const CallTrace calls(kRegistry);
        EXPECT_EQ(SetDCLogFileRegistry(0), 0U);
        EXPECT_EQ(key.ValueCount(), counts ? 2U : 0U) << type << " " << bytes.size();
        EXPECT_EQ(calls.All().empty(), !counts);
    }
    // The bytes are taken for text whatever their type.
    for (const DWORD type : {REG_SZ, REG_EXPAND_SZ, REG_MULTI_SZ, REG_BINARY, REG_NONE}) {
        const Adapter key;
        key.device.Store(SPDRP_MFG, type, Terminated(L"Zenvo"));
        key.device.Store(SPDRP_DRIVER, type, Terminated(key.Driver()));
        EXPECT_EQ(SetDCLogFileRegistry(0), 0U);
        EXPECT_EQ(key.ValueCount(), 2U) << type;
    }
}

TEST_F(SetDCLogFileRegistryTest, DriverKeysOfEveryName) {
    const std::wstring longest(255 - kClasses.size(), L'k');
    for (const std::wstring& driver :
         {L"HalvardTest"s, L"Halvard Test \u0416\u00e9 !#$%&'()+,-.;=@[]^_`{}~/:*?\"<>|"s,
          longest}) {
        const Adapter key(L"Zenvo", driver);
        EXPECT_EQ(SetDCLogFileRegistry(0), 0U);
        ExpectWritten(key);
    }

    const Adapter tooLong(L"Zenvo", longest + L"k");
    const ClassKey cut(longest);
    EXPECT_EQ(SetDCLogFileRegistry(0), 0U);
    ExpectUntouched(tooLong);
    ExpectUntouched(cut);
}

TEST_F(SetDCLogFileRegistryTest, AKeyOrAValueThatIsRefusedDoesNotKeepTheOthersOut) {
    const struct {
        const wchar_t* failing;
        std::size_t nth;
        std::size_t values;
        std::size_t calls;
    } cases[] = {{L"open ", 1, 2, 2 + 2}, {L"set ", 1, 3, 2 + 4}, {L"set ", 2, 3, 2 + 4}};
    for (const auto& [failing, nth, values, made] : cases) {
        const Adapter first;
        const Adapter second(L"Zenvo", DriverName(2));
        CallTrace calls(kRegistry);
        calls.Fail(failing, ERROR_ACCESS_DENIED, nth);
        EXPECT_EQ(SetDCLogFileRegistry(0), 0U);
        EXPECT_EQ(first.ValueCount() + second.ValueCount(), values);
        EXPECT_EQ(calls.All().size(), made);
    }
}
