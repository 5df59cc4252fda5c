#include "agent/agent_install.h"

#include "runtime/owned.h"
#include "runtime/registry.h"
#include "runtime/session.h"
#include "tasks/task_templates.h"

#include "agent_calls.h"
#include "agent_machine.h"
#include "begins.h"
#include "call_trace.h"
#include "child_programs.h"
#include "engine_values.h"
#include "file_system_error.h"
#include "files.h"
#include "lines.h"
#include "open_handles.h"
#include "restart_renames.h"
#include "stand_in_session.h"
#include "task_scheduler_stand_in.h"

#include <msi.h>
#include <msiquery.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cwctype>
#include <filesystem>
#include <set>
#include <stdexcept>

using halvard::AfterInstallUPA;
using halvard::KillProcessByImage;
using halvard::OwnedHandle;
using halvard::PostInstallUPA;
using halvard::PreInstallUPA;
using halvard::RegKeyError;
using halvard_tests::AgentCalls;
using halvard_tests::AgentMachine;
using halvard_tests::Begins;
using halvard_tests::CallTrace;
using halvard_tests::EnvironmentVariable;
using halvard_tests::ExpectFileSystemError;
using halvard_tests::InstalledService;
using halvard_tests::IsThere;
using halvard_tests::kAgentCalls;
using halvard_tests::kAgentService;
using halvard_tests::kCountersKey;
using halvard_tests::kOlderService;
using halvard_tests::kProperties;
using halvard_tests::kRegistry;
using halvard_tests::kTeloKey;
using halvard_tests::OpenHandleCount;
using halvard_tests::PendingRenames;
using halvard_tests::RecorderAt;
using halvard_tests::Recording;
using halvard_tests::Recordings;
using halvard_tests::RegistryValueAt;
using halvard_tests::StandInSession;
using halvard_tests::WaitForRecordings;
using halvard_tests::WritableKeys;
using halvard_tests::WriteFileAt;
using Value = halvard_tests::ScratchKey::Value;
using namespace std::string_literals;

namespace {

constexpr wchar_t kTaskKill[] = L"C:\\windows\\system32\\taskkill.exe";
constexpr wchar_t kSchtasks[] = L"C:\\windows\\system32\\schtasks.exe";
constexpr DWORD kLimitMilliseconds = 20000;
const Lines kImages = {L"ZenvoUPAM.exe",  L"ZenvoUPADU.exe",  L"ZenvoUPAUF.exe", L"ZenvoUPAUF.exe",
                       L"TeloMaster.exe", L"TeloUF.exe",      L"TeloDU.exe",     L"TeloAC.exe",
                       L"TeloUC.exe",     L"TeloLauncher.exe"};
const std::wstring kData = L"TaskName=HalvardAgentTask;CommandToLaunch=C:\\A B\\TeloMaster.exe -x;"
                           L"Username=A user";
const std::wstring kExtended = L"\\\\?\\";

std::wstring KillCommand(const std::wstring& image) {
    return L"\"C:\\windows\\system32\\TaskKill.exe\" /IM " + image + L" /F";
}

std::wstring Kill(const std::wstring& image) {
    return L"run " + KillCommand(image);
}

Lines Kills(std::size_t first, std::size_t count) {
    Lines lines;
    for (std::size_t index = first; index < first + count; ++index) {
        lines.emplace_back(L"folder 37");
        lines.push_back(Kill(kImages[index]));
    }
    return lines;
}

Value String(const std::wstring& text) {
    const auto* const first = reinterpret_cast<const BYTE*>(text.c_str());
    return {REG_SZ, {first, first + 2 * text.size() + 2}};
}

// Eight, four, four, four and twelve hexadecimal digits with a hyphen between them.
bool IsIdentity(const std::wstring& text) {
    const std::wstring form = L"xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx";
    return text.size() == form.size() &&
           std::equal(text.begin(), text.end(), form.begin(), [](wchar_t left, wchar_t right) {
               return right == L'-' ? left == L'-' : std::iswxdigit(left) != 0;
           });
}

class AgentTest : public testing::Test {
protected:
    AgentTest() { session_.SetProperty(L"CustomActionData", kData); }
    ~AgentTest() override { halvard::SetCurrentSession(0); }

    UINT PostInstall() const { return PostInstallUPA(session_.Get()); }

    /// The lines of an undisturbed run that begin with one of these texts.
    Lines PreInstallCalls(const Lines& starts = {}) const {
        const AgentCalls calls(machine_);
        EXPECT_EQ(PreInstallUPA(0), 0U);
        return calls.Of(starts);
    }
    Lines PostInstallCalls(const Lines& starts = {}) const {
        const AgentCalls calls(machine_);
        EXPECT_EQ(PostInstall(), 0U);
        return calls.Of(starts);
    }

    AgentMachine machine_;
    StandInSession session_;
};

using KillProcessByImageTest = AgentTest;
using PreInstallUPATest = AgentTest;
using PostInstallUPATest = AgentTest;
using AfterInstallUPATest = AgentTest;

} // namespace

TEST_F(KillProcessByImageTest, WaitsForTaskKillAndAsksNotWhatItDid) {
    const RecorderAt taskKill(kTaskKill);
    const EnvironmentVariable delay(L"HALVARD_RECORD_DELAY", L"300");
    const EnvironmentVariable exitCode(L"HALVARD_RECORD_EXIT", L"128");
    wchar_t directory[MAX_PATH] = {};
    GetCurrentDirectoryW(MAX_PATH, directory);
    HOOK(waiting, WaitForSingleObject, [&](HANDLE process, DWORD milliseconds) {
        EXPECT_EQ(milliseconds, INFINITE);
        return waiting.Original(process, milliseconds);
    });
    const ULONGLONG start = GetTickCount64();
    EXPECT_TRUE(KillProcessByImage(L"TeloUF.exe"));
    EXPECT_GE(GetTickCount64() - start, 300U);
    EXPECT_EQ(waiting.Calls(), 1);
    EXPECT_EQ(Recordings(),
              (std::vector<Recording>{{L"taskkill.exe", directory, KillCommand(L"TeloUF.exe")}}));
}

TEST_F(KillProcessByImageTest, IsFalseWhenTaskKillDoesNotStart) {
    AgentCalls calls(machine_);
    calls.Fail(L"run", ERROR_FILE_NOT_FOUND);
    EXPECT_FALSE(KillProcessByImage(L"TeloUF.exe"));
    EXPECT_EQ(calls.All(), (Lines{L"folder 37", Kill(L"TeloUF.exe")}));
}

TEST_F(KillProcessByImageTest, ACommandThatDoesNotFitIsNotRun) {
    // 518 characters and the terminator fit.
    const std::size_t longest = 518 - KillCommand(L"").size();
    AgentCalls calls(machine_);
    EXPECT_TRUE(KillProcessByImage(std::wstring(longest, L'x')));
    EXPECT_FALSE(KillProcessByImage(std::wstring(longest + 1, L'x')));
    EXPECT_FALSE(KillProcessByImage(std::wstring(10000, L'x')));
    EXPECT_EQ(calls.Of({L"run"}), Lines{Kill(std::wstring(longest, L'x'))});
}

TEST_F(KillProcessByImageTest, TakesTheSystemFolderAsItStands) {
    AgentCalls calls(machine_);
    calls.Fail(L"folder", NO_ERROR);
    EXPECT_TRUE(KillProcessByImage(L"a.exe"));
    EXPECT_EQ(calls.Of({L"run"}), Lines{L"run \"\\TaskKill.exe\" /IM a.exe /F"});
}

TEST_F(KillProcessByImageTest, EndsEveryProcessOfTheProgram) {
    const std::wstring program = machine_.Programs() + L"\\TeloUF.exe";
    const RecorderAt running(program);
    std::vector<OwnedHandle> processes;
    {
        const EnvironmentVariable delay(L"HALVARD_RECORD_DELAY", L"60000");
        for (int count = 0; count < 2; ++count) {
            STARTUPINFOW startup = {};
            startup.cb = sizeof(startup);
            PROCESS_INFORMATION child = {};
            std::wstring commandLine = program;
            ASSERT_NE(CreateProcessW(nullptr, commandLine.data(), nullptr, nullptr, FALSE, 0,
                                     nullptr, nullptr, &startup, &child),
                      FALSE);
            CloseHandle(child.hThread);
            processes.emplace_back(child.hProcess);
        }
    }
    EXPECT_EQ(WaitForRecordings(2).size(), 2U);
    EXPECT_TRUE(KillProcessByImage(L"TeloUF.exe"));
    const HANDLE both[] = {processes[0].get(), processes[1].get()};
    const unsigned expected = Here(halvard_tests::engines::kTaskkillByName);
    EXPECT_LT(WaitForMultipleObjects(2, both, expected == 2, kLimitMilliseconds),
              WAIT_OBJECT_0 + 2);
    unsigned ended = 0;
    for (const OwnedHandle& process : processes) {
        ended += WaitForSingleObject(process.get(), 0) == WAIT_OBJECT_0 ? 1 : 0;
        TerminateProcess(process.get(), 1); // so that no later test meets it
    }
    EXPECT_EQ(ended, expected);
}

TEST_F(PreInstallUPATest, WithoutAnAgentItRunsAllKillCommandsOfItsOwnDirectory) {
    const RecorderAt taskKill(kTaskKill);
    const EnvironmentVariable exitCode(L"HALVARD_RECORD_EXIT", L"128");
    wchar_t directory[MAX_PATH] = {};
    GetCurrentDirectoryW(MAX_PATH, directory);
    {
        AgentCalls calls(machine_);
        calls.started = L"";
        EXPECT_EQ(PreInstallUPA(0), 0U);
    }
    std::vector<Recording> expected;
    for (const std::wstring& image : kImages) {
        expected.push_back({L"taskkill.exe", directory, KillCommand(image)});
    }
    EXPECT_EQ(Recordings(), expected);
}

TEST_F(PreInstallUPATest, WithoutAnAgentItsCallsAreThese) {
    AgentCalls calls(machine_);
    EXPECT_EQ(PreInstallUPA(0), 0U);
    const Lines look = {L"attributes of " + kExtended + machine_.Folder()};
    const auto services = [](const std::wstring& name, const Lines& between) {
        return Lines{L"open manager 0xf003f", L"open service " + name + L" 0x2c"} + between +
               Lines{L"open manager 0xf003f in ServicesActive",
                     L"open service " + name + L" 0x10000"};
    };
    const Lines files = {L"delete file " + machine_.File(L"ZenvoUPAUF.exe"),
                         L"delete file " + machine_.File(L"UPASL.dll")};
    EXPECT_EQ(calls.All(), Lines{L"folder 38"} + Kills(0, 3) + services(kOlderService, {}) +
                               Kills(3, 1) + look + files + look + Kills(4, 5) +
                               services(kAgentService, Kills(9, 1)) + look);
}

TEST_F(PreInstallUPATest, StopsAndDeletesBothServices) {
    machine_.CopyAgent();
    // Outside of the folder: a program that runs cannot be removed.
    const std::wstring program = machine_.Programs() + L"\\older.exe";
    halvard_tests::CopyTestService(program);
    InstalledService older(kOlderService, program);
    InstalledService agent(kAgentService, program);
    older.Start();
    agent.Start();
    const Lines lines =
        PreInstallCalls({L"open service UPAL", L"open service TeloLauncher", L"query", L"control",
                         L"delete service UPAL", L"delete service TeloLauncher", L"run"});
    EXPECT_TRUE(older.WaitUntilGone());
    EXPECT_TRUE(agent.WaitUntilGone());
    EXPECT_TRUE(older.WaitForProcess());
    EXPECT_TRUE(agent.WaitForProcess());
    EXPECT_FALSE(IsThere(machine_.Folder()));
    const auto steps = [](const std::wstring& name, const Lines& kill) {
        return Lines{L"open service " + name + L" 0x2c", L"query service " + name,
                     L"control service " + name + L" 1", L"query service " + name} +
               kill + Lines{L"open service " + name + L" 0x10000", L"delete service " + name};
    };
    Lines expected;
    for (std::size_t index = 0; index < kImages.size(); ++index) {
        if (index == 3) {
            expected = expected + steps(kOlderService, {});
        }
        expected = expected + (index == 9 ? steps(kAgentService, {Kill(kImages[9])})
                                          : Lines{Kill(kImages[index])});
    }
    // Asked until it has stopped.
    EXPECT_EQ(WithoutRepeats(lines), expected);
}

TEST_F(PreInstallUPATest, DeletesServicesThatAreStopped) {
    const InstalledService older(kOlderService, L"C:\\none.exe");
    const InstalledService agent(kAgentService, L"C:\\none.exe");
    PreInstallCalls();
    EXPECT_FALSE(older.Exists());
    EXPECT_FALSE(agent.Exists());
}

TEST_F(PreInstallUPATest, RemovesTheFolderUpToThreeTimes) {
    machine_.CopyAgent();
    AgentCalls calls(machine_);
    Lines events;
    calls.before = [&](const std::wstring& line) {
        const bool there = IsThere(machine_.File(L"TeloUF.exe"));
        // It comes back behind its first and its second removal.
        if (line == L"delete file " + machine_.File(L"ZenvoUPAUF.exe")) {
            events.push_back(there ? L"before the files, still there" : L"before the files, gone");
            machine_.CopyAgent();
        } else if (line == Kill(L"TeloMaster.exe")) {
            events.push_back(there ? L"before the agent, still there" : L"before the agent, gone");
            machine_.CopyAgent();
        } else if (line == Kill(L"TeloLauncher.exe")) {
            events.push_back(there ? L"before the service, there" : L"before the service, gone");
        }
    };
    EXPECT_EQ(PreInstallUPA(0), 0U);
    EXPECT_EQ(events, (Lines{L"before the files, gone", L"before the agent, gone",
                             L"before the service, there"}));
    EXPECT_FALSE(IsThere(machine_.Folder()));
    // Each removal tries the folder as it is before it is emptied.
    EXPECT_EQ(calls.Of({L"remove"}), Lines(3, L"remove " + kExtended + machine_.Folder()));
    // Each of the two files, in each of the three.
    EXPECT_EQ(calls.Of({L"open entry"}).size(), 6U);
    // Whether it exists, and the two looks of each removal.
    EXPECT_EQ(calls.Of({L"attributes of " + kExtended + machine_.Folder()}).size(), 9U);
}

TEST_F(PreInstallUPATest, DeletesTheOlderFilesBetweenTheFirstTwoRemovals) {
    AgentCalls calls(machine_);
    bool deleted = false;
    calls.before = [&](const std::wstring& line) {
        // What an older agent writes again while the first removal goes on.
        if (line == L"delete file " + machine_.File(L"ZenvoUPAUF.exe")) {
            machine_.CopyAgent();
            WriteFileAt(machine_.File(L"ZenvoUPAUF.exe"));
            WriteFileAt(machine_.File(L"UPASL.dll"));
        } else if (line.find(L"attributes of ") == 0 && IsThere(machine_.Folder())) {
            deleted = !IsThere(machine_.File(L"ZenvoUPAUF.exe")) &&
                      !IsThere(machine_.File(L"UPASL.dll")) &&
                      IsThere(machine_.File(L"TeloUF.exe"));
        }
    };
    EXPECT_EQ(PreInstallUPA(0), 0U);
    EXPECT_TRUE(deleted);
    EXPECT_FALSE(IsThere(machine_.Folder()));
}

TEST_F(PreInstallUPATest, LeavesWhatLiesBesideTheFolder) {
    machine_.CopyAgent();
    const Lines others = {machine_.Programs() + L"\\Zenvo\\readme.txt",
                          machine_.Programs() + L"\\Zenvo\\Usage Profile Agent.txt",
                          machine_.DataFolder() + L"\\profile.bin"};
    for (const std::wstring& file : others) {
        WriteFileAt(file);
    }
    PreInstallCalls();
    EXPECT_FALSE(IsThere(machine_.Folder()));
    for (const std::wstring& file : others) {
        EXPECT_TRUE(IsThere(file));
    }
}

TEST_F(PreInstallUPATest, AFileOfTheFoldersNameStays) {
    halvard_tests::CreateFolders(machine_.Programs() + L"\\Zenvo");
    WriteFileAt(machine_.Folder());
    PreInstallCalls();
    EXPECT_TRUE(IsThere(machine_.Folder()));
}

// With the steps before it done and those behind it not.
TEST_F(PreInstallUPATest, WhatTheRemovalRaisesLeavesTheAction) {
    const Lines triggers = {Kill(L"ZenvoUPAM.exe"),
                            L"delete file " + machine_.File(L"ZenvoUPAUF.exe"),
                            Kill(L"TeloMaster.exe")};
    const std::vector<std::size_t> killed = {4, 4, 10};
    for (std::size_t round = 0; round < triggers.size(); ++round) {
        const InstalledService older(kOlderService, L"C:\\none.exe");
        const InstalledService agent(kAgentService, L"C:\\none.exe");
        AgentCalls calls(machine_);
        OwnedHandle held;
        const int before = OpenHandleCount();
        calls.before = [&](const std::wstring& line) {
            if (line == triggers[round]) {
                machine_.CopyAgent();
                held.reset(CreateFileW(machine_.File(L"TeloUF.exe").c_str(), GENERIC_READ,
                                       FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr));
            }
        };
        ExpectFileSystemError([] { PreInstallUPA(0); }, "remove_all", machine_.Folder(),
                              ERROR_SHARING_VIOLATION);
        calls.before = nullptr;
        EXPECT_EQ(calls.Of({L"run"}).size(), killed[round]);
        EXPECT_EQ(calls.Of({L"delete service UPAL"}).size(), 1U);
        EXPECT_EQ(calls.Of({L"delete service TeloLauncher"}).size(), round == 2 ? 1U : 0U);
        EXPECT_EQ(calls.Of({L"delete file " + machine_.File(L"")}).size(), round == 0 ? 0U : 2U);
        EXPECT_TRUE(IsThere(machine_.File(L"TeloUF.exe")));
        held.reset();
        EXPECT_EQ(OpenHandleCount(), before);
        halvard_tests::RemoveTree(machine_.Folder());
    }
}

TEST_F(PreInstallUPATest, ALookThatFailsForWantOfANetworkIsPassedOver) {
    machine_.CopyAgent();
    AgentCalls calls(machine_);
    calls.Fail(L"attributes of " + kExtended + machine_.Folder(), ERROR_BAD_NETPATH);
    EXPECT_EQ(PreInstallUPA(0), 0U);
    EXPECT_FALSE(IsThere(machine_.Folder()));
}

TEST_F(PreInstallUPATest, EachLookForTheFolderThatFailsLeavesTheAction) {
    const std::wstring look = L"attributes of " + kExtended + machine_.Folder();
    const std::vector<std::size_t> killed = {4, 4, 10};
    for (std::size_t nth = 1; nth <= killed.size(); ++nth) {
        AgentCalls calls(machine_);
        calls.Fail(look, ERROR_ACCESS_DENIED, nth);
        ExpectFileSystemError([] { PreInstallUPA(0); }, "exists", machine_.Folder(),
                              ERROR_ACCESS_DENIED);
        EXPECT_EQ(calls.Of({L"run"}).size(), killed[nth - 1]);
        EXPECT_EQ(calls.Of({L"delete file"}).size(), nth == 1 ? 0U : 2U);
        EXPECT_EQ(calls.Of({L"open service TeloLauncher 0x10000"}).size(), nth == 3 ? 1U : 0U);
    }
}

TEST_F(PreInstallUPATest, TakesProgramFilesAsItStands) {
    AgentCalls calls(machine_);
    calls.Fail(L"folder 38", NO_ERROR);
    EXPECT_EQ(PreInstallUPA(0), 0U);
    const std::wstring folder = L"\\Zenvo\\Usage Profile Agent";
    EXPECT_EQ(calls.Of({L"delete file"}), (Lines{L"delete file " + folder + L"\\ZenvoUPAUF.exe",
                                                 L"delete file " + folder + L"\\UPASL.dll"}));
}

TEST_F(PreInstallUPATest, PathsTooLongForTheirBufferAreNotDeleted) {
    // The shell's longest folder has 259 characters.
    for (const std::size_t length : {214U, 215U, 219U, 220U, 259U}) {
        AgentCalls calls(machine_);
        const std::wstring programs = L"T:\\" + std::wstring(length - 3, L'x');
        calls.programFiles = programs;
        EXPECT_EQ(PreInstallUPA(0), 0U);
        const std::wstring folder = programs + L"\\Zenvo\\Usage Profile Agent";
        Lines expected;
        for (const std::wstring& name : {L"\\ZenvoUPAUF.exe"s, L"\\UPASL.dll"s}) {
            if (folder.size() + name.size() <= 255) {
                expected.push_back(L"delete file " + folder + name);
            }
        }
        EXPECT_EQ(calls.Of({L"delete file"}), expected) << length;
        EXPECT_EQ(expected.size(), length <= 214 ? 2U : length <= 219 ? 1U : 0U) << length;
    }
}

TEST_F(PreInstallUPATest, NoStepsFailureStopsTheNext) {
    const InstalledService older(kOlderService, L"C:\\none.exe");
    const InstalledService agent(kAgentService, L"C:\\none.exe");
    Lines undisturbed;
    {
        AgentCalls calls(machine_);
        calls.keepServices = true;
        EXPECT_EQ(PreInstallUPA(0), 0U);
        undisturbed = calls.All();
    }
    ASSERT_EQ(undisturbed.size(), 38U);
    for (std::size_t failing = 1; failing <= undisturbed.size(); ++failing) {
        const std::wstring& line = undisturbed[failing - 1];
        if (line.find(L"attributes of ") == 0) {
            continue; // what the look at the folder raises has a test of its own
        }
        Lines expected = undisturbed;
        if (line.find(L"open ") == 0) {
            // Without what would have been done with the handle.
            const auto next = expected.begin() + static_cast<std::ptrdiff_t>(failing);
            expected.erase(next, std::find_if(next, expected.end(), [](const std::wstring& each) {
                               return each.find(L"UPAL") == std::wstring::npos &&
                                      each.find(L" TeloLauncher") == std::wstring::npos;
                           }));
        }
        AgentCalls calls(machine_, failing);
        calls.keepServices = true;
        EXPECT_EQ(PreInstallUPA(0), 0U);
        if (line.find(L"folder") == 0) {
            // The commands and paths differ, which have tests of their own.
            EXPECT_EQ(calls.Count(), expected.size());
        } else {
            EXPECT_EQ(calls.All(), expected) << std::string(line.begin(), line.end());
        }
    }
}

TEST_F(PostInstallUPATest, SetsUpTheAgentAndStartsIt) {
    machine_.CopyAgent();
    const RecorderAt schtasks(kSchtasks);
    {
        AgentCalls calls(machine_);
        calls.started = L"";
        EXPECT_EQ(PostInstall(), 0U);
    }
    EXPECT_EQ(RegistryValueAt(kCountersKey, L"Disable Performance Counters"), String(L"0"));
    EXPECT_PRED1(IsIdentity, machine_.Identity());
    EXPECT_EQ(RegistryValueAt(kTeloKey, L"GUID"), String(machine_.Identity()));
    EXPECT_EQ(machine_.Service().State(), static_cast<DWORD>(SERVICE_RUNNING));
    EXPECT_TRUE(machine_.Task().Holds("<URI>HalvardAgentTask</URI>"));
    const std::vector<Recording> recordings = WaitForRecordings(1);
    ASSERT_EQ(recordings.size(), 1U);
    EXPECT_EQ(recordings[0].program, L"schtasks.exe");
    EXPECT_NE(recordings[0].commandLine.find(L" /run /TN HalvardAgentTask"), std::wstring::npos);
}

TEST_F(PostInstallUPATest, RegistersTheTaskOfItsItems) {
    FAIL_CALL(locating, SHGetFolderLocation, 0, E_FAIL, NO_ERROR);
    FAIL_CALL(opening, CreateFileW, 0, INVALID_HANDLE_VALUE, ERROR_FILE_NOT_FOUND);
    FAIL_CALL(managers, OpenSCManagerW, 0, nullptr, ERROR_ACCESS_DENIED);
    FAIL_CALL(executing, ShellExecuteExW, 0, FALSE, ERROR_FILE_NOT_FOUND);
    const halvard_tests::StandInTaskScheduler scheduler;
    EXPECT_EQ(PostInstall(), 0U);
    ASSERT_EQ(scheduler.Registrations().size(), 1U);
    const halvard_tests::Registration& task = scheduler.Registrations()[0];
    EXPECT_EQ(task.path, L"HalvardAgentTask");
    EXPECT_EQ(task.xml,
              halvard::AgentLogonTaskXml(L"HalvardAgentTask", L"C:\\A B\\TeloMaster.exe -x"));
    EXPECT_EQ(task.user, L"8:A user");
}

TEST_F(PostInstallUPATest, LogsItsDataAndItemsAndUsesThemWhole) {
    struct Case {
        std::wstring data;
        std::wstring task;
        std::wstring command;
        std::wstring user;
        bool isRegistered;
    };
    const std::wstring name = L"HalvardAgentTask";
    const std::wstring longCommand(600, L'c');
    const Case cases[] = {
        {kData, name, L"C:\\A B\\TeloMaster.exe -x", L"A user", true},
        {L"Username=u;CommandToLaunch=c;TaskName=HalvardAgentTask", name, L"c", L"u", true},
        {L"TaskName=HalvardAgentTask;Username=u;CommandToLaunch=" + longCommand, name, longCommand,
         L"u", true},
        // Absent items are text from further on.
        {L"nothing that is a key", L"that is a key", L" a key", L"that is a key", true},
        // A task that is refused is run all the same.
        {L"TaskName=HalvardAgentTask;CommandToLaunch=c <d>;Username=u", name, L"c <d>", L"u",
         false},
    };
    // Too long for the log.
    const auto logged = [](const std::wstring& text) {
        return text.size() > 508 ? L"CA buffer overflow\n" : text;
    };
    for (const Case& tested : cases) {
        const halvard_tests::StoredTask task(tested.task);
        const StandInSession session;
        session.SetProperty(L"CustomActionData", tested.data);
        EXPECT_EQ(PostInstallCalls({L"execute"}),
                  Lines{L"execute schtasks| /run /TN " + tested.task});
        EXPECT_EQ(
            session.LogLines(),
            (Lines{logged(L"CustomActionData: " + tested.data), L"Task Name " + tested.task,
                   logged(L"Command to launch " + tested.command), L"Username " + tested.user}));
        EXPECT_EQ(session.Messages().size(), 4U);
        EXPECT_EQ(task.Exists(), tested.isRegistered);
    }
}

TEST_F(PostInstallUPATest, MakesItsCallsInThisOrder) {
    machine_.CopyAgent();
    const AgentCalls calls(machine_, 0, NO_ERROR, kAgentCalls | kRegistry | kProperties);
    const std::wstring executed = L"execute schtasks| /run /TN HalvardAgentTask";
    const std::wstring ofSession = L" of " + std::to_wstring(session_.Get());
    EXPECT_EQ(PostInstall(), 0U);
    const std::wstring counters = L"HKLM\\" + std::wstring(kCountersKey) + L"\\";
    const std::wstring telo = L"HKLM\\Software\\Telo";
    const std::wstring manager = L"HKLM\\" + machine_.InstallManager().Path();
    // The task is not taken apart: the Task Scheduler's own calls are those of its client library.
    EXPECT_EQ(
        calls.All(),
        (Lines{
             L"property CustomActionData 0" + ofSession,
             L"property CustomActionData " + std::to_wstring(kData.size() + 1) + ofSession,
             L"event source null Application",
             L"open " + counters + L" 0xf003f",
             L"create " + counters + L" 0x2",
             L"set " + counters + L" Disable Performance Counters 1 4 bytes",
             L"close " + counters,
             L"make identity",
             L"spell identity",
             L"open " + telo + L" 0x20019",
             L"open " + telo + L" 0xf003f",
             L"create " + telo + L" 0x2",
             L"set " + telo + L" GUID 1 74 bytes",
             L"close " + telo,
             L"folder 35",
             L"open file 0x60000 " + machine_.DataFolder(),
             L"get list",
             L"make account",
             L"extend list",
             L"set list",
             L"open " + manager + L" 0x20119",
             L"query " + manager + L" InstallDir 260 bytes",
             L"close " + manager,
             L"open manager 0xf003f",
             L"create service TeloLauncher, Zenvo User Experience Program Data Uploader, "
             L"0xf01ff 0x110 2 1, \"" +
                 machine_.Programs() + L"\\Zenvo\\Manager\\..\\Usage Profile Agent\\TeloDU.exe\"",
             L"change service TeloLauncher 3 1",
             L"open manager 0xf003f",
             L"open service TeloLauncher 0xf01ff",
             L"query service TeloLauncher",
             L"start service TeloLauncher",
         } +
         Lines(calls.Of({L"query service"}).size() - 1, L"query service TeloLauncher") +
         Lines{L"enter apartment 0", L"create object"} + Lines(5, L"string") + Lines{executed}));
}

TEST_F(PostInstallUPATest, LogsItsItemsToTheCurrentSession) {
    AgentCalls calls(machine_);
    HOOK(reading, MsiGetPropertyW,
         [&](MSIHANDLE handle, LPCWSTR name, LPWSTR buffer, LPDWORD length) {
             halvard::SetCurrentSession(0);
             return reading.Original(handle, name, buffer, length);
         });
    EXPECT_EQ(PostInstall(), 0U);
    EXPECT_EQ(session_.LogLines(), Lines{L"CustomActionData: " + kData});
}

TEST_F(PostInstallUPATest, AnUnreachableEventLogIsItsOneFailure) {
    machine_.CopyAgent();
    for (const DWORD code : {RPC_S_SERVER_UNAVAILABLE, ERROR_ACCESS_DENIED, NO_ERROR}) {
        AgentCalls calls(machine_);
        calls.Fail(L"event source", code);
        const CallTrace registry(kRegistry);
        EXPECT_EQ(PostInstall(), 1603U);
        EXPECT_EQ(calls.All(), Lines{L"event source null Application"});
        EXPECT_EQ(registry.All(), Lines{});
    }
    // What it was told has been logged all the same.
    EXPECT_EQ(session_.LogLines().size(), 12U);
    EXPECT_EQ(machine_.Identity(), L"");
}

TEST_F(PostInstallUPATest, AnyOtherFailureIsASuccessAndStopsNoOtherStep) {
    // Without its program the service does not start, which makes no difference here.
    halvard_tests::CreateFolders(machine_.DataFolder());
    // Each step by one of its calls, with the calls by whose failure it does not come; that in
    // front of them all is the failure of the action.
    const std::pair<std::wstring, Lines> steps[] = {
        {L"make identity", {}},
        {L"folder 35", {}},
        {L"open file", {}},
        {L"get list", {L"folder 35", L"open file"}},
        {L"set list", {L"folder 35", L"open file", L"get list", L"make account", L"extend list"}},
        {L"open manager", {}},
        {L"create service TeloLauncher", {L"open manager"}},
        {L"open service TeloLauncher", {L"open manager"}},
        {L"create object", {L"enter apartment"}},
        {L"execute schtasks", {}},
    };
    std::size_t failing = 2;
    for (;; ++failing) {
        machine_.Reset();
        Lines came;
        {
            AgentCalls calls(machine_, failing);
            EXPECT_EQ(PostInstall(), 0U) << failing;
            came = calls.All();
        }
        if (came.size() < failing) {
            break;
        }
        const std::wstring& line = came[failing - 1];
        const std::string what(line.begin(), line.end());
        for (const auto& [step, conditions] : steps) {
            const bool isCutOff =
                std::any_of(conditions.begin(), conditions.end(),
                            [&](const std::wstring& start) { return Begins(line, start); });
            const bool comes =
                std::any_of(came.begin(), came.end(), [&, start = step](const std::wstring& each) {
                    return Begins(each, start);
                });
            EXPECT_TRUE(comes || isCutOff) << what << " " << std::string(step.begin(), step.end());
        }
        EXPECT_EQ(RegistryValueAt(kCountersKey, L"Disable Performance Counters"), String(L"0"));
        const bool identityFails = line == L"make identity" || line == L"spell identity";
        EXPECT_EQ(IsIdentity(machine_.Identity()), !identityFails) << what;
        EXPECT_EQ(RegistryValueAt(kTeloKey, L"GUID").has_value(), !identityFails) << what;
        const bool taskFails =
            line == L"enter apartment 0" || line == L"create object" || line == L"string";
        EXPECT_EQ(machine_.Task().Exists(), !taskFails) << what;
    }
    EXPECT_GE(failing, 24U);
}

TEST_F(PostInstallUPATest, RegistryCallsThatFailStopNoOtherStep) {
    // Without its program the service does not start, which makes no difference here.
    halvard_tests::CreateFolders(machine_.DataFolder());
    std::size_t count = 0;
    for (std::size_t failing = 0; failing <= count; ++failing) {
        machine_.Reset();
        AgentCalls calls(machine_);
        {
            const CallTrace registry(kRegistry, failing);
            EXPECT_EQ(PostInstall(), 0U);
            count = failing == 0 ? registry.Count() : count;
        }
        EXPECT_EQ(calls
                      .Of({L"get list", L"create service TeloLauncher",
                           L"start service TeloLauncher", L"create object", L"execute"})
                      .size(),
                  5U)
            << failing;
        // Two calls to create the key and one to write for either value.
        EXPECT_EQ(RegistryValueAt(kCountersKey, L"Disable Performance Counters").has_value(),
                  failing != 2 && failing != 3)
            << failing;
        EXPECT_EQ(IsIdentity(machine_.Identity()), failing != 6 && failing != 7) << failing;
    }
    EXPECT_EQ(count, 9U);
}

TEST_F(PostInstallUPATest, KeepsAnIdentityOfAnyKind) {
    const std::vector<Value> kept = {
        String(L"0A1B2C3D-0001-0002-0003-0123456789AB"),
        String(L"not in the form"),
        String(L""),
        {REG_SZ, {}},
        {REG_DWORD, {1, 2, 3, 4}},
        {REG_BINARY, std::vector<BYTE>(520, 7)},
    };
    for (const Value& value : kept) {
        machine_.SetIdentity(value.type, value.bytes);
        const AgentCalls calls(machine_, 0, NO_ERROR, kAgentCalls | kRegistry);
        EXPECT_EQ(PostInstall(), 0U);
        EXPECT_EQ(RegistryValueAt(kTeloKey, L"GUID"), value);
        const std::wstring telo = L"HKLM\\Software\\Telo";
        EXPECT_EQ(calls.Of({L"open " + telo, L"query " + telo, L"set " + telo, L"close " + telo}),
                  (Lines{L"open " + telo + L" 0x20019", L"query " + telo + L" GUID 520 bytes",
                         L"close " + telo}));
    }
}

TEST_F(PostInstallUPATest, AnIdentityTooLongForItsBufferCountsAsNone) {
    machine_.SetIdentity(REG_SZ, std::vector<BYTE>(522, 'x'));
    PostInstallCalls();
    EXPECT_PRED1(IsIdentity, machine_.Identity());
}

TEST_F(PostInstallUPATest, AnIdentityThatCannotBeReadIsReplaced) {
    const std::wstring former = L"0A1B2C3D-0001-0002-0003-0123456789AB";
    // The opening of the key, and the read, behind the three calls for the counters.
    for (const std::size_t failing : {4U, 5U}) {
        machine_.Reset();
        machine_.SetIdentity(former);
        AgentCalls calls(machine_);
        const CallTrace registry(kRegistry, failing);
        EXPECT_EQ(PostInstall(), 0U);
        EXPECT_PRED1(IsIdentity, machine_.Identity());
        EXPECT_NE(machine_.Identity(), former);
    }
}

TEST_F(PostInstallUPATest, EveryMachineGetsAnIdentityOfItsOwn) {
    std::set<std::wstring> identities;
    for (int count = 0; count < 5; ++count) {
        machine_.Reset();
        PostInstallCalls();
        EXPECT_PRED1(IsIdentity, machine_.Identity());
        identities.insert(machine_.Identity());
    }
    EXPECT_EQ(identities.size(), 5U);
}

TEST_F(PostInstallUPATest, TheIdentityIsTheTextOfTheSystemWithoutItsBraces) {
    AgentCalls calls(machine_);
    Lines freed;
    HOOK(freeing, CoTaskMemFree, [&](LPVOID memory) {
        freed.emplace_back(static_cast<const wchar_t*>(memory));
        freeing.Original(memory);
    });
    EXPECT_EQ(PostInstall(), 0U);
    EXPECT_EQ(freed, Lines{L"{" + machine_.Identity() + L"}"});
}

TEST_F(PostInstallUPATest, LeavesOtherValuesOfItsKeysAlone) {
    machine_.SetStatus(L"ClientA_TeloStatus", 1);
    machine_.SetStatus(L"ClientB_TeloStatus", 2);
    PostInstallCalls();
    EXPECT_EQ(machine_.Status(L"ClientA_TeloStatus"), 1U);
    EXPECT_EQ(machine_.Status(L"ClientB_TeloStatus"), 2U);
}

TEST_F(PostInstallUPATest, TakesTheDataFolderAsItStands) {
    AgentCalls calls(machine_);
    calls.Fail(L"folder 35", NO_ERROR);
    EXPECT_EQ(PostInstall(), 0U);
    EXPECT_EQ(calls.Of({L"open file 0x60000"}), Lines{L"open file 0x60000 \\Zenvo\\UPA"});
}

TEST_F(PostInstallUPATest, AMissingDataFolderIsPassedOver) {
    EXPECT_EQ(PostInstallCalls({L"open file", L"get list", L"set list"}),
              Lines{L"open file 0x60000 " + machine_.DataFolder()});
    EXPECT_FALSE(IsThere(machine_.DataFolder()));
}

TEST_F(PostInstallUPATest, DataShorterThanAKeyThrowsAndNothingIsDone) {
    for (const std::wstring& data : {L""s, L"abc"s, std::wstring(7, L'x'), std::wstring(14, L'x'),
                                     L"TaskName=t"s, L"Username=abcde"s}) {
        session_.SetProperty(L"CustomActionData", data);
        AgentCalls calls(machine_);
        const CallTrace registry(kRegistry);
        EXPECT_THROW(PostInstall(), std::out_of_range);
        EXPECT_EQ(calls.All(), Lines{});
        EXPECT_EQ(registry.All(), Lines{});
    }
    EXPECT_EQ(session_.LogLines().size(), 6U);
    // The shortest data in which every item has a place.
    session_.SetProperty(L"CustomActionData", std::wstring(15, L'x'));
    AgentCalls calls(machine_);
    EXPECT_EQ(PostInstall(), 0U);
    EXPECT_EQ(session_.LogLines()[8], L"Command to launch ");
}

TEST_F(AfterInstallUPATest, StartsTheServiceWhenThereAreNoRenames) {
    const PendingRenames renames;
    machine_.CopyAgent();
    const InstalledService agent(kAgentService, machine_.File(L"TeloDU.exe"));
    {
        AgentCalls calls(machine_);
        EXPECT_EQ(AfterInstallUPA(0), 0U);
    }
    EXPECT_FALSE(renames.IsThere());
    EXPECT_EQ(agent.State(), static_cast<DWORD>(SERVICE_RUNNING));
}

TEST_F(AfterInstallUPATest, CleansTheRenamesAndThenStartsTheService) {
    const std::wstring ours = machine_.File(L"TeloUF.exe");
    const PendingRenames renames(L"\\??\\"s + ours + L"\0\0\\??\\C:\\other\0\0\0"s);
    machine_.CopyAgent();
    const InstalledService agent(kAgentService, machine_.File(L"TeloDU.exe"));
    {
        const WritableKeys writable;
        AgentCalls calls(machine_);
        calls.before = [&](const std::wstring&) {
            EXPECT_EQ(renames.Read(), L"\\??\\C:\\other\0\0"s);
        };
        EXPECT_EQ(AfterInstallUPA(0), 0U);
        EXPECT_GE(calls.Count(), 4U);
    }
    EXPECT_EQ(agent.State(), static_cast<DWORD>(SERVICE_RUNNING));
}

// On every machine with renames.
TEST_F(AfterInstallUPATest, TheRefusedWriteLeavesTheActionBeforeTheServiceStarts) {
    const std::wstring stored = L"\\??\\"s + machine_.File(L"TeloUF.exe") + L"\0\0\0"s;
    const PendingRenames renames(stored);
    machine_.CopyAgent();
    const InstalledService agent(kAgentService, machine_.File(L"TeloDU.exe"));
    {
        AgentCalls calls(machine_);
        EXPECT_THROW(AfterInstallUPA(0), RegKeyError);
        EXPECT_EQ(calls.All(), Lines{});
    }
    EXPECT_EQ(renames.Read(), stored);
    EXPECT_EQ(agent.State(), static_cast<DWORD>(SERVICE_STOPPED));
}

TEST_F(AfterInstallUPATest, OnlyTheFirstOpeningAndTheReadAreGuarded) {
    const PendingRenames renames(L"\\??\\C:\\Usage Profile Agent\\a\0\0\0"s);
    // First opening, size, read, second opening, write. A read that fails behind its size is not
    // reported but gives empty strings, which go on to the refused write.
    const std::vector<bool> guarded = {true, true, false, false, false};
    for (std::size_t failing = 1; failing <= guarded.size(); ++failing) {
        AgentCalls calls(machine_);
        const CallTrace registry(kRegistry, failing);
        if (guarded[failing - 1]) {
            EXPECT_EQ(AfterInstallUPA(0), 0U);
        } else {
            EXPECT_THROW(AfterInstallUPA(0), RegKeyError);
        }
        EXPECT_EQ(calls.All(), guarded[failing - 1] ? (Lines{L"open manager 0xf003f",
                                                             L"open service TeloLauncher 0xf01ff"})
                                                    : Lines{})
            << failing;
    }
}

TEST_F(AfterInstallUPATest, AServiceThatDoesNotStartIsASuccess) {
    const PendingRenames renames;
    {
        AgentCalls calls(machine_);
        EXPECT_EQ(AfterInstallUPA(0), 0U); // none there
    }
    const InstalledService agent(kAgentService, L"C:\\none.exe");
    for (const wchar_t* const failing :
         {L"open manager", L"open service Telo", L"query", L"start"}) {
        AgentCalls calls(machine_);
        calls.Fail(failing, ERROR_ACCESS_DENIED);
        EXPECT_EQ(AfterInstallUPA(0), 0U) << failing;
    }
}
