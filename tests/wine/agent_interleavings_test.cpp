// What comes of the agent's actions when they meet each other, a running agent or a file in use.
// The installer lets one installation at a time change the machine, but neither an installation
// that is not its own nor the agent keep to that.
//
// Each interleaving leaves the identity of before, or one new identity that later installations
// keep, the status of every client, and the task. Besides:
//   a PostInstallUPA in another one        the service
//   a client's status in a PostInstallUPA  that status
//   a PreInstallUPA in a PostInstallUPA    the service, if it is made behind the deletion or runs
//   a PostInstallUPA in a PreInstallUPA    the service, if it is made behind the deletion
//   a PreInstallUPA in another one         neither service nor folder
//   an AfterInstallUPA in a PostInstallUPA the running service
//   two processes with both of these       the running service
//   an agent that runs from its folder     the running service, and the removal's exception
//   one that runs from elsewhere           neither process, service nor folder, then a new service
//   one that nothing ends                  its process, and no new service until it is gone
//   a service that waits for its deletion  no new service until it is gone
//   a locked file                          the file, the service, and the removal's exception

#include "agent/agent_install.h"
#include "runtime/registry_values.h"

#include "runtime/owned.h"
#include "runtime/registry.h"
#include "runtime/session.h"

#include "agent_calls.h"
#include "agent_machine.h"
#include "begins.h"
#include "call_trace.h"
#include "file_system_error.h"
#include "files.h"
#include "import_hook.h"
#include "restart_renames.h"
#include "stand_in_session.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>

using halvard::AfterInstallUPA;
using halvard::OwnedHandle;
using halvard::PostInstallUPA;
using halvard::PreInstallUPA;
using halvard_tests::AgentCalls;
using halvard_tests::AgentMachine;
using halvard_tests::Begins;
using halvard_tests::CallTrace;
using halvard_tests::ExpectFileSystemError;
using halvard_tests::InstalledService;
using halvard_tests::IsThere;
using halvard_tests::kAgentService;
using halvard_tests::kCountersKey;
using halvard_tests::kOlderService;
using halvard_tests::kRegistry;
using halvard_tests::kTeloKey;
using halvard_tests::PendingRenames;
using halvard_tests::RegistryValueAt;
using halvard_tests::ServiceBehavior;
using halvard_tests::StandInSession;
using namespace std::string_literals;

namespace {

const std::wstring kIdentity = L"0A1B2C3D-0001-0002-0003-0123456789AB";
const std::wstring kClient = L"ClientA_TeloStatus";
const std::wstring kOtherClient = L"ClientB_TeloStatus";

class AgentInterleavings : public testing::Test {
protected:
    AgentInterleavings() {
        session_.SetProperty(L"CustomActionData",
                             L"TaskName=HalvardAgentTask;CommandToLaunch=c;Username=u");
    }
    ~AgentInterleavings() override { halvard::SetCurrentSession(0); }

    UINT PostInstall() const { return PostInstallUPA(session_.Get()); }

    /// An installation that nothing disturbs.
    void ExpectPostInstall() const {
        const AgentCalls calls(machine_);
        EXPECT_EQ(PostInstall(), 0U);
    }

    /// A machine on which two clients have been, with or without an agent of before, whose files
    /// are gone.
    void Begin(bool agentOfBefore) {
        machine_.Reset();
        halvard_tests::RemoveTree(machine_.Folder());
        machine_.SetStatus(kClient, 1);
        machine_.SetStatus(kOtherClient, 2);
        if (agentOfBefore) {
            machine_.SetIdentity(kIdentity);
            ExpectPostInstall();
        }
    }

    /// Such a machine with an agent whose service runs from the agent's folder.
    void BeginWithRunningAgent() {
        Begin(true);
        machine_.CopyAgent();
        const PendingRenames renames;
        const AgentCalls calls(machine_);
        EXPECT_EQ(AfterInstallUPA(0), 0U);
    }

    /// What each interleaving leaves: the statuses, the task and one identity, that of an agent of
    /// before or a new one.
    void ExpectKept(bool agentOfBefore, const std::string& where) const {
        EXPECT_EQ(machine_.Status(kClient), 1U) << where;
        EXPECT_EQ(machine_.Status(kOtherClient), 2U) << where;
        EXPECT_TRUE(machine_.Task().Exists()) << where;
        const std::wstring identity = machine_.Identity();
        EXPECT_EQ(identity.size(), 36U) << where;
        EXPECT_TRUE(!agentOfBefore || identity == kIdentity) << where;
    }

    bool Runs() const { return machine_.Service().State() == SERVICE_RUNNING; }

    /// Whichever identity the machine has, a later installation keeps it.
    void ExpectItToBeKept() const {
        const std::wstring identity = machine_.Identity();
        ExpectPostInstall();
        EXPECT_EQ(machine_.Identity(), identity);
        EXPECT_EQ(identity.size(), 36U);
    }

    /// Runs `outer` and, before each of its calls that count in turn, `inner`, each time on a
    /// machine as Begin() makes it, with the agent's files or without. `then` is told the line of
    /// that call, as it is and to be shown. Returns the number of calls. The look for the system
    /// folder before each TaskKill.exe never counts.
    std::size_t
    AtEveryCall(bool agentOfBefore, const std::function<void()>& outer,
                const std::function<void()>& inner,
                const std::function<void(const std::wstring& met, const std::string& where)>& then,
                bool withFiles = true, const std::wstring& counting = {}) {
        for (std::size_t at = 1;; ++at) {
            Begin(agentOfBefore);
            if (withFiles) {
                machine_.CopyAgent();
            }
            std::wstring met;
            std::size_t count = 0;
            {
                AgentCalls calls(machine_);
                calls.before = [&](const std::wstring& line) {
                    if (line != L"folder 37" && line.find(counting) != std::wstring::npos &&
                        ++count == at) {
                        met = line;
                        inner();
                    }
                };
                outer();
            }
            if (met.empty()) {
                return at - 1;
            }
            const std::string where(met.begin(), met.end());
            then(met, where);
            ExpectKept(agentOfBefore, where);
        }
    }

    const std::function<void()> postInstall_ = [this] {
        EXPECT_EQ(PostInstall(), 0U);
    };
    const std::function<void()> preInstall_ = [] {
        EXPECT_EQ(PreInstallUPA(0), 0U);
    };

    AgentMachine machine_;
    StandInSession session_;
};

} // namespace

TEST_F(AgentInterleavings, TwoPostInstallsAtEveryCall) {
    const auto then = [this](const std::wstring&, const std::string& where) {
        EXPECT_TRUE(machine_.Service().Exists()) << where;
        EXPECT_FALSE(machine_.Service().IsBeingDeleted()) << where;
        EXPECT_TRUE(RegistryValueAt(kCountersKey, L"Disable Performance Counters").has_value());
    };
    EXPECT_GE(AtEveryCall(false, postInstall_, postInstall_, then, false), 12U);
}

// One that has found no identity replaces what another has made since then: which of the two stays
// is open, that one stays is not.
TEST_F(AgentInterleavings, TwoPostInstallsAtEveryCallToTheRegistry) {
    for (const bool agentOfBefore : {false, true}) {
        std::size_t count = 1;
        for (std::size_t at = 1; at <= count; ++at) {
            Begin(agentOfBefore);
            {
                const AgentCalls calls(machine_);
                CallTrace registry(kRegistry);
                registry.before = [&](const std::wstring&) {
                    if (registry.Count() == at) {
                        EXPECT_EQ(PostInstall(), 0U);
                    }
                };
                EXPECT_EQ(PostInstall(), 0U);
                count = registry.Count();
            }
            EXPECT_TRUE(machine_.Service().Exists()) << at;
            ExpectKept(agentOfBefore, std::to_string(at));
            ExpectItToBeKept();
        }
        EXPECT_GE(count, 6U);
    }
}

TEST_F(AgentInterleavings, AClientThatRegistersAtEveryCallToTheRegistry) {
    std::size_t count = 1;
    for (std::size_t at = 1; at <= count; ++at) {
        Begin(false);
        {
            const AgentCalls calls(machine_);
            CallTrace registry(kRegistry);
            registry.before = [&](const std::wstring&) {
                if (registry.Count() == at) {
                    EXPECT_TRUE(halvard::WriteRegistryDword(kTeloKey, L"ClientC_TeloStatus", 1));
                }
            };
            EXPECT_EQ(PostInstall(), 0U);
            count = registry.Count();
        }
        EXPECT_EQ(machine_.Status(L"ClientC_TeloStatus"), 1U) << at;
        ExpectKept(false, std::to_string(at));
    }
    EXPECT_GE(count, 7U);
}

// The one that clears away does not touch keys and task. The service stays if it is made behind its
// deletion, and with the folder when it runs already.
TEST_F(AgentInterleavings, APreInstallAtEveryCallOfAPostInstall) {
    bool created = false;
    bool started = false;
    const auto preInstall = [&] {
        if (started) {
            ExpectFileSystemError([] { PreInstallUPA(0); }, "remove_all", machine_.Folder(),
                                  ERROR_ACCESS_DENIED);
        } else {
            EXPECT_EQ(PreInstallUPA(0), 0U);
        }
    };
    const auto then = [&](const std::wstring& met, const std::string& where) {
        EXPECT_EQ(IsThere(machine_.Folder()), started) << where;
        EXPECT_TRUE(started   ? Runs()
                    : created ? machine_.Service().WaitUntilGone()
                              : machine_.Service().Exists())
            << where;
        created = created || Begins(met, L"create service TeloLauncher");
        started = started || met == L"start service TeloLauncher";
    };
    EXPECT_GE(AtEveryCall(false, postInstall_, preInstall, then), 13U);
    EXPECT_TRUE(created);
    EXPECT_TRUE(started);
}

TEST_F(AgentInterleavings, APostInstallAtEveryCallOfAPreInstall) {
    // The agent has no files yet: its service is there and does not start.
    std::size_t at = 0;
    std::size_t deletion = 0;
    const auto then = [&](const std::wstring& met, const std::string& where) {
        ++at;
        // Opened for its deletion, it can only be marked by the next call.
        deletion = met == L"open service TeloLauncher 0x10000" ? at : deletion;
        const bool deleted = deletion == 0 || at <= deletion + 1;
        EXPECT_EQ(machine_.Service().Exists(), !deleted) << where;
    };
    const std::size_t calls = AtEveryCall(true, preInstall_, postInstall_, then, false);
    EXPECT_GE(calls, deletion + 1);
    EXPECT_GT(deletion, 0U);
}

// A folder that one empties cannot be removed by the other: what that raises leaves the action.
TEST_F(AgentInterleavings, TwoPreInstallsAtEveryCall) {
    int refused = 0;
    bool isRefused = false;
    const auto preInstall = [&] {
        isRefused = false;
        try {
            EXPECT_EQ(PreInstallUPA(0), 0U);
        } catch (const std::filesystem::filesystem_error& error) {
            EXPECT_EQ(error.code().value(), ERROR_SHARING_VIOLATION);
            isRefused = true;
        }
    };
    const auto then = [&](const std::wstring& met, const std::string& where) {
        // How often an entry is changed before it is gone is up to the engine.
        refused += isRefused && !Begins(met, L"change entry") ? 1 : 0;
        EXPECT_FALSE(IsThere(machine_.Folder())) << where;
        EXPECT_TRUE(machine_.Service().WaitUntilGone()) << where;
    };
    EXPECT_GE(AtEveryCall(true, preInstall_, preInstall, then), 27U);
    // One for each file of the folder, and one for the look at the folder above.
    EXPECT_EQ(refused, 3);
}

TEST_F(AgentInterleavings, AnAfterInstallAtEveryCallOfAPostInstallToItsService) {
    const PendingRenames renames;
    const auto afterInstall = [] {
        EXPECT_EQ(AfterInstallUPA(0), 0U);
    };
    const auto then = [this](const std::wstring&, const std::string& where) {
        EXPECT_TRUE(Runs()) << where;
    };
    EXPECT_GE(AtEveryCall(false, postInstall_, afterInstall, then, true, L"TeloLauncher"), 5U);
}

namespace {

constexpr wchar_t kReady[] = L"HalvardAgentReady";
constexpr wchar_t kGo[] = L"HalvardAgentGo";
constexpr DWORD kLimitMilliseconds = 60000;

/// This program once more, for one test of its own.
class Child {
public:
    explicit Child(const std::wstring& test) {
        wchar_t program[MAX_PATH] = {};
        GetModuleFileNameW(nullptr, program, MAX_PATH);
        std::wstring command = L"\"" + std::wstring(program) +
                               L"\" --gtest_also_run_disabled_tests --gtest_filter=" + test;
        STARTUPINFOW startup = {};
        startup.cb = sizeof(startup);
        PROCESS_INFORMATION child = {};
        EXPECT_NE(CreateProcessW(nullptr, command.data(), nullptr, nullptr, FALSE, CREATE_NO_WINDOW,
                                 nullptr, nullptr, &startup, &child),
                  FALSE);
        CloseHandle(child.hThread);
        process_.reset(child.hProcess);
    }

    /// One that still runs would go on in later tests.
    ~Child() { TerminateProcess(process_.get(), 1); }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    /// Its exit code; waits for its end.
    DWORD Result() const {
        DWORD code = STILL_ACTIVE;
        WaitForSingleObject(process_.get(), kLimitMilliseconds);
        GetExitCodeProcess(process_.get(), &code);
        return code;
    }

private:
    OwnedHandle process_;
};

} // namespace

// Not a test of its own: one side of the next one.
TEST(AgentInstallation, DISABLED_SetsUpTheAgent) {
    const StandInSession session;
    session.SetProperty(L"CustomActionData",
                        L"TaskName=HalvardAgentTask;CommandToLaunch=c;Username=u");
    const AgentCalls calls({});
    const OwnedHandle ready(OpenSemaphoreW(SEMAPHORE_MODIFY_STATE, FALSE, kReady));
    const OwnedHandle go(OpenEventW(SYNCHRONIZE, FALSE, kGo));
    ReleaseSemaphore(ready.get(), 1, nullptr);
    ASSERT_EQ(WaitForSingleObject(go.get(), kLimitMilliseconds), WAIT_OBJECT_0);
    EXPECT_EQ(PostInstallUPA(session.Get()), 0U);
    EXPECT_EQ(AfterInstallUPA(0), 0U);
    EXPECT_EQ(PostInstallUPA(session.Get()), 0U);
    halvard::SetCurrentSession(0);
}

TEST_F(AgentInterleavings, TwoInstallationsSideBySide) {
    const PendingRenames renames;
    for (const bool agentOfBefore : {false, true}) {
        Begin(agentOfBefore);
        machine_.CopyAgent();
        const OwnedHandle ready(CreateSemaphoreW(nullptr, 0, 2, kReady));
        const OwnedHandle go(CreateEventW(nullptr, TRUE, FALSE, kGo));
        const Child first(L"AgentInstallation.DISABLED_SetsUpTheAgent");
        const Child second(L"AgentInstallation.DISABLED_SetsUpTheAgent");
        for (int count = 0; count < 2; ++count) {
            EXPECT_EQ(WaitForSingleObject(ready.get(), kLimitMilliseconds), WAIT_OBJECT_0);
        }
        SetEvent(go.get());
        EXPECT_EQ(first.Result(), 0U);
        EXPECT_EQ(second.Result(), 0U);
        const std::string where = agentOfBefore ? "an agent of before" : "none";
        EXPECT_TRUE(Runs()) << where;
        ExpectKept(agentOfBefore, where);
        ExpectItToBeKept();
    }
}

// The agent's own programs end only behind the first removal of the folder.
TEST_F(AgentInterleavings, AnInstallationOverAnAgentThatRunsFromItsFolder) {
    BeginWithRunningAgent();
    ASSERT_TRUE(Runs());
    {
        AgentCalls calls(machine_);
        ExpectFileSystemError([] { PreInstallUPA(0); }, "remove_all", machine_.Folder(),
                              ERROR_ACCESS_DENIED);
        EXPECT_EQ(calls.Of({L"run"}).size(), 4U);
    }
    // The agent goes on; what the new one needs is as it was.
    EXPECT_TRUE(Runs());
    EXPECT_FALSE(machine_.Service().IsBeingDeleted());
    EXPECT_TRUE(IsThere(machine_.File(L"TeloDU.exe")));
    ExpectKept(true, "refused");
    // Set up again beside it, as a package does that ignores the result.
    {
        const AgentCalls calls(machine_);
        EXPECT_EQ(PostInstall(), 0U);
        const PendingRenames renames;
        EXPECT_EQ(AfterInstallUPA(0), 0U);
    }
    EXPECT_TRUE(Runs());
    EXPECT_EQ(machine_.Identity(), kIdentity);
}

TEST_F(AgentInterleavings, AnInstallationOverAnAgentThatRunsFromElsewhere) {
    for (const bool stops : {true, false}) {
        machine_.CopyAgent();
        // Under the name that the action ends, so that even one that ignores its stop ends.
        const std::wstring program = machine_.Programs() + L"\\TeloDU.exe";
        halvard_tests::CopyTestService(program);
        machine_.Reset();
        machine_.SetIdentity(kIdentity);
        ServiceBehavior behavior;
        behavior.stopIgnored = !stops;
        InstalledService agent(kAgentService, program, behavior);
        agent.Start();
        {
            AgentCalls calls(machine_);
            if (!stops) {
                calls.started = L"/IM TeloDU.exe";
            }
            EXPECT_EQ(PreInstallUPA(0), 0U);
        }
        EXPECT_TRUE(agent.WaitForProcess());
        EXPECT_TRUE(agent.WaitUntilGone());
        EXPECT_FALSE(IsThere(machine_.Folder()));
        machine_.CopyAgent();
        ExpectPostInstall();
        EXPECT_TRUE(Runs());
        EXPECT_EQ(machine_.Identity(), kIdentity);
    }
}

TEST_F(AgentInterleavings, AnInstallationOverAnAgentThatNothingEnds) {
    Begin(false);
    // Under a name that the action does not end.
    const std::wstring program = machine_.Programs() + L"\\other.exe";
    halvard_tests::CopyTestService(program);
    ServiceBehavior behavior;
    behavior.stopIgnored = true;
    InstalledService agent(kAgentService, program, behavior);
    agent.Start();
    machine_.CopyAgent();
    {
        DWORD now = 0;
        HOOK(looking, GetTickCount, [&] { return now += 3000; });
        const AgentCalls calls(machine_);
        EXPECT_EQ(PreInstallUPA(0), 0U);
        // One look for either service, and eleven for this one: more than 30 seconds.
        EXPECT_EQ(looking.Calls(), 13);
        EXPECT_EQ(calls.Of({L"delete service TeloLauncher"}),
                  Lines{L"delete service TeloLauncher"});
    }
    EXPECT_EQ(agent.State(), static_cast<DWORD>(SERVICE_RUNNING));
    EXPECT_TRUE(agent.IsBeingDeleted());
    EXPECT_FALSE(IsThere(machine_.Folder()));
    ExpectPostInstall();
    EXPECT_TRUE(agent.IsBeingDeleted());
    ExpectKept(false, "not ended");
    agent.EndProcess();
    EXPECT_TRUE(agent.WaitUntilGone());
    machine_.CopyAgent();
    ExpectPostInstall();
    EXPECT_TRUE(Runs());
}

// A service that waits for its deletion keeps its name from the new one.
TEST_F(AgentInterleavings, APostInstallWhileTheFormerServiceWaitsForItsDeletion) {
    BeginWithRunningAgent();
    const SC_HANDLE manager = OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT);
    const SC_HANDLE service = OpenServiceW(manager, kAgentService, DELETE);
    EXPECT_NE(DeleteService(service), FALSE);
    ExpectPostInstall();
    EXPECT_TRUE(machine_.Service().IsBeingDeleted());
    CloseServiceHandle(service);
    CloseServiceHandle(manager);
    ExpectKept(true, "waiting");
    machine_.Service().EndProcess();
    EXPECT_TRUE(machine_.Service().WaitUntilGone());
    ExpectPostInstall();
    EXPECT_TRUE(Runs());
}

TEST_F(AgentInterleavings, ARemovalWithALockedFile) {
    Begin(true);
    machine_.CopyAgent();
    const InstalledService older(kOlderService, L"C:\\none.exe");
    {
        const OwnedHandle held(CreateFileW(machine_.File(L"TeloUF.exe").c_str(), GENERIC_READ,
                                           FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                           OPEN_EXISTING, 0, nullptr));
        ASSERT_NE(held.get(), INVALID_HANDLE_VALUE);
        AgentCalls calls(machine_);
        ExpectFileSystemError([] { PreInstallUPA(0); }, "remove_all", machine_.Folder(),
                              ERROR_SHARING_VIOLATION);
    }
    EXPECT_TRUE(IsThere(machine_.File(L"TeloUF.exe")));
    EXPECT_FALSE(older.Exists());
    EXPECT_TRUE(machine_.Service().Exists());
    ExpectKept(true, "locked");
    // Once more when the file is free.
    {
        const AgentCalls calls(machine_);
        EXPECT_EQ(PreInstallUPA(0), 0U);
    }
    EXPECT_FALSE(IsThere(machine_.Folder()));
    EXPECT_FALSE(machine_.Service().Exists());
    ExpectKept(true, "free");
}
