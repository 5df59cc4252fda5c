#include "agent/agent_service.h"

#include "allocation_failure.h"
#include "call_trace.h"
#include "current_session.h"
#include "debugger_output.h"
#include "files.h"
#include "import_hook.h"
#include "installed_service.h"
#include "registry_key.h"
#include "service_manager_stand_in.h"
#include "stand_in_clock.h"
#include "stand_in_session.h"
#include "standard_output.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <optional>
#include <tuple>
#include <utility>
#include <vector>

using halvard::CreateAgentService;
using halvard::StartAgentService;
using halvard::StopServiceWithTimeout;
using halvard_tests::AllocationFailure;
using halvard_tests::BytesOf;
using halvard_tests::CallTrace;
using halvard_tests::InstalledService;
using halvard_tests::kMessages;
using halvard_tests::kNoAnswer;
using halvard_tests::kRegistry;
using halvard_tests::kServiceClosing;
using halvard_tests::kServices;
using halvard_tests::ScratchFolder;
using halvard_tests::ScratchKey;
using halvard_tests::ServiceBehavior;
using halvard_tests::ServiceManagerCalls;
using halvard_tests::ServiceScope;
using halvard_tests::Sleeping;
using halvard_tests::StandInClock;
using Answer = halvard_tests::ServiceAnswer;
using Answers = halvard_tests::ServiceAnswers;
using Bytes = std::vector<BYTE>;
using Sleeps = std::vector<DWORD>;
using namespace std::string_literals;

namespace {

constexpr wchar_t kName[] = L"HalvardTestService";
constexpr wchar_t kAgent[] = L"TeloLauncher";
constexpr wchar_t kInstallManagerKey[] =
    L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\"
    L"Zenvo Meridian Install Manager";

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

Lines Says(const std::wstring& message) {
    return {L"says " + message};
}

std::wstring NotStartedWith(const std::wstring& code) {
    return L"Unable to start service and Error code is " + code;
}

const Lines kOpenedManager = {L"open manager 0xf003f"};
const Lines kOpenedToStop = kOpenedManager + Lines{L"open service TeloLauncher 0x2c"};
const Lines kOpenedToStart = kOpenedManager + Lines{L"open service TeloLauncher 0xf01ff"};
const Lines kQuery = {L"query service TeloLauncher"};
const Lines kStopRequest = {L"control service TeloLauncher 1"};
const Lines kStartRequest = {L"start service TeloLauncher"};
const Lines kClosedService = {L"close service TeloLauncher"};
const Lines kClosedManager = {L"close service manager"};
const Lines kClosed = kClosedService + kClosedManager;

// A query behind each of these sleeps.
Lines Polls(const Sleeps& sleeps) {
    Lines lines;
    for (const DWORD milliseconds : sleeps) {
        lines = lines + Sleeping(milliseconds) + kQuery;
    }
    return lines;
}

// The same with the message of a stop that is pending before each.
Lines StopPolls(const Sleeps& sleeps) {
    Lines lines;
    for (const DWORD milliseconds : sleeps) {
        lines = lines + Says(kStopPending) + Polls({milliseconds});
    }
    return lines;
}

const Answer kIsRunning = {SERVICE_RUNNING, 0, 0};
const Answer kIsStopped = {SERVICE_STOPPED, 0, 0};

Answer Stopping(DWORD waitHint = 0, DWORD checkpoint = 1) {
    return {SERVICE_STOP_PENDING, checkpoint, waitHint};
}

Answer Starting(DWORD waitHint, DWORD checkpoint = 1) {
    return {SERVICE_START_PENDING, checkpoint, waitHint};
}

// Stands for every state but those that a routine treats in a way of its own.
constexpr DWORD kOtherState = 99;
const std::vector<DWORD> kOtherStates = {SERVICE_START_PENDING, SERVICE_RUNNING,
                                         SERVICE_CONTINUE_PENDING, SERVICE_PAUSE_PENDING,
                                         SERVICE_PAUSED};

// Ticks may start again meanwhile: these, counted back from the last one, are the first.
constexpr DWORD kLastTick = std::numeric_limits<DWORD>::max();
const DWORD kFirstTicks[] = {kLastTick, 0, 1, 999, 1000, 1999, 15000, 30000};

// What a service answers, and how the calls to it go.
struct Course {
    Answers queried;
    Answer stopAnswer = kIsStopped;
    // How many milliseconds the calls take that begin so, and each look at the clock.
    std::vector<std::pair<std::wstring, DWORD>> takes = {};
    DWORD perLook = 0;
    // The code with which the request to stop is refused, and that to start.
    DWORD stopError = NO_ERROR;
    std::optional<DWORD> startError = std::nullopt;
};

// One in which the request to start is refused with this code.
Course StartRefused(const Answers& queried, DWORD code) {
    Course course = {queried};
    course.startError = code;
    return course;
}

// Sees which calls a routine makes between its openings and the closings, in every other state and
// from every first tick.
void Expect(bool (*routine)(), const Lines& opened, const std::string& what, const Course& course,
            bool result, const Lines& calls) {
    const auto isOther = [](const Answer& answer) {
        return answer.state == kOtherState;
    };
    const bool hasOther = std::any_of(course.queried.begin(), course.queried.end(), isOther);
    for (const DWORD state : hasOther ? kOtherStates : std::vector<DWORD>{0}) {
        for (const DWORD firstTick : kFirstTicks) {
            Answers queried = course.queried;
            for (Answer& answer : queried) {
                answer.state = isOther(answer) ? state : answer.state;
            }
            ServiceManagerCalls manager(queried, kLastTick - firstTick);
            manager.clock.perLook = course.perLook;
            manager.takes = course.takes;
            manager.stopAnswer = course.stopAnswer;
            manager.stopError = course.stopError;
            if (course.startError) {
                manager.Fail(L"start service", *course.startError);
            }
            EXPECT_EQ(routine(), result) << what;
            EXPECT_EQ(manager.All(), opened + calls + kClosed)
                << what << ", " << state << ", " << firstTick;
        }
    }
}

bool StopAgent() {
    return StopServiceWithTimeout(kAgent);
}

void ExpectStop(const std::string& what, const Course& course, bool result, const Lines& calls) {
    Expect(StopAgent, kOpenedToStop, what, course, result, calls);
}

void ExpectStart(const std::string& what, const Course& course, bool result, const Lines& calls) {
    Expect(StartAgentService, kOpenedToStart, what, course, result, calls);
}

} // namespace

TEST(StopServiceWithTimeout, DoesWhatTheStatesAskFor) {
    const Lines asked = kQuery + kStopRequest;
    ExpectStop("stopped already", {{kIsStopped}}, true, kQuery + Says(kAlreadyStopped));
    ExpectStop("stops with the request", {{{kOtherState}}}, true, asked + Says(kStopped));
    ExpectStop("sleeps for the whole hint of the last answer",
               {{{SERVICE_RUNNING, 0, 4000},
                 Stopping(12000, 2),
                 Stopping(0, 3),
                 {SERVICE_RUNNING, 4, 999},
                 kIsStopped},
                Stopping(700)},
               true, asked + Polls({700, 12000, 0, 999}) + Says(kStopped));
    ExpectStop("sleeps for a tenth of the last hint while the stop was pending",
               {{Stopping(50000), Stopping(), Stopping(20000), kIsStopped}}, true,
               kQuery + StopPolls({5000, 1000, 2000}) + Says(kStopped));
    ExpectStop("gives up stopping and is asked to stop",
               {{Stopping(), {kOtherState}, Stopping(), kIsStopped}, Stopping(300)}, true,
               kQuery + StopPolls({1000}) + kStopRequest + Polls({300, 0}) + Says(kStopped));
}

TEST(StopServiceWithTimeout, SleepsForATenthOfTheHintWhileAStopIsPending) {
    const std::pair<DWORD, DWORD> hintsAndSleeps[] = {
        {0, 1000},     {2000, 1000},    {10000, 1000},   {10010, 1001},
        {50000, 5000}, {100000, 10000}, {200000, 10000}, {INFINITE, 10000}};
    for (const auto& [hint, sleep] : hintsAndSleeps) {
        ExpectStop("", {{Stopping(hint), kIsStopped}}, true,
                   kQuery + StopPolls({sleep}) + Says(kStopped));
    }
}

TEST(StopServiceWithTimeout, GivesAPendingStopThirtySecondsFromItsEntry) {
    ExpectStop("three sleeps end exactly at the limit, a fourth one behind it",
               {{Stopping(100000)}}, false,
               kQuery + StopPolls(Sleeps(4, 10000)) + Says(kPendingTimeout));
    ExpectStop("a millisecond more", {{Stopping(100000)}, {}, {{L"query", 1}}}, false,
               kQuery + StopPolls(Sleeps(3, 10000)) + Says(kPendingTimeout));
    const Lines pending = kQuery + StopPolls({1000});
    for (const wchar_t* const opening : {L"open manager", L"open service"}) {
        ExpectStop("each opening counts", {{Stopping()}, {}, {{opening, 29001}}}, false,
                   pending + Says(kPendingTimeout));
        ExpectStop("whoever gives up stopping too late is not asked to stop",
                   {{Stopping(), {kOtherState}}, {}, {{opening, 30000}}}, false,
                   pending + Says(kPendingTimeout));
        ExpectStop("whoever has stopped is never too late",
                   {{Stopping(), kIsStopped}, {}, {{opening, 60000}}}, true,
                   pending + Says(kStopped));
    }
}

TEST(StopServiceWithTimeout, GivesAServiceThatItHasAskedThirtySecondsFromItsEntry) {
    const Lines asked = kQuery + kStopRequest;
    ExpectStop("has stopped and is never too late",
               {{kIsRunning, kIsStopped}, Stopping(), {{L"open service", 60000}}}, true,
               asked + Polls({0}) + Says(kStopped));
    ExpectStop("what is spent before the request counts",
               {{Stopping(100000), Stopping(100000), kIsRunning, Stopping(5000)}, Stopping(5000)},
               false,
               kQuery + StopPolls({10000, 10000}) + kStopRequest + Polls({5000, 5000, 5000}) +
                   Says(kStopTimeout));
    for (const Answer& answer : {Stopping(2000), Answer{SERVICE_RUNNING, 1, 2000}}) {
        ExpectStop("ignores the request", {{kIsRunning, answer}, answer}, false,
                   asked + Polls(Sleeps(16, 2000)) + Says(kStopTimeout));
    }
    ExpectStop("ten seconds at a time", {{kIsRunning, Stopping(10000)}, Stopping(10000)}, false,
               asked + Polls(Sleeps(4, 10000)) + Says(kStopTimeout));
    ExpectStop("a hint beyond the limit is slept through once",
               {{kIsRunning, Stopping(50000)}, Stopping(50000)}, false,
               asked + Polls({50000}) + Says(kStopTimeout));
    // The first query is made before the request, the 31st is the first one that ends too late.
    ExpectStop("without a hint it asks without sleeping",
               {{kIsRunning}, kIsRunning, {{L"query", 1000}}}, false,
               asked + Polls(Sleeps(30, 0)) + Says(kStopTimeout));
}

TEST(StopServiceWithTimeout, EveryCallThatFailsEndsItWithFalse) {
    const Lines pending = kQuery + StopPolls({1000});
    ExpectStop("the first query", {{kNoAnswer, kIsStopped}}, false, kQuery + Says(kNoStatus));
    ExpectStop("a query while the stop is pending", {{Stopping(), kNoAnswer, kIsStopped}}, false,
               pending + Says(kNoStatus));
    // That of services on which others depend too. What it leaves as the state does not count.
    for (const DWORD code : {ERROR_ACCESS_DENIED, ERROR_DEPENDENT_SERVICES_RUNNING}) {
        Course course = {{Stopping(), kIsRunning, kIsStopped}};
        course.stopError = code;
        ExpectStop("the request", course, false, pending + kStopRequest + Says(kRefused));
    }
    ExpectStop("a query behind the request",
               {{Stopping(), kIsRunning, kNoAnswer, kIsStopped}, Stopping()}, false,
               pending + kStopRequest + Polls({0}) + Says(kNoStatus));
}

TEST(StartAgentService, StartsAServiceThatIsStopped) {
    const Lines asked = kQuery + kStartRequest + kQuery;
    ExpectStart("any other state is taken for running", {{{kOtherState, 1, 2000}}}, true, kQuery);
    ExpectStart("runs at once", {{kIsStopped, kIsRunning}}, true, asked + Says(kStarted));
    for (const DWORD state : {SERVICE_STOPPED, SERVICE_STOP_PENDING, SERVICE_CONTINUE_PENDING,
                              SERVICE_PAUSE_PENDING, SERVICE_PAUSED}) {
        ExpectStart("is not running", {{kIsStopped, {state}}}, false, asked + Says(kNotStarted));
    }
    ExpectStart("is not running in the end", {{kIsStopped, Starting(2000), kIsStopped}}, false,
                asked + Polls({1000}) + Says(kNotStarted));
    for (const auto& [code, text] : {std::pair<DWORD, std::wstring>{ERROR_SUCCESS, L"0"},
                                     {ERROR_SERVICE_DISABLED, L"1058"},
                                     {ERROR_SERVICE_MARKED_FOR_DELETE, L"1072"},
                                     {0x7FFFFFFF, L"2147483647"},
                                     {0x80000000, L"-2147483648"}}) {
        ExpectStart("the code is told as a signed number", StartRefused({kIsStopped}, code), false,
                    kQuery + kStartRequest + Says(NotStartedWith(text)));
    }
}

TEST(StartAgentService, SleepsForATenthOfTheHintWhileTheStartIsPending) {
    const std::pair<DWORD, DWORD> hintsAndSleeps[] = {
        {0, 1000}, {2000, 1000}, {10010, 1001}, {50000, 5000}, {100000, 10000}, {INFINITE, 10000}};
    for (const auto& [hint, sleep] : hintsAndSleeps) {
        ExpectStart("", {{kIsStopped, Starting(hint), kIsRunning}}, true,
                    kQuery + kStartRequest + kQuery + Polls({sleep}) + Says(kStarted));
    }
}

TEST(StartAgentService, GivesAPendingStartTheTimeOfItsHintWithoutProgress) {
    const Lines asked = kQuery + kStartRequest + kQuery;
    // The second sleep ends exactly when the hint does, the third one behind it.
    for (const DWORD checkpoint : {1U, 0U}) {
        ExpectStart("without progress", {{kIsStopped, Starting(2000), Starting(2000, checkpoint)}},
                    false, asked + Polls(Sleeps(3, 1000)) + Says(kNotStarted));
    }
    ExpectStart("a millisecond more", {{kIsStopped, Starting(2000)}, {}, {}, 1}, false,
                asked + Polls(Sleeps(2, 1000)) + Says(kNotStarted));
    ExpectStart("it starts again with the last progress",
                {{kIsStopped, Starting(2000), Starting(2000), Starting(2000, 2)}}, false,
                asked + Polls(Sleeps(5, 1000)) + Says(kNotStarted));
    ExpectStart("the hint of the last answer counts",
                {{kIsStopped, Starting(20000), Starting(1999)}}, false,
                asked + Polls({2000}) + Says(kNotStarted));
    // What the request and the query behind it take is not taken from the hint: with the query's
    // the first sleep would outlast it.
    ExpectStart("what the request takes is not taken from it",
                {{kIsStopped, Starting(2000), Starting(2000), kIsRunning},
                 {},
                 {{L"start", 60000}, {L"query", 600}}},
                true, asked + Polls({1000, 1000}) + Says(kStarted));
    Answers answers = {kIsStopped};
    for (DWORD checkpoint = 5; checkpoint < 55; ++checkpoint) {
        // As long as the hint lasts at each step.
        answers.insert(answers.end(), 2, Starting(2000, checkpoint));
    }
    answers.push_back(kIsRunning);
    ExpectStart("with progress it has all the time", {answers}, true,
                asked + Polls(Sleeps(100, 1000)) + Says(kStarted));
}

TEST(StartAgentService, StartsAServiceThatIsStoppingWhenItHasStopped) {
    const Lines started = kStartRequest + kQuery + Says(kStarted);
    // One that still gives a hint, and one whose last step shows.
    for (const Answer& stopped :
         {Answer{SERVICE_STOPPED, 0, 1000}, Answer{SERVICE_STOPPED, 2, 0}}) {
        ExpectStart("has stopped", {{Stopping(), stopped, kIsRunning}}, true,
                    kQuery + Polls({1000}) + started);
    }
    ExpectStart("is asked every ten seconds at least",
                {{Stopping(200000), {SERVICE_STOPPED, 0, 200000}, kIsRunning}}, true,
                kQuery + Polls({10000}) + started);
    // Ten times the hint in all, without any progress.
    Answers answers(20, Stopping(1000));
    answers.push_back({SERVICE_STOPPED, 0, 1000});
    answers.push_back(kIsRunning);
    ExpectStart("has the time of its hint for each sleep", {answers}, true,
                kQuery + Polls(Sleeps(20, 1000)) + started);
    ExpectStart(
        "runs, and is started all the same",
        StartRefused({Stopping(2000), {SERVICE_RUNNING, 0, 2000}}, ERROR_SERVICE_ALREADY_RUNNING),
        false, kQuery + Polls({1000}) + kStartRequest + Says(NotStartedWith(L"1056")));
}

TEST(StartAgentService, DoesNotStartAServiceThatIsStoppingWhenASleepOutlastsItsHint) {
    // The hint counts that the service gives after the sleep: none as a rule once it has stopped.
    for (const Answer& after :
         {Stopping(999), Stopping(999, 0), Stopping(0), kIsStopped, kIsRunning}) {
        ExpectStart("", {{Stopping(2000), after}}, false,
                    kQuery + Polls({1000}) + Says(kStopTimeout));
    }
    ExpectStart("the second sleep", {{Stopping(1000), Stopping(1000), Stopping(999)}}, false,
                kQuery + Polls({1000, 1000}) + Says(kStopTimeout));
    // What the query takes belongs to the sleep before it, what the opening takes does not.
    ExpectStart("with its query",
                {{Stopping(2000)}, {}, {{L"open service", 60000}, {L"query", 1001}}}, false,
                kQuery + Polls({1000}) + Says(kStopTimeout));
    ExpectStart("progress outweighs a hint that is over",
                {{Stopping(), Stopping(0, 2), Stopping(50000, 3), Stopping(0, 3)}}, false,
                kQuery + Polls({1000, 1000, 5000}) + Says(kStopTimeout));
}

TEST(StartAgentService, EveryCallThatFailsEndsItWithFalse) {
    const Lines stopped = kQuery + Polls({1000});
    const Answer afterIt = {SERVICE_STOPPED, 0, 2000};
    ExpectStart("the first query", {{kNoAnswer, kIsRunning}}, false, kQuery + Says(kNoStatus));
    ExpectStart("a query while it is stopping", {{Stopping(2000), kNoAnswer, kIsRunning}}, false,
                stopped + Says(kNoStatus));
    ExpectStart("the request", StartRefused({Stopping(2000), afterIt}, ERROR_ACCESS_DENIED), false,
                stopped + kStartRequest + Says(NotStartedWith(L"5")));
    ExpectStart("the query behind the request", {{Stopping(2000), afterIt, kNoAnswer, kIsRunning}},
                false, stopped + kStartRequest + kQuery + Says(kNoStatus));
    ExpectStart("a query while the start is pending, reported beside its outcome",
                {{kIsStopped, Starting(2000), kNoAnswer, kIsRunning}}, false,
                kQuery + kStartRequest + kQuery + Polls({1000}) + Says(kNoStatus) +
                    Says(kNotStarted));
}

TEST(TheAgentServiceRoutines, AnOpeningThatFailsEndsThemWithFalseAndClosesWhatIsOpen) {
    const std::pair<bool (*)(), Lines> routines[] = {{StopAgent, kOpenedToStop},
                                                     {StartAgentService, kOpenedToStart}};
    for (const auto& [routine, opened] : routines) {
        {
            ServiceManagerCalls manager;
            manager.Fail(L"open manager");
            EXPECT_FALSE(routine());
            EXPECT_EQ(manager.All(), kOpenedManager + Says(kNoManager));
        }
        ServiceManagerCalls manager;
        manager.Fail(L"open service");
        EXPECT_FALSE(routine());
        EXPECT_EQ(manager.All(), opened + kClosedManager);
    }
}

TEST(TheAgentServiceRoutines, AHandleThatCannotBeClosedChangesNothing) {
    ServiceManagerCalls manager({kIsRunning});
    manager.closes = false;
    EXPECT_TRUE(StopAgent());
    manager.queries = {kIsStopped, kIsRunning};
    EXPECT_TRUE(StartAgentService());
    EXPECT_EQ(manager.All(), kOpenedToStop + kQuery + kStopRequest + Says(kStopped) + kClosed +
                                 kOpenedToStart + kQuery + kStartRequest + kQuery + Says(kStarted) +
                                 kClosed);
}

namespace {

// The calls to the system's own service manager. What they open they close again but for these.
class ServiceCalls : public CallTrace {
public:
    explicit ServiceCalls(Lines leftOpen = {})
        : CallTrace(kServices | kServiceClosing | kMessages), leftOpen_(std::move(leftOpen)) {}
    ~ServiceCalls() {
        EXPECT_EQ(LeftOpen(), leftOpen_);
        EXPECT_EQ(Of({L"close service unknown"}), Lines{});
    }
    ServiceCalls(const ServiceCalls&) = delete;
    ServiceCalls& operator=(const ServiceCalls&) = delete;

    Lines Messages() const { return Rests(L"says "); }

private:
    Lines leftOpen_;
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

struct AgentServiceTest : testing::Test {
    AgentFolder folder;
};

using StopServiceWithTimeoutTest = AgentServiceTest;
using StartAgentServiceTest = AgentServiceTest;
using CreateAgentServiceTest = AgentServiceTest;

struct RunningService : InstalledService {
    RunningService(const std::wstring& name, const AgentFolder& folder,
                   const ServiceBehavior& behavior = {})
        : InstalledService(name, folder.Program(), behavior) {
        Start();
    }
};

// A service that has been asked to stop.
struct StoppingService : RunningService {
    StoppingService(const std::wstring& name, const AgentFolder& folder,
                    const ServiceBehavior& behavior)
        : RunningService(name, folder, behavior) {
        RequestStop();
    }
};

// A stop or a start that is pending until the test lets it proceed.
ServiceBehavior SlowStop(DWORD waitHint = 0, DWORD stoppedWaitHint = 0) {
    return {NO_ERROR, 0, false, INFINITE, waitHint, 0, stoppedWaitHint};
}

ServiceBehavior StopIn(DWORD milliseconds, DWORD waitHint) {
    return {NO_ERROR, 0, false, milliseconds, waitHint};
}

ServiceBehavior IgnoredStop() {
    return {NO_ERROR, 0, true};
}

ServiceBehavior SlowStart(DWORD waitHint, DWORD checkpointInterval = 0) {
    return {NO_ERROR, INFINITE, false, 0, waitHint, checkpointInterval};
}

} // namespace

TEST_F(StopServiceWithTimeoutTest, ARealServiceThatIsStopped) {
    const InstalledService service(kName, folder.Program());
    const ServiceCalls calls;
    EXPECT_TRUE(StopServiceWithTimeout(kName));
    EXPECT_EQ(calls.Messages(), Lines{kAlreadyStopped});
}

TEST_F(StopServiceWithTimeoutTest, ARealServiceThatIsNotThere) {
    const ServiceScope service(kName);
    const ServiceCalls calls;
    EXPECT_FALSE(StopServiceWithTimeout(kName));
    EXPECT_FALSE(StopServiceWithTimeout(L""));
    EXPECT_EQ(calls.Messages(), Lines{});
}

TEST_F(StopServiceWithTimeoutTest, ARealServiceThatRuns) {
    const RunningService service(kName, folder);
    const ServiceCalls calls;
    EXPECT_TRUE(StopServiceWithTimeout(kName));
    EXPECT_EQ(calls.Messages(), Lines{kStopped});
    EXPECT_EQ(service.State(), static_cast<DWORD>(SERVICE_STOPPED));
    EXPECT_TRUE(service.WaitForProcess());
}

TEST_F(StopServiceWithTimeoutTest, ARealServiceThatTakesItsTimeToStop) {
    // In real time: the hint is slept through as often as it takes.
    const RunningService service(kName, folder, StopIn(300, 100));
    const ServiceCalls calls;
    const ULONGLONG start = GetTickCount64();
    EXPECT_TRUE(StopServiceWithTimeout(kName));
    EXPECT_GE(GetTickCount64() - start, 280U);
    EXPECT_EQ(calls.Messages(), Lines{kStopped});
    EXPECT_EQ(service.State(), static_cast<DWORD>(SERVICE_STOPPED));
}

TEST_F(StopServiceWithTimeoutTest, ARealServiceThatIsStoppingAlready) {
    // In real time: the shortest sleep there is.
    const StoppingService service(kName, folder, SlowStop());
    const ServiceCalls calls;
    const ChangeDuringSleep change(service);
    const ULONGLONG start = GetTickCount64();
    EXPECT_TRUE(StopServiceWithTimeout(kName));
    EXPECT_GE(GetTickCount64() - start, 980U);
    EXPECT_EQ(change.Get(), Sleeps{1000});
    EXPECT_EQ(calls.Messages(), (Lines{kStopPending, kStopped}));
}

TEST_F(StopServiceWithTimeoutTest, ARealServiceWhoseStopIsPendingWithSomeHint) {
    for (const auto& [hint, sleep, sleepsInAll] :
         {std::tuple<DWORD, DWORD, std::size_t>{0, 1000, 31}, {2000, 1000, 31}, {50000, 5000, 7}}) {
        const StoppingService service(kName, folder, SlowStop(hint));
        {
            const ServiceCalls calls;
            const StandInClock clock;
            EXPECT_FALSE(StopServiceWithTimeout(kName));
            EXPECT_EQ(clock.Sleeps(), Sleeps(sleepsInAll, sleep));
            EXPECT_EQ(calls.Messages(), Lines(sleepsInAll, kStopPending) + Lines{kPendingTimeout});
            EXPECT_EQ(service.State(), static_cast<DWORD>(SERVICE_STOP_PENDING));
        }
        const ServiceCalls calls;
        StandInClock clock;
        clock.afterSleep = [&] {
            if (clock.Sleeps().size() == 3) {
                service.Proceed();
                service.WaitForState(SERVICE_STOPPED);
            }
        };
        EXPECT_TRUE(StopServiceWithTimeout(kName));
        EXPECT_EQ(clock.Sleeps(), Sleeps(3, sleep));
        EXPECT_EQ(calls.Messages(), Lines(3, kStopPending) + Lines{kStopped});
    }
}

TEST_F(StopServiceWithTimeoutTest, ARealServiceThatIsAskedToStopSleepsWithItsHint) {
    for (const auto& [hint, sleeps] :
         {std::pair<DWORD, Sleeps>{2000, Sleeps(16, 2000)}, {50000, Sleeps(1, 50000)}}) {
        const RunningService service(kName, folder, SlowStop(hint));
        const ServiceCalls calls;
        const StandInClock clock;
        EXPECT_FALSE(StopServiceWithTimeout(kName));
        EXPECT_EQ(clock.Sleeps(), sleeps);
        EXPECT_EQ(calls.Messages(), Lines{kStopTimeout});
    }
}

TEST_F(StopServiceWithTimeoutTest, ARealServiceThatIgnoresTheStop) {
    const RunningService service(kName, folder, IgnoredStop());
    const ServiceCalls calls;
    StandInClock clock;
    clock.perLook = 3000;
    EXPECT_FALSE(StopServiceWithTimeout(kName));
    EXPECT_EQ(clock.Sleeps(), Sleeps(11, 0));
    EXPECT_EQ(calls.Messages(), Lines{kStopTimeout});
    EXPECT_EQ(service.State(), static_cast<DWORD>(SERVICE_RUNNING));
}

TEST_F(StopServiceWithTimeoutTest, NothingButItsMessagesIsSaid) {
    const halvard_tests::StandInSession session;
    const halvard_tests::CurrentSessionScope current(session.Get());
    const RunningService service(kName, folder);
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
    EXPECT_EQ(session.LogLines(), Lines{});
}

TEST_F(StopServiceWithTimeoutTest, ARealServiceThatIsDeletedMeanwhile) {
    for (const bool stopping : {false, true}) {
        const RunningService service(kName, folder, SlowStop());
        if (stopping) {
            service.RequestStop();
        }
        const ServiceCalls calls;
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
        EXPECT_EQ(calls.Messages(), Lines(stopping ? 2 : 0, kStopPending) + Lines{kStopped});
        EXPECT_TRUE(service.WaitUntilGone());
    }
}

TEST_F(StopServiceWithTimeoutTest, ARealServiceThatIsDeletedAndWhoseProcessEndsMeanwhile) {
    // The engine keeps the state of a deleted service whose process is gone, so that the time runs
    // out. On Windows it counts as stopped.
    for (const bool stopping : {false, true}) {
        const RunningService service(kName, folder, SlowStop(10000));
        if (stopping) {
            service.RequestStop();
        }
        const ServiceCalls calls;
        StandInClock clock;
        clock.afterSleep = [&] {
            if (clock.Sleeps().size() == 2) {
                service.Delete();
                service.EndProcess();
            }
        };
        EXPECT_FALSE(StopServiceWithTimeout(kName));
        EXPECT_EQ(clock.Sleeps(), stopping ? Sleeps(31, 1000) : Sleeps(4, 10000));
        EXPECT_EQ(calls.Messages(), stopping ? Lines(31, kStopPending) + Lines{kPendingTimeout}
                                             : Lines{kStopTimeout});
    }
}

TEST_F(StopServiceWithTimeoutTest, ItsMessagesReachTheDebugger) {
    const RunningService service(kName, folder);
    const std::vector<std::string> texts = halvard_tests::DebuggerOutputOf([] {
        StopServiceWithTimeout(kName);
        StopServiceWithTimeout(kName);
    });
    EXPECT_EQ(texts, (std::vector<std::string>{"Service stopped successfully.\n",
                                               "Service is already stopped.\n"}));
}

TEST_F(StartAgentServiceTest, ARealServiceThatIsNotThere) {
    const ServiceScope service(kAgent);
    const ServiceCalls calls;
    EXPECT_FALSE(StartAgentService());
    EXPECT_EQ(calls.Messages(), Lines{});
}

TEST_F(StartAgentServiceTest, ARealServiceThatIsStopped) {
    const InstalledService service(kAgent, folder.Program());
    const ServiceCalls calls;
    StandInClock clock;
    // Whether it runs at the first look or at the second one.
    clock.afterSleep = [&] {
        service.WaitForState(SERVICE_RUNNING);
    };
    EXPECT_TRUE(StartAgentService());
    EXPECT_EQ(calls.Messages(), Lines{kStarted});
    EXPECT_EQ(service.State(), static_cast<DWORD>(SERVICE_RUNNING));
}

TEST_F(StartAgentServiceTest, ARealServiceThatRuns) {
    const RunningService service(kAgent, folder);
    const DWORD process = service.Status().dwProcessId;
    const ServiceCalls calls;
    EXPECT_TRUE(StartAgentService());
    EXPECT_EQ(calls.All(), kOpenedToStart + kQuery + kClosed);
    EXPECT_EQ(service.Status().dwProcessId, process);
}

TEST_F(StartAgentServiceTest, ARealServiceThatIsStoppingAndGivesNoHintInTheEnd) {
    // In real time.
    const StoppingService service(kAgent, folder, SlowStop(5000));
    const ServiceCalls calls;
    const ChangeDuringSleep change(service);
    const ULONGLONG start = GetTickCount64();
    EXPECT_FALSE(StartAgentService());
    EXPECT_GE(GetTickCount64() - start, 980U);
    EXPECT_EQ(change.Get(), Sleeps{1000});
    EXPECT_EQ(calls.Messages(), Lines{kStopTimeout});
    EXPECT_EQ(service.State(), static_cast<DWORD>(SERVICE_STOPPED));
}

TEST_F(StartAgentServiceTest, ARealServiceThatIsStoppingAndGivesAHintInTheEnd) {
    const StoppingService service(kAgent, folder, SlowStop(2000, 2000));
    const ServiceCalls calls;
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
    EXPECT_EQ(calls.Messages(), Lines{kStarted});
    EXPECT_EQ(service.State(), static_cast<DWORD>(SERVICE_RUNNING));
}

TEST_F(StartAgentServiceTest, ARealServiceThatTakesItsTimeToStart) {
    // In real time.
    const InstalledService service(kAgent, folder.Program(), SlowStart(5000));
    const ServiceCalls calls;
    const ChangeDuringSleep change(service);
    const ULONGLONG start = GetTickCount64();
    EXPECT_TRUE(StartAgentService());
    EXPECT_GE(GetTickCount64() - start, 980U);
    EXPECT_EQ(change.Get(), Sleeps{1000});
    EXPECT_EQ(calls.Messages(), Lines{kStarted});
}

TEST_F(StartAgentServiceTest, ARealServiceThatStartsWithProgress) {
    // With a hint shorter than any sleep: nothing but progress makes up for it.
    const InstalledService service(kAgent, folder.Program(), SlowStart(500, 5));
    const ServiceCalls calls;
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
    EXPECT_EQ(calls.Messages(), Lines{kStarted});
}

TEST_F(StartAgentServiceTest, ARealServiceThatStartsWithoutProgress) {
    const InstalledService service(kAgent, folder.Program(), SlowStart(2000));
    const ServiceCalls calls;
    StandInClock clock;
    // What it gives before its own first report is the service manager's.
    clock.afterSleep = [&] {
        service.WaitForProgress(0);
    };
    EXPECT_FALSE(StartAgentService());
    EXPECT_GE(clock.Sleeps().size(), 3U);
    EXPECT_LE(clock.Sleeps().size(), 4U);
    EXPECT_EQ(calls.Messages(), Lines{kNotStarted});
    EXPECT_EQ(service.State(), static_cast<DWORD>(SERVICE_START_PENDING));
}

TEST_F(StartAgentServiceTest, ARealServiceThatRefusesToStart) {
    const InstalledService service(kAgent, folder.Program(), {ERROR_ACCESS_DENIED});
    const ServiceCalls calls;
    StandInClock clock;
    clock.afterSleep = [&] {
        service.WaitForState(SERVICE_STOPPED);
    };
    EXPECT_FALSE(StartAgentService());
    EXPECT_EQ(calls.Messages(), Lines{kNotStarted});
    EXPECT_EQ(service.State(), static_cast<DWORD>(SERVICE_STOPPED));
}

TEST_F(StartAgentServiceTest, ARealServiceWhoseProcessEndsWhileItStarts) {
    // Whether its state is kept or counts as stopped, it has not started.
    const InstalledService service(kAgent, folder.Program(), SlowStart(2000));
    const ServiceCalls calls;
    StandInClock clock;
    clock.afterSleep = [&] {
        service.EndProcess();
    };
    EXPECT_FALSE(StartAgentService());
    EXPECT_EQ(calls.Messages(), Lines{kNotStarted});
}

TEST_F(StartAgentServiceTest, ARealServiceWithoutAProgram) {
    const InstalledService service(kAgent, folder.Manager() + L"\\missing.exe");
    const ServiceCalls calls;
    EXPECT_FALSE(StartAgentService());
    EXPECT_EQ(calls.Messages(), Lines{NotStartedWith(L"2")});
}

TEST_F(StartAgentServiceTest, ItsMessagesReachTheDebugger) {
    const InstalledService service(kAgent, folder.Manager() + L"\\missing.exe");
    EXPECT_EQ(halvard_tests::DebuggerOutputOf([] { StartAgentService(); }),
              std::vector<std::string>{"Unable to start service and Error code is 2"});
}

namespace {

const std::wstring kDisplayName = L"Zenvo User Experience Program Data Uploader";
// The path follows, and nothing behind it.
const std::wstring kCreating =
    L"create service TeloLauncher, " + kDisplayName + L", 0xf01ff 0x110 2 1, ";

std::wstring PathIn(const std::wstring& installDir) {
    return L"\"" + installDir + L"\\..\\Usage Profile Agent\\TeloDU.exe\"";
}

// What the service manager knows of a service: type, start, error control, tag, program, group,
// dependencies, account, displayed name.
Lines ConfigurationOf(const wchar_t* name) {
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
    Lines lines;
    for (const DWORD number :
         {config->dwServiceType, config->dwStartType, config->dwErrorControl, config->dwTagId}) {
        lines.push_back(std::to_wstring(number));
    }
    for (const wchar_t* const text :
         {config->lpBinaryPathName, config->lpLoadOrderGroup, config->lpDependencies,
          config->lpServiceStartName, config->lpDisplayName}) {
        lines.emplace_back(text == nullptr ? L"" : text);
    }
    return lines;
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
    const ServiceManagerCalls manager;
    CreateAgentService();
    const Lines paths = manager.Rests(kCreating);
    EXPECT_EQ(paths.size(), 1U);
    return paths.empty() ? std::wstring() : paths[0];
}

struct InstallManager {
    explicit InstallManager(const std::wstring& folder = L"C:\\Zenvo\\MIM") {
        key.SetString(L"InstallDir", folder);
    }

    ScratchKey key{kInstallManagerKey};
};

} // namespace

TEST(CreateAgentService, MakesItsCallsInThisOrderAndLeavesTheManagerOpen) {
    const Lines created = kOpenedManager + Lines{kCreating + PathIn(L"C:\\Zenvo\\MIM")};
    const Lines all = created + Lines{L"change service TeloLauncher 3 1"} + kClosedService;
    struct Case {
        std::wstring failing;
        DWORD code;
        Lines calls;
        std::string output;
    };
    const Case cases[] = {
        {L"nothing", 0, all, ""},
        {L"change service", ERROR_ACCESS_DENIED, all, ""},
        {L"create service", ERROR_SERVICE_EXISTS, created, ""},
        {L"create service", ERROR_SERVICE_MARKED_FOR_DELETE, created, ""},
        {L"create service", ERROR_DUPLICATE_SERVICE_NAME, created, ""},
        {L"create service", ERROR_ACCESS_DENIED, created, ""},
        // With the end of line that the run-time's text streams write.
        {L"open manager", ERROR_ACCESS_DENIED, kOpenedManager, "Error: Failed to open SCM.\r\n"},
    };
    const InstallManager installed;
    for (const Case& tested : cases) {
        ServiceManagerCalls manager;
        manager.Fail(tested.failing, tested.code);
        EXPECT_EQ(halvard_tests::StandardOutputOf([] { CreateAgentService(); }), tested.output);
        EXPECT_EQ(manager.All(), tested.calls);
    }
}

TEST(CreateAgentService, ReadsTheInstallManagersFolderInThe64BitView) {
    const InstallManager installed;
    const ServiceManagerCalls manager;
    const CallTrace registry(kRegistry);
    CreateAgentService();
    const std::wstring key = L"HKLM\\"s + kInstallManagerKey;
    EXPECT_EQ(registry.All(), (Lines{L"open " + key + L" 0x20119",
                                     L"query " + key + L" InstallDir 260 bytes", L"close " + key}));
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

TEST(CreateAgentService, TakesAFolderOfAtMost260BytesAsItIsStored) {
    struct Case {
        DWORD type;
        std::wstring characters;
        std::size_t bytes;
        std::wstring folder;
    };
    const auto d = [](std::size_t length) {
        return std::wstring(length, L'd');
    };
    std::vector<Case> cases = {
        // Without a terminator it ends where the value does.
        {REG_SZ, d(1), 2, d(1)},
        {REG_SZ, d(129), 258, d(129)},
        {REG_SZ, d(130), 260, d(130)},
        {REG_SZ, d(131), 262, L""},
        {REG_SZ, d(140), 280, L""},
        // A last byte of its own is a character of its own.
        {REG_SZ, d(3), 5, d(3)},
        {REG_SZ, d(130), 259, d(130)},
        // It ends at the first null character.
        {REG_SZ, L"C:\\A\0B\0"s, 14, L"C:\\A"},
        {REG_SZ, L"\0"s, 2, L""},
        {REG_SZ, L"", 0, L""},
        {REG_SZ, L"C:\\Zenvo\\\0"s, 20, L"C:\\Zenvo\\"},
        {REG_DWORD, L"AB", 4, L"AB"},
    };
    for (const std::size_t length : {0U, 1U, 128U, 129U, 130U, 131U, 259U, 1024U, 5000U}) {
        cases.push_back(
            {REG_SZ, d(length) + L'\0', 2 * length + 2, length < 130 ? d(length) : L""});
    }
    for (const DWORD type : {REG_SZ, REG_EXPAND_SZ, REG_MULTI_SZ, REG_BINARY, REG_NONE}) {
        const std::wstring folder = L"%SystemRoot%\\A%s%d";
        cases.push_back({type, folder + L"\0\0"s, 2 * folder.size() + 4, folder});
    }
    const ScratchKey key(kInstallManagerKey);
    for (const Case& tested : cases) {
        // Longer than what is stored of it: the system takes in a terminator that comes next.
        const Bytes bytes = BytesOf(tested.characters + d(2));
        RegSetValueExW(key.Get(), L"InstallDir", 0, tested.type, bytes.data(),
                       static_cast<DWORD>(tested.bytes));
        EXPECT_EQ(key.Read(L"InstallDir"),
                  (ScratchKey::Value{
                      tested.type, Bytes(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(
                                                                            tested.bytes))}));
        EXPECT_EQ(CreatedPath(), PathIn(tested.folder)) << tested.type << " " << tested.bytes;
    }
}

TEST(CreateAgentService, TheServiceManagerKnowsEveryPropertyAsGiven) {
    const InstallManager installed;
    const ServiceScope service(kAgent);
    const LeftManager manager;
    const ServiceCalls calls(kOpenedManager);
    CreateAgentService();
    EXPECT_EQ(ConfigurationOf(kAgent),
              (Lines{std::to_wstring(SERVICE_WIN32_OWN_PROCESS | SERVICE_INTERACTIVE_PROCESS),
                     std::to_wstring(SERVICE_AUTO_START), std::to_wstring(SERVICE_ERROR_NORMAL),
                     L"0", PathIn(L"C:\\Zenvo\\MIM"), L"", L"", L"LocalSystem", kDisplayName}));
    EXPECT_EQ(service.State(), static_cast<DWORD>(SERVICE_STOPPED));
    EXPECT_EQ(calls.Messages(), Lines{});
}

TEST(CreateAgentService, TheHandleOfTheManagerStaysUsable) {
    const InstallManager installed;
    const ServiceScope service(kAgent);
    const LeftManager manager;
    {
        const ServiceCalls calls(kOpenedManager);
        CreateAgentService();
        EXPECT_EQ(calls.Of({L"close"}), kClosedService);
    }
    SC_HANDLE opened = OpenServiceW(manager.Get(), kAgent, SERVICE_QUERY_STATUS);
    EXPECT_NE(opened, nullptr);
    CloseServiceHandle(opened);
}

TEST_F(CreateAgentServiceTest, AServiceThatExistsKeepsItsConfiguration) {
    const InstallManager installed;
    const InstalledService service(kAgent, folder.Program());
    const Lines before = ConfigurationOf(kAgent);
    EXPECT_EQ(before[4], folder.Program());
    const LeftManager manager;
    const ServiceCalls calls(kOpenedManager);
    EXPECT_EQ(halvard_tests::StandardOutputOf([] { CreateAgentService(); }), "");
    EXPECT_EQ(calls.Of({L"change"}), Lines{});
    EXPECT_EQ(ConfigurationOf(kAgent), before);
}

TEST_F(CreateAgentServiceTest, WhatItCreatesStartsAndStops) {
    const InstallManager installed(folder.Manager());
    const ServiceScope service(kAgent);
    StandInClock clock;
    clock.afterSleep = [&] {
        service.WaitForState(SERVICE_RUNNING);
    };
    const LeftManager manager;
    const ServiceCalls calls(kOpenedManager);
    CreateAgentService();
    EXPECT_TRUE(StartAgentService());
    EXPECT_EQ(service.State(), static_cast<DWORD>(SERVICE_RUNNING));
    clock.afterSleep = nullptr;
    EXPECT_TRUE(StopServiceWithTimeout(kAgent));
    EXPECT_EQ(calls.Messages(), (Lines{kStarted, kStopped}));
    EXPECT_EQ(service.State(), static_cast<DWORD>(SERVICE_STOPPED));
}

TEST(TheAgentServiceRoutines, ThrowNothingSinceTheyAllocateNothing) {
    static_assert(noexcept(StopServiceWithTimeout(std::declval<const std::wstring&>())));
    static_assert(noexcept(StartAgentService()));
    static_assert(noexcept(CreateAgentService()));
    const InstallManager installed;
    const std::wstring name = kAgent;
    ServiceManagerCalls manager({Stopping(INFINITE), {SERVICE_STOPPED, 0, INFINITE}});
    manager.stopError = ERROR_ACCESS_DENIED;
    manager.Fail(L"start service");
    {
        const AllocationFailure failure(1);
        EXPECT_TRUE(StopServiceWithTimeout(name));
        EXPECT_FALSE(StartAgentService());
        CreateAgentService();
        manager.queries[0] = kIsRunning;
        EXPECT_FALSE(StopServiceWithTimeout(name));
        EXPECT_FALSE(failure.Happened());
    }
    EXPECT_EQ(manager.Of({L"sleep", L"start", L"change", L"control"}),
              Sleeping(10000) + Sleeping(10000) + kStartRequest +
                  Lines{L"change service TeloLauncher 3 1"} + kStopRequest);
}
