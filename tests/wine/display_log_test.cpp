#include "registry_actions/display_log.h"

#include "runtime/session.h"

#include "child_programs.h"
#include "current_session.h"
#include "files.h"
#include "import_hook.h"
#include "registry_key.h"
#include "stand_in_session.h"

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
using halvard_tests::EnvironmentVariable;
using halvard_tests::IsThere;
using halvard_tests::RegistryValueAt;
using halvard_tests::ScratchFolder;
using halvard_tests::ScratchKey;
using namespace std::string_literals;

namespace {

using Bytes = std::vector<BYTE>;
using Value = ScratchKey::Value;

constexpr GUID kDisplayAdapters = {
    0x4D36E968, 0xE325, 0x11CE, {0xBF, 0xC1, 0x08, 0x00, 0x2B, 0xE1, 0x03, 0x18}};
const std::wstring kClasses = L"SYSTEM\\CurrentControlSet\\Control\\Class\\";
const std::wstring kEnumeration = L"SYSTEM\\CurrentControlSet\\Enum\\";

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

/// A present display adapter for the length of a scope, at first without any property.
class DisplayAdapter {
public:
    DisplayAdapter() : adapters_(SetupDiCreateDeviceInfoList(&kDisplayAdapters, nullptr)) {
        static int count = 0;
        instance_ = L"ROOT\\HALVARDTEST\\" + std::to_wstring(1000 + ++count);
        adapter_.cbSize = sizeof(adapter_);
        if (SetupDiCreateDeviceInfoW(adapters_, instance_.c_str(), &kDisplayAdapters, nullptr,
                                     nullptr, 0, &adapter_) == FALSE ||
            SetupDiRegisterDeviceInfo(adapters_, &adapter_, 0, nullptr, nullptr, nullptr) ==
                FALSE) {
            throw std::runtime_error("a display adapter cannot be made");
        }
    }
    DisplayAdapter(const std::wstring& manufacturer, const std::wstring& driver)
        : DisplayAdapter() {
        SetManufacturer(manufacturer);
        SetDriver(driver);
    }
    ~DisplayAdapter() {
        SetupDiRemoveDevice(adapters_, &adapter_);
        SetupDiDestroyDeviceInfoList(adapters_);
    }
    DisplayAdapter(const DisplayAdapter&) = delete;
    DisplayAdapter& operator=(const DisplayAdapter&) = delete;

    void SetManufacturer(const std::wstring& text) { Set(SPDRP_MFG, Terminated(text)); }
    void SetDriver(const std::wstring& text) { Set(SPDRP_DRIVER, Terminated(text)); }
    void Set(DWORD property, const Bytes& bytes) {
        if (SetupDiSetDeviceRegistryPropertyW(adapters_, &adapter_, property, bytes.data(),
                                              static_cast<DWORD>(bytes.size())) == FALSE) {
            throw std::runtime_error("a property of a display adapter cannot be set");
        }
    }

    /// Sets a property where the registry keeps it, under any type.
    void Store(DWORD property, DWORD type, const Bytes& bytes) const {
        if (RegSetKeyValueW(HKEY_LOCAL_MACHINE, (kEnumeration + instance_).c_str(),
                            property == SPDRP_MFG ? L"Mfg" : L"Driver", type, bytes.data(),
                            static_cast<DWORD>(bytes.size())) != ERROR_SUCCESS) {
            throw std::runtime_error("a property of a display adapter cannot be stored");
        }
    }

private:
    HDEVINFO adapters_;
    SP_DEVINFO_DATA adapter_ = {};
    std::wstring instance_;
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
    std::vector<std::wstring> calls;
    HOOK(asking, GetTempPathW, [&](DWORD capacity, LPWSTR buffer) {
        calls.push_back(L"temporary folder " + std::to_wstring(capacity));
        return asking.Original(capacity, buffer);
    });
    HOOK(making, SHCreateDirectoryExW,
         [&](HWND window, LPCWSTR path, const SECURITY_ATTRIBUTES* security) {
             EXPECT_EQ(window, nullptr);
             EXPECT_EQ(security, nullptr);
             calls.push_back(std::wstring(L"folder ") + path);
             return making.Original(window, path, security);
         });
    HOOK(listing, SetupDiGetClassDevsW,
         [&](const GUID* setupClass, PCWSTR enumerator, HWND window, DWORD flags) {
             EXPECT_EQ(std::memcmp(setupClass, &kDisplayAdapters, sizeof(GUID)), 0);
             EXPECT_EQ(enumerator, nullptr);
             EXPECT_EQ(window, nullptr);
             calls.push_back(L"list " + std::to_wstring(flags));
             return listing.Original(setupClass, enumerator, window, flags);
         });
    // The adapters that the machine has of its own are passed over.
    std::vector<DWORD> indices;
    std::vector<std::wstring> ofAdapter;
    HOOK(enumerating, SetupDiEnumDeviceInfo,
         [&](HDEVINFO adapters, DWORD index, PSP_DEVINFO_DATA data) {
             EXPECT_EQ(data->cbSize, sizeof(SP_DEVINFO_DATA));
             indices.push_back(index);
             ofAdapter.clear();
             return enumerating.Original(adapters, index, data);
         });
    HOOK(reading, SetupDiGetDeviceRegistryPropertyW,
         [&](HDEVINFO adapters, PSP_DEVINFO_DATA data, DWORD property, PDWORD type, PBYTE buffer,
             DWORD size, PDWORD required) {
             ofAdapter.push_back(L"property " + std::to_wstring(property) + L" " +
                                 std::to_wstring(size));
             return reading.Original(adapters, data, property, type, buffer, size, required);
         });
    HOOK(opening, RegOpenKeyExW,
         [&](HKEY root, LPCWSTR subkey, DWORD options, REGSAM access, PHKEY opened) {
             EXPECT_EQ(root, HKEY_LOCAL_MACHINE);
             EXPECT_EQ(options, 0U);
             EXPECT_EQ(access, static_cast<REGSAM>(KEY_ALL_ACCESS));
             calls.insert(calls.end(), ofAdapter.begin(), ofAdapter.end());
             calls.push_back(std::wstring(L"key ") + subkey);
             return opening.Original(root, subkey, options, access, opened);
         });
    HOOK(setting, RegSetValueExW,
         [&](HKEY opened, LPCWSTR name, DWORD reserved, DWORD type, const BYTE* bytes, DWORD size) {
             calls.push_back(std::wstring(L"value ") + name + L" " + std::to_wstring(type) + L" " +
                             std::to_wstring(size));
             return setting.Original(opened, name, reserved, type, bytes, size);
         });
    EXPECT_EQ(SetDCLogFileRegistry(0), 0U);
    const std::wstring size = std::to_wstring(2 * LogFile().size() + 2);
    const std::vector<std::wstring> expected = {
        L"temporary folder 1024",
        L"folder " + LogFolder(),
        L"list 2",
        L"property 11 4096",
        L"property 9 4096",
        L"key " + key.Path(),
        L"value DalDCELogFilePath 1 " + size,
        L"value DalDCEFilePathSize 1 " + size,
    };
    EXPECT_EQ(calls, expected);
    ASSERT_GE(indices.size(), 2U);
    for (std::size_t index = 0; index < indices.size(); ++index) {
        EXPECT_EQ(indices[index], index);
    }
}

TEST_F(SetDCLogFileRegistryTest, LeavesTheKeysAndTheListOpen) {
    const ClassKey first(DriverName(1));
    const ClassKey second(DriverName(2));
    const DisplayAdapter one(L"Zenvo", first.Driver());
    const DisplayAdapter other(L"Qorta", second.Driver());
    std::vector<HKEY> keys;
    HDEVINFO list = INVALID_HANDLE_VALUE;
    {
        HOOK(opening, RegOpenKeyExW,
             [&](HKEY root, LPCWSTR subkey, DWORD options, REGSAM access, PHKEY opened) {
                 const LSTATUS status = opening.Original(root, subkey, options, access, opened);
                 keys.push_back(*opened);
                 return status;
             });
        HOOK(listing, SetupDiGetClassDevsW,
             [&](const GUID* setupClass, PCWSTR enumerator, HWND window, DWORD flags) {
                 list = listing.Original(setupClass, enumerator, window, flags);
                 return list;
             });
        COUNT_CALLS(closing, RegCloseKey);
        COUNT_CALLS(destroying, SetupDiDestroyDeviceInfoList);
        EXPECT_EQ(SetDCLogFileRegistry(0), 0U);
        EXPECT_EQ(closing.Calls(), 0);
        EXPECT_EQ(destroying.Calls(), 0);
    }
    ASSERT_EQ(keys.size(), 2U);
    for (HKEY key : keys) {
        EXPECT_EQ(RegCloseKey(key), ERROR_SUCCESS);
    }
    EXPECT_TRUE(SetupDiDestroyDeviceInfoList(list));
}

TEST_F(SetDCLogFileRegistryTest, LogsNothingWhateverHappens) {
    const halvard_tests::StandInSession session;
    const halvard_tests::CurrentSessionScope current(session.Get());
    const ClassKey key(DriverName(1));
    const DisplayAdapter adapter(L"Zenvo", key.Driver());
    const DisplayAdapter withoutDriver(L"Zenvo", L"");
    EXPECT_EQ(SetDCLogFileRegistry(session.Get()), 0U);
    {
        FAIL_CALL(opening, RegOpenKeyExW, 0, ERROR_ACCESS_DENIED, NO_ERROR);
        EXPECT_EQ(SetDCLogFileRegistry(session.Get()), 0U);
    }
    FAIL_CALL(listing, SetupDiGetClassDevsW, 1, INVALID_HANDLE_VALUE, ERROR_ACCESS_DENIED);
    EXPECT_EQ(SetDCLogFileRegistry(session.Get()), 0U);
    EXPECT_EQ(session.LogLines(), std::vector<std::wstring>{});
}

TEST_F(SetDCLogFileRegistryTest, StoresNoSession) {
    const halvard_tests::CurrentSessionScope current(7);
    EXPECT_EQ(SetDCLogFileRegistry(9), 0U);
    EXPECT_EQ(halvard::CurrentSession(), 7U);
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
