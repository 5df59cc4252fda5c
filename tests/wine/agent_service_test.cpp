#include "agent/agent_service.h"

#include "allocation_failure.h"
#include "call_trace.h"
#include "current_session.h"
#include "debugger_output.h"
#include "files.h"
#include "import_hook.h"
#include "installed_service.h"
#include "registry_key.h"
#include "stand_in_clock.h"
#include "stand_in_session.h"
#include "standard_output.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <tuple>
#include <utility>
#include <vector>

using halvard::CreateAgentService;
using halvard::StartAgentService;
using halvard::StopServiceWithTimeout;
using halvard_tests::AllocationFailure;
using halvard_tests::CallTrace;
using halvard_tests::InstalledService;
using halvard_tests::kRegistry;
using halvard_tests::ScratchFolder;
using halvard_tests::ScratchKey;
using halvard_tests::ServiceBehavior;
using halvard_tests::ServiceScope;
using halvard_tests::StandInClock;
using Sleeps = std::vector<DWORD>;

namespace {

constexpr wchar_t kName[] = L"HalvardTestService";
constexpr wchar_t kAgent[] = L"TeloLauncher";
constexpr wchar_t kInstallManagerKey[] =
    L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\"
    L"Zenvo Meridian Install Manager";
constexpr DWORD kLastTick = std::numeric_limits<DWORD>::max();

const std::wstring kNoManager = L"Error: Failed to open SCM.\n";
const std::wstring kNoStatus = L"Error: QueryServiceStatusEx failed.\n";
const std::wstring kAlreadyStopped = L"Service is already stopped.\n";
const std::wstring kStopPending = L"Service stop pending...\n";
const std::wstring kPendingTimeout = L"Service stop timed out.\n";
const std::wstring kRefused = L"Error: ControlService failed.\n";
const std::wstring kStopTimeout = L"Error: Timeout waiting for service to stop.\n";
const std::wstring kStopped = L"Service stopped successfully.\n";
const std::wstring kStarted = L"Service started successfully.\n";
const std::wstring kNotStarted = L"Warning: Service did not start successfully.\n";

// What a message looks like in a record of calls, of which each is one line.
std::wstring Says(const std::wstring& message) {
    return L"says " + message + L"\n";
}

std::wstring Times(std::size_t count, const std::wstring& text) {
    std::wstring all;
    for (std::size_t time = 0; time < count; ++time) {
        all += text;
    }
    return all;
}

// What is sent to the debugger.
class Messages {
public:
    const std::wstring& Get() const { return messages_; }

private:
    std::wstring messages_;
    HOOK(sending_, OutputDebugStringW, [this](LPCWSTR text) { messages_ += Says(text); });
};

// Lets a pending change of a service come to its end while the first sleep, which takes its time,
// lasts.
class ChangeDuringSleep {
public:
    explicit ChangeDuringSleep(const ServiceScope& service) : service_(service) {}

    const Sleeps& Get() const { return sleeps_; }

private:
    const ServiceScope& service_;
    Sleeps sleeps_;
    HOOK(sleeping_, Sleep, [this](DWORD milliseconds) {
        sleeps_.push_back(milliseconds);
        service_.Proceed();
        sleeping_.Original(milliseconds);
    });
};

// The handles of the service manager and its services that were opened and not closed again.
class OpenServiceHandles {
public:
    int Count() const { return count_; }

private:
    int count_ = 0;
    HOOK(manager_, OpenSCManagerW, [this](LPCWSTR machine, LPCWSTR database, DWORD access) {
        return Opened(manager_.Original(machine, database, access));
    });
    HOOK(service_, OpenServiceW, [this](SC_HANDLE manager, LPCWSTR name, DWORD access) {
        return Opened(service_.Original(manager, name, access));
    });
    HOOK(closing_, CloseServiceHandle, [this](SC_HANDLE handle) {
        --count_;
        return closing_.Original(handle);
    });

    SC_HANDLE Opened(SC_HANDLE handle) {
        count_ += handle != nullptr ? 1 : 0;
        return handle;
    }
};

// One answer about a service: state, checkpoint, wait hint in milliseconds.
struct Answer {
    DWORD state = SERVICE_STOPPED;
    DWORD checkpoint = 0;
    DWORD waitHint = 0;
};
using Answers = std::vector<Answer>;

// A service manager of the test's own that knows one service, with a clock of its own. Every call
// is one line, and so is each message and each sleep. Each call leaves an error of its own behind.
class StandInServiceManager {
public:
    explicit StandInServiceManager(Answers queried = {{}}, DWORD startTick = 0)
        : queries(std::move(queried)), clock(startTick) {
        clock.afterSleep = [this] {
            Write(L"Sleep", L"%u", clock.Sleeps().back());
        };
    }

    // What the queries are answered, one after the other. The last one stays.
    Answers queries;
    // The answer to a request to stop.
    Answer stopAnswer = {SERVICE_STOP_PENDING, 1, 0};
    // The function that fails, at its call of this number, counted from 1; 0 for every call.
    std::wstring failing;
    int failingCall = 0;
    DWORD error = ERROR_ACCESS_DENIED;
    // How many milliseconds a function takes.
    std::vector<std::pair<std::wstring, DWORD>> takes;
    StandInClock clock;

    const std::wstring& Calls() const { return calls_; }

    // The messages alone.
    const std::wstring& Messages() const { return messages_; }

private:
    static SC_HANDLE Manager() { return reinterpret_cast<SC_HANDLE>(0x100); }
    static SC_HANDLE Service() { return reinterpret_cast<SC_HANDLE>(0x200); }

    static const wchar_t* NameOf(SC_HANDLE handle) {
        return handle == Manager() ? L"manager" : handle == Service() ? L"service" : L"unknown";
    }

    template <class... Arguments>
    void Write(const wchar_t* function, const wchar_t* format, Arguments... arguments) {
        wchar_t text[1025] = {};
        wsprintfW(text, format, arguments...);
        calls_.append(function).append(L" ").append(text).append(L"\n");
    }

    template <class... Arguments>
    BOOL Call(const wchar_t* function, const wchar_t* format, Arguments... arguments) {
        Write(function, format, arguments...);
        for (const auto& [slow, milliseconds] : takes) {
            clock.now += slow == function ? milliseconds : 0;
        }
        const bool fails =
            failing == function && (++failingSeen_ == failingCall || failingCall == 0);
        SetLastError(fails ? error : ERROR_INVALID_DATA);
        return fails ? FALSE : TRUE;
    }

    BOOL Query(SC_HANDLE service, SC_STATUS_TYPE level, BYTE* buffer, DWORD size, DWORD* needed) {
        EXPECT_NE(needed, nullptr);
        SERVICE_STATUS_PROCESS status = {};
        const BOOL done =
            Call(L"QueryServiceStatusEx", L"%s %d %u bytes", NameOf(service), level, size);
        if (done != FALSE) {
            const Answer& answer = queries[std::min(told_++, queries.size() - 1)];
            status.dwCurrentState = answer.state;
            status.dwCheckPoint = answer.checkpoint;
            status.dwWaitHint = answer.waitHint;
        } else {
            // A query that fails has nothing to tell, whatever it leaves in the buffer.
            status.dwCurrentState = SERVICE_RUNNING;
        }
        *reinterpret_cast<SERVICE_STATUS_PROCESS*>(buffer) = status;
        return done;
    }

    std::wstring calls_;
    std::wstring messages_;
    int failingSeen_ = 0;
    std::size_t told_ = 0;

    HOOK(openManager_, OpenSCManagerW, [this](LPCWSTR machine, LPCWSTR database, DWORD access) {
        return Call(L"OpenSCManagerW", L"%s %s 0x%x", machine, database, access) != FALSE
                   ? Manager()
                   : nullptr;
    });
    HOOK(openService_, OpenServiceW, [this](SC_HANDLE manager, LPCWSTR name, DWORD access) {
        return Call(L"OpenServiceW", L"%s %s 0x%x", NameOf(manager), name, access) != FALSE
                   ? Service()
                   : nullptr;
    });
    HOOK(query_, QueryServiceStatusEx,
         [this](SC_HANDLE service, SC_STATUS_TYPE level, LPBYTE buffer, DWORD size,
                LPDWORD needed) { return Query(service, level, buffer, size, needed); });
    HOOK(control_, ControlService,
         [this](SC_HANDLE service, DWORD control, LPSERVICE_STATUS status) {
             status->dwCurrentState = stopAnswer.state;
             status->dwCheckPoint = stopAnswer.checkpoint;
             status->dwWaitHint = stopAnswer.waitHint;
             return Call(L"ControlService", L"%s %u", NameOf(service), control);
         });
    HOOK(start_, StartServiceW, [this](SC_HANDLE service, DWORD count, LPCWSTR* arguments) {
        return Call(L"StartServiceW", L"%s %u %s", NameOf(service), count,
                    arguments == nullptr ? L"null" : L"arguments");
    });
    HOOK(create_, CreateServiceW,
         [this](SC_HANDLE manager, LPCWSTR name, LPCWSTR displayName, DWORD access, DWORD type,
                DWORD start, DWORD errorControl, LPCWSTR path, LPCWSTR group, LPDWORD tag,
                LPCWSTR dependencies, LPCWSTR account, LPCWSTR password) {
             return Call(L"CreateServiceW", L"%s %s, %s, 0x%x 0x%x %u %u, %s, %s %s %s %s %s",
                         NameOf(manager), name, displayName, access, type, start, errorControl,
                         path, group, tag == nullptr ? L"null" : L"tag", dependencies, account,
                         password) != FALSE
                        ? Service()
                        : nullptr;
         });
    HOOK(change_, ChangeServiceConfig2W, [this](SC_HANDLE service, DWORD level, LPVOID info) {
        return Call(L"ChangeServiceConfig2W", L"%s %u %d", NameOf(service), level,
                    static_cast<const SERVICE_DELAYED_AUTO_START_INFO*>(info)->fDelayedAutostart);
    });
    HOOK(close_, CloseServiceHandle,
         [this](SC_HANDLE handle) { return Call(L"CloseServiceHandle", L"%s", NameOf(handle)); });
    HOOK(say_, OutputDebugStringW, [this](LPCWSTR text) {
        calls_ += Says(text);
        messages_ += Says(text);
    });
};

std::wstring Sleeping(DWORD milliseconds) {
    return L"Sleep " + std::to_wstring(milliseconds) + L"\n";
}

const std::wstring kOpenedManager = L"OpenSCManagerW (null) (null) 0xf003f\n";
const std::wstring kOpenedToStop = kOpenedManager + L"OpenServiceW manager " + kName + L" 0x2c\n";
const std::wstring kOpenedToStart =
    kOpenedManager + L"OpenServiceW manager " + kAgent + L" 0xf01ff\n";
const std::wstring kQueried = L"QueryServiceStatusEx service 0 36 bytes\n";
const std::wstring kStopRequested = L"ControlService service 1\n";
const std::wstring kStartRequested = L"StartServiceW service 0 null\n";
const std::wstring kClosedService = L"CloseServiceHandle service\n";
const std::wstring kClosedManager = L"CloseServiceHandle manager\n";
const std::wstring kClosed = kClosedService + kClosedManager;

const Answer kIsRunning = {SERVICE_RUNNING, 0, 0};
const Answer kIsStopped = {SERVICE_STOPPED, 0, 0};

// Every state but those that a routine treats in a way of its own.
const DWORD kOtherStates[] = {SERVICE_START_PENDING, SERVICE_RUNNING, SERVICE_CONTINUE_PENDING,
                              SERVICE_PAUSE_PENDING, SERVICE_PAUSED};

} // namespace

TEST(StopServiceWithTimeout, AStoppedServiceIsLeftAsItIs) {
    const StandInServiceManager manager({kIsStopped});
    EXPECT_TRUE(StopServiceWithTimeout(kName));
    EXPECT_EQ(manager.Calls(), kOpenedToStop + kQueried + Says(kAlreadyStopped) + kClosed);
}

TEST(StopServiceWithTimeout, AServiceThatStopsWithTheRequestIsNotWaitedFor) {
    for (const DWORD state : kOtherStates) {
        StandInServiceManager manager(Answers{{state}});
        manager.stopAnswer = kIsStopped;
        EXPECT_TRUE(StopServiceWithTimeout(kName));
        EXPECT_EQ(manager.Calls(),
                  kOpenedToStop + kQueried + kStopRequested + Says(kStopped) + kClosed);
    }
}

TEST(StopServiceWithTimeout, SleepsForTheWholeHintOfTheLastAnswerAfterTheRequest) {
    StandInServiceManager manager({{SERVICE_RUNNING, 0, 4000},
                                   {SERVICE_STOP_PENDING, 2, 12000},
                                   {SERVICE_STOP_PENDING, 3, 0},
                                   {SERVICE_RUNNING, 4, 999},
                                   kIsStopped});
    manager.stopAnswer = {SERVICE_STOP_PENDING, 1, 700};
    EXPECT_TRUE(StopServiceWithTimeout(kName));
    EXPECT_EQ(manager.Calls(), kOpenedToStop + kQueried + kStopRequested + Sleeping(700) +
                                   kQueried + Sleeping(12000) + kQueried + Sleeping(0) + kQueried +
                                   Sleeping(999) + kQueried + Says(kStopped) + kClosed);
}

TEST(StopServiceWithTimeout, SleepsForATenthOfTheHintWhileAStopIsPending) {
    const std::pair<DWORD, DWORD> hintsAndSleeps[] = {
        {0, 1000},     {2000, 1000},    {10000, 1000},   {10010, 1001},
        {50000, 5000}, {100000, 10000}, {200000, 10000}, {INFINITE, 10000}};
    for (const auto& [hint, sleep] : hintsAndSleeps) {
        const StandInServiceManager manager({{SERVICE_STOP_PENDING, 1, hint}, kIsStopped});
        EXPECT_TRUE(StopServiceWithTimeout(kName));
        EXPECT_EQ(manager.Calls(), kOpenedToStop + kQueried + Says(kStopPending) + Sleeping(sleep) +
                                       kQueried + Says(kStopped) + kClosed);
    }
}

TEST(StopServiceWithTimeout, TakesTheHintOfTheLastAnswerWhileAStopIsPending) {
    const StandInServiceManager manager({{SERVICE_STOP_PENDING, 1, 50000},
                                         {SERVICE_STOP_PENDING, 1, 0},
                                         {SERVICE_STOP_PENDING, 1, 20000},
                                         kIsStopped});
    EXPECT_TRUE(StopServiceWithTimeout(kName));
    EXPECT_EQ(manager.clock.Sleeps(), (Sleeps{5000, 1000, 2000}));
    EXPECT_EQ(manager.Messages(), Times(3, Says(kStopPending)) + Says(kStopped));
    EXPECT_EQ(manager.Calls().find(kStopRequested), std::wstring::npos);
}

TEST(StopServiceWithTimeout, AServiceThatGivesUpStoppingIsAskedToStop) {
    for (const DWORD state : kOtherStates) {
        StandInServiceManager manager({{SERVICE_STOP_PENDING, 1, 0},
                                       {state, 0, 0},
                                       {SERVICE_STOP_PENDING, 1, 0},
                                       kIsStopped});
        manager.stopAnswer = {SERVICE_STOP_PENDING, 1, 300};
        EXPECT_TRUE(StopServiceWithTimeout(kName));
        EXPECT_EQ(manager.Calls(), kOpenedToStop + kQueried + Says(kStopPending) + Sleeping(1000) +
                                       kQueried + kStopRequested + Sleeping(300) + kQueried +
                                       Sleeping(0) + kQueried + Says(kStopped) + kClosed);
    }
}

TEST(StopServiceWithTimeout, APendingStopHasThirtySeconds) {
    // Three sleeps end exactly at the limit, a fourth one behind it.
    const StandInServiceManager manager({{SERVICE_STOP_PENDING, 1, 100000}});
    EXPECT_FALSE(StopServiceWithTimeout(kName));
    EXPECT_EQ(manager.Calls(), kOpenedToStop + kQueried +
                                   Times(4, Says(kStopPending) + Sleeping(10000) + kQueried) +
                                   Says(kPendingTimeout) + kClosed);
}

TEST(StopServiceWithTimeout, AServiceThatGivesUpStoppingTooLateIsNotAskedToStop) {
    for (const DWORD state : kOtherStates) {
        StandInServiceManager manager({{SERVICE_STOP_PENDING, 1, 0}, {state, 0, 0}});
        manager.takes.emplace_back(L"OpenServiceW", 30000);
        EXPECT_FALSE(StopServiceWithTimeout(kName));
        EXPECT_EQ(manager.Calls(), kOpenedToStop + kQueried + Says(kStopPending) + Sleeping(1000) +
                                       kQueried + Says(kPendingTimeout) + kClosed);
    }
}

TEST(StopServiceWithTimeout, ThirtySecondsAndAMillisecondAreTooMuch) {
    StandInServiceManager manager({{SERVICE_STOP_PENDING, 1, 100000}});
    manager.takes.emplace_back(L"QueryServiceStatusEx", 1);
    EXPECT_FALSE(StopServiceWithTimeout(kName));
    EXPECT_EQ(manager.Messages(), Times(3, Says(kStopPending)) + Says(kPendingTimeout));
}

TEST(StopServiceWithTimeout, AServiceThatHasStoppedIsNeverTooLate) {
    for (const DWORD state : {DWORD{SERVICE_STOP_PENDING}, DWORD{SERVICE_RUNNING}}) {
        StandInServiceManager manager({{state}, kIsStopped});
        manager.stopAnswer = {SERVICE_STOP_PENDING, 1, 0};
        manager.takes.emplace_back(L"OpenServiceW", 60000);
        EXPECT_TRUE(StopServiceWithTimeout(kName));
        EXPECT_EQ(manager.clock.Sleeps().size(), 1U);
    }
}

TEST(StopServiceWithTimeout, TheTimeCountsFromItsEntry) {
    for (const wchar_t* const function : {L"OpenSCManagerW", L"OpenServiceW"}) {
        StandInServiceManager manager(Answers{{SERVICE_STOP_PENDING}});
        manager.takes.emplace_back(function, 29001);
        EXPECT_FALSE(StopServiceWithTimeout(kName));
        EXPECT_EQ(manager.Messages(), Says(kStopPending) + Says(kPendingTimeout));
    }
    // What is spent before the request counts for the wait behind it too.
    StandInServiceManager manager({{SERVICE_STOP_PENDING, 1, 100000},
                                   {SERVICE_STOP_PENDING, 1, 100000},
                                   kIsRunning,
                                   {SERVICE_STOP_PENDING, 1, 5000}});
    manager.stopAnswer = {SERVICE_STOP_PENDING, 1, 5000};
    EXPECT_FALSE(StopServiceWithTimeout(kName));
    EXPECT_EQ(manager.clock.Sleeps(), (Sleeps{10000, 10000, 5000, 5000, 5000}));
    EXPECT_EQ(manager.Messages(), Times(2, Says(kStopPending)) + Says(kStopTimeout));
}

TEST(StopServiceWithTimeout, AServiceThatIgnoresTheRequestHasThirtySeconds) {
    for (const DWORD state : {DWORD{SERVICE_STOP_PENDING}, DWORD{SERVICE_RUNNING}}) {
        StandInServiceManager manager({kIsRunning, {state, 1, 2000}});
        manager.stopAnswer = {state, 1, 2000};
        EXPECT_FALSE(StopServiceWithTimeout(kName));
        EXPECT_EQ(manager.Calls(), kOpenedToStop + kQueried + kStopRequested +
                                       Times(16, Sleeping(2000) + kQueried) + Says(kStopTimeout) +
                                       kClosed);
    }
}

TEST(StopServiceWithTimeout, AHintBeyondTheLimitIsSleptThroughOnce) {
    StandInServiceManager manager({kIsRunning, {SERVICE_STOP_PENDING, 1, 50000}});
    manager.stopAnswer = {SERVICE_STOP_PENDING, 1, 50000};
    EXPECT_FALSE(StopServiceWithTimeout(kName));
    EXPECT_EQ(manager.clock.Sleeps(), Sleeps{50000});
    EXPECT_EQ(manager.Messages(), Says(kStopTimeout));
}

TEST(StopServiceWithTimeout, WithoutAHintItAsksWithoutSleepingUntilTheLimit) {
    StandInServiceManager manager({kIsRunning});
    manager.stopAnswer = kIsRunning;
    manager.takes.emplace_back(L"QueryServiceStatusEx", 1000);
    EXPECT_FALSE(StopServiceWithTimeout(kName));
    // The first query is made before the request, the 31st is the first one that ends too late.
    EXPECT_EQ(manager.clock.Sleeps(), Sleeps(30, 0));
    EXPECT_EQ(manager.Calls(), kOpenedToStop + kQueried + kStopRequested +
                                   Times(30, Sleeping(0) + kQueried) + Says(kStopTimeout) +
                                   kClosed);
}

TEST(StopServiceWithTimeout, TicksMayStartAgainMeanwhile) {
    for (const DWORD start : {kLastTick, kLastTick - 1, kLastTick - 15000, kLastTick - 30000}) {
        {
            const StandInServiceManager manager({{SERVICE_STOP_PENDING, 1, 100000}}, start);
            EXPECT_FALSE(StopServiceWithTimeout(kName));
            EXPECT_EQ(manager.clock.Sleeps(), Sleeps(4, 10000)) << start;
        }
        StandInServiceManager manager({kIsRunning, {SERVICE_STOP_PENDING, 1, 10000}}, start);
        manager.stopAnswer = {SERVICE_STOP_PENDING, 1, 10000};
        EXPECT_FALSE(StopServiceWithTimeout(kName));
        EXPECT_EQ(manager.clock.Sleeps(), Sleeps(4, 10000)) << start;
    }
}

TEST(StopServiceWithTimeout, EveryCallThatFailsEndsItWithFalseAndClosesWhatIsOpen) {
    struct Failure {
        const wchar_t* function;
        int call;
        std::wstring calls;
    };
    const std::wstring pending = kQueried + Says(kStopPending) + Sleeping(1000);
    const std::vector<Failure> failures = {
        {L"OpenSCManagerW", 1, kOpenedManager + Says(kNoManager)},
        {L"OpenServiceW", 1, kOpenedToStop + kClosedManager},
        {L"QueryServiceStatusEx", 1, kOpenedToStop + kQueried + Says(kNoStatus) + kClosed},
        {L"QueryServiceStatusEx", 2,
         kOpenedToStop + pending + kQueried + Says(kNoStatus) + kClosed},
        {L"ControlService", 1,
         kOpenedToStop + pending + kQueried + kStopRequested + Says(kRefused) + kClosed},
        {L"QueryServiceStatusEx", 3,
         kOpenedToStop + pending + kQueried + kStopRequested + Sleeping(0) + kQueried +
             Says(kNoStatus) + kClosed},
    };
    for (const Failure& failure : failures) {
        StandInServiceManager manager(
            {{SERVICE_STOP_PENDING}, kIsRunning, {SERVICE_STOP_PENDING}, kIsStopped});
        // Not taken at its word when the request is refused.
        manager.stopAnswer = failure.function == std::wstring(L"ControlService")
                                 ? kIsStopped
                                 : Answer{SERVICE_STOP_PENDING};
        manager.failing = failure.function;
        manager.failingCall = failure.call;
        EXPECT_FALSE(StopServiceWithTimeout(kName));
        EXPECT_EQ(manager.Calls(), failure.calls);
    }
}

TEST(StopServiceWithTimeout, AHandleThatCannotBeClosedChangesNothing) {
    StandInServiceManager manager({kIsRunning});
    manager.stopAnswer = kIsStopped;
    manager.failing = L"CloseServiceHandle";
    EXPECT_TRUE(StopServiceWithTimeout(kName));
    EXPECT_EQ(manager.Calls(),
              kOpenedToStop + kQueried + kStopRequested + Says(kStopped) + kClosed);
}

TEST(StopServiceWithTimeout, RunningDependentsMakeTheRequestFailAndAreLeft) {
    StandInServiceManager manager({kIsRunning});
    manager.failing = L"ControlService";
    manager.error = ERROR_DEPENDENT_SERVICES_RUNNING;
    EXPECT_FALSE(StopServiceWithTimeout(kName));
    EXPECT_EQ(manager.Calls(),
              kOpenedToStop + kQueried + kStopRequested + Says(kRefused) + kClosed);
}

TEST(StartAgentService, EveryStateButStoppedAndStoppingIsTakenForRunning) {
    for (const DWORD state : kOtherStates) {
        const StandInServiceManager manager({{state, 1, 2000}});
        EXPECT_TRUE(StartAgentService());
        EXPECT_EQ(manager.Calls(), kOpenedToStart + kQueried + kClosed);
    }
}

TEST(StartAgentService, AServiceThatRunsAtOnceIsNotWaitedFor) {
    const StandInServiceManager manager({kIsStopped, kIsRunning});
    EXPECT_TRUE(StartAgentService());
    EXPECT_EQ(manager.Calls(),
              kOpenedToStart + kQueried + kStartRequested + kQueried + Says(kStarted) + kClosed);
}

TEST(StartAgentService, AServiceThatIsNotRunningInTheEndHasNotStarted) {
    for (const DWORD state : {SERVICE_STOPPED, SERVICE_STOP_PENDING, SERVICE_CONTINUE_PENDING,
                              SERVICE_PAUSE_PENDING, SERVICE_PAUSED}) {
        const StandInServiceManager atOnce({kIsStopped, {static_cast<DWORD>(state)}});
        EXPECT_FALSE(StartAgentService());
        EXPECT_EQ(atOnce.Calls(), kOpenedToStart + kQueried + kStartRequested + kQueried +
                                      Says(kNotStarted) + kClosed);
    }
    const StandInServiceManager later({kIsStopped, {SERVICE_START_PENDING, 1, 2000}, kIsStopped});
    EXPECT_FALSE(StartAgentService());
    EXPECT_EQ(later.Calls(), kOpenedToStart + kQueried + kStartRequested + kQueried +
                                 Sleeping(1000) + kQueried + Says(kNotStarted) + kClosed);
}

TEST(StartAgentService, SleepsForATenthOfTheHintWhileTheStartIsPending) {
    const std::pair<DWORD, DWORD> hintsAndSleeps[] = {
        {0, 1000}, {2000, 1000}, {10010, 1001}, {50000, 5000}, {100000, 10000}, {INFINITE, 10000}};
    for (const auto& [hint, sleep] : hintsAndSleeps) {
        const StandInServiceManager manager(
            {kIsStopped, {SERVICE_START_PENDING, 1, hint}, kIsRunning});
        EXPECT_TRUE(StartAgentService());
        EXPECT_EQ(manager.Calls(), kOpenedToStart + kQueried + kStartRequested + kQueried +
                                       Sleeping(sleep) + kQueried + Says(kStarted) + kClosed);
    }
}

TEST(StartAgentService, WithoutProgressAPendingStartHasTheTimeOfItsHint) {
    // The second sleep ends exactly when the hint does, the third one behind it.
    for (const DWORD checkpoint : {1U, 0U}) {
        const StandInServiceManager manager({kIsStopped,
                                             {SERVICE_START_PENDING, 1, 2000},
                                             {SERVICE_START_PENDING, checkpoint, 2000}});
        EXPECT_FALSE(StartAgentService());
        EXPECT_EQ(manager.Calls(), kOpenedToStart + kQueried + kStartRequested + kQueried +
                                       Times(3, Sleeping(1000) + kQueried) + Says(kNotStarted) +
                                       kClosed);
    }
    StandInServiceManager slow({kIsStopped, {SERVICE_START_PENDING, 1, 2000}});
    slow.clock.perLook = 1;
    EXPECT_FALSE(StartAgentService());
    EXPECT_EQ(slow.clock.Sleeps(), Sleeps(2, 1000));
}

TEST(StartAgentService, WithProgressAPendingStartHasAllTheTime) {
    Answers answers = {kIsStopped};
    for (DWORD checkpoint = 5; checkpoint < 55; ++checkpoint) {
        // As long as the hint lasts at each step.
        answers.insert(answers.end(), 2, {SERVICE_START_PENDING, checkpoint, 2000});
    }
    answers.push_back(kIsRunning);
    const StandInServiceManager manager(answers);
    EXPECT_TRUE(StartAgentService());
    EXPECT_EQ(manager.clock.Sleeps(), Sleeps(100, 1000));
    EXPECT_EQ(manager.Messages(), Says(kStarted));
}

TEST(StartAgentService, TheTimeOfTheHintStartsAgainWithTheLastProgress) {
    const StandInServiceManager manager({kIsStopped,
                                         {SERVICE_START_PENDING, 1, 2000},
                                         {SERVICE_START_PENDING, 1, 2000},
                                         {SERVICE_START_PENDING, 2, 2000},
                                         {SERVICE_START_PENDING, 2, 2000}});
    EXPECT_FALSE(StartAgentService());
    EXPECT_EQ(manager.clock.Sleeps(), Sleeps(5, 1000));
}

TEST(StartAgentService, ComparesWithTheHintOfTheLastAnswer) {
    const StandInServiceManager shorter(
        {kIsStopped, {SERVICE_START_PENDING, 1, 20000}, {SERVICE_START_PENDING, 1, 1999}});
    EXPECT_FALSE(StartAgentService());
    EXPECT_EQ(shorter.clock.Sleeps(), Sleeps{2000});
}

TEST(StartAgentService, WhatTheRequestTakesIsNotTakenFromTheHint) {
    StandInServiceManager manager({kIsStopped,
                                   {SERVICE_START_PENDING, 1, 2000},
                                   {SERVICE_START_PENDING, 1, 2000},
                                   kIsRunning});
    // Nor is what the query behind it takes: with that one the first sleep would outlast the hint.
    manager.takes = {{L"StartServiceW", 60000}, {L"QueryServiceStatusEx", 600}};
    EXPECT_TRUE(StartAgentService());
    EXPECT_EQ(manager.clock.Sleeps(), Sleeps(2, 1000));
}

TEST(StartAgentService, AQueryThatFailsWhileTheStartIsPendingIsReportedBesideItsOutcome) {
    StandInServiceManager manager({kIsStopped, {SERVICE_START_PENDING, 1, 2000}});
    manager.failing = L"QueryServiceStatusEx";
    manager.failingCall = 3;
    EXPECT_FALSE(StartAgentService());
    EXPECT_EQ(manager.Calls(), kOpenedToStart + kQueried + kStartRequested + kQueried +
                                   Sleeping(1000) + kQueried + Says(kNoStatus) + Says(kNotStarted) +
                                   kClosed);
}

TEST(StartAgentService, AServiceThatIsStoppingIsStartedWhenItHasStopped) {
    // A stopped service that still gives a hint, and one whose last step shows.
    for (const Answer& stopped :
         {Answer{SERVICE_STOPPED, 0, 1000}, Answer{SERVICE_STOPPED, 2, 0}}) {
        const StandInServiceManager manager({{SERVICE_STOP_PENDING, 1, 0}, stopped, kIsRunning});
        EXPECT_TRUE(StartAgentService());
        EXPECT_EQ(manager.Calls(), kOpenedToStart + kQueried + Sleeping(1000) + kQueried +
                                       kStartRequested + kQueried + Says(kStarted) + kClosed);
    }
}

TEST(StartAgentService, AServiceThatIsStoppingHasTheTimeOfItsHintForEachSleep) {
    // Ten times the hint in all, without any progress.
    Answers answers(20, {SERVICE_STOP_PENDING, 1, 1000});
    answers.push_back({SERVICE_STOPPED, 0, 1000});
    answers.push_back(kIsRunning);
    const StandInServiceManager manager(answers);
    EXPECT_TRUE(StartAgentService());
    EXPECT_EQ(manager.clock.Sleeps(), Sleeps(20, 1000));
    EXPECT_EQ(manager.Messages(), Says(kStarted));
}

TEST(StartAgentService, AServiceThatIsStoppingIsNotStartedWhenASleepOutlastsItsHint) {
    // The hint counts that the service gives after the sleep: none as a rule once it has stopped.
    for (const Answer& after :
         {Answer{SERVICE_STOP_PENDING, 1, 999}, Answer{SERVICE_STOP_PENDING, 0, 999},
          Answer{SERVICE_STOP_PENDING, 1, 0}, Answer{SERVICE_STOPPED, 0, 0},
          Answer{SERVICE_RUNNING, 0, 0}}) {
        const StandInServiceManager manager({{SERVICE_STOP_PENDING, 1, 2000}, after});
        EXPECT_FALSE(StartAgentService());
        EXPECT_EQ(manager.Calls(), kOpenedToStart + kQueried + Sleeping(1000) + kQueried +
                                       Says(kStopTimeout) + kClosed);
    }
    // What the query takes belongs to the sleep before it, what the opening takes does not.
    StandInServiceManager slow({{SERVICE_STOP_PENDING, 1, 2000}});
    slow.takes.emplace_back(L"OpenServiceW", 60000);
    slow.takes.emplace_back(L"QueryServiceStatusEx", 1001);
    EXPECT_FALSE(StartAgentService());
    EXPECT_EQ(slow.clock.Sleeps(), Sleeps{1000});
    EXPECT_EQ(slow.Messages(), Says(kStopTimeout));
}

TEST(StartAgentService, AServiceThatIsStoppingIsAskedEveryTenSecondsAtLeast) {
    const StandInServiceManager manager(
        {{SERVICE_STOP_PENDING, 1, 200000}, {SERVICE_STOPPED, 0, 200000}, kIsRunning});
    EXPECT_TRUE(StartAgentService());
    EXPECT_EQ(manager.clock.Sleeps(), Sleeps{10000});
}

TEST(StartAgentService, ProgressOutweighsAHintThatIsOver) {
    const StandInServiceManager manager({{SERVICE_STOP_PENDING, 1, 0},
                                         {SERVICE_STOP_PENDING, 2, 0},
                                         {SERVICE_STOP_PENDING, 3, 50000},
                                         {SERVICE_STOP_PENDING, 3, 0}});
    EXPECT_FALSE(StartAgentService());
    EXPECT_EQ(manager.clock.Sleeps(), (Sleeps{1000, 1000, 5000}));
    EXPECT_EQ(manager.Messages(), Says(kStopTimeout));
}

TEST(StartAgentService, AServiceThatRunsAfterAPendingStopIsStartedAllTheSame) {
    StandInServiceManager manager({{SERVICE_STOP_PENDING, 1, 2000}, {SERVICE_RUNNING, 0, 2000}});
    manager.failing = L"StartServiceW";
    manager.error = ERROR_SERVICE_ALREADY_RUNNING;
    EXPECT_FALSE(StartAgentService());
    EXPECT_EQ(manager.Calls(),
              kOpenedToStart + kQueried + Sleeping(1000) + kQueried + kStartRequested +
                  Says(L"Unable to start service and Error code is 1056") + kClosed);
}

TEST(StartAgentService, TicksMayStartAgainMeanwhile) {
    for (const DWORD start : {kLastTick, kLastTick - 999, kLastTick - 1000, kLastTick - 1999}) {
        {
            const StandInServiceManager manager({kIsStopped, {SERVICE_START_PENDING, 1, 2000}},
                                                start);
            EXPECT_FALSE(StartAgentService());
            EXPECT_EQ(manager.clock.Sleeps(), Sleeps(3, 1000)) << start;
        }
        const StandInServiceManager manager({{SERVICE_STOP_PENDING, 1, 1000},
                                             {SERVICE_STOP_PENDING, 1, 1000},
                                             {SERVICE_STOP_PENDING, 1, 999}},
                                            start);
        EXPECT_FALSE(StartAgentService());
        EXPECT_EQ(manager.clock.Sleeps(), Sleeps(2, 1000)) << start;
    }
}

TEST(StartAgentService, EveryCallThatFailsEndsItWithFalseAndClosesWhatIsOpen) {
    struct Failure {
        const wchar_t* function;
        int call;
        std::wstring calls;
    };
    const std::wstring stopped = kOpenedToStart + kQueried + Sleeping(1000) + kQueried;
    const std::vector<Failure> failures = {
        {L"OpenSCManagerW", 1, kOpenedManager + Says(kNoManager)},
        {L"OpenServiceW", 1, kOpenedToStart + kClosedManager},
        {L"QueryServiceStatusEx", 1, kOpenedToStart + kQueried + Says(kNoStatus) + kClosed},
        {L"QueryServiceStatusEx", 2, stopped + Says(kNoStatus) + kClosed},
        {L"StartServiceW", 1,
         stopped + kStartRequested + Says(L"Unable to start service and Error code is 5") +
             kClosed},
        {L"QueryServiceStatusEx", 3,
         stopped + kStartRequested + kQueried + Says(kNoStatus) + kClosed},
    };
    for (const Failure& failure : failures) {
        StandInServiceManager manager({{SERVICE_STOP_PENDING, 1, 2000},
                                       {SERVICE_STOPPED, 0, 2000},
                                       {SERVICE_START_PENDING, 1, 2000},
                                       kIsRunning});
        manager.failing = failure.function;
        manager.failingCall = failure.call;
        EXPECT_FALSE(StartAgentService());
        EXPECT_EQ(manager.Calls(), failure.calls);
    }
}

TEST(StartAgentService, TellsTheCodeOfAStartThatIsRefusedAsASignedNumber) {
    for (const auto& [code, text] : {std::pair<DWORD, std::wstring>{ERROR_SUCCESS, L"0"},
                                     {ERROR_SERVICE_DISABLED, L"1058"},
                                     {ERROR_SERVICE_MARKED_FOR_DELETE, L"1072"},
                                     {0x7FFFFFFF, L"2147483647"},
                                     {0x80000000, L"-2147483648"}}) {
        StandInServiceManager manager({kIsStopped});
        manager.failing = L"StartServiceW";
        manager.error = code;
        EXPECT_FALSE(StartAgentService());
        EXPECT_EQ(manager.Messages(), Says(L"Unable to start service and Error code is " + text));
    }
}

TEST(StartAgentService, AHandleThatCannotBeClosedChangesNothing) {
    StandInServiceManager manager({kIsStopped, kIsRunning});
    manager.failing = L"CloseServiceHandle";
    EXPECT_TRUE(StartAgentService());
    EXPECT_EQ(manager.Calls(),
              kOpenedToStart + kQueried + kStartRequested + kQueried + Says(kStarted) + kClosed);
}

namespace {

// A folder of the tests with the service's program where an agent would be whose install manager
// lies in "Manager".
class AgentFolder {
public:
    AgentFolder() {
        halvard_tests::CreateFolders(scratch_.File(L"Manager"));
        halvard_tests::CreateFolders(scratch_.File(L"Usage Profile Agent"));
        halvard_tests::CopyTestService(Program());
    }
    ~AgentFolder() {
        // A service that ends by itself holds its program for a moment longer.
        for (int time = 0; time < 1000 && DeleteFileW(Program().c_str()) == FALSE; ++time) {
            Sleep(10);
        }
    }
    AgentFolder(const AgentFolder&) = delete;
    AgentFolder& operator=(const AgentFolder&) = delete;

    std::wstring Manager() const { return scratch_.File(L"Manager"); }
    std::wstring Program() const { return scratch_.File(L"Usage Profile Agent\\TeloDU.exe"); }

private:
    ScratchFolder scratch_;
};

class AgentServiceTest : public testing::Test {
protected:
    AgentFolder folder_;
};

using StopServiceWithTimeoutTest = AgentServiceTest;
using StartAgentServiceTest = AgentServiceTest;
using CreateAgentServiceTest = AgentServiceTest;

} // namespace

TEST_F(StopServiceWithTimeoutTest, ARealServiceThatIsStopped) {
    const InstalledService service(kName, folder_.Program());
    const Messages messages;
    const OpenServiceHandles handles;
    EXPECT_TRUE(StopServiceWithTimeout(kName));
    EXPECT_EQ(handles.Count(), 0);
    EXPECT_EQ(messages.Get(), Says(kAlreadyStopped));
}

TEST_F(StopServiceWithTimeoutTest, ARealServiceThatIsNotThere) {
    const ServiceScope service(kName);
    const Messages messages;
    const OpenServiceHandles handles;
    EXPECT_FALSE(StopServiceWithTimeout(kName));
    EXPECT_FALSE(StopServiceWithTimeout(L""));
    EXPECT_EQ(handles.Count(), 0);
    EXPECT_EQ(messages.Get(), std::wstring());
}

TEST_F(StopServiceWithTimeoutTest, ARealServiceThatRuns) {
    InstalledService service(kName, folder_.Program());
    service.Start();
    const Messages messages;
    const OpenServiceHandles handles;
    EXPECT_TRUE(StopServiceWithTimeout(kName));
    EXPECT_EQ(handles.Count(), 0);
    EXPECT_EQ(messages.Get(), Says(kStopped));
    EXPECT_EQ(service.State(), static_cast<DWORD>(SERVICE_STOPPED));
    EXPECT_TRUE(service.WaitForProcess());
}

TEST_F(StopServiceWithTimeoutTest, ARealServiceThatTakesItsTimeToStop) {
    // In real time: the hint is slept through as often as it takes.
    ServiceBehavior behavior;
    behavior.stopPending = 300;
    behavior.waitHint = 100;
    InstalledService service(kName, folder_.Program(), behavior);
    service.Start();
    const Messages messages;
    const ULONGLONG start = GetTickCount64();
    EXPECT_TRUE(StopServiceWithTimeout(kName));
    EXPECT_GE(GetTickCount64() - start, 280U);
    EXPECT_EQ(messages.Get(), Says(kStopped));
    EXPECT_EQ(service.State(), static_cast<DWORD>(SERVICE_STOPPED));
}

TEST_F(StopServiceWithTimeoutTest, ARealServiceThatIsStoppingAlready) {
    // In real time: the shortest sleep there is.
    ServiceBehavior behavior;
    behavior.stopPending = INFINITE;
    InstalledService service(kName, folder_.Program(), behavior);
    service.Start();
    service.RequestStop();
    const Messages messages;
    const ChangeDuringSleep change(service);
    const ULONGLONG start = GetTickCount64();
    EXPECT_TRUE(StopServiceWithTimeout(kName));
    EXPECT_GE(GetTickCount64() - start, 980U);
    EXPECT_EQ(change.Get(), Sleeps{1000});
    EXPECT_EQ(messages.Get(), Says(kStopPending) + Says(kStopped));
}

TEST_F(StopServiceWithTimeoutTest, ARealServiceWhoseStopIsPendingWithSomeHint) {
    for (const auto& [hint, sleep, sleepsInAll] :
         {std::tuple<DWORD, DWORD, std::size_t>{0, 1000, 31}, {2000, 1000, 31}, {50000, 5000, 7}}) {
        ServiceBehavior behavior;
        behavior.stopPending = INFINITE;
        behavior.waitHint = hint;
        InstalledService service(kName, folder_.Program(), behavior);
        service.Start();
        service.RequestStop();
        {
            const Messages messages;
            const StandInClock clock;
            EXPECT_FALSE(StopServiceWithTimeout(kName));
            EXPECT_EQ(clock.Sleeps(), Sleeps(sleepsInAll, sleep));
            EXPECT_EQ(messages.Get(),
                      Times(sleepsInAll, Says(kStopPending)) + Says(kPendingTimeout));
            EXPECT_EQ(service.State(), static_cast<DWORD>(SERVICE_STOP_PENDING));
        }
        const Messages messages;
        StandInClock clock;
        clock.afterSleep = [&] {
            if (clock.Sleeps().size() == 3) {
                service.Proceed();
                service.WaitForState(SERVICE_STOPPED);
            }
        };
        EXPECT_TRUE(StopServiceWithTimeout(kName));
        EXPECT_EQ(clock.Sleeps(), Sleeps(3, sleep));
        EXPECT_EQ(messages.Get(), Times(3, Says(kStopPending)) + Says(kStopped));
    }
}

TEST_F(StopServiceWithTimeoutTest, ARealServiceThatIsAskedToStopSleepsWithItsHint) {
    for (const auto& [hint, sleeps] :
         {std::pair<DWORD, Sleeps>{2000, Sleeps(16, 2000)}, {50000, Sleeps(1, 50000)}}) {
        ServiceBehavior behavior;
        behavior.stopPending = INFINITE;
        behavior.waitHint = hint;
        InstalledService service(kName, folder_.Program(), behavior);
        service.Start();
        const Messages messages;
        const StandInClock clock;
        EXPECT_FALSE(StopServiceWithTimeout(kName));
        EXPECT_EQ(clock.Sleeps(), sleeps);
        EXPECT_EQ(messages.Get(), Says(kStopTimeout));
    }
}

TEST_F(StopServiceWithTimeoutTest, ARealServiceThatIgnoresTheStop) {
    ServiceBehavior behavior;
    behavior.stopIgnored = true;
    InstalledService service(kName, folder_.Program(), behavior);
    service.Start();
    const Messages messages;
    const OpenServiceHandles handles;
    StandInClock clock;
    clock.perLook = 3000;
    EXPECT_FALSE(StopServiceWithTimeout(kName));
    EXPECT_EQ(handles.Count(), 0);
    EXPECT_EQ(clock.Sleeps(), Sleeps(11, 0));
    EXPECT_EQ(messages.Get(), Says(kStopTimeout));
    EXPECT_EQ(service.State(), static_cast<DWORD>(SERVICE_RUNNING));
}

TEST_F(StopServiceWithTimeoutTest, NothingButItsMessagesIsSaid) {
    const halvard_tests::StandInSession session;
    const halvard_tests::CurrentSessionScope current(session.Get());
    InstalledService service(kName, folder_.Program());
    service.Start();
    EXPECT_EQ(halvard_tests::StandardOutputOf([] {
                  EXPECT_TRUE(StopServiceWithTimeout(kName));
                  EXPECT_TRUE(StopServiceWithTimeout(kName));
                  EXPECT_FALSE(StopServiceWithTimeout(L"HalvardNoService"));
                  FAIL_CALL(opening, OpenSCManagerW, 0, nullptr, ERROR_ACCESS_DENIED);
                  EXPECT_FALSE(StopServiceWithTimeout(kName));
                  EXPECT_FALSE(StartAgentService());
                  EXPECT_EQ(opening.Calls(), 2);
              }),
              "");
    EXPECT_EQ(session.LogLines(), std::vector<std::wstring>{});
}

TEST_F(StopServiceWithTimeoutTest, ARealServiceThatIsDeletedMeanwhile) {
    for (const bool stopping : {false, true}) {
        ServiceBehavior behavior;
        behavior.stopPending = INFINITE;
        InstalledService service(kName, folder_.Program(), behavior);
        service.Start();
        if (stopping) {
            service.RequestStop();
        }
        const Messages messages;
        const OpenServiceHandles handles;
        StandInClock clock;
        clock.perLook = 1000;
        clock.afterSleep = [&] {
            if (clock.Sleeps().size() == 2) {
                service.Delete();
                service.Proceed();
                EXPECT_TRUE(service.WaitForProcess());
            }
        };
        EXPECT_TRUE(StopServiceWithTimeout(kName));
        EXPECT_EQ(clock.Sleeps().size(), 2U);
        EXPECT_EQ(handles.Count(), 0);
        EXPECT_EQ(messages.Get(), Times(stopping ? 2 : 0, Says(kStopPending)) + Says(kStopped));
        EXPECT_TRUE(service.WaitUntilGone());
    }
}

TEST_F(StopServiceWithTimeoutTest, ARealServiceThatIsDeletedAndWhoseProcessEndsMeanwhile) {
    // The engine keeps the state of a deleted service whose process is gone, so that the time runs
    // out. On Windows it counts as stopped.
    for (const bool stopping : {false, true}) {
        ServiceBehavior behavior;
        behavior.stopPending = INFINITE;
        behavior.waitHint = 10000;
        InstalledService service(kName, folder_.Program(), behavior);
        service.Start();
        if (stopping) {
            service.RequestStop();
        }
        const Messages messages;
        const OpenServiceHandles handles;
        StandInClock clock;
        clock.afterSleep = [&] {
            if (clock.Sleeps().size() == 2) {
                service.Delete();
                service.EndProcess();
            }
        };
        EXPECT_FALSE(StopServiceWithTimeout(kName));
        EXPECT_EQ(clock.Sleeps(), stopping ? Sleeps(31, 1000) : Sleeps(4, 10000));
        EXPECT_EQ(handles.Count(), 0);
        EXPECT_EQ(messages.Get(), stopping ? Times(31, Says(kStopPending)) + Says(kPendingTimeout)
                                           : Says(kStopTimeout));
    }
}

TEST_F(StopServiceWithTimeoutTest, ItsMessagesReachTheDebugger) {
    InstalledService service(kName, folder_.Program());
    service.Start();
    const std::vector<std::string> texts = halvard_tests::DebuggerOutputOf([] {
        StopServiceWithTimeout(kName);
        StopServiceWithTimeout(kName);
    });
    EXPECT_EQ(texts, (std::vector<std::string>{"Service stopped successfully.\n",
                                               "Service is already stopped.\n"}));
}

TEST_F(StartAgentServiceTest, ARealServiceThatIsNotThere) {
    const ServiceScope service(kAgent);
    const Messages messages;
    const OpenServiceHandles handles;
    EXPECT_FALSE(StartAgentService());
    EXPECT_EQ(handles.Count(), 0);
    EXPECT_EQ(messages.Get(), std::wstring());
}

TEST_F(StartAgentServiceTest, ARealServiceThatIsStopped) {
    const InstalledService service(kAgent, folder_.Program());
    const Messages messages;
    const OpenServiceHandles handles;
    StandInClock clock;
    // Whether it runs at the first look or at the second one.
    clock.afterSleep = [&] {
        service.WaitForState(SERVICE_RUNNING);
    };
    EXPECT_TRUE(StartAgentService());
    EXPECT_EQ(handles.Count(), 0);
    EXPECT_EQ(messages.Get(), Says(kStarted));
    EXPECT_EQ(service.State(), static_cast<DWORD>(SERVICE_RUNNING));
}

TEST_F(StartAgentServiceTest, ARealServiceThatRuns) {
    InstalledService service(kAgent, folder_.Program());
    service.Start();
    const DWORD process = service.Status().dwProcessId;
    const Messages messages;
    const OpenServiceHandles handles;
    COUNT_CALLS(starting, StartServiceW);
    EXPECT_TRUE(StartAgentService());
    EXPECT_EQ(starting.Calls(), 0);
    EXPECT_EQ(handles.Count(), 0);
    EXPECT_EQ(messages.Get(), std::wstring());
    EXPECT_EQ(service.Status().dwProcessId, process);
}

TEST_F(StartAgentServiceTest, ARealServiceThatIsStoppingAndGivesNoHintInTheEnd) {
    // In real time.
    ServiceBehavior behavior;
    behavior.stopPending = INFINITE;
    behavior.waitHint = 5000;
    InstalledService service(kAgent, folder_.Program(), behavior);
    service.Start();
    service.RequestStop();
    const Messages messages;
    const ChangeDuringSleep change(service);
    const ULONGLONG start = GetTickCount64();
    EXPECT_FALSE(StartAgentService());
    EXPECT_GE(GetTickCount64() - start, 980U);
    EXPECT_EQ(change.Get(), Sleeps{1000});
    EXPECT_EQ(messages.Get(), Says(kStopTimeout));
    EXPECT_EQ(service.State(), static_cast<DWORD>(SERVICE_STOPPED));
}

TEST_F(StartAgentServiceTest, ARealServiceThatIsStoppingAndGivesAHintInTheEnd) {
    ServiceBehavior behavior;
    behavior.stopPending = INFINITE;
    behavior.waitHint = 2000;
    behavior.stoppedWaitHint = 2000;
    InstalledService service(kAgent, folder_.Program(), behavior);
    service.Start();
    service.RequestStop();
    const Messages messages;
    const OpenServiceHandles handles;
    StandInClock clock;
    clock.afterSleep = [&] {
        if (clock.Sleeps().size() == 3) {
            service.Proceed();
            service.WaitForState(SERVICE_STOPPED);
        } else if (clock.Sleeps().size() > 3) {
            service.WaitForState(SERVICE_RUNNING);
        }
    };
    EXPECT_TRUE(StartAgentService());
    EXPECT_EQ(handles.Count(), 0);
    EXPECT_EQ(messages.Get(), Says(kStarted));
    EXPECT_EQ(service.State(), static_cast<DWORD>(SERVICE_RUNNING));
}

TEST_F(StartAgentServiceTest, ARealServiceThatTakesItsTimeToStart) {
    // In real time.
    ServiceBehavior behavior;
    behavior.startPending = INFINITE;
    behavior.waitHint = 5000;
    const InstalledService service(kAgent, folder_.Program(), behavior);
    const Messages messages;
    const ChangeDuringSleep change(service);
    const ULONGLONG start = GetTickCount64();
    EXPECT_TRUE(StartAgentService());
    EXPECT_GE(GetTickCount64() - start, 980U);
    EXPECT_EQ(change.Get(), Sleeps{1000});
    EXPECT_EQ(messages.Get(), Says(kStarted));
}

TEST_F(StartAgentServiceTest, ARealServiceThatStartsWithProgress) {
    ServiceBehavior behavior;
    behavior.startPending = INFINITE;
    // Shorter than any sleep: nothing but progress makes up for it.
    behavior.waitHint = 500;
    behavior.checkpointInterval = 5;
    const InstalledService service(kAgent, folder_.Program(), behavior);
    const Messages messages;
    StandInClock clock;
    clock.afterSleep = [&] {
        if (clock.Sleeps().size() < 5) {
            service.WaitForProgress(service.Status().dwCheckPoint);
        } else {
            service.Proceed();
            service.WaitForState(SERVICE_RUNNING);
        }
    };
    EXPECT_TRUE(StartAgentService());
    EXPECT_EQ(clock.Sleeps(), Sleeps(5, 1000));
    EXPECT_EQ(messages.Get(), Says(kStarted));
}

TEST_F(StartAgentServiceTest, ARealServiceThatStartsWithoutProgress) {
    ServiceBehavior behavior;
    behavior.startPending = INFINITE;
    behavior.waitHint = 2000;
    const InstalledService service(kAgent, folder_.Program(), behavior);
    const Messages messages;
    const OpenServiceHandles handles;
    StandInClock clock;
    // What it gives before its own first report is the service manager's.
    clock.afterSleep = [&] {
        service.WaitForProgress(0);
    };
    EXPECT_FALSE(StartAgentService());
    EXPECT_EQ(handles.Count(), 0);
    EXPECT_GE(clock.Sleeps().size(), 3U);
    EXPECT_LE(clock.Sleeps().size(), 4U);
    EXPECT_EQ(messages.Get(), Says(kNotStarted));
    EXPECT_EQ(service.State(), static_cast<DWORD>(SERVICE_START_PENDING));
}

TEST_F(StartAgentServiceTest, ARealServiceThatRefusesToStart) {
    ServiceBehavior behavior;
    behavior.startFailure = ERROR_ACCESS_DENIED;
    const InstalledService service(kAgent, folder_.Program(), behavior);
    const Messages messages;
    StandInClock clock;
    clock.afterSleep = [&] {
        service.WaitForState(SERVICE_STOPPED);
    };
    EXPECT_FALSE(StartAgentService());
    EXPECT_EQ(messages.Get(), Says(kNotStarted));
    EXPECT_EQ(service.State(), static_cast<DWORD>(SERVICE_STOPPED));
}

TEST_F(StartAgentServiceTest, ARealServiceWhoseProcessEndsWhileItStarts) {
    // Whether its state is kept or counts as stopped, it has not started.
    ServiceBehavior behavior;
    behavior.startPending = INFINITE;
    behavior.waitHint = 2000;
    const InstalledService service(kAgent, folder_.Program(), behavior);
    const Messages messages;
    const OpenServiceHandles handles;
    StandInClock clock;
    clock.afterSleep = [&] {
        service.EndProcess();
    };
    EXPECT_FALSE(StartAgentService());
    EXPECT_EQ(handles.Count(), 0);
    EXPECT_EQ(messages.Get(), Says(kNotStarted));
}

TEST_F(StartAgentServiceTest, ARealServiceWithoutAProgram) {
    const InstalledService service(kAgent, folder_.Manager() + L"\\missing.exe");
    const Messages messages;
    const OpenServiceHandles handles;
    EXPECT_FALSE(StartAgentService());
    EXPECT_EQ(handles.Count(), 0);
    EXPECT_EQ(messages.Get(), Says(L"Unable to start service and Error code is 2"));
}

TEST_F(StartAgentServiceTest, ItsMessagesReachTheDebugger) {
    const InstalledService service(kAgent, folder_.Manager() + L"\\missing.exe");
    EXPECT_EQ(halvard_tests::DebuggerOutputOf([] { StartAgentService(); }),
              std::vector<std::string>{"Unable to start service and Error code is 2"});
}

namespace {

std::wstring PathIn(const std::wstring& installDir) {
    return L"\"" + installDir + L"\\..\\Usage Profile Agent\\TeloDU.exe\"";
}

// What the service manager knows of a service.
struct Configuration {
    DWORD type = 0;
    DWORD start = 0;
    DWORD errorControl = 0;
    DWORD tag = 0;
    std::wstring path;
    std::wstring group;
    std::wstring dependencies;
    std::wstring account;
    std::wstring displayName;
};

bool operator==(const Configuration& left, const Configuration& right) {
    const auto all = [](const Configuration& each) {
        return std::tie(each.type, each.start, each.errorControl, each.tag, each.path, each.group,
                        each.dependencies, each.account, each.displayName);
    };
    return all(left) == all(right);
}

Configuration ConfigurationOf(const wchar_t* name) {
    BYTE buffer[8192] = {};
    DWORD needed = 0;
    SC_HANDLE manager = OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT);
    SC_HANDLE service = OpenServiceW(manager, name, SERVICE_QUERY_CONFIG);
    const auto* const config = reinterpret_cast<const QUERY_SERVICE_CONFIGW*>(buffer);
    EXPECT_NE(QueryServiceConfigW(service, reinterpret_cast<QUERY_SERVICE_CONFIGW*>(buffer),
                                  sizeof(buffer), &needed),
              FALSE);
    CloseServiceHandle(service);
    CloseServiceHandle(manager);
    const auto text = [](LPCWSTR value) {
        return value == nullptr ? std::wstring() : value;
    };
    return {config->dwServiceType,          config->dwStartType,
            config->dwErrorControl,         config->dwTagId,
            text(config->lpBinaryPathName), text(config->lpLoadOrderGroup),
            text(config->lpDependencies),   text(config->lpServiceStartName),
            text(config->lpDisplayName)};
}

// The first handle of the service manager that is opened, closed at the end: it is left open.
class LeftManager {
public:
    LeftManager() = default;
    ~LeftManager() { CloseServiceHandle(manager_); }
    LeftManager(const LeftManager&) = delete;
    LeftManager& operator=(const LeftManager&) = delete;

    SC_HANDLE Get() const { return manager_; }

private:
    SC_HANDLE manager_ = nullptr;
    HOOK(opening_, OpenSCManagerW, [this](LPCWSTR machine, LPCWSTR database, DWORD access) {
        SC_HANDLE opened = opening_.Original(machine, database, access);
        manager_ = manager_ == nullptr ? opened : manager_;
        return opened;
    });
};

// The path of the service that is created while "InstallDir" is as a test has set it.
std::wstring CreatedPath() {
    std::wstring path;
    HOOK(creating, CreateServiceW,
         [&](SC_HANDLE, LPCWSTR, LPCWSTR, DWORD, DWORD, DWORD, DWORD, LPCWSTR given, LPCWSTR,
             LPDWORD, LPCWSTR, LPCWSTR, LPCWSTR) -> SC_HANDLE {
             path = given;
             return nullptr;
         });
    const LeftManager manager;
    CreateAgentService();
    EXPECT_EQ(creating.Calls(), 1);
    return path;
}

const std::wstring kCreated = L"CreateServiceW manager TeloLauncher, "
                              L"Zenvo User Experience Program Data Uploader, "
                              L"0xf01ff 0x110 2 1, " +
                              PathIn(L"C:\\Zenvo\\MIM") + L", (null) null (null) (null) (null)\n";
const std::wstring kDelayed = L"ChangeServiceConfig2W service 3 1\n";

struct InstallManager {
    InstallManager() { key.SetString(L"InstallDir", L"C:\\Zenvo\\MIM"); }

    ScratchKey key{kInstallManagerKey};
};

} // namespace

TEST(CreateAgentService, MakesItsCallsInThisOrderAndLeavesTheManagerOpen) {
    const InstallManager installed;
    const StandInServiceManager manager;
    EXPECT_EQ(halvard_tests::StandardOutputOf([] { CreateAgentService(); }), "");
    EXPECT_EQ(manager.Calls(), kOpenedManager + kCreated + kDelayed + kClosedService);
}

TEST(CreateAgentService, AManagerThatCannotBeOpenedIsReportedOnStandardOutput) {
    const InstallManager installed;
    StandInServiceManager manager;
    manager.failing = L"OpenSCManagerW";
    // With the end of line that the run-time's text streams write.
    EXPECT_EQ(halvard_tests::StandardOutputOf([] { CreateAgentService(); }),
              "Error: Failed to open SCM.\r\n");
    EXPECT_EQ(manager.Calls(), kOpenedManager);
}

TEST(CreateAgentService, AServiceThatCannotBeCreatedIsLeftAndNotReported) {
    const InstallManager installed;
    for (const DWORD code : {ERROR_SERVICE_EXISTS, ERROR_SERVICE_MARKED_FOR_DELETE,
                             ERROR_DUPLICATE_SERVICE_NAME, ERROR_ACCESS_DENIED}) {
        StandInServiceManager manager;
        manager.failing = L"CreateServiceW";
        manager.error = code;
        EXPECT_EQ(halvard_tests::StandardOutputOf([] { CreateAgentService(); }), "");
        EXPECT_EQ(manager.Calls(), kOpenedManager + kCreated);
    }
}

TEST(CreateAgentService, AStartThatCannotBeDelayedChangesNothing) {
    const InstallManager installed;
    StandInServiceManager manager;
    manager.failing = L"ChangeServiceConfig2W";
    EXPECT_EQ(halvard_tests::StandardOutputOf([] { CreateAgentService(); }), "");
    EXPECT_EQ(manager.Calls(), kOpenedManager + kCreated + kDelayed + kClosedService);
}

TEST(CreateAgentService, ReadsTheInstallManagersFolderInThe64BitView) {
    const InstallManager installed;
    const StandInServiceManager manager;
    const CallTrace registry(kRegistry);
    CreateAgentService();
    const std::wstring key = std::wstring(L"HKLM\\") + kInstallManagerKey;
    EXPECT_EQ(registry.All(), (std::vector<std::wstring>{L"open " + key + L" 0x20119",
                                                         L"query " + key + L" InstallDir 260 bytes",
                                                         L"close " + key}));
}

TEST(CreateAgentService, AFolderThatCannotBeReadIsEmpty) {
    const InstallManager installed;
    for (const std::size_t failing : {1U, 2U}) {
        for (const LSTATUS code : {ERROR_ACCESS_DENIED, ERROR_MORE_DATA, ERROR_KEY_DELETED}) {
            const CallTrace registry(kRegistry, failing, code);
            EXPECT_EQ(CreatedPath(), PathIn(L""));
            EXPECT_EQ(registry.Count(), failing);
        }
    }
}

TEST(CreateAgentService, WhatAReadThatFailsLeavesBehindDoesNotCount) {
    const InstallManager installed;
    HOOK(reading, RegQueryValueExW,
         [](HKEY, LPCWSTR, LPDWORD, LPDWORD, LPBYTE data, LPDWORD) -> LSTATUS {
             std::fill(data, data + 260, static_cast<BYTE>('x'));
             return ERROR_MORE_DATA;
         });
    EXPECT_EQ(CreatedPath(), PathIn(L""));
    EXPECT_EQ(reading.Calls(), 1);
}

TEST(CreateAgentService, AMissingKeyOrValueIsAnEmptyFolder) {
    EXPECT_EQ(CreatedPath(), PathIn(L""));
    const ScratchKey key(kInstallManagerKey);
    key.SetString(L"InstallLocation", L"C:\\Zenvo");
    EXPECT_EQ(CreatedPath(), PathIn(L""));
}

TEST(CreateAgentService, TheFolderOfThe32BitViewDoesNotCount) {
    const ScratchKey other(L"SOFTWARE\\Wow6432Node\\Microsoft\\Windows\\CurrentVersion\\"
                           L"Uninstall\\Zenvo Meridian Install Manager");
    other.SetString(L"InstallDir", L"C:\\Other");
    EXPECT_EQ(CreatedPath(), PathIn(L""));
}

TEST(CreateAgentService, AFolderHasAtMost260BytesWithItsTerminator) {
    const ScratchKey key(kInstallManagerKey);
    for (const std::size_t length : {0U, 1U, 128U, 129U}) {
        const std::wstring directory(length, L'd');
        key.SetString(L"InstallDir", directory);
        EXPECT_EQ(CreatedPath(), PathIn(directory)) << length;
    }
    for (const std::size_t length : {130U, 131U, 259U, 1024U, 5000U}) {
        key.SetString(L"InstallDir", std::wstring(length, L'd'));
        EXPECT_EQ(CreatedPath(), PathIn(L"")) << length;
    }
}

TEST(CreateAgentService, AFolderStoredWithoutATerminatorEndsWhereTheValueDoes) {
    const ScratchKey key(kInstallManagerKey);
    // Longer than what is stored of it: the system takes in a terminator that comes next.
    const std::wstring text(200, L'd');
    const auto store = [&](DWORD bytes) {
        RegSetValueExW(key.Get(), L"InstallDir", 0, REG_SZ,
                       reinterpret_cast<const BYTE*>(text.data()), bytes);
        EXPECT_EQ(key.Read(L"InstallDir").bytes.size(), bytes);
    };
    for (const DWORD length : {1U, 129U, 130U}) {
        store(2 * length);
        EXPECT_EQ(CreatedPath(), PathIn(text.substr(0, length))) << length;
    }
    for (const DWORD length : {131U, 140U}) {
        store(2 * length);
        EXPECT_EQ(CreatedPath(), PathIn(L"")) << length;
    }
    // A last byte of its own is a character of its own.
    store(5);
    EXPECT_EQ(CreatedPath(), PathIn(L"ddd"));
    store(259);
    EXPECT_EQ(CreatedPath(), PathIn(text.substr(0, 130)));
}

TEST(CreateAgentService, AFolderEndsAtItsFirstNullCharacter) {
    const ScratchKey key(kInstallManagerKey);
    key.SetCharacters(L"InstallDir", REG_SZ, std::wstring(L"C:\\A\0B\0", 7));
    EXPECT_EQ(CreatedPath(), PathIn(L"C:\\A"));
    key.SetCharacters(L"InstallDir", REG_SZ, std::wstring(1, L'\0'));
    EXPECT_EQ(CreatedPath(), PathIn(L""));
    key.SetBytes(L"InstallDir", REG_SZ, {});
    EXPECT_EQ(CreatedPath(), PathIn(L""));
}

TEST(CreateAgentService, AValueOfAnyTypeIsTakenForTextAsItIsStored) {
    const ScratchKey key(kInstallManagerKey);
    for (const DWORD type : {REG_SZ, REG_EXPAND_SZ, REG_MULTI_SZ, REG_BINARY, REG_NONE}) {
        key.SetCharacters(L"InstallDir", type, std::wstring(L"%SystemRoot%\\A%s%d\0\0", 20));
        EXPECT_EQ(CreatedPath(), PathIn(L"%SystemRoot%\\A%s%d")) << type;
    }
    key.SetBytes(L"InstallDir", REG_DWORD, {'A', 0, 'B', 0});
    EXPECT_EQ(CreatedPath(), PathIn(L"AB"));
}

TEST(CreateAgentService, AFolderThatEndsInABackslashGetsAnotherOne) {
    const ScratchKey key(kInstallManagerKey);
    key.SetString(L"InstallDir", L"C:\\Zenvo\\");
    EXPECT_EQ(CreatedPath(), L"\"C:\\Zenvo\\\\..\\Usage Profile Agent\\TeloDU.exe\"");
}

TEST(CreateAgentService, TheServiceManagerKnowsEveryPropertyAsGiven) {
    const InstallManager installed;
    const ServiceScope service(kAgent);
    const Messages messages;
    const LeftManager manager;
    CreateAgentService();
    const Configuration configuration = ConfigurationOf(kAgent);
    EXPECT_EQ(configuration.type,
              static_cast<DWORD>(SERVICE_WIN32_OWN_PROCESS | SERVICE_INTERACTIVE_PROCESS));
    EXPECT_EQ(configuration.start, static_cast<DWORD>(SERVICE_AUTO_START));
    EXPECT_EQ(configuration.errorControl, static_cast<DWORD>(SERVICE_ERROR_NORMAL));
    EXPECT_EQ(configuration.path, PathIn(L"C:\\Zenvo\\MIM"));
    EXPECT_EQ(configuration.group, L"");
    EXPECT_EQ(configuration.tag, 0U);
    EXPECT_EQ(configuration.dependencies, L"");
    EXPECT_EQ(configuration.account, L"LocalSystem");
    EXPECT_EQ(configuration.displayName, L"Zenvo User Experience Program Data Uploader");
    EXPECT_EQ(service.State(), static_cast<DWORD>(SERVICE_STOPPED));
    EXPECT_EQ(messages.Get(), std::wstring());
}

TEST(CreateAgentService, TheHandleOfTheManagerStaysUsable) {
    const InstallManager installed;
    const ServiceScope service(kAgent);
    const LeftManager manager;
    COUNT_CALLS(closing, CloseServiceHandle);
    CreateAgentService();
    // The service alone.
    EXPECT_EQ(closing.Calls(), 1);
    SC_HANDLE opened = OpenServiceW(manager.Get(), kAgent, SERVICE_QUERY_STATUS);
    EXPECT_NE(opened, nullptr);
    CloseServiceHandle(opened);
}

TEST_F(CreateAgentServiceTest, AServiceThatExistsKeepsItsConfiguration) {
    const InstallManager installed;
    const InstalledService service(kAgent, folder_.Program());
    const Configuration before = ConfigurationOf(kAgent);
    EXPECT_EQ(before.path, folder_.Program());
    const LeftManager manager;
    COUNT_CALLS(changing, ChangeServiceConfig2W);
    EXPECT_EQ(halvard_tests::StandardOutputOf([] { CreateAgentService(); }), "");
    EXPECT_EQ(changing.Calls(), 0);
    EXPECT_EQ(ConfigurationOf(kAgent), before);
}

TEST_F(CreateAgentServiceTest, WhatItCreatesStartsAndStops) {
    const ScratchKey key(kInstallManagerKey);
    key.SetString(L"InstallDir", folder_.Manager());
    const ServiceScope service(kAgent);
    const Messages messages;
    StandInClock clock;
    clock.afterSleep = [&] {
        service.WaitForState(SERVICE_RUNNING);
    };
    {
        const LeftManager manager;
        CreateAgentService();
    }
    EXPECT_TRUE(StartAgentService());
    EXPECT_EQ(service.State(), static_cast<DWORD>(SERVICE_RUNNING));
    clock.afterSleep = [] {
    };
    EXPECT_TRUE(StopServiceWithTimeout(kAgent));
    EXPECT_EQ(messages.Get(), Says(kStarted) + Says(kStopped));
    EXPECT_EQ(service.State(), static_cast<DWORD>(SERVICE_STOPPED));
}

TEST(TheAgentServiceRoutines, ThrowNothingSinceTheyAllocateNothing) {
    static_assert(noexcept(StopServiceWithTimeout(std::declval<const std::wstring&>())));
    static_assert(noexcept(StartAgentService()));
    static_assert(noexcept(CreateAgentService()));
    const InstallManager installed;
    const std::wstring name = kName;
    SC_HANDLE handle = reinterpret_cast<SC_HANDLE>(0x100);
    // Nothing of the test allocates while they run.
    FAIL_CALL(managers, OpenSCManagerW, 0, handle, NO_ERROR);
    FAIL_CALL(services, OpenServiceW, 0, handle, NO_ERROR);
    FAIL_CALL(closing, CloseServiceHandle, 0, TRUE, NO_ERROR);
    FAIL_CALL(stopping, ControlService, 0, FALSE, ERROR_ACCESS_DENIED);
    FAIL_CALL(starting, StartServiceW, 0, FALSE, ERROR_ACCESS_DENIED);
    FAIL_CALL(creating, CreateServiceW, 0, handle, NO_ERROR);
    FAIL_CALL(changing, ChangeServiceConfig2W, 0, TRUE, NO_ERROR);
    HOOK(sleeping, Sleep, [](DWORD) {});
    DWORD state = SERVICE_STOP_PENDING;
    HOOK(querying, QueryServiceStatusEx,
         [&state](SC_HANDLE, SC_STATUS_TYPE, LPBYTE buffer, DWORD, LPDWORD) -> BOOL {
             auto* const status = reinterpret_cast<SERVICE_STATUS_PROCESS*>(buffer);
             status->dwCurrentState = std::exchange(state, SERVICE_STOPPED);
             status->dwWaitHint = INFINITE;
             return TRUE;
         });
    const AllocationFailure failure(1);
    EXPECT_TRUE(StopServiceWithTimeout(name));
    state = SERVICE_STOP_PENDING;
    EXPECT_FALSE(StartAgentService());
    CreateAgentService();
    state = SERVICE_RUNNING;
    EXPECT_FALSE(StopServiceWithTimeout(name));
    EXPECT_FALSE(failure.Happened());
    EXPECT_EQ(sleeping.Calls(), 2);
    EXPECT_EQ(starting.Calls(), 1);
    EXPECT_EQ(stopping.Calls(), 1);
    EXPECT_EQ(changing.Calls(), 1);
}
