#include "processes/application_actions.h"

#include "runtime/owned.h"
#include "runtime/registry.h"

#include "child_programs.h"
#include "file_system_error.h"
#include "files.h"
#include "import_hook.h"
#include "open_handles.h"
#include "pivot_installation.h"
#include "registry_error.h"

#include <gtest/gtest.h>

#include <shlobj.h>
#include <shlwapi.h>

#include <filesystem>
#include <functional>
#include <optional>

using halvard::OwnedHandle;
using halvard::ShutDownDVR;
using halvard::ShutDownPivotConsole;
using halvard::TerminateDVRApp;
using halvard::TerminatePivotApp;
using halvard_tests::EnvironmentVariable;
using halvard_tests::ExpectRegKeyError;
using halvard_tests::OpenHandleCount;
using halvard_tests::RecorderAt;
using halvard_tests::Recording;
using halvard_tests::Recordings;
using halvard_tests::SetRegistryString;
using halvard_tests::WaitForRecordings;
using namespace std::string_literals;

namespace {

constexpr wchar_t kFolder[] = L"T:\\Apps\\Suite";
constexpr wchar_t kTaskKill[] = L"C:\\windows\\system32\\taskkill.exe";
constexpr wchar_t kSystemFolder[] = L"C:\\windows\\system32";
constexpr DWORD kLimitMilliseconds = 20000;

using Action = UINT(__stdcall*)(MSIHANDLE);

struct ShutDownAction {
    Action run;
    const wchar_t* key;
    const wchar_t* program;
    // The program is looked for in the way that reports what it cannot look at.
    bool reportsFailedLook;
};

void PrintTo(const ShutDownAction& action, std::ostream* stream) {
    const std::wstring name = action.program;
    *stream << std::string(name.begin(), name.end());
}

// A program that has just ended may still hold its working directory.
void RemoveWhenFree(const std::wstring& folder) {
    const ULONGLONG start = GetTickCount64();
    while (halvard_tests::IsThere(folder) && GetTickCount64() - start < kLimitMilliseconds) {
        halvard_tests::RemoveTree(folder);
        Sleep(1);
    }
    EXPECT_FALSE(halvard_tests::IsThere(folder));
}

/// The registry entry and the folder of an installed application, without its command tool.
class Installation {
public:
    explicit Installation(const ShutDownAction& action, const std::wstring& location = kFolder)
        : action_(action) {
        halvard_tests::CreateFolders(kFolder);
        SetLocation(location);
    }
    ~Installation() {
        RegDeleteTreeW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Qorta Technologies");
        RemoveWhenFree(L"T:\\Apps");
    }
    Installation(const Installation&) = delete;
    Installation& operator=(const Installation&) = delete;

    void SetLocation(const std::wstring& location) const {
        SetRegistryString(HKEY_LOCAL_MACHINE, action_.key, L"Location", location);
    }
    std::wstring Program() const { return std::wstring(kFolder) + L"\\" + action_.program; }

private:
    const ShutDownAction& action_;
};

// A call of CreateProcessW and what it gave.
struct Start {
    std::wstring commandLine;
    std::optional<std::wstring> directory;
    bool created;
    DWORD code;
};

bool operator==(const Start& left, const Start& right) {
    return left.commandLine == right.commandLine && left.directory == right.directory &&
           left.created == right.created && left.code == right.code;
}

void PrintTo(const Start& start, std::ostream* stream) {
    const std::wstring text = start.commandLine + L" in " + start.directory.value_or(L"(none)");
    *stream << std::string(text.begin(), text.end()) << (start.created ? " created " : " failed ")
            << start.code;
}

enum class Answer { OfTheSystem, Refused, Created, InNoDirectory };

/// Sees every call of CreateProcessW and gives it the answer of its number; further calls get that
/// of the system.
class Starts {
public:
    explicit Starts(std::vector<Answer> answers = {}) : answers_(std::move(answers)) {}

    const std::vector<Start>& All() const { return starts_; }

    /// The process of the last start.
    HANDLE Process() const { return process_.get(); }

private:
    BOOL Give(Answer answer, LPWSTR commandLine, LPCWSTR directory, LPSTARTUPINFOW startup,
              LPPROCESS_INFORMATION child, DWORD flags) {
        if (answer == Answer::Refused) {
            SetLastError(ERROR_ACCESS_DENIED);
            return FALSE;
        }
        if (answer == Answer::Created) {
            // Something to wait for and to close that has ended already.
            child->hProcess = CreateEventW(nullptr, TRUE, TRUE, nullptr);
            child->hThread = CreateEventW(nullptr, TRUE, TRUE, nullptr);
            return TRUE;
        }
        const BOOL created = creating_.Original(
            nullptr, commandLine, nullptr, nullptr, FALSE, flags, nullptr,
            answer == Answer::InNoDirectory ? nullptr : directory, startup, child);
        if (created != FALSE) {
            HANDLE process = nullptr;
            DuplicateHandle(GetCurrentProcess(), child->hProcess, GetCurrentProcess(), &process, 0,
                            FALSE, DUPLICATE_SAME_ACCESS);
            process_.reset(process);
        }
        return created;
    }

    std::vector<Answer> answers_;
    std::vector<Start> starts_;
    OwnedHandle process_;
    HOOK(creating_, CreateProcessW,
         [this](LPCWSTR application, LPWSTR commandLine, LPSECURITY_ATTRIBUTES,
                LPSECURITY_ATTRIBUTES, BOOL inherit, DWORD flags, LPVOID, LPCWSTR directory,
                LPSTARTUPINFOW startup, LPPROCESS_INFORMATION child) {
             EXPECT_EQ(application, nullptr);
             EXPECT_EQ(inherit, FALSE);
             // The system writes into the buffer of a command line.
             EXPECT_NE(static_cast<LPCWSTR>(commandLine), directory);
             Start start{commandLine,
                         directory == nullptr ? std::nullopt
                                              : std::optional<std::wstring>(directory),
                         false, 0};
             const Answer answer =
                 starts_.size() < answers_.size() ? answers_[starts_.size()] : Answer::OfTheSystem;
             SetLastError(NO_ERROR);
             const BOOL created = Give(answer, commandLine, directory, startup, child, flags);
             start.created = created != FALSE;
             start.code = created != FALSE ? NO_ERROR : GetLastError();
             starts_.push_back(start);
             SetLastError(start.code);
             return created;
         });
};

// What is thrown goes no further.
void RunAnyway(Action action) {
    try {
        action(0);
    } catch (const std::exception&) { // NOLINT(bugprone-empty-catch)
    }
}

} // namespace

class ShutDown : public testing::TestWithParam<ShutDownAction> {};

TEST_P(ShutDown, StartsTheToolWithExitInItsFolder) {
    for (const std::wstring& name : {L""s, L"\\With blanks"s, L"\\\u0416\u00e9"s}) {
        const std::wstring location = kFolder + name;
        const Installation installation(GetParam(), location);
        halvard_tests::CreateFolders(location);
        const std::wstring program = location + L"\\" + GetParam().program;
        const RecorderAt tool(program);
        const Starts starts;
        const std::wstring command = L"\"" + program + L"\" exit";
        EXPECT_EQ(GetParam().run(0), 0U);
        EXPECT_EQ(starts.All(), (std::vector<Start>{{command, location, true, 0}}));
        EXPECT_EQ(WaitForRecordings(1),
                  (std::vector<Recording>{{GetParam().program, location, command}}));
    }
}

TEST_P(ShutDown, ALocationThatEndsInASlash) {
    for (const std::wstring& location : {L"T:\\Apps\\Suite\\"s, L"T:/Apps/Suite/"s}) {
        const Installation installation(GetParam(), location);
        const RecorderAt tool(installation.Program());
        const Starts starts;
        const std::wstring command = L"\"" + location + GetParam().program + L"\" exit";
        EXPECT_EQ(GetParam().run(0), 0U);
        EXPECT_EQ(starts.All(), (std::vector<Start>{{command, location, true, 0}}));
        const std::vector<Recording> recordings = WaitForRecordings(1);
        ASSERT_EQ(recordings.size(), 1U);
        EXPECT_EQ(recordings[0].commandLine, command);
    }
}

TEST_P(ShutDown, DoesNotWaitForTheTool) {
    const Installation installation(GetParam());
    const RecorderAt tool(installation.Program());
    const EnvironmentVariable delay(L"HALVARD_RECORD_DELAY", L"1500");
    const Starts starts;
    {
        COUNT_CALLS(waiting, WaitForSingleObject);
        COUNT_CALLS(sleeping, Sleep);
        EXPECT_EQ(GetParam().run(0), 0U);
        EXPECT_EQ(waiting.Calls(), 0);
        EXPECT_EQ(sleeping.Calls(), 0);
    }
    EXPECT_EQ(WaitForSingleObject(starts.Process(), 0), static_cast<DWORD>(WAIT_TIMEOUT));
    // It is left running to its own end.
    EXPECT_EQ(WaitForSingleObject(starts.Process(), kLimitMilliseconds), WAIT_OBJECT_0);
    EXPECT_EQ(Recordings().size(), 1U);
}

TEST_P(ShutDown, MakesItsCallsInThisOrder) {
    const Installation installation(GetParam());
    const RecorderAt tool(installation.Program());
    std::vector<std::wstring> calls;
    HOOK(opening, RegOpenKeyExW,
         [&](HKEY root, LPCWSTR subkey, DWORD options, REGSAM access, PHKEY opened) {
             EXPECT_EQ(root, HKEY_LOCAL_MACHINE);
             EXPECT_EQ(options, 0U);
             EXPECT_EQ(access, 0x20019U);
             calls.push_back(std::wstring(L"key ") + subkey);
             return opening.Original(root, subkey, options, access, opened);
         });
    HOOK(reading, RegGetValueW,
         [&](HKEY key, LPCWSTR subkey, LPCWSTR name, DWORD flags, LPDWORD type, PVOID data,
             LPDWORD size) {
             EXPECT_STREQ(subkey, L"");
             calls.push_back(std::wstring(L"value ") + name);
             return reading.Original(key, subkey, name, flags, type, data, size);
         });
    HOOK(closing, RegCloseKey, [&](HKEY key) {
        calls.emplace_back(L"close key");
        return closing.Original(key);
    });
    HOOK(looking, GetFileAttributesW, [&](LPCWSTR path) {
        calls.push_back(std::wstring(L"exists ") + path);
        return looking.Original(path);
    });
    HOOK(asking, PathFileExistsW, [&](LPCWSTR path) {
        calls.push_back(std::wstring(L"PathFileExistsW ") + path);
        return asking.Original(path);
    });
    HOOK(creating, CreateProcessW,
         [&](LPCWSTR application, LPWSTR commandLine, LPSECURITY_ATTRIBUTES process,
             LPSECURITY_ATTRIBUTES thread, BOOL inherit, DWORD flags, LPVOID environment,
             LPCWSTR directory, LPSTARTUPINFOW startup, LPPROCESS_INFORMATION child) {
             calls.emplace_back(L"start");
             return creating.Original(application, commandLine, process, thread, inherit, flags,
                                      environment, directory, startup, child);
         });
    EXPECT_EQ(GetParam().run(0), 0U);
    const std::wstring look = GetParam().reportsFailedLook
                                  ? L"exists \\\\?\\" + installation.Program()
                                  : L"PathFileExistsW " + installation.Program();
    EXPECT_EQ(calls, (std::vector<std::wstring>{L"key "s + GetParam().key, L"value Location",
                                                L"value Location", L"close key",
                                                L"exists \\\\?\\"s + kFolder, look, L"start"}));
}

TEST_P(ShutDown, ReadsTheKeyOfThe64BitView) {
    const Installation installation(GetParam());
    const std::wstring other = L"SOFTWARE\\Wow6432Node"s + (GetParam().key + 8);
    SetRegistryString(HKEY_LOCAL_MACHINE, other, L"Location", L"T:\\none");
    const RecorderAt tool(installation.Program());
    EXPECT_EQ(GetParam().run(0), 0U);
    EXPECT_EQ(WaitForRecordings(1).size(), 1U);
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Wow6432Node\\Qorta Technologies");
}

TEST_P(ShutDown, ThrowsWithoutTheKey) {
    const Starts starts;
    ExpectRegKeyError([] { GetParam().run(0); }, "Unable to open registry key",
                      ERROR_FILE_NOT_FOUND);
    const Installation installation(GetParam());
    const RecorderAt tool(installation.Program());
    FAIL_CALL(opening, RegOpenKeyExW, 1, ERROR_ACCESS_DENIED, NO_ERROR);
    COUNT_CALLS(closing, RegCloseKey);
    COUNT_CALLS(looking, GetFileAttributesW);
    ExpectRegKeyError([] { GetParam().run(0); }, "Unable to open registry key",
                      ERROR_ACCESS_DENIED);
    EXPECT_EQ(closing.Calls(), 0);
    EXPECT_EQ(looking.Calls(), 0);
    EXPECT_EQ(starts.All().size(), 0U);
}

TEST_P(ShutDown, ThrowsWithoutTheValueAndClosesTheKey) {
    const Installation installation(GetParam());
    const RecorderAt tool(installation.Program());
    const Starts starts;
    COUNT_CALLS(closing, RegCloseKey);
    const auto throwsWith = [&](int code) {
        const int before = closing.Calls();
        ExpectRegKeyError([] { GetParam().run(0); }, "Unable to get registry value", code);
        EXPECT_EQ(closing.Calls(), before + 1);
    };
    {
        FAIL_CALL(reading, RegGetValueW, 0, ERROR_ACCESS_DENIED, NO_ERROR);
        throwsWith(ERROR_ACCESS_DENIED);
    }
    RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, GetParam().key, L"Location");
    throwsWith(ERROR_FILE_NOT_FOUND);
    const DWORD number = 1;
    RegSetKeyValueW(HKEY_LOCAL_MACHINE, GetParam().key, L"Location", REG_DWORD, &number,
                    sizeof(number));
    throwsWith(ERROR_UNSUPPORTED_TYPE);
    EXPECT_EQ(starts.All().size(), 0U);
}

TEST_P(ShutDown, AMissingLocationIsASuccess) {
    const Installation installation(GetParam());
    const Starts starts;
    for (const wchar_t* const location : {L"T:\\Apps\\none", L"T:\\none\\none\\", L""}) {
        installation.SetLocation(location);
        COUNT_CALLS(looking, GetFileAttributesW);
        COUNT_CALLS(asking, PathFileExistsW);
        EXPECT_EQ(GetParam().run(0), 0U) << location;
        EXPECT_EQ(looking.Calls(), 1);
        EXPECT_EQ(asking.Calls(), 0);
    }
    EXPECT_EQ(starts.All().size(), 0U);
}

TEST_P(ShutDown, ALocationWithoutTheToolIsAFailure) {
    const Installation installation(GetParam());
    const Starts starts;
    EXPECT_EQ(GetParam().run(0), 1603U);
    // Anything of the folder's name will do as the folder.
    halvard_tests::WriteWholeFile(installation.Program(), std::string("not a program"));
    installation.SetLocation(installation.Program());
    EXPECT_EQ(GetParam().run(0), 1603U);
    EXPECT_EQ(starts.All().size(), 0U);
}

TEST_P(ShutDown, FollowsALinkToTheLocation) {
    const std::wstring location = L"T:\\Apps\\link";
    const Installation installation(GetParam(), location);
    const halvard_tests::Link link(L"T:\\Apps", L"link", L"Suite");
    const std::wstring command = L"\"" + location + L"\\" + GetParam().program + L"\" exit";
    {
        const RecorderAt tool(installation.Program());
        const Starts starts;
        EXPECT_EQ(GetParam().run(0), 0U);
        EXPECT_EQ(starts.All(), (std::vector<Start>{{command, location, true, 0}}));
        EXPECT_EQ(WaitForRecordings(1).size(), 1U);
    }
    EXPECT_EQ(GetParam().run(0), 1603U);
    RemoveWhenFree(kFolder);
    EXPECT_EQ(GetParam().run(0), 0U);
    halvard_tests::CreateFolders(kFolder);
}

TEST_P(ShutDown, IgnoresThatTheToolCannotStartOrFails) {
    const Installation installation(GetParam());
    halvard_tests::CreateFolders(installation.Program());
    {
        const Starts starts;
        EXPECT_EQ(GetParam().run(0), 0U);
        ASSERT_EQ(starts.All().size(), 1U);
        EXPECT_FALSE(starts.All()[0].created);
    }
    RemoveDirectoryW(installation.Program().c_str());
    const RecorderAt tool(installation.Program());
    const EnvironmentVariable exitCode(L"HALVARD_RECORD_EXIT", L"1");
    EXPECT_EQ(GetParam().run(0), 0U);
    EXPECT_EQ(WaitForRecordings(1).size(), 1U);
}

TEST_P(ShutDown, StartsACommandOfUpTo518Characters) {
    const Installation installation(GetParam());
    const RecorderAt tool(installation.Program());
    const auto locationForCommandOf = [&](std::size_t characters) {
        const std::size_t others = (L"\""s + kFolder + GetParam().program + L"\" exit").size();
        return kFolder + std::wstring(characters - others, L'\\');
    };
    {
        const std::wstring location = locationForCommandOf(518);
        installation.SetLocation(location);
        const Starts starts;
        EXPECT_EQ(GetParam().run(0), 0U);
        const std::wstring command = L"\"" + location + GetParam().program + L"\" exit";
        ASSERT_EQ(command.size(), 518U);
        EXPECT_EQ(starts.All(), (std::vector<Start>{{command, location, true, 0}}));
        const std::vector<Recording> recordings = WaitForRecordings(1);
        ASSERT_EQ(recordings.size(), 1U);
        EXPECT_EQ(recordings[0].commandLine, command);
    }
    for (const std::size_t characters : {519U, 520U, 3000U}) {
        installation.SetLocation(locationForCommandOf(characters));
        // What the system says of such a path is not the point here.
        HOOK(asking, PathFileExistsW, [](LPCWSTR) -> BOOL { return TRUE; });
        const Starts starts;
        EXPECT_EQ(GetParam().run(0), 0U);
        EXPECT_EQ(starts.All().size(), 0U) << characters;
    }
}

TEST_P(ShutDown, ThrowsForALocationThatCannotBeLookedAt) {
    const Installation installation(GetParam());
    const RecorderAt tool(installation.Program());
    const Starts starts;
    FAIL_CALL(looking, GetFileAttributesW, 1, INVALID_FILE_ATTRIBUTES, ERROR_ACCESS_DENIED);
    halvard_tests::ExpectFileSystemError([&] { GetParam().run(0); }, "exists", kFolder,
                                         ERROR_ACCESS_DENIED);
    EXPECT_EQ(looking.Calls(), 1);
    EXPECT_EQ(starts.All().size(), 0U);
}

TEST_P(ShutDown, LeavesNoHandleOpen) {
    const Installation installation(GetParam());
    const auto leavesNone = [](const char* what) {
        RunAnyway(GetParam().run); // what a first call or exception loads once
        const int before = OpenHandleCount();
        RunAnyway(GetParam().run);
        EXPECT_EQ(OpenHandleCount(), before) << what;
    };
    leavesNone("no tool");
    {
        const RecorderAt tool(installation.Program());
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
    installation.SetLocation(L"T:\\none");
    leavesNone("no location");
    RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, GetParam().key, L"Location");
    leavesNone("no value");
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, GetParam().key);
    leavesNone("no key");
}

namespace {

const ShutDownAction kPivot = {ShutDownPivotConsole,
                               L"SOFTWARE\\Qorta Technologies\\Install\\Pivot", L"pvcmd.exe", true};
const ShutDownAction kRecorder = {ShutDownDVR, L"SOFTWARE\\Qorta Technologies\\Install\\Zenvo DVR",
                                  L"VSServCmd.exe", false};

} // namespace

INSTANTIATE_TEST_SUITE_P(Applications, ShutDown, testing::Values(kPivot, kRecorder));

TEST(ShutDownPivotConsole, ThrowsForAToolThatCannotBeLookedAt) {
    const Installation installation(kPivot);
    const RecorderAt tool(installation.Program());
    const Starts starts;
    FAIL_CALL(looking, GetFileAttributesW, 2, INVALID_FILE_ATTRIBUTES, ERROR_ACCESS_DENIED);
    COUNT_CALLS(asking, PathFileExistsW);
    halvard_tests::ExpectFileSystemError([&] { ShutDownPivotConsole(0); }, "exists",
                                         installation.Program(), ERROR_ACCESS_DENIED);
    EXPECT_EQ(looking.Calls(), 2);
    EXPECT_EQ(asking.Calls(), 0);
    EXPECT_EQ(starts.All().size(), 0U);
}

TEST(ShutDownDVR, AToolThatCannotBeLookedAtIsNotThere) {
    const Installation installation(kRecorder);
    const RecorderAt tool(installation.Program());
    const Starts starts;
    COUNT_CALLS(looking, GetFileAttributesW);
    {
        FAIL_CALL(asking, PathFileExistsW, 1, FALSE, ERROR_ACCESS_DENIED);
        EXPECT_EQ(ShutDownDVR(0), 1603U);
        EXPECT_EQ(asking.Calls(), 1);
    }
    EXPECT_EQ(looking.Calls(), 1);
    EXPECT_EQ(starts.All().size(), 0U);
}

namespace {

std::wstring TaskKillCommand(const std::wstring& image, const std::wstring& end) {
    return L"\""s + kSystemFolder + L"\\TaskKill.exe\" /IM " + image + L" /F" + end;
}

const std::wstring kSettingsCommand = TaskKillCommand(L"VireoSettings.exe", L"\"");
const std::wstring kSoftwareCommand = TaskKillCommand(L"VireoSoftware.exe", L"\"");
const std::wstring kRecorderCommand = TaskKillCommand(L"ZenvoVSServ.exe", L"");

} // namespace

TEST(TerminateDVRApp, RunsTaskKillInTheSystemFolderAndWaitsForIt) {
    const RecorderAt taskKill(kTaskKill);
    const EnvironmentVariable delay(L"HALVARD_RECORD_DELAY", L"700");
    const EnvironmentVariable exitCode(L"HALVARD_RECORD_EXIT", L"128");
    const Starts starts;
    COUNT_CALLS(sleeping, Sleep);
    HOOK(waiting, WaitForSingleObject, [&](HANDLE process, DWORD milliseconds) {
        EXPECT_EQ(milliseconds, INFINITE);
        return waiting.Original(process, milliseconds);
    });
    const ULONGLONG start = GetTickCount64();
    EXPECT_EQ(TerminateDVRApp(0), 0U);
    EXPECT_GE(GetTickCount64() - start, 700U);
    EXPECT_EQ(waiting.Calls(), 1);
    EXPECT_EQ(sleeping.Calls(), 0);
    EXPECT_EQ(starts.All(), (std::vector<Start>{{kRecorderCommand, kSystemFolder, true, 0}}));
    const std::vector<Recording> recordings = Recordings();
    ASSERT_EQ(recordings.size(), 1U);
    EXPECT_EQ(recordings[0].directory, kSystemFolder);
    EXPECT_EQ(recordings[0].commandLine, kRecorderCommand);
}

TEST(TerminateDVRApp, AStartThatIsRefusedIsAFailure) {
    COUNT_CALLS(waiting, WaitForSingleObject);
    const Starts starts({Answer::Refused});
    EXPECT_EQ(TerminateDVRApp(0), 1603U);
    EXPECT_EQ(starts.All(),
              (std::vector<Start>{{kRecorderCommand, kSystemFolder, false, ERROR_ACCESS_DENIED}}));
    EXPECT_EQ(waiting.Calls(), 0);
}

// The system's own TaskKill.exe. Left alone, the process would outlive the wait.
TEST(TerminateDVRApp, EndsTheRecorder) {
    const std::wstring program = L"T:\\ZenvoVSServ.exe";
    const RecorderAt running(program);
    PROCESS_INFORMATION child = {};
    {
        const EnvironmentVariable delay(L"HALVARD_RECORD_DELAY", L"60000");
        STARTUPINFOW startup = {};
        startup.cb = sizeof(startup);
        std::wstring commandLine = program;
        ASSERT_NE(CreateProcessW(nullptr, commandLine.data(), nullptr, nullptr, FALSE, 0, nullptr,
                                 nullptr, &startup, &child),
                  FALSE);
    }
    const OwnedHandle process(child.hProcess);
    const OwnedHandle thread(child.hThread);
    EXPECT_EQ(WaitForRecordings(1).size(), 1U);
    EXPECT_EQ(WaitForSingleObject(process.get(), 0), static_cast<DWORD>(WAIT_TIMEOUT));
    EXPECT_EQ(TerminateDVRApp(0), 0U);
    EXPECT_EQ(WaitForSingleObject(process.get(), kLimitMilliseconds), WAIT_OBJECT_0);
    TerminateProcess(process.get(), 1); // so that no later test meets it if the action left it
}

TEST(TerminateDVRApp, NoRecorderToEndIsASuccess) {
    const Starts starts;
    EXPECT_EQ(TerminateDVRApp(0), 0U);
    ASSERT_EQ(starts.All().size(), 1U);
    DWORD exitCode = 0;
    EXPECT_NE(GetExitCodeProcess(starts.Process(), &exitCode), FALSE);
    EXPECT_EQ(exitCode, 128U);
}

TEST(TerminatePivotApp, IsRefusedForItsWorkingDirectory) {
    const RecorderAt taskKill(kTaskKill);
    const Starts starts;
    EXPECT_EQ(TerminatePivotApp(0), 1603U);
    EXPECT_EQ(starts.All(),
              (std::vector<Start>{{kSettingsCommand, kSettingsCommand, false, ERROR_DIRECTORY},
                                  {kSoftwareCommand, kSoftwareCommand, false, ERROR_DIRECTORY}}));
    EXPECT_EQ(Recordings().size(), 0U);
}

TEST(TerminatePivotApp, AFirstStartThatSucceedsIsTheLast) {
    const Starts starts({Answer::Created});
    EXPECT_EQ(TerminatePivotApp(0), 0U);
    EXPECT_EQ(starts.All(), (std::vector<Start>{{kSettingsCommand, kSettingsCommand, true, 0}}));
}

TEST(TerminatePivotApp, ASecondStartThatSucceedsIsASuccess) {
    const Starts starts({Answer::Refused, Answer::Created});
    EXPECT_EQ(TerminatePivotApp(0), 0U);
    EXPECT_EQ(starts.All(),
              (std::vector<Start>{{kSettingsCommand, kSettingsCommand, false, ERROR_ACCESS_DENIED},
                                  {kSoftwareCommand, kSoftwareCommand, true, 0}}));
}

TEST(TerminatePivotApp, WouldWaitForTaskKillAndNotAskWhatItDid) {
    const RecorderAt taskKill(kTaskKill);
    const EnvironmentVariable delay(L"HALVARD_RECORD_DELAY", L"300");
    const EnvironmentVariable exitCode(L"HALVARD_RECORD_EXIT", L"128");
    HOOK(waiting, WaitForSingleObject, [&](HANDLE process, DWORD milliseconds) {
        EXPECT_EQ(milliseconds, INFINITE);
        return waiting.Original(process, milliseconds);
    });
    const std::vector<std::vector<Answer>> answers = {{Answer::InNoDirectory},
                                                      {Answer::Refused, Answer::InNoDirectory}};
    std::vector<std::wstring> commandLines;
    for (const std::vector<Answer>& each : answers) {
        const Starts starts(each);
        const ULONGLONG start = GetTickCount64();
        EXPECT_EQ(TerminatePivotApp(0), 0U);
        EXPECT_GE(GetTickCount64() - start, 300U);
        EXPECT_EQ(starts.All().size(), each.size());
    }
    EXPECT_EQ(waiting.Calls(), 2);
    for (const Recording& recording : Recordings()) {
        commandLines.push_back(recording.commandLine);
    }
    EXPECT_EQ(commandLines, (std::vector<std::wstring>{kSettingsCommand, kSoftwareCommand}));
}

class Terminate : public testing::TestWithParam<Action> {};

TEST_P(Terminate, AsksForTheSystemFolderOnceAndFirst) {
    std::vector<std::wstring> calls;
    HOOK(locating, SHGetFolderLocation,
         [&](HWND window, int csidl, HANDLE token, DWORD reserved, PIDLIST_ABSOLUTE* location) {
             calls.push_back(L"folder " + std::to_wstring(csidl));
             return locating.Original(window, csidl, token, reserved, location);
         });
    HOOK(creating, CreateProcessW,
         [&](LPCWSTR, LPWSTR, LPSECURITY_ATTRIBUTES, LPSECURITY_ATTRIBUTES, BOOL, DWORD, LPVOID,
             LPCWSTR, LPSTARTUPINFOW, LPPROCESS_INFORMATION) -> BOOL {
             calls.emplace_back(L"start");
             SetLastError(ERROR_FILE_NOT_FOUND);
             return FALSE;
         });
    EXPECT_EQ(GetParam()(0), 1603U);
    std::vector<std::wstring> expected = {L"folder 37", L"start"};
    if (GetParam() == TerminatePivotApp) {
        expected.emplace_back(L"start");
    }
    EXPECT_EQ(calls, expected);
}

TEST_P(Terminate, TakesTheSystemFolderAsItStands) {
    const bool pivot = GetParam() == TerminatePivotApp;
    const std::wstring rest = pivot ? L"TaskKill.exe\" /IM VireoSettings.exe /F\""
                                    : L"TaskKill.exe\" /IM ZenvoVSServ.exe /F";
    {
        // One that ends in a backslash gets a second one.
        HOOK(converting, SHGetPathFromIDListW, [](PCIDLIST_ABSOLUTE, LPWSTR path) -> BOOL {
            lstrcpyW(path, L"T:\\");
            return TRUE;
        });
        const Starts starts({Answer::Created});
        EXPECT_EQ(GetParam()(0), 0U);
        const std::wstring command = L"\"T:\\\\" + rest;
        EXPECT_EQ(starts.All(),
                  (std::vector<Start>{{command, pivot ? command : L"T:\\", true, 0}}));
    }
    {
        // A path, and a result that says there is none.
        HOOK(locating, SHGetFolderLocation,
             [&](HWND window, int csidl, HANDLE token, DWORD reserved, PIDLIST_ABSOLUTE* location) {
                 EXPECT_EQ(locating.Original(window, csidl, token, reserved, location), S_OK);
                 return S_FALSE;
             });
        const Starts starts({Answer::Created});
        EXPECT_EQ(GetParam()(0), 0U);
        const std::wstring command = L"\""s + kSystemFolder + L"\\" + rest;
        EXPECT_EQ(starts.All(),
                  (std::vector<Start>{{command, pivot ? command : kSystemFolder, true, 0}}));
    }
    FAIL_CALL(locating, SHGetFolderLocation, 1, E_FAIL, NO_ERROR);
    const Starts starts({Answer::Created});
    EXPECT_EQ(GetParam()(0), 0U);
    const std::wstring command = L"\"\\" + rest;
    EXPECT_EQ(
        starts.All(),
        (std::vector<Start>{
            {command, pivot ? std::optional<std::wstring>(command) : std::nullopt, true, 0}}));
}

TEST_P(Terminate, LeavesNoHandleOpen) {
    const RecorderAt taskKill(kTaskKill);
    for (const Answer answer :
         {Answer::OfTheSystem, Answer::Created, Answer::Refused, Answer::InNoDirectory}) {
        const auto run = [&] {
            const Starts starts({answer});
            GetParam()(0);
        };
        run(); // what a first start loads once
        const int before = OpenHandleCount();
        run();
        EXPECT_EQ(OpenHandleCount(), before) << static_cast<int>(answer);
    }
}

INSTANTIATE_TEST_SUITE_P(Applications, Terminate,
                         testing::Values(TerminatePivotApp, TerminateDVRApp));
