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
#include "played_programs.h"
#include "process_starts.h"
#include "registry_error.h"
#include "registry_key.h"
#include "stand_in_session.h"

#include <windows.h>
#include <msi.h>
#include <msiquery.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

using halvard::DelInstallProxyKey;
using halvard::LaunchInstallProxyPV;
using halvard::RegKeyError;
using halvard_tests::AbsentKeys;
using halvard_tests::CallTrace;
using halvard_tests::CreateFolders;
using halvard_tests::ExpectFileSystemError;
using halvard_tests::ExpectRegKeyError;
using halvard_tests::kChildren;
using halvard_tests::KeyExists;
using halvard_tests::kFiles;
using halvard_tests::kInstaller;
using halvard_tests::kPlatform;
using halvard_tests::kProcesses;
using halvard_tests::kProperties;
using halvard_tests::kRegistry;
using halvard_tests::PlayedPrograms;
using halvard_tests::ProcessStart;
using halvard_tests::ProcessStarts;
using halvard_tests::ReadingOf;
using halvard_tests::RecorderAt;
using halvard_tests::Recordings;
using halvard_tests::RegistryValueAt;
using halvard_tests::ScratchFolder;
using halvard_tests::SetRegistryString;
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

// A start as the action asks for it: the folder is the text of the command line.
bool AsMeant(ProcessStart& start) {
    EXPECT_EQ(start.application, nullptr);
    EXPECT_STREQ(start.directory, start.commandLine);
    EXPECT_NE(start.directory, start.commandLine);
    EXPECT_EQ(start.inherit, FALSE);
    EXPECT_EQ(start.flags, static_cast<DWORD>(CREATE_NO_WINDOW));
    return true;
}

/// An installed framework, in a folder of the throw-away drive, and a session.
class InstallProxyTest : public testing::Test {
protected:
    InstallProxyTest() {
        CreateFolders(Framework());
        SetLocation(Framework());
        SetData(L"C:\\P\\");
    }

    std::wstring Framework() const { return scratch_.File(L"F"); }
    std::wstring Tool() const { return Framework() + L"\\CLI.exe"; }
    void SetLocation(const std::wstring& location) const {
        SetRegistryString(HKEY_LOCAL_MACHINE, kFrameworkKey, L"Location", location);
    }
    void StoreLocation(DWORD type, const void* bytes, DWORD size) const {
        RegSetKeyValueW(HKEY_LOCAL_MACHINE, kFrameworkKey, L"Location", type, bytes, size);
    }
    void SetData(const std::wstring& data) const {
        session_.SetProperty(L"CustomActionData", data);
    }
    // Makes a folder, and an install directory of 200 characters, for which the command line has
    // this length.
    std::wstring ArrangeCommandOf(std::size_t length) const {
        const std::wstring proxy = std::wstring(200, L'p') + L"\\" + kProxy;
        const std::size_t fixed = Command(scratch_.File(L"") + L"\\CLI.exe", proxy).size();
        const std::wstring location = scratch_.File(std::wstring(length - fixed, L'f'));
        CreateFolders(location);
        SetLocation(location);
        SetData(std::wstring(200, L'p'));
        return Command(location + L"\\CLI.exe", proxy);
    }
    UINT Launch() const { return LaunchInstallProxyPV(session_.Get()); }

    // Runs the action, which starts this, and logs these lines.
    void ExpectStarted(const std::wstring& command, const Lines& logged,
                       bool inSession = true) const {
        const ProcessStarts starts(AsMeant);
        const CallTrace calls(kInstaller);
        EXPECT_EQ(LaunchInstallProxyPV(inSession ? session_.Get() : 0), 0U);
        EXPECT_EQ(starts.CommandLines(), Lines{command});
        EXPECT_EQ(calls.Rests(L"set field 0 "), logged);
    }
    void ExpectStarted(const std::wstring& command) const {
        ExpectStarted(command, {ToolLine(Tool())});
    }
    // Runs the action, which asks for nothing behind the location, starts and logs nothing.
    void ExpectNothingStarted() const {
        const CallTrace calls(kProcesses | kProperties | kInstaller);
        EXPECT_EQ(Launch(), 0U);
        EXPECT_EQ(calls.All(), Lines{});
    }
    void ExpectThrown(int code, const std::string& message) const {
        const CallTrace calls(kProcesses | kProperties | kInstaller);
        ExpectRegKeyError([&] { Launch(); }, message, code);
        EXPECT_EQ(calls.All(), Lines{});
    }

    halvard_tests::CurrentSessionScope current_;
    AbsentKeys keys_{{L"SOFTWARE\\Qorta", L"SOFTWARE\\Wow6432Node\\Qorta"}};
    StandInSession session_;
    ScratchFolder scratch_;
};

using LaunchInstallProxyPVTest = InstallProxyTest;
using DelInstallProxyKeyTest = InstallProxyTest;

} // namespace

TEST_F(LaunchInstallProxyPVTest, HandsOverACommandLineThatIsRefusedForItsDirectory) {
    const RecorderAt tool(Tool());
    const ProcessStarts starts(AsMeant);
    EXPECT_EQ(Launch(), 0U);
    EXPECT_EQ(starts.CommandLines(), Lines{Command(Tool(), L"C:\\P\\" + kProxy)});
    EXPECT_EQ(starts.Codes(), std::vector<DWORD>{ERROR_DIRECTORY});
    EXPECT_EQ(session_.LogLines(), Lines{ToolLine(Tool())});
    EXPECT_EQ(Recordings().size(), 0U);
}

TEST_F(LaunchInstallProxyPVTest, TakesBothFoldersAsTheyStandAndQuotesTheToolAlone) {
    const std::wstring odd = scratch_.File(L"A framework \u0416\u00e9 !#$%&'()+,-;=@[]^_`{}~");
    CreateFolders(odd);
    for (const std::wstring& location : {Framework(), odd}) {
        for (const std::wstring& slash : {L""s, L"\\"s, L"/"s}) {
            const std::wstring tool = location + (slash.empty() ? L"\\"s : slash) + L"CLI.exe";
            SetLocation(location + slash);
            const std::pair<std::wstring, std::wstring> proxies[] = {
                {L"C:\\P", L"C:\\P\\"},
                {L"C:\\P\\", L"C:\\P\\"},
                {L"C:/P/", L"C:/P/"},
                {L"", L"\\"},
                {L"C:\\Program Files\\\u0416 100%s [P]\\",
                 L"C:\\Program Files\\\u0416 100%s [P]\\"},
                // The whole property is the directory.
                {L"InstallDir=C:\\P;Other=x", L"InstallDir=C:\\P;Other=x\\"},
            };
            for (const auto& [directory, folder] : proxies) {
                SetData(directory);
                ExpectStarted(Command(tool, folder + kProxy), {ToolLine(tool)});
            }
        }
    }
}

TEST_F(LaunchInstallProxyPVTest, Returns1ForAToolThatStartsAndWaitsForIt) {
    const RecorderAt tool(Tool());
    SetData(L"C:\\Program Files\\P");
    const ProcessStarts starts([](ProcessStart& start) {
        start.directory = nullptr;
        return true;
    });
    const std::wstring command = Command(Tool(), L"C:\\Program Files\\P\\" + kProxy);
    const CallTrace calls(kProcesses | kChildren);
    EXPECT_EQ(Launch(), 1U);
    EXPECT_EQ(calls.Of({L"wait "}), Lines{L"wait for " + command + L" 4294967295"});
    ASSERT_EQ(Recordings().size(), 1U);
    EXPECT_EQ(Recordings()[0].program, L"CLI.exe");
    EXPECT_EQ(Recordings()[0].commandLine, command);
    EXPECT_EQ(session_.LogLines(), Lines{ToolLine(Tool())});
}

TEST_F(LaunchInstallProxyPVTest, EndsQuietlyWhenTheLocationDoesNotExist) {
    const std::wstring file = scratch_.File(L"file");
    halvard_tests::WriteFileAt(file);
    for (const std::wstring& location :
         {scratch_.File(L"no such folder"), L""s, L"\\"s + std::wstring(300, L'x'), L"T:\\?<"s,
          std::wstring(40000, L'x'), file + L"\\"}) {
        SetLocation(location);
        ExpectNothingStarted();
    }
    for (const DWORD size : {0U, 1U, 2U}) {
        StoreLocation(REG_SZ, L"", size);
        ExpectNothingStarted();
    }
    // A file of that name is there.
    SetLocation(file);
    const std::wstring tool = file + L"\\CLI.exe";
    ExpectStarted(Command(tool, L"C:\\P\\" + kProxy), {ToolLine(tool)});
}

TEST_F(LaunchInstallProxyPVTest, ThrowsWhenWindowsDoesNotTellWhetherTheLocationExists) {
    CallTrace calls(kFiles | kProcesses | kInstaller);
    calls.Fail(L"attributes of ");
    ExpectFileSystemError([&] { Launch(); }, "exists", Framework(), ERROR_ACCESS_DENIED);
    EXPECT_EQ(calls.All().size(), 1U);
}

TEST_F(LaunchInstallProxyPVTest, ThrowsWithoutTheKeyOrItsLocation) {
    RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, kFrameworkKey, L"Location");
    ExpectThrown(ERROR_FILE_NOT_FOUND, "Unable to get registry value");
    keys_.Remove();
    ExpectThrown(ERROR_FILE_NOT_FOUND, "Unable to open registry key");

    // The other view's key is not looked at by a 64-bit process.
    SetRegistryString(HKEY_LOCAL_MACHINE, kWow64FrameworkKey, L"Location", Framework());
    ExpectThrown(ERROR_FILE_NOT_FOUND, "Unable to open registry key");
}

TEST_F(LaunchInstallProxyPVTest, ThrowsForALocationOfAnotherType) {
    const std::wstring location = Framework();
    for (const DWORD type : {REG_NONE, REG_BINARY, REG_DWORD, REG_MULTI_SZ, REG_QWORD}) {
        StoreLocation(type, location.c_str(), 8);
        ExpectThrown(ERROR_UNSUPPORTED_TYPE, "Unable to get registry value");
    }
}

TEST_F(LaunchInstallProxyPVTest, ALocationEndsAtItsFirstNullCharacterOrWithItsBytes) {
    const std::wstring location = Framework();
    const DWORD bytes = static_cast<DWORD>(location.size() * sizeof(wchar_t));
    // Without its terminator, with an odd byte behind it, and cut at its first null character.
    const std::wstring cut = location + L'\0' + L"more";
    const DWORD cutBytes = static_cast<DWORD>(cut.size() * sizeof(wchar_t));
    for (const auto& [text, size] :
         {std::pair(location, bytes), std::pair(location, bytes + 1), std::pair(cut, cutBytes)}) {
        StoreLocation(REG_SZ, text.c_str(), size);
        ExpectStarted(Command(Tool(), L"C:\\P\\" + kProxy));
    }
}

TEST_F(LaunchInstallProxyPVTest, ThrowsWhenTheRegistryRefuses) {
    const struct {
        const wchar_t* failing;
        std::size_t nth;
        DWORD code;
        int thrown;
        const char* message;
    } cases[] = {
        {L"open ", 1, ERROR_ACCESS_DENIED, ERROR_ACCESS_DENIED, "Unable to open registry key"},
        {L"size of ", 0, ERROR_ACCESS_DENIED, ERROR_ACCESS_DENIED, "Unable to get registry value"},
        // A value that grows or goes between its size and itself.
        {L"get ", 1, ERROR_MORE_DATA, 0, "Unable to get registry value"},
    };
    for (const auto& each : cases) {
        CallTrace calls(kRegistry);
        calls.Fail(each.failing, each.code, each.nth);
        ExpectThrown(each.thrown, each.message);
        EXPECT_EQ(calls.LeftOpen(), Lines{});
    }
}

TEST_F(LaunchInstallProxyPVTest, MakesItsCallsInThisOrder) {
    const PlayedPrograms programs;
    const CallTrace calls(kRegistry | kFiles | kProperties | kInstaller | kProcesses | kChildren);
    EXPECT_EQ(Launch(), 1U);
    const std::wstring command = Command(Tool(), L"C:\\P\\" + kProxy);
    const std::wstring session = std::to_wstring(session_.Get());
    EXPECT_EQ(
        calls.All(),
        (ReadingOf(L"HKLM\\"s + kFrameworkKey, L"Location", L"0x2001f") +
         Lines{L"attributes of \\\\?\\" + Framework(), L"create record 0",
               L"set field 0 " + ToolLine(Tool()), L"send 0x4000000 to " + session, L"close record",
               L"property CustomActionData 260 of " + session,
               L"run " + command + L" in " + command, L"wait for " + command + L" 4294967295"}));
}

TEST_F(LaunchInstallProxyPVTest, LogsThatItCannotGetTheInstallDirectoryAndGoesOn) {
    HOOK(reading, MsiGetPropertyW, [](MSIHANDLE, LPCWSTR, LPWSTR buffer, LPDWORD length) {
        EXPECT_EQ(std::count(buffer, buffer + *length, L'\0'), 260);
        return static_cast<UINT>(ERROR_FUNCTION_FAILED);
    });
    const CallTrace calls(kProperties);
    ExpectStarted(Command(Tool(), L"\\" + kProxy), {ToolLine(Tool()), kNoInstallDirectory});
    EXPECT_EQ(calls.All(),
              Lines{L"property CustomActionData 260 of " + std::to_wstring(session_.Get())});
    EXPECT_EQ(session_.LogLines(), (Lines{ToolLine(Tool()), kNoInstallDirectory}));
}

TEST_F(LaunchInstallProxyPVTest, GoesOnWithWhatAFailureLeavesInTheBuffer) {
    for (const std::size_t left : {3U, 259U, 260U}) {
        HOOK(reading, MsiGetPropertyW, [&](MSIHANDLE, LPCWSTR, LPWSTR buffer, LPDWORD) {
            std::fill(buffer, buffer + left, L'x');
            return static_cast<UINT>(ERROR_MORE_DATA);
        });
        ExpectStarted(Command(Tool(), std::wstring(left, L'x') + L"\\" + kProxy),
                      {ToolLine(Tool()), kNoInstallDirectory});
    }
}

TEST_F(LaunchInstallProxyPVTest, AnInstallDirectoryOfUpTo259Characters) {
    const std::wstring command = Command(Tool(), std::wstring(259, L'p') + L"\\" + kProxy);
    SetData(std::wstring(259, L'p'));
    ExpectStarted(command);
    // The engine fills what there is room for.
    SetData(std::wstring(260, L'p'));
    ExpectStarted(command, {ToolLine(Tool()), kNoInstallDirectory});
}

TEST_F(LaunchInstallProxyPVTest, GoesOnWithoutASession) {
    ExpectStarted(Command(Tool(), L"\\" + kProxy), {ToolLine(Tool()), kNoInstallDirectory}, false);
}

TEST_F(LaunchInstallProxyPVTest, HasRoomForACommandLineOf518Characters) {
    const std::wstring command = ArrangeCommandOf(518);
    EXPECT_EQ(command.size(), 518U);
    const ProcessStarts starts(AsMeant);
    EXPECT_EQ(Launch(), 0U);
    EXPECT_EQ(starts.CommandLines(), Lines{command});
}

// A process of its own, started with this test alone, ends for it.
TEST_F(LaunchInstallProxyPVTest, EndsTheProcessForACommandLineOf519Characters) {
    ArrangeCommandOf(519);
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
    ArrangeCommandOf(519);
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
    keys_.Remove();
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

const std::wstring kVersion = L"look up RtlGetVersion";
const std::wstring kNativeProcessor = L"native processor";
const std::wstring kProcessor = L"processor";

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
        void* tells; // null where there is no function to ask
        Lines calls;
    } cases[] = {
        {10, reinterpret_cast<void*>(&TellVersion), {kVersion, kNativeProcessor}},
        {6, reinterpret_cast<void*>(&TellVersion), {kVersion, kProcessor}},
        {11, reinterpret_cast<void*>(&TellVersion), {kVersion, kProcessor}},
        {0, reinterpret_cast<void*>(&TellVersion), {kVersion, kProcessor}},
        {10, nullptr, {kVersion}},
    };
    for (const auto& each : cases) {
        majorVersion = each.major;
        askedSize = 0;
        HOOK(finding, GetProcAddress, [&](HMODULE module, LPCSTR) {
            EXPECT_EQ(module, GetModuleHandleW(L"ntdll"));
            return reinterpret_cast<FARPROC>(each.tells);
        });
        const CallTrace calls(kPlatform);
        ExpectStarted(Command(Tool(), L"C:\\P\\" + kProxy));
        EXPECT_EQ(calls.All(), each.calls);
        EXPECT_EQ(askedSize, each.tells == nullptr ? 0U : 284U);
    }
}

TEST_F(LaunchInstallProxyPVTest, TheProcessorMakesNoDifference) {
    for (const WORD architecture : {WORD{0}, WORD{6}, WORD{9}, WORD{12}}) {
        HOOK(asking, GetNativeSystemInfo, [&](LPSYSTEM_INFO system) {
            asking.Original(system);
            system->wProcessorArchitecture = architecture;
        });
        COUNT_CALLS(askingWow64, GetCurrentProcess);
        ExpectStarted(Command(Tool(), L"C:\\P\\" + kProxy));
        EXPECT_EQ(askingWow64.Calls(), 1);
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

CallTrace* questions = nullptr;

BOOL WINAPI NotesTheQuestion(HANDLE, BOOL*) {
    questions->Passes(L"WOW64");
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
    CreateFolders(other);
    SetRegistryString(HKEY_LOCAL_MACHINE, kWow64FrameworkKey, L"Location", other);
    const auto tool = [&](BOOL(WINAPI * isWow64Process)(HANDLE, BOOL*)) {
        const Detour detour(L"kernel32", "IsWow64Process", reinterpret_cast<void*>(isWow64Process));
        const CallTrace calls(kRegistry | kInstaller);
        Launch();
        return calls.Rests(L"open ") + calls.Rests(L"set field 0 ");
    };
    const std::wstring opened = L"HKLM\\"s + kWow64FrameworkKey + L" 0x2001f";
    EXPECT_EQ(tool(IsUnderWow64), (Lines{opened, ToolLine(other + L"\\CLI.exe")}));
    const Lines otherwise = {L"HKLM\\"s + kFrameworkKey + L" 0x2001f", ToolLine(Tool())};
    EXPECT_EQ(tool(IsNotUnderWow64), otherwise);
    EXPECT_EQ(tool(CannotTell), otherwise);
}

TEST_F(LaunchInstallProxyPVTest, AsksForThePlatformThenForWow64ThenForTheFramework) {
    majorVersion = 10;
    const Detour detour(L"kernel32", "IsWow64Process", reinterpret_cast<void*>(NotesTheQuestion));
    HOOK(finding, GetProcAddress, [](HMODULE, LPCSTR) {
        return reinterpret_cast<FARPROC>(reinterpret_cast<void*>(&TellVersion));
    });
    CallTrace calls(kPlatform | kRegistry);
    questions = &calls;
    EXPECT_EQ(Launch(), 0U);
    questions = nullptr;
    const Lines reading = ReadingOf(L"HKLM\\"s + kFrameworkKey, L"Location", L"0x2001f");
    EXPECT_EQ(calls.All(), (Lines{kVersion, kNativeProcessor, L"WOW64"} + reading));
}

namespace {

void SetInstallation(const wchar_t* value) {
    SetRegistryString(HKEY_LOCAL_MACHINE, kInstallationKey, value, L"1");
}

const std::wstring kDeleting = L"QUENBY_CA: DelInstallProxyKey  \n";
const std::wstring kDeleted = L"QUENBY_CA: DelInstallProxyKey successfully  \n";

} // namespace

TEST_F(DelInstallProxyKeyTest, DeletesTheKeyWithItsValues) {
    SetInstallation(L"Version");
    SetInstallation(L"");
    const CallTrace calls(kRegistry | kInstaller);
    EXPECT_EQ(DelInstallProxyKey(session_.Get()), 1U);
    const std::wstring send = L"send 0x4000000 to " + std::to_wstring(session_.Get());
    EXPECT_EQ(calls.Of({L"set field", L"send", L"delete key"}),
              (Lines{L"set field 0 " + kDeleting, send, L"delete key HKLM\\"s + kInstallationKey,
                     L"set field 0 " + kDeleted, send}));
    EXPECT_FALSE(KeyExists(kInstallationKey));
    EXPECT_EQ(session_.LogLines(), (Lines{kDeleting, kDeleted}));
    EXPECT_TRUE(KeyExists(L"SOFTWARE\\Wow6432Node\\Qorta\\Sable\\Settings\\Kiln"));
}

TEST_F(DelInstallProxyKeyTest, LeavesAKeyWithASubkey) {
    SetInstallation(L"Version");
    const std::wstring subkey = std::wstring(kInstallationKey) + L"\\sub";
    SetRegistryString(HKEY_LOCAL_MACHINE, subkey, L"Kept", L"1");
    EXPECT_EQ(DelInstallProxyKey(session_.Get()), 0U);
    EXPECT_NE(RegistryValueAt(kInstallationKey, L"Version"), std::nullopt);
    EXPECT_NE(RegistryValueAt(subkey, L"Kept"), std::nullopt);
    EXPECT_EQ(session_.LogLines(), Lines{kDeleting});
}

TEST_F(DelInstallProxyKeyTest, NoKeyToDelete) {
    EXPECT_EQ(DelInstallProxyKey(session_.Get()), 0U);
    EXPECT_EQ(session_.LogLines(), Lines{kDeleting});
}

TEST_F(DelInstallProxyKeyTest, LeavesTheKeyOfTheOtherView) {
    constexpr wchar_t native[] = L"SOFTWARE\\Qorta\\Sable\\Settings\\Kiln\\Install";
    SetRegistryString(HKEY_LOCAL_MACHINE, native, L"Kept", L"1");
    EXPECT_EQ(DelInstallProxyKey(session_.Get()), 0U);
    EXPECT_NE(RegistryValueAt(native, L"Kept"), std::nullopt);
}

TEST_F(DelInstallProxyKeyTest, AKeyThatIsRefusedStays) {
    SetInstallation(L"Version");
    CallTrace calls(kRegistry);
    calls.Fail(L"delete key ");
    EXPECT_EQ(DelInstallProxyKey(session_.Get()), 0U);
    EXPECT_EQ(calls.All().size(), 1U);
    EXPECT_TRUE(KeyExists(kInstallationKey));
    EXPECT_EQ(session_.LogLines(), Lines{kDeleting});
}

TEST_F(DelInstallProxyKeyTest, StoresItsSession) {
    EXPECT_EQ(DelInstallProxyKey(session_.Get()), 0U);
    EXPECT_EQ(halvard::CurrentSession(), session_.Get());
}
