#include "processes/application_actions.h"

#include "runtime/launch.h"

#include "call_trace.h"
#include "child_programs.h"
#include "file_system_error.h"
#include "files.h"
#include "import_hook.h"
#include "open_handles.h"
#include "pivot_installation.h"
#include "played_programs.h"
#include "process_starts.h"
#include "registry_error.h"
#include "registry_key.h"

#include <gtest/gtest.h>

#include <shlobj.h>
#include <shlwapi.h>

#include <functional>

using halvard::ShutDownDVR;
using halvard::ShutDownPivotConsole;
using halvard::TerminateDVRApp;
using halvard::TerminatePivotApp;
using halvard_tests::AbsentKeys;
using halvard_tests::CallTrace;
using halvard_tests::CreateFolders;
using halvard_tests::EnvironmentVariable;
using halvard_tests::ExpectFileSystemError;
using halvard_tests::ExpectRegKeyError;
using halvard_tests::kChildren;
using halvard_tests::kFileQuestions;
using halvard_tests::kFiles;
using halvard_tests::kFolders;
using halvard_tests::kProcesses;
using halvard_tests::kRegistry;
using halvard_tests::kSleeps;
using halvard_tests::OpenHandleCount;
using halvard_tests::PlayedPrograms;
using halvard_tests::ProcessStart;
using halvard_tests::ProcessStarts;
using halvard_tests::ReadingOf;
using halvard_tests::RecorderAt;
using halvard_tests::Recording;
using halvard_tests::Recordings;
using halvard_tests::RemoveForGood;
using halvard_tests::SetRegistryString;
using halvard_tests::WaitForRecordings;
using namespace std::string_literals;

namespace {

using Action = UINT(__stdcall*)(MSIHANDLE);

constexpr wchar_t kFolder[] = L"T:\\Apps\\Suite";
constexpr wchar_t kTaskKill[] = L"C:\\windows\\system32\\taskkill.exe";
constexpr wchar_t kSystemFolder[] = L"C:\\windows\\system32";
constexpr DWORD kLimitMilliseconds = 20000;
constexpr unsigned kLooks = kFiles | kFileQuestions;
// How the lines begin of all but the questions for whole paths.
const Lines kTold = {L"open ",          L"size of ",  L"get ", L"close ",
                     L"attributes of ", L"is there ", L"run "};

struct ShutDownAction {
    Action run;
    std::wstring key;
    std::wstring program;
    // The program is looked for in the way that reports what it cannot look at.
    bool reportsFailedLook;
};

void PrintTo(const ShutDownAction& action, std::ostream* stream) {
    *stream << std::string(action.program.begin(), action.program.end());
}

// A start as the actions ask for it. The system writes into the buffer of a command line.
bool AsMeant(ProcessStart& start) {
    EXPECT_EQ(start.application, nullptr);
    EXPECT_EQ(start.inherit, FALSE);
    EXPECT_NE(static_cast<LPCWSTR>(start.commandLine), start.directory);
    return true;
}

// How a trace tells of the look at a folder.
std::wstring LookAt(const std::wstring& path) {
    return L"attributes of \\\\?\\" + path;
}

/// The registry entry and the folder of an installed application, without its command tool.
class ShutDown : public testing::TestWithParam<ShutDownAction> {
protected:
    ShutDown() {
        CreateFolders(kFolder);
        SetLocation(kFolder);
    }
    ~ShutDown() override { RemoveForGood(L"T:\\Apps"); }
    ShutDown(const ShutDown&) = delete;
    ShutDown& operator=(const ShutDown&) = delete;

    static void SetLocation(const std::wstring& location) {
        SetRegistryString(HKEY_LOCAL_MACHINE, GetParam().key, L"Location", location);
    }
    static std::wstring Program() { return kFolder + L"\\"s + GetParam().program; }
    static std::wstring CommandIn(const std::wstring& location) {
        const bool ends = location.back() == L'\\' || location.back() == L'/';
        return L"\"" + location + (ends ? L"" : L"\\") + GetParam().program + L"\" exit";
    }

    static UINT Run() { return GetParam().run(0); }

    // The lines of all that it calls.
    static Lines Reading() {
        return ReadingOf(L"HKLM\\" + GetParam().key, L"Location", L"0x20019");
    }
    static std::wstring LookAtTool() {
        return GetParam().reportsFailedLook ? LookAt(Program()) : L"is there " + Program();
    }
    static std::wstring Start(const std::wstring& location) {
        return L"run " + CommandIn(location) + L" in " + location;
    }

    // What the tool, which is there, records of its start in this location.
    static Recording StartedIn(const std::wstring& location) {
        SetLocation(location);
        const ProcessStarts starts(AsMeant);
        EXPECT_EQ(Run(), 0U);
        EXPECT_EQ(starts.All(), Lines{Start(location)});
        starts.WaitUntilAllHaveEnded();
        const std::vector<Recording> recordings = Recordings();
        EXPECT_EQ(recordings.size(), 1U);
        return recordings.empty() ? Recording() : recordings.front();
    }

    // With the call refused whose line begins so.
    static void ExpectThrown(const std::wstring& refused, const std::string& message, int code,
                             const Lines& calls) {
        CallTrace trace(kRegistry | kLooks | kProcesses);
        trace.Fail(refused, ERROR_ACCESS_DENIED, 0);
        ExpectRegKeyError(Run, message, code);
        EXPECT_EQ(trace.Of(kTold), calls);
    }

private:
    AbsentKeys keys_{
        {L"SOFTWARE\\Qorta Technologies", L"SOFTWARE\\Wow6432Node\\Qorta Technologies"}};
};

} // namespace

TEST_P(ShutDown, StartsTheToolWithExitInItsFolder) {
    for (const std::wstring& name : {L""s, L"\\With blanks"s, L"\\\u0416\u00e9"s}) {
        const std::wstring location = kFolder + name;
        CreateFolders(location);
        const RecorderAt tool(location + L"\\" + GetParam().program);
        EXPECT_EQ(StartedIn(location),
                  (Recording{GetParam().program, location, CommandIn(location)}));
    }
}

TEST_P(ShutDown, ALocationThatEndsInASlash) {
    for (const std::wstring& location : {L"T:\\Apps\\Suite\\"s, L"T:/Apps/Suite/"s}) {
        const RecorderAt tool(Program());
        EXPECT_EQ(StartedIn(location).commandLine, CommandIn(location));
    }
}

TEST_P(ShutDown, DoesNotWaitForTheTool) {
    const RecorderAt tool(Program());
    const EnvironmentVariable delay(L"HALVARD_RECORD_DELAY", L"60000");
    const ProcessStarts starts(AsMeant);
    {
        const CallTrace calls(kProcesses | kChildren | kSleeps);
        EXPECT_EQ(Run(), 0U);
        EXPECT_EQ(calls.All(), Lines{Start(kFolder)});
    }
    EXPECT_EQ(WaitForRecordings(1).size(), 1U);
    EXPECT_EQ(WaitForSingleObject(starts.LastStarted(), 0), static_cast<DWORD>(WAIT_TIMEOUT));
    starts.EndAll();
}

TEST_P(ShutDown, MakesItsCallsInThisOrder) {
    const RecorderAt tool(Program());
    const CallTrace calls(kRegistry | kLooks | kProcesses);
    EXPECT_EQ(Run(), 0U);
    EXPECT_EQ(calls.Of(kTold), (Reading() + Lines{LookAt(kFolder), LookAtTool(), Start(kFolder)}));
}

TEST_P(ShutDown, ReadsTheKeyOfThe64BitView) {
    const std::wstring other = L"SOFTWARE\\Wow6432Node"s + GetParam().key.substr(8);
    SetRegistryString(HKEY_LOCAL_MACHINE, other, L"Location", L"T:\\none");
    const RecorderAt tool(Program());
    EXPECT_EQ(Run(), 0U);
    EXPECT_EQ(WaitForRecordings(1).size(), 1U);
}

TEST_P(ShutDown, ThrowsWithoutTheKeyOrItsValueAndClosesTheKey) {
    const RecorderAt tool(Program());
    const char* const noKey = "Unable to open registry key";
    const char* const noValue = "Unable to get registry value";
    const Lines whole = Reading();
    const Lines opening = {whole[0]};
    const Lines withoutSize = {whole[0], whole[1], whole[1], whole[3]};
    ExpectThrown(L"open ", noKey, ERROR_ACCESS_DENIED, opening);
    ExpectThrown(L"size of ", noValue, ERROR_ACCESS_DENIED, withoutSize);
    const DWORD number = 1;
    RegSetKeyValueW(HKEY_LOCAL_MACHINE, GetParam().key.c_str(), L"Location", REG_DWORD, &number,
                    sizeof(number));
    ExpectThrown(L"", noValue, ERROR_UNSUPPORTED_TYPE, whole);
    RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, GetParam().key.c_str(), L"Location");
    ExpectThrown(L"", noValue, ERROR_FILE_NOT_FOUND, withoutSize);
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, GetParam().key.c_str());
    ExpectThrown(L"", noKey, ERROR_FILE_NOT_FOUND, opening);
}

TEST_P(ShutDown, AMissingLocationIsASuccess) {
    for (const wchar_t* const location : {L"T:\\Apps\\none", L"T:\\none\\none\\", L""}) {
        SetLocation(location);
        const CallTrace calls(kLooks | kProcesses);
        EXPECT_EQ(Run(), 0U) << location;
        EXPECT_EQ(calls.Of(kTold).size(), 1U);
        EXPECT_EQ(calls.Of(kTold), calls.Of({L"attributes of "}));
    }
}

TEST_P(ShutDown, ALocationWithoutTheToolIsAFailure) {
    const CallTrace calls(kProcesses);
    EXPECT_EQ(Run(), 1603U);
    // Anything of the folder's name will do as the folder.
    halvard_tests::WriteWholeFile(Program(), std::string("not a program"));
    SetLocation(Program());
    EXPECT_EQ(Run(), 1603U);
    EXPECT_EQ(calls.All(), Lines{});
}

TEST_P(ShutDown, FollowsALinkToTheLocation) {
    const std::wstring location = L"T:\\Apps\\link";
    const halvard_tests::Link link(L"T:\\Apps", L"link", L"Suite");
    {
        const RecorderAt tool(Program());
        EXPECT_EQ(StartedIn(location).commandLine, CommandIn(location));
    }
    EXPECT_EQ(Run(), 1603U);
    RemoveForGood(kFolder);
    EXPECT_EQ(Run(), 0U);
    CreateFolders(kFolder);
}

TEST_P(ShutDown, IgnoresThatTheToolCannotStartOrFails) {
    CreateFolders(Program());
    {
        const ProcessStarts starts(AsMeant);
        EXPECT_EQ(Run(), 0U);
        ASSERT_EQ(starts.Calls(), 1);
        EXPECT_NE(starts.Codes()[0], static_cast<DWORD>(NO_ERROR));
    }
    RemoveDirectoryW(Program().c_str());
    const RecorderAt tool(Program());
    const EnvironmentVariable exitCode(L"HALVARD_RECORD_EXIT", L"1");
    EXPECT_EQ(Run(), 0U);
    EXPECT_EQ(WaitForRecordings(1).size(), 1U);
}

TEST_P(ShutDown, StartsACommandOfUpTo518Characters) {
    const RecorderAt tool(Program());
    const auto locationForCommandOf = [](std::size_t characters) {
        return kFolder +
               std::wstring(characters - CommandIn(L"\\").size() + 1 - std::wstring(kFolder).size(),
                            L'\\');
    };
    const std::wstring longest = locationForCommandOf(518);
    EXPECT_EQ(CommandIn(longest).size(), 518U);
    EXPECT_EQ(StartedIn(longest).commandLine, CommandIn(longest));
    for (const std::size_t characters : {519U, 520U, 3000U}) {
        SetLocation(locationForCommandOf(characters));
        // What the system says of such a path is not the point here.
        HOOK(asking, PathFileExistsW, [](LPCWSTR) -> BOOL { return TRUE; });
        const CallTrace calls(kProcesses);
        EXPECT_EQ(Run(), 0U);
        EXPECT_EQ(calls.All(), Lines{}) << characters;
    }
}

TEST_P(ShutDown, ALocationOrAToolThatCannotBeLookedAt) {
    const RecorderAt tool(Program());
    const auto refused = [](const std::wstring& line) {
        CallTrace calls(kLooks | kProcesses);
        calls.Fail(line);
        const std::wstring path = line == LookAtTool() ? Program() : kFolder;
        if (line == L"is there " + Program()) {
            EXPECT_EQ(Run(), 1603U);
        } else {
            ExpectFileSystemError(Run, "exists", path, ERROR_ACCESS_DENIED);
        }
        return calls.Of(kTold);
    };
    EXPECT_EQ(refused(LookAt(kFolder)), Lines{LookAt(kFolder)});
    EXPECT_EQ(refused(LookAtTool()), (Lines{LookAt(kFolder), LookAtTool()}));
}

TEST_P(ShutDown, LeavesNoHandleOpen) {
    // What is thrown goes no further.
    const auto runAnyway = [] {
        try {
            Run();
        } catch (const std::exception&) { // NOLINT(bugprone-empty-catch)
        }
    };
    const auto leavesNone = [&](const char* what) {
        runAnyway(); // what a first call or exception loads once
        const int before = OpenHandleCount();
        runAnyway();
        EXPECT_EQ(OpenHandleCount(), before) << what;
    };
    leavesNone("no tool");
    {
        const RecorderAt tool(Program());
        leavesNone("started");
        {
            FAIL_CALL(creating, CreateProcessW, 0, FALSE, ERROR_ACCESS_DENIED);
            leavesNone("not started");
        }
        {
            HOOK(looking, GetFileAttributesW,
                 [](LPCWSTR) -> DWORD { return FILE_ATTRIBUTE_REPARSE_POINT; });
            FAIL_CALL(reading, GetFileInformationByHandleEx, 0, FALSE, ERROR_GEN_FAILURE);
            leavesNone("a look that fails");
            EXPECT_EQ(reading.Calls(), 2);
        }
        WaitForRecordings(2);
    }
    SetLocation(L"T:\\none");
    leavesNone("no location");
    RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, GetParam().key.c_str(), L"Location");
    leavesNone("no value");
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, GetParam().key.c_str());
    leavesNone("no key");
}

INSTANTIATE_TEST_SUITE_P(
    Applications, ShutDown,
    testing::Values(ShutDownAction{ShutDownPivotConsole,
                                   L"SOFTWARE\\Qorta Technologies\\Install\\Pivot", L"pvcmd.exe",
                                   true},
                    ShutDownAction{ShutDownDVR, L"SOFTWARE\\Qorta Technologies\\Install\\Zenvo DVR",
                                   L"VSServCmd.exe", false}));

namespace {

struct TerminateAction {
    Action run;
    std::vector<std::wstring> images;
    std::wstring commandEnd;
    // The working directory is the command's text, and not the system folder.
    bool startsInCommand;

    std::wstring Command(std::size_t image, const std::wstring& folder = kSystemFolder) const {
        return L"\"" + folder + L"\\TaskKill.exe\" /IM " + images[image] + L" /F" + commandEnd;
    }
    // The line of its start.
    std::wstring Start(std::size_t image, const std::wstring& folder = kSystemFolder) const {
        const std::wstring command = Command(image, folder);
        const std::wstring directory = startsInCommand ? command : folder;
        return L"run " + command + (directory.empty() ? L"" : L" in " + directory);
    }
};

void PrintTo(const TerminateAction& action, std::ostream* stream) {
    *stream << std::string(action.images[0].begin(), action.images[0].end());
}

const std::wstring kRefused = L" refused with ";

} // namespace

// The system's own TaskKill.exe. Left alone, the process would outlive the wait.
TEST(TerminateDVRApp, EndsTheRecorder) {
    std::wstring program = L"T:\\ZenvoVSServ.exe";
    const RecorderAt running(program);
    const ProcessStarts starts;
    {
        const EnvironmentVariable delay(L"HALVARD_RECORD_DELAY", L"60000");
        ASSERT_TRUE(halvard::RunCommandLine(program.data(), L"", false));
    }
    const HANDLE process = starts.LastStarted();
    EXPECT_EQ(WaitForRecordings(1).size(), 1U);
    EXPECT_EQ(WaitForSingleObject(process, 0), static_cast<DWORD>(WAIT_TIMEOUT));
    EXPECT_EQ(TerminateDVRApp(0), 0U);
    EXPECT_EQ(WaitForSingleObject(process, kLimitMilliseconds), WAIT_OBJECT_0);
    TerminateProcess(process, 1); // so that no later test meets it if the action left it
}

TEST(TerminateDVRApp, NoRecorderToEndIsASuccess) {
    const ProcessStarts starts(AsMeant);
    EXPECT_EQ(TerminateDVRApp(0), 0U);
    ASSERT_EQ(starts.Codes(), std::vector<DWORD>{NO_ERROR});
    DWORD exitCode = 0;
    EXPECT_NE(GetExitCodeProcess(starts.LastStarted(), &exitCode), FALSE);
    EXPECT_EQ(exitCode, 128U);
}

class Terminate : public testing::TestWithParam<TerminateAction> {};

TEST_P(Terminate, RunsTaskKillInItsWorkingDirectory) {
    const RecorderAt taskKill(kTaskKill);
    const ProcessStarts starts(AsMeant);
    if (!GetParam().startsInCommand) {
        EXPECT_EQ(GetParam().run(0), 0U);
        EXPECT_EQ(starts.All(), Lines{GetParam().Start(0)});
        EXPECT_EQ(Recordings(), (std::vector<Recording>{
                                    {L"taskkill.exe", kSystemFolder, GetParam().Command(0)}}));
        return;
    }
    // The system refuses one that is not there.
    EXPECT_EQ(GetParam().run(0), 1603U);
    EXPECT_EQ(starts.All(), (Lines{GetParam().Start(0) + kRefused + L"267",
                                   GetParam().Start(1) + kRefused + L"267"}));
    EXPECT_EQ(Recordings().size(), 0U);
}

TEST_P(Terminate, AsksForTheSystemFolderOnceAndStartsUntilOneSucceeds) {
    const std::size_t images = GetParam().images.size();
    for (std::size_t refused = 0; refused <= images; ++refused) {
        const PlayedPrograms programs;
        const ProcessStarts starts([&](ProcessStart& start) {
            return AsMeant(start) && static_cast<std::size_t>(starts.Calls()) > refused;
        });
        const CallTrace calls(kFolders | kProcesses | kChildren | kSleeps);
        EXPECT_EQ(GetParam().run(0), refused == images ? 1603U : 0U);
        Lines made = {L"folder 37"};
        Lines started;
        for (std::size_t image = 0; image < images && image <= refused; ++image) {
            const std::wstring start = GetParam().Start(image);
            made.push_back(start);
            started.push_back(start + (image < refused ? kRefused + L"5" : L""));
        }
        if (refused < images) {
            made.push_back(L"wait for " + GetParam().Command(refused) + L" 4294967295");
        }
        EXPECT_EQ(calls.All(), made);
        EXPECT_EQ(starts.All(), started);
    }
}

TEST_P(Terminate, WaitsForTaskKillAndDoesNotAskWhatItDid) {
    const RecorderAt taskKill(kTaskKill);
    const EnvironmentVariable delay(L"HALVARD_RECORD_DELAY", L"700");
    const EnvironmentVariable exitCode(L"HALVARD_RECORD_EXIT", L"128");
    for (std::size_t image = 0; image < GetParam().images.size(); ++image) {
        const ProcessStarts starts([&](ProcessStart& start) {
            // Of the one that is refused for its directory this shows what would come of it.
            if (GetParam().startsInCommand) {
                start.directory = nullptr;
            }
            return static_cast<std::size_t>(starts.Calls()) > image;
        });
        const CallTrace calls(kChildren | kSleeps);
        const ULONGLONG start = GetTickCount64();
        EXPECT_EQ(GetParam().run(0), 0U);
        EXPECT_GE(GetTickCount64() - start, 700U);
        EXPECT_EQ(calls.All().size(), 1U);
        EXPECT_EQ(calls.Of({L"wait for "}).size(), 1U);
        const std::vector<Recording> recordings = Recordings();
        ASSERT_EQ(recordings.size(), image + 1);
        EXPECT_EQ(recordings[image].commandLine, GetParam().Command(image));
    }
}

TEST_P(Terminate, TakesTheSystemFolderAsItStands) {
    const struct {
        HRESULT answer;
        const wchar_t* path; // null for that of the system
        std::wstring folder;
    } cases[] = {
        // One that ends in a backslash gets a second one.
        {S_OK, L"T:\\", L"T:\\"},
        // A path, and a result that says there is none.
        {S_FALSE, nullptr, kSystemFolder},
        {E_FAIL, nullptr, L""},
    };
    for (const auto& [answer, path, folder] : cases) {
        HOOK(locating, SHGetFolderLocation,
             [&, result = answer](HWND window, int csidl, HANDLE token, DWORD reserved,
                                  PIDLIST_ABSOLUTE* location) {
                 EXPECT_TRUE(FAILED(result) ||
                             locating.Original(window, csidl, token, reserved, location) == S_OK);
                 return result;
             });
        HOOK(converting, SHGetPathFromIDListW,
             [&, told = path](PCIDLIST_ABSOLUTE location, LPWSTR text) -> BOOL {
                 return told != nullptr ? lstrcpyW(text, told) != nullptr
                                        : converting.Original(location, text);
             });
        const PlayedPrograms programs;
        const ProcessStarts starts(AsMeant);
        EXPECT_EQ(GetParam().run(0), 0U);
        EXPECT_EQ(starts.All(), Lines{GetParam().Start(0, folder)});
    }
}

TEST_P(Terminate, LeavesNoHandleOpen) {
    const RecorderAt taskKill(kTaskKill);
    const auto leavesNone = [](const std::function<bool(ProcessStart&)>& before) {
        const auto run = [&] {
            const ProcessStarts starts(before);
            GetParam().run(0);
        };
        run(); // what a first start loads once
        const int handles = OpenHandleCount();
        run();
        EXPECT_EQ(OpenHandleCount(), handles);
    };
    leavesNone(AsMeant);
    leavesNone([](ProcessStart&) { return false; });
    leavesNone([](ProcessStart& start) {
        start.directory = nullptr;
        return true;
    });
    const PlayedPrograms programs;
    leavesNone(AsMeant);
}

INSTANTIATE_TEST_SUITE_P(
    Applications, Terminate,
    testing::Values(TerminateAction{TerminatePivotApp,
                                    {L"VireoSettings.exe", L"VireoSoftware.exe"},
                                    L"\"",
                                    true},
                    TerminateAction{TerminateDVRApp, {L"ZenvoVSServ.exe"}, L"", false}));
