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
using halvard_tests::CurrentDirectory;
using halvard_tests::EnvironmentVariable;
using halvard_tests::kChildren;
using halvard_tests::kFileContents;
using halvard_tests::kInstaller;
using halvard_tests::kProcesses;
using halvard_tests::OpenHandleCount;
using halvard_tests::RecorderAt;
using halvard_tests::Recording;
using halvard_tests::Recordings;
using halvard_tests::WaitForRecordings;

namespace {

constexpr wchar_t kTool[] = L"T:\\tool.exe";

bool RunsWritable(std::wstring commandLine, const std::wstring& directory, bool wait) {
    return RunCommandLine(commandLine.data(), directory, wait);
}

bool IsInheritable(HANDLE handle) {
    DWORD flags = 0;
    EXPECT_NE(GetHandleInformation(handle, &flags), FALSE);
    return (flags & HANDLE_FLAG_INHERIT) != 0;
}

struct FolderScope {
    explicit FolderScope(const wchar_t* folder) : path(folder) {
        CreateDirectoryW(folder, nullptr);
    }
    ~FolderScope() { RemoveDirectoryW(path); }
    FolderScope(const FolderScope&) = delete;
    FolderScope& operator=(const FolderScope&) = delete;

    const wchar_t* path;
};

} // namespace

TEST(RunCmdCommand, LetsTheCommandInterpreterRunTheQuotedCommand) {
    const RecorderAt tool(kTool);
    const RecorderAt interpreter(L"T:\\cmd.exe");
    const FolderScope folder(L"T:\\work folder");
    // The search for a bare name begins in the folder of this program, so "cmd.exe" is redirected.
    HOOK(creating, CreateProcessW,
         [&](LPCWSTR, LPWSTR commandLine, LPSECURITY_ATTRIBUTES process,
             LPSECURITY_ATTRIBUTES thread, BOOL inherit, DWORD flags, LPVOID environment,
             LPCWSTR directory, LPSTARTUPINFOW startup, LPPROCESS_INFORMATION child) {
             return creating.Original(L"T:\\cmd.exe", commandLine, process, thread, inherit, flags,
                                      environment, directory, startup, child);
         });
    EXPECT_EQ(RunCmdCommand(L"\"T:\\tool.exe\" \"a b\" /c", folder.path), 0U);
    EXPECT_EQ(Recordings(),
              (std::vector<Recording>{{L"cmd.exe", L"T:\\work folder",
                                       L"cmd.exe /C \"\"T:\\tool.exe\" \"a b\" /c\""}}));
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

TEST(RunCmdCommand, ACommandThatCannotStartGivesItsErrorCode) {
    EXPECT_EQ(RunCmdCommand(L"exit 0", L"T:\\no such folder"), static_cast<DWORD>(ERROR_DIRECTORY));
    FAIL_CALL(creating, CreateProcessW, 0, FALSE, ERROR_ACCESS_DENIED);
    EXPECT_EQ(RunCmdCommand(L"exit 0", nullptr), static_cast<DWORD>(ERROR_ACCESS_DENIED));
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
    COUNT_CALLS(sleeping, Sleep);
    COUNT_CALLS(waiting, WaitForSingleObject);
    const ULONGLONG start = GetTickCount64();
    EXPECT_EQ(RunCmdCommand(kTool, nullptr), 0U);
    EXPECT_GE(GetTickCount64() - start, 700U);
    // It polls at full speed.
    EXPECT_EQ(sleeping.Calls(), 0);
    EXPECT_EQ(waiting.Calls(), 0);
}

TEST(RunCmdCommand, PassesThisToTheSystem) {
    std::vector<HANDLE> pipes;
    HOOK(piping, CreatePipe,
         [&](PHANDLE readEnd, PHANDLE writeEnd, LPSECURITY_ATTRIBUTES attributes, DWORD size) {
             EXPECT_EQ(attributes->nLength, 24U);
             EXPECT_EQ(attributes->lpSecurityDescriptor, nullptr);
             EXPECT_EQ(attributes->bInheritHandle, TRUE);
             EXPECT_EQ(size, 4096U);
             const BOOL created = piping.Original(readEnd, writeEnd, attributes, size);
             pipes.push_back(*readEnd);
             pipes.push_back(*writeEnd);
             return created;
         });
    std::vector<HANDLE> madePrivate;
    HOOK(setting, SetHandleInformation, [&](HANDLE handle, DWORD mask, DWORD flags) {
        EXPECT_EQ(mask, static_cast<DWORD>(HANDLE_FLAG_INHERIT));
        EXPECT_EQ(flags, 0U);
        madePrivate.push_back(handle);
        return setting.Original(handle, mask, flags);
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
             EXPECT_EQ(directory, nullptr);
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
    EXPECT_EQ(RunCmdCommand(L"exit 0", nullptr), 0U);
    ASSERT_EQ(pipes.size(), 4U);
    // The last one when the child has it.
    EXPECT_EQ(madePrivate, (std::vector<HANDLE>{pipes[0], pipes[3], pipes[2]}));
    EXPECT_EQ(creating.Calls(), 1);
}

namespace {

// Which of the four pipe ends that RunCmdCommand made are still open, and how many other handles.
struct LeftOpen {
    bool outputRead;
    bool outputWrite;
    bool spareRead;
    bool spareWrite;
    int others;
};

bool operator==(const LeftOpen& left, const LeftOpen& right) {
    return left.outputRead == right.outputRead && left.outputWrite == right.outputWrite &&
           left.spareRead == right.spareRead && left.spareWrite == right.spareWrite &&
           left.others == right.others;
}

void PrintTo(const LeftOpen& left, std::ostream* stream) {
    *stream << left.outputRead << left.outputWrite << left.spareRead << left.spareWrite << " and "
            << left.others;
}

// The handles of the second pipe: the process that hosts the action is gone soon.
constexpr LeftOpen kOnPurpose = {false, false, true, true, 0};

LeftOpen LeftOpenBy(const wchar_t* command, const wchar_t* directory = nullptr) {
    std::vector<HANDLE> ends;
    HOOK(piping, CreatePipe,
         [&](PHANDLE readEnd, PHANDLE writeEnd, LPSECURITY_ATTRIBUTES attributes, DWORD size) {
             const BOOL created = piping.Original(readEnd, writeEnd, attributes, size);
             ends.push_back(*readEnd);
             ends.push_back(*writeEnd);
             return created;
         });
    const int before = OpenHandleCount();
    RunCmdCommand(command, directory);
    const auto isOpen = [&](std::size_t index) {
        DWORD flags = 0;
        return GetHandleInformation(ends[index], &flags) != FALSE;
    };
    LeftOpen left = {isOpen(0), isOpen(1), isOpen(2), isOpen(3), OpenHandleCount() - before};
    left.others -= left.outputRead + left.outputWrite + left.spareRead + left.spareWrite;
    return left;
}

} // namespace

TEST(RunCmdCommand, LeavesTheSecondPipeOpenOnPurposeAndNothingElse) {
    RunCmdCommand(L"exit 0", nullptr); // what the first start of a process loads once
    EXPECT_EQ(LeftOpenBy(L"exit 0"), kOnPurpose);
    EXPECT_EQ(LeftOpenBy(L"exit 0", L"T:\\no such folder"), kOnPurpose);
    for (const wchar_t* failing : {L"inherit ", L"exit code ", L"peek ", L"read "}) {
        CallTrace calls(kChildren | kFileContents);
        calls.Fail(failing, ERROR_BROKEN_PIPE, 0);
        EXPECT_EQ(LeftOpenBy(L"exit 0"), kOnPurpose);
    }
}

TEST(RunCmdCommand, NoLaterChildInheritsTheSecondPipe) {
    for (const wchar_t* directory : {L"C:\\", L"T:\\no such folder"}) {
        HANDLE spareReadEnd = nullptr;
        HOOK(piping, CreatePipe,
             [&](PHANDLE readEnd, PHANDLE writeEnd, LPSECURITY_ATTRIBUTES attributes, DWORD size) {
                 const BOOL created = piping.Original(readEnd, writeEnd, attributes, size);
                 spareReadEnd = *readEnd;
                 return created;
             });
        bool wasInheritable = false;
        HOOK(creating, CreateProcessW,
             [&](LPCWSTR application, LPWSTR commandLine, LPSECURITY_ATTRIBUTES process,
                 LPSECURITY_ATTRIBUTES thread, BOOL inherit, DWORD flags, LPVOID environment,
                 LPCWSTR folder, LPSTARTUPINFOW startup, LPPROCESS_INFORMATION created) {
                 DWORD handleFlags = 0;
                 GetHandleInformation(spareReadEnd, &handleFlags);
                 wasInheritable = (handleFlags & HANDLE_FLAG_INHERIT) != 0;
                 return creating.Original(application, commandLine, process, thread, inherit, flags,
                                          environment, folder, startup, created);
             });
        RunCmdCommand(L"exit 0", directory);
        EXPECT_TRUE(wasInheritable);
        DWORD flags = HANDLE_FLAG_INHERIT;
        EXPECT_TRUE(GetHandleInformation(spareReadEnd, &flags));
        EXPECT_EQ(flags & HANDLE_FLAG_INHERIT, 0U);
    }
}

TEST(RunCmdCommand, LeavesOpenOnlyWhatAFailedPipeLetItMake) {
    RunCmdCommand(L"exit 0", nullptr);
    const int before = OpenHandleCount();
    {
        FAIL_CALL(piping, CreatePipe, 1, FALSE, ERROR_ACCESS_DENIED);
        RunCmdCommand(L"exit 0", nullptr);
        EXPECT_EQ(OpenHandleCount(), before + 2);
    }
    FAIL_CALL(piping, CreatePipe, 2, FALSE, ERROR_ACCESS_DENIED);
    RunCmdCommand(L"exit 0", nullptr);
    EXPECT_EQ(OpenHandleCount(), before + 2);
}

TEST(RunCmdCommand, ReportsTheCodeOfTheStartAndNotOfTheClosing) {
    FAIL_CALL(creating, CreateProcessW, 0, FALSE, ERROR_ACCESS_DENIED);
    HOOK(closing, CloseHandle, [&](HANDLE handle) {
        const BOOL closed = closing.Original(handle);
        SetLastError(ERROR_INVALID_HANDLE);
        return closed;
    });
    EXPECT_EQ(RunCmdCommand(L"exit 0", nullptr), static_cast<DWORD>(ERROR_ACCESS_DENIED));
    EXPECT_EQ(closing.Calls(), 2);
}

TEST(RunCmdCommand, AnEmptyDirectoryIsRefused) {
    EXPECT_EQ(RunCmdCommand(L"exit 0", L""), static_cast<DWORD>(ERROR_DIRECTORY));
}

TEST(RunCmdCommand, StopsWhenTheExitCodeCannotBeReadAnyMore) {
    HOOK(asking, GetExitCodeProcess, [&](HANDLE process, LPDWORD exitCode) {
        *exitCode = STILL_ACTIVE;
        return asking.Calls() == 3 ? FALSE : asking.Original(process, exitCode) | TRUE;
    });
    const RecorderAt tool(kTool);
    const EnvironmentVariable delay(L"HALVARD_RECORD_DELAY", L"500");
    EXPECT_EQ(RunCmdCommand(kTool, nullptr), 259U);
    EXPECT_EQ(asking.Calls(), 3);
    WaitForRecordings(1);
}

TEST(RunCmdCommand, KeepsPollingAChildThatExitsWith259UntilThePipeFails) {
    HANDLE child = nullptr;
    HOOK(creating, CreateProcessW,
         [&](LPCWSTR application, LPWSTR commandLine, LPSECURITY_ATTRIBUTES process,
             LPSECURITY_ATTRIBUTES thread, BOOL inherit, DWORD flags, LPVOID environment,
             LPCWSTR directory, LPSTARTUPINFOW startup, LPPROCESS_INFORMATION created) {
             const BOOL done = creating.Original(application, commandLine, process, thread, inherit,
                                                 flags, environment, directory, startup, created);
             DuplicateHandle(GetCurrentProcess(), created->hProcess, GetCurrentProcess(), &child, 0,
                             FALSE, DUPLICATE_SAME_ACCESS);
             return done;
         });
    HOOK(peeking, PeekNamedPipe,
         [&](HANDLE pipe, LPVOID buffer, DWORD size, LPDWORD read, LPDWORD waiting, LPDWORD left) {
             if (peeking.Calls() == 1) {
                 EXPECT_EQ(WaitForSingleObject(child, 20000), WAIT_OBJECT_0);
             }
             if (peeking.Calls() == 100) {
                 SetLastError(ERROR_BROKEN_PIPE);
                 return FALSE;
             }
             return peeking.Original(pipe, buffer, size, read, waiting, left);
         });
    EXPECT_EQ(RunCmdCommand(L"exit 259", nullptr), 259U);
    EXPECT_EQ(peeking.Calls(), 100);
    CloseHandle(child);
}

TEST(RunCmdCommand, PollsExitCodePipeAndOutputInThisOrder) {
    HOOK(asking, GetExitCodeProcess, [&](HANDLE, LPDWORD exitCode) {
        *exitCode = asking.Calls() == 3 ? 12 : STILL_ACTIVE;
        return TRUE;
    });
    HOOK(peeking, PeekNamedPipe,
         [&](HANDLE, LPVOID buffer, DWORD size, LPDWORD read, LPDWORD waiting, LPDWORD left) {
             EXPECT_EQ(buffer, nullptr);
             EXPECT_EQ(size, 0U);
             EXPECT_EQ(read, nullptr);
             EXPECT_EQ(left, nullptr);
             *waiting = peeking.Calls() == 2 ? 0 : 10;
             return TRUE;
         });
    HOOK(reading, ReadFile, [&](HANDLE, LPVOID, DWORD size, LPDWORD read, LPOVERLAPPED) {
        *read = size;
        return TRUE;
    });
    const CallTrace calls(kProcesses | kChildren | kFileContents);
    EXPECT_EQ(RunCmdCommand(L"exit 0", nullptr), 12U);
    const std::wstring ask = L"exit code of cmd.exe /C \"exit 0\"";
    EXPECT_EQ(calls.Of({L"exit code ", L"peek ", L"read "}),
              (Lines{ask, L"peek pipe", L"read pipe 10", ask, L"peek pipe", ask, L"peek pipe",
                     L"read pipe 10"}));
}

TEST(RunCmdCommand, EachCallFailingInTurn) {
    const RecorderAt tool(kTool);
    const EnvironmentVariable exitCode(L"HALVARD_RECORD_EXIT", L"4");
    const struct {
        const wchar_t* failing;
        std::size_t nth;
        DWORD answer;
    } cases[] = {
        // Without an output pipe the exit code is read once, while the child still runs.
        {L"pipe", 1, 259},
        {L"pipe", 2, 4},
        {L"inherit ", 1, 4},
        {L"inherit ", 2, 4},
        {L"inherit ", 3, 4},
        // The end of the wait must not hang on a process whose exit code cannot be read.
        {L"exit code ", 0, 259},
        {L"peek ", 1, 259},
    };
    std::size_t runs = 0;
    for (const auto& each : cases) {
        CallTrace calls(kProcesses | kChildren);
        calls.Fail(each.failing, ERROR_BROKEN_PIPE, each.nth);
        EXPECT_EQ(RunCmdCommand(kTool, nullptr), each.answer) << each.failing << each.nth;
        EXPECT_EQ(calls.Of({L"pipe"}).size(), 2U);
        EXPECT_EQ(calls.Of({L"inherit "}).size(), 3U);
        EXPECT_TRUE(each.answer != 259 || calls.Of({L"exit code "}).size() == 1);
        EXPECT_EQ(WaitForRecordings(++runs).size(), runs);
    }
    {
        // What cannot be read stays in the pipe, and the wait goes on.
        HOOK(asking, GetExitCodeProcess, [&](HANDLE, LPDWORD exitValue) {
            *exitValue = asking.Calls() == 3 ? 4 : STILL_ACTIVE;
            return TRUE;
        });
        HOOK(peeking, PeekNamedPipe, [&](HANDLE, LPVOID, DWORD, LPDWORD, LPDWORD waiting, LPDWORD) {
            *waiting = 10;
            return TRUE;
        });
        FAIL_CALL(reading, ReadFile, 0, FALSE, ERROR_BROKEN_PIPE);
        EXPECT_EQ(RunCmdCommand(L"exit 4", nullptr), 4U);
        EXPECT_EQ(reading.Calls(), 3);
    }
}

TEST(RunCmdCommand, LeaksNothingElseWhenMemoryRunsOut) {
    RunCmdCommand(L"exit 0", nullptr);
    int reached = 0;
    for (int nth = 1; nth == reached + 1; ++nth) {
        COUNT_CALLS(piping, CreatePipe);
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
        const int acceptedLeak = piping.Calls() == 2 ? 2 : 0;
        EXPECT_EQ(OpenHandleCount(), before + acceptedLeak) << "allocation " << nth;
    }
    // The command line, and the buffer for the child's output.
    EXPECT_GE(reached, 2);
}

TEST(RunCommandLine, StartsTheCommandInTheDirectory) {
    const RecorderAt tool(kTool);
    const FolderScope folder(L"T:\\work folder");
    EXPECT_TRUE(RunsWritable(L"T:\\tool.exe \"a b\"  /c", folder.path, true));
    EXPECT_EQ(Recordings(), (std::vector<Recording>{
                                {L"tool.exe", L"T:\\work folder", L"T:\\tool.exe \"a b\"  /c"}}));
}

TEST(RunCommandLine, AnEmptyDirectoryMeansThatOfThisProcess) {
    const RecorderAt tool(kTool);
    const CallTrace calls(kProcesses);
    EXPECT_TRUE(RunsWritable(kTool, L"", true));
    // In no directory.
    EXPECT_EQ(calls.All(), Lines{L"run T:\\tool.exe"});
    ASSERT_EQ(Recordings().size(), 1U);
    EXPECT_EQ(Recordings()[0].directory, CurrentDirectory());
}

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

TEST(RunCommandLine, WaitsWithoutLimitAndDoesNotReadTheExitCode) {
    const RecorderAt tool(kTool);
    const EnvironmentVariable delay(L"HALVARD_RECORD_DELAY", L"500");
    const EnvironmentVariable exitCode(L"HALVARD_RECORD_EXIT", L"3");
    const CallTrace calls(kProcesses | kChildren);
    const ULONGLONG start = GetTickCount64();
    EXPECT_TRUE(RunsWritable(kTool, L"", true));
    EXPECT_GE(GetTickCount64() - start, 500U);
    EXPECT_EQ(calls.All(), (Lines{L"run T:\\tool.exe", L"wait for T:\\tool.exe 4294967295"}));
}

TEST(RunCommandLine, DoesNotExamineTheResultOfTheWait) {
    const RecorderAt tool(kTool);
    RunsWritable(kTool, L"", true);
    const int before = OpenHandleCount();
    FAIL_CALL(waiting, WaitForSingleObject, 0, WAIT_FAILED, ERROR_INVALID_HANDLE);
    EXPECT_TRUE(RunsWritable(kTool, L"", true));
    EXPECT_EQ(OpenHandleCount(), before);
    WaitForRecordings(2);
}

TEST(RunCommandLine, DoesNotWaitWhenNotAsked) {
    const RecorderAt tool(kTool);
    COUNT_CALLS(waiting, WaitForSingleObject);
    EXPECT_TRUE(RunsWritable(kTool, L"", false));
    EXPECT_EQ(waiting.Calls(), 0);
    EXPECT_EQ(WaitForRecordings(1).size(), 1U);
}

TEST(RunCommandLine, ReportsThatTheCommandCannotStart) {
    EXPECT_FALSE(RunsWritable(L"T:\\no_such_program.exe", L"", true));
    const RecorderAt tool(kTool);
    EXPECT_FALSE(RunsWritable(kTool, L"T:\\no such folder", true));
    EXPECT_EQ(Recordings().size(), 0U);
}

TEST(RunCommandLine, ClosesItsHandlesAndLogsNothing) {
    const RecorderAt tool(kTool);
    const CallTrace calls(kInstaller);
    RunsWritable(kTool, L"", true);
    const int before = OpenHandleCount();
    RunsWritable(kTool, L"", true);
    RunsWritable(kTool, L"", false);
    RunsWritable(L"T:\\no_such_program.exe", L"", true);
    EXPECT_EQ(OpenHandleCount(), before);
    EXPECT_EQ(calls.All(), Lines{});
    WaitForRecordings(3);
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

TEST(ShellExecuteAndWait, PassesThisToTheShell) {
    const RecorderAt tool(kTool);
    HANDLE started = nullptr;
    HOOK(executing, ShellExecuteExW, [&](SHELLEXECUTEINFOW* execution) {
        EXPECT_EQ(execution->cbSize, 112U);
        EXPECT_EQ(execution->fMask, 0x800540U);
        EXPECT_EQ(execution->hwnd, nullptr);
        EXPECT_STREQ(execution->lpVerb, L"open");
        EXPECT_STREQ(execution->lpFile, kTool);
        EXPECT_STREQ(execution->lpParameters, L"exit");
        EXPECT_EQ(execution->lpDirectory, nullptr);
        EXPECT_EQ(execution->nShow, 0);
        const BOOL done = executing.Original(execution);
        started = execution->hProcess;
        return done;
    });
    HOOK(waiting, WaitForSingleObject, [&](HANDLE process, DWORD timeout) {
        EXPECT_EQ(process, started);
        EXPECT_EQ(timeout, 30000U);
        return waiting.Original(process, timeout);
    });
    EXPECT_EQ(ShellExecuteAndWait(kTool, L"exit", 30000), 0U);
    EXPECT_EQ(executing.Calls(), 1);
    EXPECT_EQ(waiting.Calls(), 1);
}

TEST(ShellExecuteAndWait, GivesUpAfterTheTimeoutAndLeavesTheChildRunning) {
    const RecorderAt tool(kTool);
    const EnvironmentVariable delay(L"HALVARD_RECORD_DELAY", L"2500");
    HANDLE process = nullptr;
    HOOK(executing, ShellExecuteExW, [&](SHELLEXECUTEINFOW* execution) {
        const BOOL done = executing.Original(execution);
        DuplicateHandle(GetCurrentProcess(), execution->hProcess, GetCurrentProcess(), &process, 0,
                        FALSE, DUPLICATE_SAME_ACCESS);
        return done;
    });
    const ULONGLONG start = GetTickCount64();
    EXPECT_EQ(ShellExecuteAndWait(kTool, L"", 300), 259U);
    EXPECT_GE(GetTickCount64() - start, 300U);
    EXPECT_EQ(WaitForSingleObject(process, 0), static_cast<DWORD>(WAIT_TIMEOUT));
    EXPECT_EQ(WaitForSingleObject(process, 20000), WAIT_OBJECT_0);
    CloseHandle(process);
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
    FAIL_CALL(executing, ShellExecuteExW, 0, FALSE, ERROR_CANCELLED);
    COUNT_CALLS(waiting, WaitForSingleObject);
    ExpectSystemError("Unable to create process", ERROR_CANCELLED);
    EXPECT_EQ(waiting.Calls(), 0);
}

TEST(ShellExecuteAndWait, ThrowsWhenTheExitCodeCannotBeReadAndClosesTheHandle) {
    const RecorderAt tool(kTool);
    ShellExecuteAndWait(kTool, L"", INFINITE);
    const int before = OpenHandleCount();
    {
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

TEST(ShellExecuteAndWait, ReportsTheCodeOfTheReadingAndNotOfTheClosing) {
    const RecorderAt tool(kTool);
    FAIL_CALL(asking, GetExitCodeProcess, 0, FALSE, ERROR_ACCESS_DENIED);
    HOOK(closing, CloseHandle, [&](HANDLE handle) {
        const BOOL closed = closing.Original(handle);
        SetLastError(ERROR_INVALID_HANDLE);
        return closed;
    });
    ExpectSystemError("Unable to process exit code", ERROR_ACCESS_DENIED);
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
    const EnvironmentVariable delay(L"HALVARD_RECORD_DELAY", L"300");
    FAIL_CALL(waiting, WaitForSingleObject, 0, WAIT_FAILED, ERROR_INVALID_HANDLE);
    EXPECT_EQ(ShellExecuteAndWait(kTool, L"", INFINITE), 259U);
}

TEST(ShellExecuteAndWait, ClosesTheProcessHandle) {
    const RecorderAt tool(kTool);
    ShellExecuteAndWait(kTool, L"", INFINITE);
    const int before = OpenHandleCount();
    ShellExecuteAndWait(kTool, L"", INFINITE);
    EXPECT_EQ(OpenHandleCount(), before);
}

namespace {

constexpr wchar_t kSchtasks[] = L"C:\\windows\\system32\\schtasks.exe";

} // namespace

TEST(LaunchSchtasks, StartsItWithTheParametersAndDoesNotWait) {
    const RecorderAt schtasks(kSchtasks);
    const EnvironmentVariable delay(L"HALVARD_RECORD_DELAY", L"1000");
    COUNT_CALLS(waiting, WaitForSingleObject);
    EXPECT_TRUE(LaunchSchtasks(L"/run /tn \"a b\""));
    EXPECT_EQ(waiting.Calls(), 0);
    const std::vector<Recording> recordings = WaitForRecordings(1);
    ASSERT_EQ(recordings.size(), 1U);
    EXPECT_EQ(recordings[0].program, L"schtasks.exe");
    EXPECT_NE(recordings[0].commandLine.find(L"/run /tn \"a b\""), std::wstring::npos);
}

TEST(LaunchSchtasks, PassesThisToTheShell) {
    HOOK(executing, ShellExecuteExW, [&](SHELLEXECUTEINFOW* execution) {
        EXPECT_EQ(execution->cbSize, 112U);
        EXPECT_EQ(execution->fMask, 64U);
        EXPECT_EQ(execution->hwnd, nullptr);
        EXPECT_STREQ(execution->lpVerb, L"open");
        EXPECT_STREQ(execution->lpFile, L"schtasks");
        EXPECT_STREQ(execution->lpParameters, L"/run");
        EXPECT_EQ(execution->lpDirectory, nullptr);
        EXPECT_EQ(execution->nShow, 1);
        return TRUE;
    });
    EXPECT_TRUE(LaunchSchtasks(L"/run"));
    EXPECT_EQ(executing.Calls(), 1);
}

// The process that hosts the action is gone soon.
TEST(LaunchSchtasks, LeavesTheProcessHandleOpenOnPurpose) {
    const RecorderAt schtasks(kSchtasks);
    HANDLE process = nullptr;
    HOOK(executing, ShellExecuteExW, [&](SHELLEXECUTEINFOW* execution) {
        const BOOL done = executing.Original(execution);
        process = execution->hProcess;
        return done;
    });
    EXPECT_TRUE(LaunchSchtasks(L"/run"));
    EXPECT_EQ(WaitForSingleObject(process, 20000), WAIT_OBJECT_0);
    EXPECT_NE(CloseHandle(process), FALSE);
}

// No session is ever given to this launcher: the calls are made, and the lines are lost.
TEST(LaunchSchtasks, LogsToNoSessionEvenWhenAnActionHasStoredOne) {
    const halvard_tests::StandInSession session;
    const halvard_tests::CurrentSessionScope current(session.Get());
    const std::pair<BOOL, std::wstring> outcomes[] = {
        {TRUE, L"Quenby_CA launched the following successfully: schtasks"},
        {FALSE, L"Quenby_CA failed to launch the following: File not found."},
    };
    for (const auto& [started, line] : outcomes) {
        HOOK(executing, ShellExecuteExW, [&, result = started](SHELLEXECUTEINFOW* execution) {
            execution->hInstApp = reinterpret_cast<HINSTANCE>(result != FALSE ? 42 : 2);
            return result;
        });
        const CallTrace calls(kInstaller);
        EXPECT_EQ(LaunchSchtasks(L"/run"), started != FALSE);
        EXPECT_EQ(calls.All(), (Lines{L"create record 0", L"set field 0 " + line,
                                      L"send 0x4000000 to 0", L"close record"}));
    }
    EXPECT_EQ(session.Messages().size(), 0U);
}

TEST(LaunchSchtasks, MapsTheCodeOfTheShellToItsMessage) {
    const std::pair<int, std::wstring> codes[] = {
        {2, L"File not found."},
        {5, L"Access denied."},
        {28, L" The DDE transaction could not be completed because the request timed out"},
        {31, L"File association not available."},
        {1, L"Unknown error, could be SE_ERR_FNF, or SE_ERR_PNF"},
    };
    for (const auto& [code, message] : codes) {
        HOOK(executing, ShellExecuteExW, [&, value = code](SHELLEXECUTEINFOW* execution) {
            execution->hInstApp = reinterpret_cast<HINSTANCE>(static_cast<INT_PTR>(value));
            return FALSE;
        });
        const CallTrace calls(kInstaller);
        EXPECT_FALSE(LaunchSchtasks(L"/run"));
        EXPECT_EQ(calls.Rests(L"set field 0 "),
                  Lines{L"Quenby_CA failed to launch the following: " + message});
    }
}
