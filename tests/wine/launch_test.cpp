#include "runtime/launch.h"

#include "runtime/launch_conditions.h"
#include "runtime/session.h"

#include "allocation_failure.h"
#include "call_trace.h"
#include "child_programs.h"
#include "current_session.h"
#include "files.h"
#include "import_hook.h"
#include "open_handles.h"
#include "process_starts.h"
#include "stand_in_session.h"
#include "system_text.h"

#include <shellapi.h>

#include <gtest/gtest.h>

#include <cstring>
#include <new>
#include <system_error>

using halvard::LaunchSchtasks;
using halvard::RunCmdCommand;
using halvard::RunCommandLine;
using halvard::ShellExecuteAndWait;
using halvard_tests::AllocationFailure;
using halvard_tests::CallTrace;
using halvard_tests::CreateFolders;
using halvard_tests::CurrentDirectory;
using halvard_tests::EndPrograms;
using halvard_tests::EnvironmentVariable;
using halvard_tests::kChildren;
using halvard_tests::kClosing;
using halvard_tests::kFileContents;
using halvard_tests::kInstaller;
using halvard_tests::kProcesses;
using halvard_tests::kSleeps;
using halvard_tests::OpenHandleCount;
using halvard_tests::ProcessStart;
using halvard_tests::ProcessStarts;
using halvard_tests::RecorderAt;
using halvard_tests::Recording;
using halvard_tests::Recordings;
using halvard_tests::ScratchFolder;
using halvard_tests::WaitForRecordings;
using namespace std::string_literals;

namespace {

constexpr wchar_t kTool[] = L"T:\\tool.exe";
// Milliseconds that a program runs whose end no test waits for.
constexpr wchar_t kLonger[] = L"60000";

bool RunsWritable(std::wstring commandLine, const std::wstring& directory, bool wait) {
    return RunCommandLine(commandLine.data(), directory, wait);
}

bool IsInheritable(HANDLE handle) {
    DWORD flags = 0;
    EXPECT_NE(GetHandleInformation(handle, &flags), FALSE);
    return (flags & HANDLE_FLAG_INHERIT) != 0;
}

} // namespace

TEST(RunCmdCommand, LetsTheCommandInterpreterRunTheQuotedCommand) {
    const ScratchFolder scratch;
    const RecorderAt tool(kTool);
    const RecorderAt interpreter(L"T:\\cmd.exe");
    const std::wstring folder = scratch.File(L"work folder");
    CreateFolders(folder);
    // The search for a bare name begins in the folder of this program.
    const ProcessStarts starts([](ProcessStart& start) {
        start.application = L"T:\\cmd.exe";
        return true;
    });
    EXPECT_EQ(RunCmdCommand(L"\"T:\\tool.exe\" \"a b\" /c", folder.c_str()), 0U);
    EXPECT_EQ(Recordings(),
              (std::vector<Recording>{
                  {L"cmd.exe", folder, L"cmd.exe /C \"\"T:\\tool.exe\" \"a b\" /c\""}}));
}

TEST(RunCmdCommand, ReachesTheProgramThroughTheRealInterpreter) {
    const RecorderAt tool(kTool);
    const EnvironmentVariable exitCode(L"HALVARD_RECORD_EXIT", L"7");
    EXPECT_EQ(RunCmdCommand(L"\"T:\\tool.exe\" \"a b\" /c", L"T:\\"), 7U);
    const std::vector<Recording> recordings = Recordings();
    ASSERT_EQ(recordings.size(), 1U);
    EXPECT_EQ(recordings[0].program, L"tool.exe");
    EXPECT_EQ(recordings[0].directory, L"T:\\");
    EXPECT_NE(recordings[0].commandLine.find(L"\"a b\" /c"), std::wstring::npos);
}

TEST(RunCmdCommand, ReturnsTheExitCode) {
    EXPECT_EQ(RunCmdCommand(L"exit 0", nullptr), 0U);
    EXPECT_EQ(RunCmdCommand(L"exit 3010", nullptr), 3010U);
    EXPECT_EQ(RunCmdCommand(L"exit 260", nullptr), 260U);
    EXPECT_EQ(RunCmdCommand(L"no_such_program_anywhere", nullptr), 9009U);
}

TEST(RunCmdCommand, NullDirectoryMeansThatOfThisProcess) {
    const RecorderAt tool(kTool);
    EXPECT_EQ(RunCmdCommand(kTool, nullptr), 0U);
    ASSERT_EQ(Recordings().size(), 1U);
    EXPECT_EQ(Recordings()[0].directory, CurrentDirectory());
}

TEST(RunCmdCommand, AWorkingDirectoryThatIsNotThereIsRefused) {
    for (const wchar_t* directory : {L"T:\\no such folder", L""}) {
        EXPECT_EQ(RunCmdCommand(L"exit 0", directory), static_cast<DWORD>(ERROR_DIRECTORY));
    }
}

TEST(RunCmdCommand, ReadsMegabytesOfOutput) {
    const RecorderAt tool(kTool);
    const EnvironmentVariable output(L"HALVARD_RECORD_OUTPUT", L"3000000");
    const EnvironmentVariable exitCode(L"HALVARD_RECORD_EXIT", L"5");
    EXPECT_EQ(RunCmdCommand(kTool, nullptr), 5U);
}

TEST(RunCmdCommand, WaitsForAsLongAsTheChildRuns) {
    const RecorderAt tool(kTool);
    const EnvironmentVariable delay(L"HALVARD_RECORD_DELAY", L"700");
    const CallTrace calls(kChildren | kSleeps);
    const ULONGLONG start = GetTickCount64();
    EXPECT_EQ(RunCmdCommand(kTool, nullptr), 0U);
    EXPECT_GE(GetTickCount64() - start, 700U);
    // It polls at full speed.
    EXPECT_EQ(calls.Of({L"sleep ", L"wait for "}), Lines{});
}

TEST(RunCmdCommand, MakesItsCallsInThisOrder) {
    const struct {
        std::wstring directory;
        DWORD answer;
    } cases[] = {{L"T:\\", 0}, {L"T:\\no such folder", ERROR_DIRECTORY}};
    for (const auto& [directory, answer] : cases) {
        const CallTrace calls(kProcesses | kChildren);
        EXPECT_EQ(RunCmdCommand(L"exit 0", directory.c_str()), answer);
        Lines first = calls.All();
        // A child that was started is asked until it has ended.
        EXPECT_TRUE(answer == 0 || first.size() == 6);
        first.resize(6);
        EXPECT_EQ(first,
                  (Lines{L"pipe 1 of 4096 bytes to inherit", L"pipe 2 of 4096 bytes to inherit",
                         L"inherit reader of pipe 1 0x1 0x0", L"inherit writer of pipe 2 0x1 0x0",
                         L"run cmd.exe /C \"exit 0\" in " + directory,
                         // When the child has it: no later one gets it.
                         L"inherit reader of pipe 2 0x1 0x0"}));
    }
}

// The handles themselves, and the parts of a start that no line shows.
TEST(RunCmdCommand, PassesThisToTheSystem) {
    for (const wchar_t* folder : {static_cast<const wchar_t*>(nullptr), L"T:\\no such folder"}) {
        std::vector<HANDLE> pipes;
        HOOK(piping, CreatePipe,
             [&](PHANDLE readEnd, PHANDLE writeEnd, LPSECURITY_ATTRIBUTES attributes, DWORD size) {
                 const BOOL created = piping.Original(readEnd, writeEnd, attributes, size);
                 pipes.insert(pipes.end(), {*readEnd, *writeEnd});
                 return created;
             });
        HOOK(creating, CreateProcessW,
             [&](LPCWSTR application, LPWSTR commandLine, LPSECURITY_ATTRIBUTES process,
                 LPSECURITY_ATTRIBUTES thread, BOOL inherit, DWORD flags, LPVOID environment,
                 LPCWSTR directory, LPSTARTUPINFOW startup, LPPROCESS_INFORMATION child) {
                 EXPECT_EQ(application, nullptr);
                 EXPECT_STREQ(commandLine, L"cmd.exe /C \"exit 0\"");
                 EXPECT_EQ(process, nullptr);
                 EXPECT_EQ(thread, nullptr);
                 EXPECT_EQ(inherit, TRUE);
                 EXPECT_EQ(flags, 0x08000000U); // CREATE_NO_WINDOW
                 EXPECT_EQ(environment, nullptr);
                 EXPECT_EQ(directory, folder);
                 EXPECT_EQ(startup->cb, 104U);
                 EXPECT_EQ(startup->dwFlags, static_cast<DWORD>(STARTF_USESTDHANDLES));
                 EXPECT_EQ(startup->hStdInput, nullptr);
                 EXPECT_EQ(startup->hStdOutput, pipes[1]);
                 EXPECT_EQ(startup->hStdError, pipes[1]);
                 EXPECT_FALSE(IsInheritable(pipes[0]));
                 EXPECT_TRUE(IsInheritable(pipes[1]));
                 EXPECT_TRUE(IsInheritable(pipes[2]));
                 EXPECT_FALSE(IsInheritable(pipes[3]));
                 return creating.Original(application, commandLine, process, thread, inherit, flags,
                                          environment, directory, startup, child);
             });
        RunCmdCommand(L"exit 0", folder);
        EXPECT_EQ(creating.Calls(), 1);
        ASSERT_EQ(pipes.size(), 4U);
        EXPECT_FALSE(IsInheritable(pipes[2]));
    }
}

namespace {

// The handles of the second pipe: the process that hosts the action is gone soon.
const Lines kOnPurpose(2, L"pipe 2 of 4096 bytes to inherit");

} // namespace

TEST(RunCmdCommand, LeavesTheSecondPipeOpenOnPurposeAndNothingElse) {
    const struct {
        const wchar_t* directory;
        const wchar_t* failing;
        std::size_t nth;
        Lines left;
    } cases[] = {
        {nullptr, L"", 0, kOnPurpose},         {L"T:\\no such folder", L"", 0, kOnPurpose},
        {nullptr, L"inherit ", 0, kOnPurpose}, {nullptr, L"exit code ", 0, kOnPurpose},
        {nullptr, L"peek ", 0, kOnPurpose},    {nullptr, L"read ", 0, kOnPurpose},
        {nullptr, L"pipe ", 1, kOnPurpose},    {nullptr, L"pipe ", 2, {}},
    };
    RunCmdCommand(L"exit 0", nullptr); // what the first start of a process loads once
    for (const auto& [directory, failing, nth, left] : cases) {
        CallTrace calls(kProcesses | kChildren | kFileContents | kClosing);
        calls.Fail(failing, ERROR_BROKEN_PIPE, nth);
        const int before = OpenHandleCount();
        RunCmdCommand(L"echo x", directory);
        // What prints nothing is not read, for one.
        EXPECT_TRUE(*failing == L'\0' || !calls.Of({failing}).empty()) << failing;
        EXPECT_EQ(calls.LeftOpen(), left) << failing;
        EXPECT_EQ(OpenHandleCount() - before, static_cast<int>(left.size())) << failing;
    }
}

namespace {

// A handle that is closed leaves another code behind.
struct ClosingTellsOfAnError {
    HOOK(closing, CloseHandle, [this](HANDLE handle) {
        const BOOL closed = closing.Original(handle);
        SetLastError(ERROR_INVALID_HANDLE);
        return closed;
    });
};

} // namespace

TEST(RunCmdCommand, ReportsTheCodeOfTheStartAndNotOfTheClosing) {
    FAIL_CALL(creating, CreateProcessW, 0, FALSE, ERROR_ACCESS_DENIED);
    // That of the spare end, behind the start.
    FAIL_CALL(marking, SetHandleInformation, 3, FALSE, ERROR_INVALID_HANDLE);
    const ClosingTellsOfAnError closing;
    EXPECT_EQ(RunCmdCommand(L"exit 0", nullptr), static_cast<DWORD>(ERROR_ACCESS_DENIED));
    EXPECT_EQ(closing.closing.Calls(), 2);
}

TEST(RunCmdCommand, StopsWhenTheExitCodeCannotBeReadAnyMore) {
    const RecorderAt tool(kTool);
    const EnvironmentVariable delay(L"HALVARD_RECORD_DELAY", kLonger);
    CallTrace calls(kChildren);
    calls.Fail(L"exit code ", ERROR_ACCESS_DENIED, 3);
    EXPECT_EQ(RunCmdCommand(kTool, nullptr), 259U);
    EXPECT_EQ(calls.Of({L"exit code "}).size(), 3U);
    WaitForRecordings(1);
    EndPrograms(L"tool.exe");
}

TEST(RunCmdCommand, KeepsPollingAChildThatExitsWith259UntilThePipeFails) {
    const ProcessStarts starts;
    CallTrace calls(kChildren);
    calls.Fail(L"peek ", ERROR_BROKEN_PIPE, 100);
    calls.before = [&](const std::wstring& line) {
        if (line.rfind(L"peek ", 0) == 0 && calls.Of({L"peek "}).size() == 1) {
            EXPECT_EQ(WaitForSingleObject(starts.LastStarted(), 20000), WAIT_OBJECT_0);
        }
    };
    EXPECT_EQ(RunCmdCommand(L"exit 259", nullptr), 259U);
    EXPECT_EQ(calls.Of({L"peek "}).size(), 100U);
}

// What cannot be read stays in the pipe, and the wait goes on.
TEST(RunCmdCommand, PollsExitCodePipeAndOutputInThisOrderWhateverBecomesOfTheOutput) {
    for (const wchar_t* failing : {L"", L"read "}) {
        // Answers of a child: it ends at the third question, and twice there is something to read.
        HOOK(asking, GetExitCodeProcess, [&](HANDLE, LPDWORD exitCode) {
            *exitCode = asking.Calls() == 3 ? 12 : STILL_ACTIVE;
            return TRUE;
        });
        HOOK(peeking, PeekNamedPipe, [&](HANDLE, LPVOID, DWORD, LPDWORD, LPDWORD waiting, LPDWORD) {
            *waiting = peeking.Calls() == 2 ? 0 : 10;
            return TRUE;
        });
        HOOK(reading, ReadFile, [](HANDLE, LPVOID, DWORD size, LPDWORD read, LPOVERLAPPED) {
            *read = size;
            return TRUE;
        });
        CallTrace calls(kProcesses | kChildren | kFileContents);
        calls.Fail(failing, ERROR_BROKEN_PIPE, 0);
        EXPECT_EQ(RunCmdCommand(L"exit 0", nullptr), 12U);
        const std::wstring ask = L"exit code of cmd.exe /C \"exit 0\"";
        const std::wstring peek = L"peek reader of pipe 1";
        const std::wstring read = L"read reader of pipe 1 10";
        EXPECT_EQ(calls.Of({L"exit code ", L"peek ", L"read "}),
                  (Lines{ask, peek, read, ask, peek, ask, peek, read}));
    }
}

TEST(RunCmdCommand, EachCallFailingInTurn) {
    const RecorderAt tool(kTool);
    const EnvironmentVariable exitCode(L"HALVARD_RECORD_EXIT", L"4");
    const struct {
        const wchar_t* failing;
        std::size_t nth;
        DWORD answer;
        const wchar_t* delay = L"0";
    } cases[] = {
        // Without an output pipe the exit code is read once, while the child still runs.
        {L"pipe ", 1, 259, kLonger},
        {L"pipe ", 2, 4},
        {L"inherit ", 1, 4},
        {L"inherit ", 2, 4},
        {L"inherit ", 3, 4},
        // The end of the wait must not hang on a process whose exit code cannot be read.
        {L"exit code ", 0, 259},
        {L"peek ", 1, 259, kLonger},
    };
    std::size_t runs = 0;
    for (const auto& each : cases) {
        const EnvironmentVariable delay(L"HALVARD_RECORD_DELAY", each.delay);
        CallTrace calls(kProcesses | kChildren);
        calls.Fail(each.failing, ERROR_BROKEN_PIPE, each.nth);
        EXPECT_EQ(RunCmdCommand(kTool, nullptr), each.answer) << each.failing << each.nth;
        EXPECT_EQ(calls.Of({L"pipe "}).size(), 2U);
        EXPECT_EQ(calls.Of({L"inherit "}).size(), 3U);
        EXPECT_TRUE(each.answer != 259 || calls.Of({L"exit code "}).size() == 1);
        EXPECT_EQ(WaitForRecordings(++runs).size(), runs);
        EndPrograms(L"tool.exe");
    }
}

TEST(RunCmdCommand, LeaksNothingElseWhenMemoryRunsOut) {
    RunCmdCommand(L"exit 0", nullptr);
    int reached = 0;
    for (int nth = 1; nth == reached + 1; ++nth) {
        const CallTrace calls(kChildren);
        const int before = OpenHandleCount();
        bool thrown = false;
        bool happened = false;
        {
            const AllocationFailure failure(nth);
            try {
                RunCmdCommand(L"echo a text that does not fit a small string", nullptr);
            } catch (const std::bad_alloc&) {
                thrown = true;
            }
            happened = failure.Happened();
        }
        EXPECT_EQ(thrown, happened);
        reached += happened ? 1 : 0;
        const int acceptedLeak = calls.Of({L"pipe "}).size() == 2 ? 2 : 0;
        EXPECT_EQ(OpenHandleCount(), before + acceptedLeak) << "allocation " << nth;
    }
    // The command line, and the buffer for the child's output.
    EXPECT_GE(reached, 2);
}

TEST(RunCommandLine, StartsTheCommandInTheDirectoryOrThatOfThisProcess) {
    const ScratchFolder scratch;
    const std::wstring folder = scratch.File(L"work folder");
    CreateFolders(folder);
    const std::wstring line = L"T:\\tool.exe \"a b\"  /c";
    const struct {
        std::wstring directory;
        std::wstring runsIn;
        std::wstring shown;
    } cases[] = {{folder, folder, L" in " + folder}, {L"", CurrentDirectory(), L""}};
    for (const auto& each : cases) {
        const RecorderAt tool(kTool);
        const CallTrace calls(kProcesses);
        EXPECT_TRUE(RunsWritable(line, each.directory, true));
        EXPECT_EQ(calls.All(), Lines{L"run " + line + each.shown});
        EXPECT_EQ(Recordings(), (std::vector<Recording>{{L"tool.exe", each.runsIn, line}}));
    }
}

// The parts of a start that no line shows.
TEST(RunCommandLine, PassesThisToTheSystem) {
    std::wstring line = L"T:\\tool.exe /x";
    HOOK(creating, CreateProcessW,
         [&](LPCWSTR application, LPWSTR commandLine, LPSECURITY_ATTRIBUTES process,
             LPSECURITY_ATTRIBUTES thread, BOOL inherit, DWORD flags, LPVOID environment,
             LPCWSTR directory, LPSTARTUPINFOW startup, LPPROCESS_INFORMATION) {
             EXPECT_EQ(application, nullptr);
             EXPECT_EQ(commandLine, line.data());
             EXPECT_EQ(process, nullptr);
             EXPECT_EQ(thread, nullptr);
             EXPECT_EQ(inherit, FALSE);
             EXPECT_EQ(flags, 0x08000000U); // CREATE_NO_WINDOW
             EXPECT_EQ(environment, nullptr);
             EXPECT_STREQ(directory, L"C:\\folder");
             STARTUPINFOW expected = {};
             expected.cb = 104;
             EXPECT_EQ(std::memcmp(startup, &expected, sizeof(expected)), 0);
             SetLastError(ERROR_ACCESS_DENIED);
             return FALSE;
         });
    EXPECT_FALSE(RunCommandLine(line.data(), L"C:\\folder", true));
    EXPECT_EQ(creating.Calls(), 1);
}

TEST(RunCommandLine, WaitsWithoutLimitWhenAskedAndReadsNeitherTheWaitsResultNorTheExitCode) {
    const EnvironmentVariable delay(L"HALVARD_RECORD_DELAY", L"500");
    const EnvironmentVariable exitCode(L"HALVARD_RECORD_EXIT", L"3");
    const std::wstring run = L"run T:\\tool.exe";
    const std::wstring wait = L"wait for T:\\tool.exe 4294967295";
    const struct {
        bool wait;
        const wchar_t* failing;
        Lines calls;
        ULONGLONG least;
    } cases[] = {
        {true, L"", {run, wait}, 500}, {true, L"wait ", {run, wait}, 0}, {false, L"", {run}, 0}};
    RunsWritable(L"cmd.exe /C exit", L"", true); // what a first start loads once
    for (const auto& each : cases) {
        const RecorderAt tool(kTool);
        CallTrace calls(kProcesses | kChildren | kInstaller);
        calls.Fail(each.failing, ERROR_INVALID_HANDLE);
        const int before = OpenHandleCount();
        const ULONGLONG start = GetTickCount64();
        EXPECT_TRUE(RunsWritable(kTool, L"", each.wait));
        EXPECT_GE(GetTickCount64() - start, each.least);
        EXPECT_EQ(OpenHandleCount(), before);
        EXPECT_EQ(calls.All(), each.calls);
        EXPECT_EQ(WaitForRecordings(1).size(), 1U);
    }
}

TEST(RunCommandLine, ReportsThatTheCommandCannotStartAndLeavesAndLogsNothing) {
    const CallTrace calls(kChildren | kClosing | kInstaller);
    const RecorderAt tool(kTool);
    RunsWritable(kTool, L"T:\\no such folder", true);
    const int before = OpenHandleCount();
    EXPECT_FALSE(RunsWritable(L"T:\\no_such_program.exe", L"", true));
    EXPECT_FALSE(RunsWritable(kTool, L"T:\\no such folder", true));
    EXPECT_EQ(OpenHandleCount(), before);
    EXPECT_EQ(Recordings().size(), 0U);
    EXPECT_EQ(calls.All(), Lines{});
}

TEST(ShellExecuteAndWait, ReturnsTheExitCode) {
    const RecorderAt tool(kTool);
    const EnvironmentVariable exitCode(L"HALVARD_RECORD_EXIT", L"42");
    EXPECT_EQ(ShellExecuteAndWait(kTool, L"exit \"a b\"", INFINITE), 42U);
    const std::vector<Recording> recordings = Recordings();
    ASSERT_EQ(recordings.size(), 1U);
    EXPECT_EQ(recordings[0].program, L"tool.exe");
    EXPECT_NE(recordings[0].commandLine.find(L"exit \"a b\""), std::wstring::npos);
}

namespace {

// What no line shows of a call of the shell.
struct ShellCalls {
    unsigned long mask;
    int show;
    HANDLE process = nullptr;
    HOOK(executing, ShellExecuteExW, [this](SHELLEXECUTEINFOW* execution) {
        EXPECT_EQ(execution->cbSize, 112U);
        EXPECT_EQ(execution->fMask, mask);
        EXPECT_EQ(execution->hwnd, nullptr);
        EXPECT_STREQ(execution->lpVerb, L"open");
        EXPECT_EQ(execution->lpDirectory, nullptr);
        EXPECT_EQ(execution->nShow, show);
        const BOOL done = executing.Original(execution);
        process = execution->hProcess;
        return done;
    });
};

} // namespace

TEST(ShellExecuteAndWait, PassesThisToTheShellAndClosesTheProcess) {
    const RecorderAt tool(kTool);
    ShellExecuteAndWait(kTool, L"", INFINITE); // what a first start loads once
    ShellCalls shell{0x800540, 0};
    const CallTrace calls(kProcesses | kChildren | kClosing);
    const int before = OpenHandleCount();
    EXPECT_EQ(ShellExecuteAndWait(kTool, L"exit", 30000), 0U);
    EXPECT_EQ(OpenHandleCount(), before);
    EXPECT_EQ(calls.All(), (Lines{L"execute T:\\tool.exe|exit", L"wait for T:\\tool.exe 30000",
                                  L"exit code of T:\\tool.exe", L"close handle"}));
    EXPECT_EQ(calls.LeftOpen(), Lines{});
}

namespace {

// Ends at its own end what the shell has started.
struct ShellStart {
    ShellStart() = default;
    ~ShellStart() {
        TerminateProcess(process, 0);
        CloseHandle(process);
    }
    ShellStart(const ShellStart&) = delete;
    ShellStart& operator=(const ShellStart&) = delete;

    HANDLE process = nullptr;
    HOOK(executing, ShellExecuteExW, [this](SHELLEXECUTEINFOW* execution) {
        const BOOL done = executing.Original(execution);
        DuplicateHandle(GetCurrentProcess(), execution->hProcess, GetCurrentProcess(), &process, 0,
                        FALSE, DUPLICATE_SAME_ACCESS);
        return done;
    });
};

} // namespace

TEST(ShellExecuteAndWait, GivesUpAfterTheTimeoutAndLeavesTheChildRunning) {
    const RecorderAt tool(kTool);
    const EnvironmentVariable delay(L"HALVARD_RECORD_DELAY", kLonger);
    const ShellStart started;
    const ULONGLONG start = GetTickCount64();
    EXPECT_EQ(ShellExecuteAndWait(kTool, L"", 300), 259U);
    EXPECT_GE(GetTickCount64() - start, 300U);
    EXPECT_EQ(WaitForSingleObject(started.process, 0), static_cast<DWORD>(WAIT_TIMEOUT));
}

namespace {

void ExpectSystemError(const std::string& message, int code) {
    try {
        ShellExecuteAndWait(L"T:\\tool.exe", L"", INFINITE);
        FAIL() << "no exception";
    } catch (const std::system_error& error) {
        EXPECT_EQ(typeid(error), typeid(std::system_error));
        EXPECT_EQ(error.code(), std::error_code(code, std::system_category()));
        EXPECT_EQ(error.what(), message + ": " + halvard_tests::SystemText(code));
    }
}

} // namespace

TEST(ShellExecuteAndWait, ThrowsWhenNothingCanBeStarted) {
    ExpectSystemError("Unable to create process", ERROR_FILE_NOT_FOUND);
    CallTrace calls(kProcesses | kChildren);
    calls.Fail(L"execute ", ERROR_CANCELLED);
    ExpectSystemError("Unable to create process", ERROR_CANCELLED);
    EXPECT_EQ(calls.All(), Lines{L"execute T:\\tool.exe|"});
}

TEST(ShellExecuteAndWait, ThrowsWhenTheExitCodeCannotBeReadAndClosesTheHandle) {
    const RecorderAt tool(kTool);
    ShellExecuteAndWait(kTool, L"", INFINITE);
    const int before = OpenHandleCount();
    {
        // The code is that of the reading, whatever the closing leaves behind.
        const ClosingTellsOfAnError closing;
        FAIL_CALL(asking, GetExitCodeProcess, 0, FALSE, ERROR_ACCESS_DENIED);
        ExpectSystemError("Unable to process exit code", ERROR_ACCESS_DENIED);
    }
    EXPECT_EQ(OpenHandleCount(), before);
}

TEST(ShellExecuteAndWait, ReportsTheCodeOfTheCallAndNotOfTheException) {
    const RecorderAt tool(kTool);
    FAIL_CALL(asking, GetExitCodeProcess, 0, FALSE, ERROR_ACCESS_DENIED);
    FAIL_CALL(executing, ShellExecuteExW, 2, FALSE, ERROR_CANCELLED);
    HOOK(allocating, malloc, [&](std::size_t size) {
        void* const memory = allocating.Original(size);
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return memory;
    });
    ExpectSystemError("Unable to process exit code", ERROR_ACCESS_DENIED);
    ExpectSystemError("Unable to create process", ERROR_CANCELLED);
    EXPECT_GE(allocating.Calls(), 2);
}

TEST(ShellExecuteAndWait, ThrowsWhenTheShellStartedNoProcess) {
    HOOK(executing, ShellExecuteExW, [&](SHELLEXECUTEINFOW* execution) {
        execution->hProcess = nullptr;
        return TRUE;
    });
    ExpectSystemError("Unable to process exit code", ERROR_INVALID_HANDLE);
}

TEST(ShellExecuteAndWait, DoesNotExamineTheResultOfTheWait) {
    const RecorderAt tool(kTool);
    const EnvironmentVariable delay(L"HALVARD_RECORD_DELAY", kLonger);
    const ShellStart started;
    FAIL_CALL(waiting, WaitForSingleObject, 0, WAIT_FAILED, ERROR_INVALID_HANDLE);
    EXPECT_EQ(ShellExecuteAndWait(kTool, L"", INFINITE), 259U);
}

namespace {

constexpr wchar_t kSchtasks[] = L"C:\\windows\\system32\\schtasks.exe";

} // namespace

TEST(LaunchSchtasks, StartsItWithTheParametersAndDoesNotWait) {
    const RecorderAt schtasks(kSchtasks);
    const EnvironmentVariable delay(L"HALVARD_RECORD_DELAY", L"1000");
    const CallTrace calls(kProcesses | kChildren);
    EXPECT_TRUE(LaunchSchtasks(L"/run /tn \"a b\""));
    EXPECT_EQ(calls.All(), Lines{L"execute schtasks|/run /tn \"a b\""});
    const std::vector<Recording> recordings = WaitForRecordings(1);
    ASSERT_EQ(recordings.size(), 1U);
    EXPECT_EQ(recordings[0].program, L"schtasks.exe");
    EXPECT_NE(recordings[0].commandLine.find(L"/run /tn \"a b\""), std::wstring::npos);
}

// The process that hosts the action is gone soon.
TEST(LaunchSchtasks, PassesThisToTheShellAndLeavesTheProcessHandleOpenOnPurpose) {
    const RecorderAt schtasks(kSchtasks);
    ShellCalls shell{64, 1};
    const CallTrace calls(kProcesses | kChildren | kClosing);
    EXPECT_TRUE(LaunchSchtasks(L"/run"));
    EXPECT_EQ(calls.LeftOpen(), Lines{L"execute schtasks|/run"});
    EXPECT_EQ(WaitForSingleObject(shell.process, 20000), WAIT_OBJECT_0);
    EXPECT_NE(CloseHandle(shell.process), FALSE);
}

// No session is ever given to this launcher: the calls are made, and the lines are lost.
TEST(LaunchSchtasks, LogsToNoSessionEvenWhenAnActionHasStoredOne) {
    const halvard_tests::StandInSession session;
    const halvard_tests::CurrentSessionScope current(session.Get());
    const std::wstring failed = L"Quenby_CA failed to launch the following: ";
    const struct {
        BOOL started;
        INT_PTR code;
        std::wstring line;
    } outcomes[] = {
        {TRUE, 42, L"Quenby_CA launched the following successfully: schtasks"},
        {FALSE, 2, failed + L"File not found."},
        {FALSE, 5, failed + L"Access denied."},
        {FALSE, 28,
         failed + L" The DDE transaction could not be completed because the request timed out"},
        {FALSE, 31, failed + L"File association not available."},
        {FALSE, 1, failed + L"Unknown error, could be SE_ERR_FNF, or SE_ERR_PNF"},
    };
    for (const auto& each : outcomes) {
        HOOK(executing, ShellExecuteExW, [&](SHELLEXECUTEINFOW* execution) {
            execution->hInstApp = reinterpret_cast<HINSTANCE>(each.code);
            return each.started;
        });
        const CallTrace calls(kInstaller);
        EXPECT_EQ(LaunchSchtasks(L"/run"), each.started != FALSE);
        EXPECT_EQ(calls.All(), (Lines{L"create record 0", L"set field 0 " + each.line,
                                      L"send 0x4000000 to 0", L"close record"}));
    }
    EXPECT_EQ(session.Messages().size(), 0U);
}
