#include "tasks/task_registration.h"

#include "runtime/session.h"
#include "tasks/task_templates.h"

#include "allocation_failure.h"
#include "current_session.h"
#include "import_hook.h"
#include "stand_in_session.h"
#include "task_scheduler_stand_in.h"
#include "task_store.h"

#include <gtest/gtest.h>

#include <new>
#include <thread>

using halvard::AgentLogonTaskXml;
using halvard::ElevatedTaskXml;
using halvard::RegisterAgentLogonTask;
using halvard::RegisterTaskFromXml;
using halvard_tests::AllocationFailure;
using halvard_tests::Registration;
using halvard_tests::StandInSession;
using halvard_tests::StandInTaskScheduler;
using halvard_tests::StoredTask;
using Lines = std::vector<std::wstring>;

namespace {

const std::wstring kEnter = L"CoInitializeEx 0";
const std::wstring kCreate = L"CoCreateInstance {0F87369F-A4E5-4CFC-BD3E-73E6154572DD} 1 "
                             L"{2FABA4C7-4DA9-4013-9697-20CC3FD40F85}";
const std::wstring kConnect = L"Connect 0: 0: 0: 0:";
const std::wstring kGetFolder = L"GetFolder \\";
const std::wstring kRegister = L"RegisterTask";
const std::wstring kReleaseService = L"release service";
const std::wstring kReleaseFolder = L"release folder";
const std::wstring kReleaseTask = L"release task";
const std::wstring kLeave = L"CoUninitialize";

const Lines kSuccess = {
    kEnter,         kCreate,      kConnect,
    kGetFolder,     kRegister,    L"log to 0: Successfully added A task Scheduled Event",
    kReleaseFolder, kReleaseTask, kLeave};

constexpr HRESULT Code(unsigned int code) {
    return static_cast<HRESULT>(code);
}

UINT RegisterSomeTask() {
    return RegisterTaskFromXml(L"A task", L"<Task/>", L"A user");
}

// The apartment that a thread is in, as another attempt to enter one tells.
bool IsInSingleThreadedApartment() {
    const HRESULT entered = CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    if (SUCCEEDED(entered)) {
        CoUninitialize();
    }
    return entered == RPC_E_CHANGED_MODE;
}

// Every setting of the definition that is a line of its own stands in the stored task.
void ExpectSettingsOf(const std::wstring& xml, const StoredTask& task) {
    int settings = 0;
    std::size_t start = xml.find(L"<Settings>");
    const std::size_t last = xml.find(L"</Settings>");
    while ((start = xml.find(L'\n', start) + 1) < last) {
        const std::wstring line = xml.substr(start, xml.find(L'\n', start) - start);
        const bool ofIdleness = line.find(L"dle") != std::wstring::npos;
        if (line.find(L"</") != std::wstring::npos && !ofIdleness) {
            const std::string setting(line.begin() + static_cast<std::ptrdiff_t>(line.find(L'<')),
                                      line.end());
            EXPECT_TRUE(task.Holds(setting)) << setting;
            ++settings;
        }
    }
    EXPECT_GE(settings, 10);
}

} // namespace

TEST(RegisterTaskFromXml, MakesTheseCallsInThisOrder) {
    const StandInTaskScheduler scheduler;
    EXPECT_EQ(RegisterSomeTask(), 0U);
    EXPECT_EQ(scheduler.Lines(), kSuccess);
    EXPECT_EQ(scheduler.OpenStrings(), 0U);
    EXPECT_GT(scheduler.StringsAllocated(), 0);
}

TEST(RegisterTaskFromXml, HandsTheTaskOver) {
    const StandInTaskScheduler scheduler;
    EXPECT_EQ(RegisterTaskFromXml(L"A \u0416 task", L"<Task>\n\u0416</Task>", L"MACHINE\\A user"),
              0U);
    ASSERT_EQ(scheduler.Registrations().size(), 1U);
    const Registration& registration = scheduler.Registrations()[0];
    EXPECT_EQ(registration.path, L"A \u0416 task");
    EXPECT_EQ(registration.xml, L"<Task>\n\u0416</Task>");
    EXPECT_EQ(registration.flags, 6);
    EXPECT_EQ(registration.user, L"8:MACHINE\\A user");
    EXPECT_EQ(registration.password, L"0:");
    EXPECT_EQ(registration.logonType, 3);
    EXPECT_EQ(registration.security, L"8:");
}

TEST(RegisterTaskFromXml, LeavesEmptyTextsToTheTaskScheduler) {
    const StandInTaskScheduler scheduler;
    EXPECT_EQ(RegisterTaskFromXml(L"", L"", L""), 0U);
    ASSERT_EQ(scheduler.Registrations().size(), 1U);
    EXPECT_EQ(scheduler.Registrations()[0].path, L"");
    EXPECT_EQ(scheduler.Registrations()[0].xml, L"");
    EXPECT_EQ(scheduler.Registrations()[0].user, L"8:");
}

TEST(RegisterTaskFromXml, HandsOverTextsOfAnyLengthWhateverTheLogCanHold) {
    const StandInTaskScheduler scheduler;
    const std::wstring longText(30000, L'x');
    EXPECT_EQ(RegisterTaskFromXml(longText, longText, longText), 0U);
    ASSERT_EQ(scheduler.Registrations().size(), 1U);
    EXPECT_EQ(scheduler.Registrations()[0].path, longText);
    EXPECT_EQ(scheduler.Registrations()[0].xml, longText);
    EXPECT_EQ(scheduler.Registrations()[0].user, L"8:" + longText);
    EXPECT_EQ(scheduler.Lines()[5], L"log to 0: CA buffer overflow\n");
}

TEST(RegisterTaskFromXml, ReportsThatTheTaskSchedulerCannotBeCreated) {
    StandInTaskScheduler scheduler;
    scheduler.createResult = REGDB_E_CLASSNOTREG;
    EXPECT_EQ(RegisterSomeTask(), 1U);
    EXPECT_EQ(
        scheduler.Lines(),
        (Lines{kEnter, kCreate,
               L"log to 0: Failed to create an instance of ITaskService: 0x80040154", kLeave}));
}

TEST(RegisterTaskFromXml, ReportsAFailedConnectionAndReleasesTheService) {
    StandInTaskScheduler scheduler;
    scheduler.connectResult = E_ACCESSDENIED;
    EXPECT_EQ(RegisterSomeTask(), 1U);
    EXPECT_EQ(scheduler.Lines(), (Lines{kEnter, kCreate, kConnect,
                                        L"log to 0: ITaskService::Connect failed: 0x80070005",
                                        kReleaseService, kLeave}));
}

TEST(RegisterTaskFromXml, ReportsAMissingRootFolderAndReleasesTheService) {
    StandInTaskScheduler scheduler;
    scheduler.folderResult = Code(0x80070002);
    EXPECT_EQ(RegisterSomeTask(), 1U);
    EXPECT_EQ(scheduler.Lines(), (Lines{kEnter, kCreate, kConnect, kGetFolder,
                                        L"log to 0: Cannot get Root Folder pointer: 0x80070002",
                                        kReleaseService, kLeave}));
    EXPECT_EQ(scheduler.OpenStrings(), 0U);
}

TEST(RegisterTaskFromXml, ReportsARefusedTaskAndReleasesTheFolderAlone) {
    StandInTaskScheduler scheduler;
    scheduler.registerResult = E_ACCESSDENIED;
    EXPECT_EQ(RegisterSomeTask(), 1U);
    EXPECT_EQ(scheduler.Lines(),
              (Lines{kEnter, kCreate, kConnect, kGetFolder, kRegister,
                     L"log to 0: Error saving the Task : 0x80070005", kReleaseFolder, kLeave}));
    EXPECT_EQ(scheduler.OpenStrings(), 0U);
}

TEST(RegisterTaskFromXml, NeverReleasesTheServiceOnceItHasTheFolder) {
    for (const HRESULT result : {S_OK, E_ACCESSDENIED}) {
        StandInTaskScheduler scheduler;
        scheduler.registerResult = result;
        RegisterSomeTask();
        for (const std::wstring& line : scheduler.Lines()) {
            EXPECT_NE(line, kReleaseService);
        }
    }
}

TEST(RegisterTaskFromXml, EverySuccessCodeIsASuccess) {
    StandInTaskScheduler scheduler;
    scheduler.apartmentResult = S_FALSE;
    scheduler.createResult = S_FALSE;
    scheduler.connectResult = S_FALSE;
    scheduler.folderResult = S_FALSE;
    // Registered, but some of its triggers will not start it.
    scheduler.registerResult = Code(0x0004131B);
    EXPECT_EQ(RegisterSomeTask(), 0U);
    EXPECT_EQ(scheduler.Lines(), kSuccess);
}

TEST(RegisterTaskFromXml, GivesUpWithoutAnApartment) {
    StandInTaskScheduler scheduler;
    scheduler.apartmentResult = E_OUTOFMEMORY;
    EXPECT_EQ(RegisterSomeTask(), 1U);
    EXPECT_EQ(scheduler.Lines(),
              (Lines{kEnter, L"log to 0: Failed to call CoInitializeEx 0x8007000e"}));
}

TEST(RegisterTaskFromXml, LogsAnApartmentOfAnotherKindAndGoesOn) {
    StandInTaskScheduler scheduler;
    scheduler.apartmentResult = RPC_E_CHANGED_MODE;
    EXPECT_EQ(RegisterSomeTask(), 0U);
    Lines expected = kSuccess;
    expected.insert(expected.begin() + 1, L"log to 0: Failed to call CoInitializeEx 0x80010106");
    EXPECT_EQ(scheduler.Lines(), expected);
}

TEST(RegisterTaskFromXml, LeavesAnApartmentOfAnotherKindWhenItFails) {
    StandInTaskScheduler scheduler;
    scheduler.apartmentResult = RPC_E_CHANGED_MODE;
    scheduler.connectResult = E_FAIL;
    EXPECT_EQ(RegisterSomeTask(), 1U);
    EXPECT_EQ(scheduler.Lines().back(), kLeave);
}

TEST(RegisterTaskFromXml, WorksOnAThreadInASingleThreadedApartmentAndLeavesIt) {
    Lines expected = kSuccess;
    expected.insert(expected.begin() + 1, L"log to 0: Failed to call CoInitializeEx 0x80010106");
    bool wasInside = false;
    bool isInside = true;
    std::thread([&] {
        CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
        wasInside = IsInSingleThreadedApartment();
        {
            const StandInTaskScheduler scheduler;
            EXPECT_EQ(RegisterSomeTask(), 0U);
            EXPECT_EQ(scheduler.Lines(), expected);
        }
        isInside = IsInSingleThreadedApartment();
    }).join();
    EXPECT_TRUE(wasInside);
    EXPECT_FALSE(isInside);
}

TEST(RegisterTaskFromXml, LeavesAMultithreadedApartmentAsItFoundIt) {
    bool isInside = true;
    std::thread([&] {
        CoInitializeEx(nullptr, COINIT_MULTITHREADED);
        {
            const StandInTaskScheduler scheduler;
            EXPECT_EQ(RegisterSomeTask(), 0U);
            EXPECT_EQ(scheduler.Lines(), kSuccess);
        }
        isInside = CoInitializeEx(nullptr, COINIT_MULTITHREADED) == S_FALSE;
        CoUninitialize();
        CoUninitialize();
    }).join();
    EXPECT_TRUE(isInside);
}

TEST(RegisterTaskFromXml, AStringThatCannotBeAllocatedIsAFailureOfItsStep) {
    {
        StandInTaskScheduler scheduler;
        scheduler.failingString = 1;
        EXPECT_EQ(RegisterSomeTask(), 1U);
        EXPECT_EQ(scheduler.Lines(), (Lines{kEnter, kCreate, kConnect,
                                            L"log to 0: Cannot get Root Folder pointer: 0x8007000e",
                                            kReleaseService, kLeave}));
        EXPECT_EQ(scheduler.OpenStrings(), 0U);
    }
    // Task name, definition, user and security descriptor.
    for (int nth = 2; nth <= 5; ++nth) {
        StandInTaskScheduler scheduler;
        scheduler.failingString = nth;
        EXPECT_EQ(RegisterSomeTask(), 1U);
        EXPECT_EQ(scheduler.Lines(),
                  (Lines{kEnter, kCreate, kConnect, kGetFolder,
                         L"log to 0: Error saving the Task : 0x8007000e", kReleaseFolder, kLeave}))
            << nth;
        EXPECT_EQ(scheduler.OpenStrings(), 0U);
    }
    const StandInTaskScheduler scheduler;
    RegisterSomeTask();
    EXPECT_EQ(scheduler.StringsAllocated(), 5);
}

TEST(RegisterTaskFromXml, NoneOfItsLinesReachesTheSession) {
    const StandInSession session;
    const halvard_tests::CurrentSessionScope current(session.Get());
    for (const HRESULT result : {S_OK, E_FAIL}) {
        StandInTaskScheduler scheduler;
        scheduler.apartmentResult = RPC_E_CHANGED_MODE;
        scheduler.registerResult = result;
        RegisterSomeTask();
    }
    EXPECT_EQ(session.Messages().size(), 0U);
    EXPECT_EQ(halvard::CurrentSession(), session.Get());
}

TEST(RegisterTaskFromXml, ReportsADefinitionBrokenByAnAmpersand) {
    const StandInTaskScheduler scheduler;
    EXPECT_EQ(RegisterTaskFromXml(L"A & B", ElevatedTaskXml(L"A & B", L"a.exe"), L"A user"), 1U);
    EXPECT_EQ(scheduler.Lines(),
              (Lines{kEnter, kCreate, kConnect, kGetFolder, kRegister,
                     L"log to 0: Error saving the Task : 0x8004131a", kReleaseFolder, kLeave}));
}

TEST(RegisterTaskFromXml, ReportsADefinitionWithAnEmptyCommand) {
    const StandInTaskScheduler scheduler;
    EXPECT_EQ(RegisterTaskFromXml(L"A task", ElevatedTaskXml(L"A task", L""), L"A user"), 1U);
    EXPECT_EQ(scheduler.Lines(),
              (Lines{kEnter, kCreate, kConnect, kGetFolder, kRegister,
                     L"log to 0: Error saving the Task : 0x80041318", kReleaseFolder, kLeave}));
}

TEST(RegisterTaskFromXml, PutsATaskIntoTheStoreOfTheSystem) {
    const StoredTask task(L"Halvard test task \u0416");
    const std::wstring xml = ElevatedTaskXml(L"A task", L"C:\\A B\\a.exe -x");
    EXPECT_EQ(RegisterTaskFromXml(task.Name(), xml, L"A user"), 0U);
    EXPECT_TRUE(task.Holds("<RegistrationInfo>\n"
                           "    <Date>2015-08-24T18:27:49.0496979</Date>\n"
                           "    <Author>Zenvo Corporation</Author>\n"
                           "    <Description>A task</Description>\n"
                           "    <URI>A task</URI>\n"
                           "  </RegistrationInfo>"));
    ExpectSettingsOf(xml, task);
}

TEST(RegisterTaskFromXml, ReplacesATaskOfTheSameName) {
    const StoredTask task(L"Halvard test task");
    EXPECT_EQ(RegisterTaskFromXml(task.Name(), ElevatedTaskXml(L"first", L"a.exe"), L"me"), 0U);
    EXPECT_TRUE(task.Holds("<URI>first</URI>"));
    EXPECT_EQ(RegisterTaskFromXml(task.Name(), ElevatedTaskXml(L"second", L"a.exe"), L"me"), 0U);
    EXPECT_TRUE(task.Holds("<URI>second</URI>"));
    EXPECT_FALSE(task.Holds("first"));
}

TEST(RegisterTaskFromXml, KeepsTheFormerTaskWhenTheNewOneIsRefused) {
    const StoredTask task(L"Halvard test task");
    EXPECT_EQ(RegisterTaskFromXml(task.Name(), ElevatedTaskXml(L"first", L"a.exe"), L"me"), 0U);
    EXPECT_EQ(RegisterTaskFromXml(task.Name(), ElevatedTaskXml(L"a < b", L"a.exe"), L"me"), 1U);
    EXPECT_TRUE(task.Holds("<URI>first</URI>"));
}

TEST(RegisterTaskFromXml, TheSystemRefusesADefinitionThatIsNotWellFormed) {
    const StoredTask task(L"Halvard test task");
    for (const std::wstring& xml :
         {std::wstring(), std::wstring(L"<Task"), ElevatedTaskXml(L"a < b", L"a.exe")}) {
        EXPECT_EQ(RegisterTaskFromXml(task.Name(), xml, L"A user"), 1U);
        EXPECT_FALSE(task.Exists());
    }
}

TEST(RegisterTaskFromXml, TheSystemTakesATaskFromASingleThreadedApartment) {
    const StoredTask task(L"Halvard test task");
    UINT result = 99;
    std::thread([&] {
        CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
        result = RegisterTaskFromXml(task.Name(), ElevatedTaskXml(task.Name(), L"a.exe"), L"me");
    }).join();
    EXPECT_EQ(result, 0U);
    EXPECT_TRUE(task.Exists());
}

TEST(RegisterAgentLogonTask, HandsOverTheAgentsDefinition) {
    const StandInTaskScheduler scheduler;
    EXPECT_EQ(RegisterAgentLogonTask(L"A task", L"a.exe -x", L"A user"), 0U);
    EXPECT_EQ(scheduler.Lines(), kSuccess);
    ASSERT_EQ(scheduler.Registrations().size(), 1U);
    EXPECT_EQ(scheduler.Registrations()[0].path, L"A task");
    EXPECT_EQ(scheduler.Registrations()[0].xml, AgentLogonTaskXml(L"A task", L"a.exe -x"));
    EXPECT_EQ(scheduler.Registrations()[0].user, L"8:A user");
}

TEST(RegisterAgentLogonTask, ReturnsTheFailureOfTheRegistration) {
    const StandInTaskScheduler scheduler;
    EXPECT_EQ(RegisterAgentLogonTask(L"A & B", L"a.exe", L"A user"), 1U);
    EXPECT_EQ(RegisterAgentLogonTask(L"A task", L"", L"A user"), 1U);
}

TEST(RegisterAgentLogonTask, DoesNothingButThrowWithoutMemory) {
    const std::wstring text(100, L'x');
    FAIL_CALL(entering, CoInitializeEx, 0, E_FAIL, ERROR_SUCCESS);
    bool happened = true;
    for (int nth = 1; happened; ++nth) {
        const AllocationFailure failure(nth);
        try {
            EXPECT_EQ(RegisterAgentLogonTask(text, text, text), 1U);
            EXPECT_EQ(entering.Calls(), 1);
        } catch (const std::bad_alloc&) {
            EXPECT_EQ(entering.Calls(), 0);
        }
        happened = failure.Happened();
    }
    EXPECT_EQ(entering.Calls(), 1);
}

TEST(RegisterAgentLogonTask, PutsTheTaskIntoTheStoreOfTheSystem) {
    const StoredTask task(L"Halvard test agent");
    EXPECT_EQ(RegisterAgentLogonTask(task.Name(), L"C:\\A B\\agent.exe", L"A user"), 0U);
    EXPECT_TRUE(task.Holds("<RegistrationInfo>\n"
                           "    <Date>2016-12-11T23:29:31</Date>\n"
                           "    <Author>WORKGROUP\\ZENVO-BUILD01$</Author>\n"
                           "    <URI>Halvard test agent</URI>\n"
                           "  </RegistrationInfo>"));
    ExpectSettingsOf(AgentLogonTaskXml(L"", L""), task);
}
