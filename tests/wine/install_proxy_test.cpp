#include "launch/install_proxy.h"

#include "runtime/registry.h"
#include "runtime/session.h"

#include "call_trace.h"
#include "child_programs.h"
#include "current_session.h"
#include "engine_values.h"
#include "file_system_error.h"
#include "files.h"
#include "import_hook.h"
#include "open_handles.h"
#include "pivot_installation.h"
#include "process_starts.h"
#include "registry_error.h"
#include "stand_in_session.h"

#include <windows.h>
#include <msi.h>
#include <msiquery.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

using halvard::DelInstallProxyKey;
using halvard::LaunchInstallProxyPV;
using halvard::RegKeyError;
using halvard_tests::CallTrace;
using halvard_tests::kInstaller;
using halvard_tests::ProcessStart;
using halvard_tests::ProcessStarts;
using halvard_tests::RecorderAt;
using halvard_tests::Recordings;
using halvard_tests::ScratchFolder;
using halvard_tests::StandInSession;
using halvard_tests::engines::kFailFastCode;
using namespace std::string_literals;

namespace {

constexpr wchar_t kFrameworkKey[] = L"SOFTWARE\\Qorta\\Sable\\Packages\\Core-Static";
constexpr wchar_t kWow64FrameworkKey[] =
    L"SOFTWARE\\Wow6432Node\\Qorta\\Sable\\Packages\\Core-Static";
constexpr wchar_t kInstallationKey[] =
    L"SOFTWARE\\Wow6432Node\\Qorta\\Sable\\Settings\\Kiln\\Install";
const std::wstring kProxy = L"\\Kiln-InstallProxy-Net4\\Kiln.InstallProxy.exe";
const std::wstring kNoInstallDirectory = L"QUENBY_CA Could not get INSTALLDIR  \n";

std::wstring Command(const std::wstring& tool, const std::wstring& proxy) {
    return L"\"" + tool + L"\" Install " + proxy;
}

std::wstring ToolLine(const std::wstring& tool) {
    return L"QUENBY_CA DeleteFolder: " + tool + L" \n";
}

/// An installed framework, in a folder of the throw-away drive, and a session.
class InstallProxyTest : public testing::Test {
protected:
    InstallProxyTest() {
        halvard_tests::CreateFolders(Framework());
        SetLocation(Framework());
        SetData(L"C:\\P\\");
    }
    ~InstallProxyTest() override {
        RegDeleteTreeW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Qorta");
        RegDeleteTreeW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Wow6432Node\\Qorta");
    }

    std::wstring Framework() const { return scratch_.File(L"F"); }
    std::wstring Tool() const { return Framework() + L"\\CLI.exe"; }
    void SetLocation(const std::wstring& location) const {
        halvard_tests::SetRegistryString(HKEY_LOCAL_MACHINE, kFrameworkKey, L"Location", location);
    }
    void StoreLocation(DWORD type, const void* bytes, DWORD size) const {
        RegSetKeyValueW(HKEY_LOCAL_MACHINE, kFrameworkKey, L"Location", type, bytes, size);
    }
    void SetData(const std::wstring& data) const {
        session_.SetProperty(L"CustomActionData", data);
    }
    UINT Launch() const { return LaunchInstallProxyPV(session_.Get()); }

    void ExpectThrown(int code, const std::string& message) const {
        halvard_tests::ExpectRegKeyError([&] { Launch(); }, message, code);
    }

    halvard_tests::CurrentSessionScope current_;
    StandInSession session_;
    ScratchFolder scratch_;
};

using LaunchInstallProxyPVTest = InstallProxyTest;
using DelInstallProxyKeyTest = InstallProxyTest;

// A start as the action asks for it.
bool AsTheActionDoes(ProcessStart& start) {
    EXPECT_EQ(start.application, nullptr);
    EXPECT_STREQ(start.directory, start.commandLine);
    EXPECT_NE(start.directory, start.commandLine);
    EXPECT_EQ(start.inherit, FALSE);
    EXPECT_EQ(start.flags, static_cast<DWORD>(CREATE_NO_WINDOW));
    return true;
}

} // namespace

TEST_F(LaunchInstallProxyPVTest, HandsOverACommandLineThatIsRefusedForItsDirectory) {
    const RecorderAt tool(Tool());
    const ProcessStarts starts(AsTheActionDoes);
    EXPECT_EQ(Launch(), 0U);
    EXPECT_EQ(starts.CommandLines(), Lines{Command(Tool(), L"C:\\P\\" + kProxy)});
    EXPECT_EQ(starts.Codes(), std::vector<DWORD>{ERROR_DIRECTORY});
    EXPECT_EQ(session_.LogLines(), Lines{ToolLine(Tool())});
    EXPECT_EQ(Recordings().size(), 0U);
}

TEST_F(LaunchInstallProxyPVTest, EveryEndOfTheTwoFolders) {
    for (const std::wstring& slash : {L""s, L"\\"s, L"/"s}) {
        const std::wstring tool = Framework() + (slash.empty() ? L"\\"s : slash) + L"CLI.exe";
        SetLocation(Framework() + slash);
        const std::pair<std::wstring, std::wstring> proxies[] = {
            {L"C:\\P", L"C:\\P\\" + kProxy},
            {L"C:\\P\\", L"C:\\P\\" + kProxy},
            {L"C:/P/", L"C:/P/" + kProxy},
            {L"", L"\\" + kProxy},
        };
        for (const auto& [directory, proxy] : proxies) {
            SetData(directory);
            const ProcessStarts starts(AsTheActionDoes);
            const CallTrace calls(kInstaller);
            EXPECT_EQ(Launch(), 0U);
            EXPECT_EQ(starts.CommandLines(), Lines{Command(tool, proxy)});
            EXPECT_EQ(calls.Rests(L"set field 0 "), Lines{ToolLine(tool)});
        }
    }
}

TEST_F(LaunchInstallProxyPVTest, QuotesTheToolAndNotTheProxy) {
    const std::wstring location = scratch_.File(L"A framework \u0416\u00e9 !#$%&'()+,-;=@[]^_`{}~");
    halvard_tests::CreateFolders(location);
    SetLocation(location);
    SetData(L"C:\\Program Files\\\u0416 100%s [P]\\");
    const ProcessStarts starts(AsTheActionDoes);
    const CallTrace calls(kInstaller);
    EXPECT_EQ(Launch(), 0U);
    EXPECT_EQ(
        starts.CommandLines(),
        Lines{Command(location + L"\\CLI.exe", L"C:\\Program Files\\\u0416 100%s [P]\\" + kProxy)});
    EXPECT_EQ(calls.Rests(L"set field 0 "), Lines{ToolLine(location + L"\\CLI.exe")});
}

TEST_F(LaunchInstallProxyPVTest, TakesTheWholePropertyForTheDirectory) {
    SetData(L"InstallDir=C:\\P;Other=x");
    const ProcessStarts starts(AsTheActionDoes);
    EXPECT_EQ(Launch(), 0U);
    EXPECT_EQ(starts.CommandLines(),
              Lines{Command(Tool(), L"InstallDir=C:\\P;Other=x\\" + kProxy)});
}

TEST_F(LaunchInstallProxyPVTest, Returns1ForAToolThatStartsAndWaitsForIt) {
    const RecorderAt tool(Tool());
    SetData(L"C:\\Program Files\\P");
    const ProcessStarts starts([](ProcessStart& start) {
        start.directory = nullptr;
        return true;
    });
    HOOK(waiting, WaitForSingleObject, [&](HANDLE handle, DWORD timeout) {
        EXPECT_EQ(handle, starts.Process());
        EXPECT_EQ(timeout, static_cast<DWORD>(INFINITE));
        return waiting.Original(handle, timeout);
    });
    EXPECT_EQ(Launch(), 1U);
    EXPECT_EQ(waiting.Calls(), 1);
    ASSERT_EQ(Recordings().size(), 1U);
    EXPECT_EQ(Recordings()[0].program, L"CLI.exe");
    EXPECT_EQ(Recordings()[0].commandLine, Command(Tool(), L"C:\\Program Files\\P\\" + kProxy));
    EXPECT_EQ(session_.LogLines(), Lines{ToolLine(Tool())});
}

TEST_F(LaunchInstallProxyPVTest, EndsQuietlyWhenTheLocationDoesNotExist) {
    COUNT_CALLS(reading, MsiGetPropertyW);
    COUNT_CALLS(creating, CreateProcessW);
    for (const std::wstring& location :
         {scratch_.File(L"no such folder"), L""s, L"\\"s + std::wstring(300, L'x'), L"T:\\?<"s}) {
        SetLocation(location);
        EXPECT_EQ(Launch(), 0U);
    }
    EXPECT_EQ(reading.Calls(), 0);
    EXPECT_EQ(creating.Calls(), 0);
    EXPECT_EQ(session_.LogLines(), Lines{});
}

TEST_F(LaunchInstallProxyPVTest, ALocationThatIsAFileIsTaken) {
    const std::wstring file = scratch_.File(L"file");
    halvard_tests::WriteWholeFile(file, std::string());
    SetLocation(file);
    EXPECT_EQ(Launch(), 0U);
    EXPECT_EQ(session_.LogLines(), Lines{ToolLine(file + L"\\CLI.exe")});
}

TEST_F(LaunchInstallProxyPVTest, ALocationThatIsAFileWithASeparatorBehindItIsNotThere) {
    const std::wstring file = scratch_.File(L"file");
    halvard_tests::WriteWholeFile(file, std::string());
    SetLocation(file + L"\\");
    COUNT_CALLS(creating, CreateProcessW);
    EXPECT_EQ(Launch(), 0U);
    EXPECT_EQ(session_.LogLines(), Lines{});
    EXPECT_EQ(creating.Calls(), 0);
}

TEST_F(LaunchInstallProxyPVTest, ThrowsWhenWindowsDoesNotTellWhetherTheLocationExists) {
    FAIL_CALL(asking, GetFileAttributesW, 1, INVALID_FILE_ATTRIBUTES, ERROR_ACCESS_DENIED);
    halvard_tests::ExpectFileSystemError([&] { Launch(); }, "exists", Framework(),
                                         ERROR_ACCESS_DENIED);
    EXPECT_EQ(session_.LogLines(), Lines{});
}

TEST_F(LaunchInstallProxyPVTest, ThrowsWithoutTheKeyOrItsLocation) {
    COUNT_CALLS(creating, CreateProcessW);
    RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, kFrameworkKey, L"Location");
    ExpectThrown(ERROR_FILE_NOT_FOUND, "Unable to get registry value");
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Qorta");
    ExpectThrown(ERROR_FILE_NOT_FOUND, "Unable to open registry key");

    // The other view's key is not looked at by a 64-bit process.
    halvard_tests::SetRegistryString(HKEY_LOCAL_MACHINE, kWow64FrameworkKey, L"Location",
                                     Framework());
    ExpectThrown(ERROR_FILE_NOT_FOUND, "Unable to open registry key");
    EXPECT_EQ(creating.Calls(), 0);
    EXPECT_EQ(session_.LogLines(), Lines{});
}

TEST_F(LaunchInstallProxyPVTest, ThrowsForALocationOfAnotherType) {
    const std::wstring location = Framework();
    for (const DWORD type : {REG_NONE, REG_BINARY, REG_DWORD, REG_MULTI_SZ, REG_QWORD}) {
        StoreLocation(type, location.c_str(), 8);
        ExpectThrown(ERROR_UNSUPPORTED_TYPE, "Unable to get registry value");
    }
}

TEST_F(LaunchInstallProxyPVTest, ALocationOfAnyLength) {
    const std::wstring location = Framework();
    const DWORD bytes = static_cast<DWORD>(location.size() * sizeof(wchar_t));
    // Without its terminator, with an odd byte behind it, and cut at its first null character.
    const std::wstring cut = location + L'\0' + L"more";
    const DWORD cutBytes = static_cast<DWORD>(cut.size() * sizeof(wchar_t));
    for (const auto& [text, size] :
         {std::pair(location, bytes), std::pair(location, bytes + 1), std::pair(cut, cutBytes)}) {
        StoreLocation(REG_SZ, text.c_str(), size);
        const ProcessStarts starts(AsTheActionDoes);
        EXPECT_EQ(Launch(), 0U);
        EXPECT_EQ(starts.CommandLines(), Lines{Command(Tool(), L"C:\\P\\" + kProxy)}) << size;
    }
    COUNT_CALLS(creating, CreateProcessW);
    for (const DWORD size : {0U, 1U, 2U}) {
        StoreLocation(REG_SZ, L"", size);
        EXPECT_EQ(Launch(), 0U);
    }
    SetLocation(std::wstring(40000, L'x'));
    EXPECT_EQ(Launch(), 0U);
    EXPECT_EQ(creating.Calls(), 0);
}

TEST_F(LaunchInstallProxyPVTest, ThrowsWhenTheRegistryRefuses) {
    {
        FAIL_CALL(opening, RegOpenKeyExW, 1, ERROR_ACCESS_DENIED, NO_ERROR);
        ExpectThrown(ERROR_ACCESS_DENIED, "Unable to open registry key");
    }
    {
        FAIL_CALL(reading, RegGetValueW, 0, ERROR_ACCESS_DENIED, NO_ERROR);
        ExpectThrown(ERROR_ACCESS_DENIED, "Unable to get registry value");
    }
    {
        // A value that grows or goes between its size and itself.
        FAIL_CALL(reading, RegGetValueW, 2, ERROR_MORE_DATA, NO_ERROR);
        ExpectThrown(0, "Unable to get registry value");
    }
    EXPECT_EQ(session_.LogLines(), Lines{});
}

TEST_F(LaunchInstallProxyPVTest, OpensTheKeyForReadingAndWritingAndClosesItBeforeItGoesOn) {
    HKEY key = nullptr;
    HOOK(opening, RegOpenKeyExW,
         [&](HKEY root, LPCWSTR subkey, DWORD options, REGSAM access, PHKEY opened) {
             EXPECT_EQ(root, HKEY_LOCAL_MACHINE);
             EXPECT_STREQ(subkey, kFrameworkKey);
             EXPECT_EQ(access, 0x2001FU);
             const LSTATUS status = opening.Original(root, subkey, options, access, opened);
             key = *opened;
             return status;
         });
    int closed = 0;
    HOOK(closing, RegCloseKey, [&](HKEY closedKey) {
        closed += closedKey == key ? 1 : 0;
        return closing.Original(closedKey);
    });
    HOOK(looking, GetFileAttributesW, [&](LPCWSTR path) {
        EXPECT_EQ(closed, 1);
        return looking.Original(path);
    });
    EXPECT_EQ(Launch(), 0U);
    EXPECT_EQ(opening.Calls(), 1);
    EXPECT_EQ(closed, 1);
    EXPECT_EQ(looking.Calls(), 1);
}

TEST_F(LaunchInstallProxyPVTest, LogsThatItCannotGetTheInstallDirectoryAndGoesOn) {
    HOOK(reading, MsiGetPropertyW,
         [&](MSIHANDLE session, LPCWSTR name, LPWSTR buffer, LPDWORD length) {
             EXPECT_EQ(session, session_.Get());
             EXPECT_STREQ(name, L"CustomActionData");
             EXPECT_EQ(*length, 260U);
             EXPECT_EQ(std::count(buffer, buffer + *length, L'\0'), 260);
             return static_cast<UINT>(ERROR_FUNCTION_FAILED);
         });
    const ProcessStarts starts(AsTheActionDoes);
    EXPECT_EQ(Launch(), 0U);
    EXPECT_EQ(reading.Calls(), 1);
    EXPECT_EQ(session_.LogLines(), (Lines{ToolLine(Tool()), kNoInstallDirectory}));
    EXPECT_EQ(starts.CommandLines(), Lines{Command(Tool(), L"\\" + kProxy)});
}

TEST_F(LaunchInstallProxyPVTest, GoesOnWithWhatAFailureLeavesInTheBuffer) {
    for (const std::size_t left : {3U, 259U, 260U}) {
        HOOK(reading, MsiGetPropertyW, [&](MSIHANDLE, LPCWSTR, LPWSTR buffer, LPDWORD) {
            std::fill(buffer, buffer + left, L'x');
            return static_cast<UINT>(ERROR_MORE_DATA);
        });
        const ProcessStarts starts(AsTheActionDoes);
        EXPECT_EQ(Launch(), 0U);
        EXPECT_EQ(starts.CommandLines(),
                  Lines{Command(Tool(), std::wstring(left, L'x') + L"\\" + kProxy)});
    }
}

TEST_F(LaunchInstallProxyPVTest, AnInstallDirectoryOfUpTo259Characters) {
    SetData(std::wstring(259, L'p'));
    {
        const ProcessStarts starts(AsTheActionDoes);
        EXPECT_EQ(Launch(), 0U);
        EXPECT_EQ(session_.LogLines(), Lines{ToolLine(Tool())});
        EXPECT_EQ(starts.CommandLines(),
                  Lines{Command(Tool(), std::wstring(259, L'p') + L"\\" + kProxy)});
    }
    // The engine fills what there is room for.
    SetData(std::wstring(260, L'p'));
    const ProcessStarts starts(AsTheActionDoes);
    EXPECT_EQ(Launch(), 0U);
    EXPECT_EQ(session_.LogLines(),
              (Lines{ToolLine(Tool()), ToolLine(Tool()), kNoInstallDirectory}));
    EXPECT_EQ(starts.CommandLines(),
              Lines{Command(Tool(), std::wstring(259, L'p') + L"\\" + kProxy)});
}

TEST_F(LaunchInstallProxyPVTest, GoesOnWithoutASession) {
    const ProcessStarts starts(AsTheActionDoes);
    const CallTrace calls(kInstaller);
    EXPECT_EQ(LaunchInstallProxyPV(0), 0U);
    EXPECT_EQ(calls.Rests(L"set field 0 "), (Lines{ToolLine(Tool()), kNoInstallDirectory}));
    EXPECT_EQ(starts.CommandLines(), Lines{Command(Tool(), L"\\" + kProxy)});
}

namespace {

/// Makes the folder for which the command line has this length, with an install directory of 200
/// characters.
class CommandOfLength {
public:
    CommandOfLength(const ScratchFolder& scratch, std::size_t length) : data_(200, L'p') {
        const std::size_t fixed =
            Command(scratch.File(L"") + L"\\CLI.exe", data_ + L"\\" + kProxy).size();
        location_ = scratch.File(std::wstring(length - fixed, L'f'));
        halvard_tests::CreateFolders(location_);
    }

    const std::wstring& Data() const { return data_; }
    const std::wstring& Location() const { return location_; }

private:
    std::wstring data_;
    std::wstring location_;
};

} // namespace

TEST_F(LaunchInstallProxyPVTest, HasRoomForACommandLineOf518Characters) {
    const CommandOfLength command(scratch_, 518);
    SetLocation(command.Location());
    SetData(command.Data());
    const ProcessStarts starts(AsTheActionDoes);
    EXPECT_EQ(Launch(), 0U);
    ASSERT_EQ(starts.CommandLines().size(), 1U);
    EXPECT_EQ(starts.CommandLines()[0].size(), 518U);
    EXPECT_EQ(starts.CommandLines()[0],
              Command(command.Location() + L"\\CLI.exe", command.Data() + L"\\" + kProxy));
}

// A process of its own, started with this test alone, ends for it.
TEST_F(LaunchInstallProxyPVTest, EndsTheProcessForACommandLineOf519Characters) {
    const CommandOfLength command(scratch_, 519);
    SetLocation(command.Location());
    SetData(command.Data());
    EXPECT_EXIT(Launch(), testing::ExitedWithCode(static_cast<int>(Here(kFailFastCode))), "");
    const auto launchAndTell = [&] {
        HOOK(ending, RaiseFailFastException,
             [](PEXCEPTION_RECORD error, PCONTEXT context, DWORD flags) {
                 const bool asMeant = error->ExceptionCode == STATUS_INVALID_CRUNTIME_PARAMETER &&
                                      error->ExceptionFlags == EXCEPTION_NONCONTINUABLE &&
                                      context == nullptr && flags == 0;
                 TerminateProcess(GetCurrentProcess(), asMeant ? 77 : 78);
             });
        HOOK(creating, CreateProcessW,
             [](LPCWSTR, LPWSTR, LPSECURITY_ATTRIBUTES, LPSECURITY_ATTRIBUTES, BOOL, DWORD, LPVOID,
                LPCWSTR, LPSTARTUPINFOW, LPPROCESS_INFORMATION) {
                 TerminateProcess(GetCurrentProcess(), 79);
                 return FALSE;
             });
        Launch();
    };
    EXPECT_EXIT(launchAndTell(), testing::ExitedWithCode(77), "");
}

// In this process, which an exception takes out of the call that would end it.
TEST_F(LaunchInstallProxyPVTest, StartsNothingForACommandLineOf519Characters) {
    struct Ended {};
    const CommandOfLength command(scratch_, 519);
    SetLocation(command.Location());
    SetData(command.Data());
    const ProcessStarts starts;
    HOOK(ending, RaiseFailFastException, [](PEXCEPTION_RECORD, PCONTEXT, DWORD) { throw Ended(); });
    EXPECT_THROW(Launch(), Ended);
    EXPECT_EQ(ending.Calls(), 1);
    EXPECT_EQ(starts.Calls(), 0);
}

TEST_F(LaunchInstallProxyPVTest, StoresItsSession) {
    EXPECT_EQ(Launch(), 0U);
    EXPECT_EQ(halvard::CurrentSession(), session_.Get());

    // Before anything can be thrown.
    halvard::SetCurrentSession(0);
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Qorta");
    EXPECT_THROW(Launch(), RegKeyError);
    EXPECT_EQ(halvard::CurrentSession(), session_.Get());
}

TEST_F(LaunchInstallProxyPVTest, KeepsNoHandleWhateverIsThrown) {
    EXPECT_EQ(Launch(), 0U);
    const int before = halvard_tests::OpenHandleCount();
    EXPECT_EQ(Launch(), 0U);
    EXPECT_EQ(halvard_tests::OpenHandleCount(), before);

    RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, kFrameworkKey, L"Location");
    EXPECT_THROW(Launch(), RegKeyError);
    EXPECT_EQ(halvard_tests::OpenHandleCount(), before);
}

namespace {

DWORD majorVersion = 0;
DWORD askedSize = 0;

LONG WINAPI TellVersion(OSVERSIONINFOEXW* version) {
    askedSize = version->dwOSVersionInfoSize;
    version->dwMajorVersion = majorVersion;
    return 0;
}

} // namespace

TEST_F(LaunchInstallProxyPVTest, AsksForTheProcessorAsTheVersionOfWindowsHasIt) {
    const struct {
        DWORD major;
        int native;
        int plain;
    } cases[] = {{10, 1, 0}, {6, 0, 1}, {11, 0, 1}, {0, 0, 1}};
    for (const auto& [major, native, plain] : cases) {
        majorVersion = major;
        askedSize = 0;
        HOOK(finding, GetProcAddress, [&](HMODULE module, LPCSTR name) {
            EXPECT_EQ(module, GetModuleHandleW(L"ntdll"));
            EXPECT_STREQ(name, "RtlGetVersion");
            return reinterpret_cast<FARPROC>(reinterpret_cast<void*>(&TellVersion));
        });
        COUNT_CALLS(askingNative, GetNativeSystemInfo);
        COUNT_CALLS(askingPlain, GetSystemInfo);
        const ProcessStarts starts(AsTheActionDoes);
        EXPECT_EQ(Launch(), 0U);
        EXPECT_EQ(finding.Calls(), 1);
        EXPECT_EQ(askedSize, 284U);
        EXPECT_EQ(askingNative.Calls(), native) << major;
        EXPECT_EQ(askingPlain.Calls(), plain) << major;
        EXPECT_EQ(starts.CommandLines().size(), 1U);
    }
}

TEST_F(LaunchInstallProxyPVTest, GoesOnWithoutTheVersionOfWindows) {
    FAIL_CALL(finding, GetProcAddress, 0, nullptr, ERROR_PROC_NOT_FOUND);
    COUNT_CALLS(askingNative, GetNativeSystemInfo);
    COUNT_CALLS(askingPlain, GetSystemInfo);
    const ProcessStarts starts(AsTheActionDoes);
    EXPECT_EQ(Launch(), 0U);
    EXPECT_EQ(askingNative.Calls(), 0);
    EXPECT_EQ(askingPlain.Calls(), 0);
    EXPECT_EQ(starts.CommandLines().size(), 1U);
}

TEST_F(LaunchInstallProxyPVTest, TheProcessorMakesNoDifference) {
    for (const WORD architecture : {WORD{0}, WORD{6}, WORD{9}, WORD{12}}) {
        HOOK(asking, GetNativeSystemInfo, [&](LPSYSTEM_INFO system) {
            asking.Original(system);
            system->wProcessorArchitecture = architecture;
        });
        COUNT_CALLS(askingWow64, GetCurrentProcess);
        const ProcessStarts starts(AsTheActionDoes);
        EXPECT_EQ(Launch(), 0U);
        EXPECT_EQ(askingWow64.Calls(), 1);
        EXPECT_EQ(starts.CommandLines(), Lines{Command(Tool(), L"C:\\P\\" + kProxy)});
    }
}

namespace {

/// Leads a function of Windows to another one for the length of a scope, also for callers that
/// have looked its address up before.
class Detour {
public:
    Detour(const wchar_t* module, const char* function, void* target)
        : code_(reinterpret_cast<BYTE*>(
              reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(module), function)))) {
        std::memcpy(kept_, code_, sizeof(kept_));
        BYTE jump[kLength] = {0x48, 0xB8, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xE0}; // through rax
        std::memcpy(jump + 2, &target, sizeof(target));
        Write(jump);
    }
    ~Detour() { Write(kept_); }
    Detour(const Detour&) = delete;
    Detour& operator=(const Detour&) = delete;

private:
    static constexpr std::size_t kLength = 12;

    void Write(const BYTE* bytes) const {
        DWORD protection = 0;
        VirtualProtect(code_, kLength, PAGE_EXECUTE_READWRITE, &protection);
        std::memcpy(code_, bytes, kLength);
        VirtualProtect(code_, kLength, protection, &protection);
        FlushInstructionCache(GetCurrentProcess(), code_, kLength);
    }

    BYTE* code_;
    BYTE kept_[kLength] = {};
};

BOOL WINAPI IsUnderWow64(HANDLE process, BOOL* wow64) {
    EXPECT_EQ(process, GetCurrentProcess());
    *wow64 = TRUE;
    return TRUE;
}

BOOL WINAPI IsNotUnderWow64(HANDLE, BOOL* wow64) {
    *wow64 = FALSE;
    return TRUE;
}

BOOL WINAPI CannotTell(HANDLE, BOOL* wow64) {
    *wow64 = TRUE;
    return FALSE;
}

BOOL WINAPI LeavesItToTheCaller(HANDLE, BOOL*) {
    return TRUE;
}

Lines questions;

BOOL WINAPI NotesTheQuestion(HANDLE, BOOL*) {
    questions.emplace_back(L"WOW64");
    return TRUE;
}

} // namespace

TEST(RunsUnderWow64, OnlyWhenTheFunctionExistsAndReportsIt) {
    EXPECT_TRUE(halvard::RunsUnderWow64(IsUnderWow64));
    EXPECT_FALSE(halvard::RunsUnderWow64(IsNotUnderWow64));
    EXPECT_FALSE(halvard::RunsUnderWow64(CannotTell));
    EXPECT_FALSE(halvard::RunsUnderWow64(LeavesItToTheCaller));
    EXPECT_FALSE(halvard::RunsUnderWow64(nullptr));
}

TEST_F(LaunchInstallProxyPVTest, LooksIntoTheOtherViewUnderWow64) {
    const std::wstring other = scratch_.File(L"W");
    halvard_tests::CreateFolders(other);
    halvard_tests::SetRegistryString(HKEY_LOCAL_MACHINE, kWow64FrameworkKey, L"Location", other);
    const auto tool = [&](BOOL(WINAPI * isWow64Process)(HANDLE, BOOL*)) {
        const Detour detour(L"kernel32", "IsWow64Process", reinterpret_cast<void*>(isWow64Process));
        const CallTrace calls(kInstaller);
        Launch();
        return calls.Rests(L"set field 0 ");
    };
    EXPECT_EQ(tool(IsUnderWow64), Lines{ToolLine(other + L"\\CLI.exe")});
    EXPECT_EQ(tool(IsNotUnderWow64), Lines{ToolLine(Tool())});
    EXPECT_EQ(tool(CannotTell), Lines{ToolLine(Tool())});
}

TEST_F(LaunchInstallProxyPVTest, AsksForThePlatformThenForWow64ThenForTheFramework) {
    questions.clear();
    majorVersion = 10;
    const Detour detour(L"kernel32", "IsWow64Process", reinterpret_cast<void*>(NotesTheQuestion));
    HOOK(finding, GetProcAddress, [](HMODULE, LPCSTR) {
        questions.emplace_back(L"version");
        return reinterpret_cast<FARPROC>(reinterpret_cast<void*>(&TellVersion));
    });
    HOOK(asking, GetNativeSystemInfo, [&](LPSYSTEM_INFO system) {
        questions.emplace_back(L"processor");
        asking.Original(system);
    });
    HOOK(opening, RegOpenKeyExW,
         [&](HKEY root, LPCWSTR subkey, DWORD options, REGSAM access, PHKEY opened) {
             questions.emplace_back(subkey);
             return opening.Original(root, subkey, options, access, opened);
         });
    EXPECT_EQ(Launch(), 0U);
    EXPECT_EQ(questions, (Lines{L"version", L"processor", L"WOW64", kFrameworkKey}));
}

namespace {

bool InstallationKeyExists() {
    HKEY key = nullptr;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, kInstallationKey, 0, KEY_READ, &key) != ERROR_SUCCESS) {
        return false;
    }
    RegCloseKey(key);
    return true;
}

const std::wstring kDeleting = L"QUENBY_CA: DelInstallProxyKey  \n";
const std::wstring kDeleted = L"QUENBY_CA: DelInstallProxyKey successfully  \n";

} // namespace

TEST_F(DelInstallProxyKeyTest, DeletesTheKeyWithItsValues) {
    halvard_tests::SetRegistryString(HKEY_LOCAL_MACHINE, kInstallationKey, L"Version", L"1");
    halvard_tests::SetRegistryString(HKEY_LOCAL_MACHINE, kInstallationKey, L"", L"x");
    HOOK(deleting, RegDeleteKeyW, [&](HKEY root, LPCWSTR subkey) {
        EXPECT_EQ(root, HKEY_LOCAL_MACHINE);
        EXPECT_STREQ(subkey, kInstallationKey);
        EXPECT_EQ(session_.LogLines(), Lines{kDeleting});
        return deleting.Original(root, subkey);
    });
    EXPECT_EQ(DelInstallProxyKey(session_.Get()), 1U);
    EXPECT_EQ(deleting.Calls(), 1);
    EXPECT_FALSE(InstallationKeyExists());
    EXPECT_EQ(session_.LogLines(), (Lines{kDeleting, kDeleted}));

    HKEY parent = nullptr;
    EXPECT_EQ(RegOpenKeyExW(HKEY_LOCAL_MACHINE,
                            L"SOFTWARE\\Wow6432Node\\Qorta\\Sable\\Settings\\Kiln", 0, KEY_READ,
                            &parent),
              ERROR_SUCCESS);
    RegCloseKey(parent);
}

TEST_F(DelInstallProxyKeyTest, LeavesAKeyWithASubkey) {
    halvard_tests::SetRegistryString(HKEY_LOCAL_MACHINE, kInstallationKey, L"Version", L"1");
    const std::wstring subkey = std::wstring(kInstallationKey) + L"\\sub";
    halvard_tests::SetRegistryString(HKEY_LOCAL_MACHINE, subkey, L"Kept", L"1");
    EXPECT_EQ(DelInstallProxyKey(session_.Get()), 0U);
    for (const auto& [key, name] :
         {std::pair(std::wstring(kInstallationKey), L"Version"), std::pair(subkey, L"Kept")}) {
        EXPECT_EQ(RegGetValueW(HKEY_LOCAL_MACHINE, key.c_str(), name, RRF_RT_REG_SZ, nullptr,
                               nullptr, nullptr),
                  ERROR_SUCCESS);
    }
    EXPECT_EQ(session_.LogLines(), Lines{kDeleting});
}

TEST_F(DelInstallProxyKeyTest, NoKeyToDelete) {
    EXPECT_EQ(DelInstallProxyKey(session_.Get()), 0U);
    EXPECT_EQ(session_.LogLines(), Lines{kDeleting});
}

TEST_F(DelInstallProxyKeyTest, LeavesTheKeyOfTheOtherView) {
    constexpr wchar_t native[] = L"SOFTWARE\\Qorta\\Sable\\Settings\\Kiln\\Install";
    halvard_tests::SetRegistryString(HKEY_LOCAL_MACHINE, native, L"Kept", L"1");
    EXPECT_EQ(DelInstallProxyKey(session_.Get()), 0U);
    EXPECT_EQ(
        RegGetValueW(HKEY_LOCAL_MACHINE, native, L"Kept", RRF_RT_REG_SZ, nullptr, nullptr, nullptr),
        ERROR_SUCCESS);
}

TEST_F(DelInstallProxyKeyTest, AKeyThatIsRefusedStays) {
    halvard_tests::SetRegistryString(HKEY_LOCAL_MACHINE, kInstallationKey, L"Version", L"1");
    FAIL_CALL(deleting, RegDeleteKeyW, 1, ERROR_ACCESS_DENIED, NO_ERROR);
    EXPECT_EQ(DelInstallProxyKey(session_.Get()), 0U);
    EXPECT_EQ(deleting.Calls(), 1);
    EXPECT_TRUE(InstallationKeyExists());
    EXPECT_EQ(session_.LogLines(), Lines{kDeleting});
}

TEST_F(DelInstallProxyKeyTest, StoresItsSession) {
    EXPECT_EQ(DelInstallProxyKey(session_.Get()), 0U);
    EXPECT_EQ(halvard::CurrentSession(), session_.Get());
}
