#include "tasks/elevated_task.h"

#include "runtime/session.h"
#include "tasks/task_templates.h"

#include "current_session.h"
#include "import_hook.h"
#include "stand_in_session.h"
#include "task_scheduler_stand_in.h"
#include "task_store.h"

#include <gtest/gtest.h>

#include <stdexcept>

using halvard::CreateTriggerlessElevatedScheduleTask;
using halvard::ElevatedTaskXml;
using halvard_tests::CurrentSessionScope;
using halvard_tests::StandInSession;
using halvard_tests::StandInTaskScheduler;
using halvard_tests::StoredTask;
using Lines = std::vector<std::wstring>;

namespace {

// A session with this data, and a stand-in for the Task Scheduler.
class Action {
public:
    explicit Action(const std::wstring& data) { session.SetProperty(L"CustomActionData", data); }

    UINT Run() const { return CreateTriggerlessElevatedScheduleTask(session.Get()); }

    CurrentSessionScope current{99};
    StandInSession session;
    StandInTaskScheduler scheduler;
};

} // namespace

TEST(CreateTriggerlessElevatedScheduleTask, LogsItsArgumentsAndRegistersTheTask) {
    const std::wstring data = L"TaskName=A task;CommandToLaunch=C:\\A B\\a.exe -x;Username=A user";
    const Action action(data);
    EXPECT_EQ(action.Run(), 0U);
    EXPECT_EQ(action.session.LogLines(),
              (Lines{L"CustomActionData: " + data, L"Task Name A task",
                     L"Command to launch C:\\A B\\a.exe -x", L"Username A user"}));
    EXPECT_EQ(action.session.Messages().size(), 4U);
    ASSERT_EQ(action.scheduler.Registrations().size(), 1U);
    const halvard_tests::Registration& registration = action.scheduler.Registrations()[0];
    EXPECT_EQ(registration.path, L"A task");
    EXPECT_EQ(registration.xml, ElevatedTaskXml(L"A task", L"C:\\A B\\a.exe -x"));
    EXPECT_EQ(registration.user, L"8:A user");
}

TEST(CreateTriggerlessElevatedScheduleTask, LogsBeforeItRegisters) {
    const Action action(L"TaskName=t;CommandToLaunch=c;Username=u");
    action.Run();
    const std::wstring ours = L"log to " + std::to_wstring(action.session.Get()) + L": ";
    const Lines& lines = action.scheduler.Lines();
    ASSERT_GE(lines.size(), 5U);
    EXPECT_EQ(Lines(lines.begin(), lines.begin() + 5),
              (Lines{ours + L"CustomActionData: TaskName=t;CommandToLaunch=c;Username=u",
                     ours + L"Task Name t", ours + L"Command to launch c", ours + L"Username u",
                     L"CoInitializeEx 0"}));
}

TEST(CreateTriggerlessElevatedScheduleTask, TakesItsItemsInAnyOrder) {
    const Action action(L"Username=u;CommandToLaunch=c;TaskName=t");
    EXPECT_EQ(action.Run(), 0U);
    ASSERT_EQ(action.scheduler.Registrations().size(), 1U);
    EXPECT_EQ(action.scheduler.Registrations()[0].path, L"t");
    EXPECT_EQ(action.scheduler.Registrations()[0].xml, ElevatedTaskXml(L"t", L"c"));
    EXPECT_EQ(action.scheduler.Registrations()[0].user, L"8:u");
}

TEST(CreateTriggerlessElevatedScheduleTask, ReturnsTheFailureOfTheRegistration) {
    Action action(L"TaskName=t;CommandToLaunch=c;Username=u");
    action.scheduler.registerResult = E_ACCESSDENIED;
    EXPECT_EQ(action.Run(), 1U);
    EXPECT_EQ(action.session.LogLines().size(), 4U);
}

TEST(CreateTriggerlessElevatedScheduleTask, StoresItsSessionBeforeAnythingElse) {
    const Action action(L"TaskName=t;CommandToLaunch=c;Username=u");
    HOOK(reading, MsiGetPropertyW,
         [&](MSIHANDLE handle, LPCWSTR name, LPWSTR buffer, LPDWORD length) {
             EXPECT_EQ(halvard::CurrentSession(), action.session.Get());
             EXPECT_EQ(handle, action.session.Get());
             EXPECT_EQ(action.scheduler.Lines(), Lines{});
             return reading.Original(handle, name, buffer, length);
         });
    action.Run();
    EXPECT_EQ(reading.Calls(), 2);
    EXPECT_EQ(halvard::CurrentSession(), action.session.Get());
}

TEST(CreateTriggerlessElevatedScheduleTask, LogsItsArgumentsToTheCurrentSession) {
    const Action action(L"TaskName=t;CommandToLaunch=c;Username=u");
    HOOK(reading, MsiGetPropertyW,
         [&](MSIHANDLE handle, LPCWSTR name, LPWSTR buffer, LPDWORD length) {
             halvard::SetCurrentSession(0);
             return reading.Original(handle, name, buffer, length);
         });
    EXPECT_EQ(action.Run(), 0U);
    EXPECT_EQ(action.session.LogLines(),
              Lines{L"CustomActionData: TaskName=t;CommandToLaunch=c;Username=u"});
}

TEST(CreateTriggerlessElevatedScheduleTask, AnAbsentCommandIsEmptyAndRefused) {
    // Long enough for text behind the length of the absent key, which must not become a command.
    const std::wstring data = L"TaskName=t;Username=A user with a long name";
    const Action action(data);
    EXPECT_EQ(action.Run(), 1U);
    EXPECT_EQ(action.session.LogLines(),
              (Lines{L"CustomActionData: " + data, L"Task Name t", L"Command to launch ",
                     L"Username A user with a long name"}));
    ASSERT_EQ(action.scheduler.Registrations().size(), 1U);
    EXPECT_EQ(action.scheduler.Registrations()[0].xml, ElevatedTaskXml(L"t", L""));
}

TEST(CreateTriggerlessElevatedScheduleTask, AnAbsentCommandInShortDataIsEmptyToo) {
    const Action action(L"TaskName=t");
    EXPECT_EQ(action.Run(), 1U);
    EXPECT_EQ(action.session.LogLines(), (Lines{L"CustomActionData: TaskName=t", L"Task Name t",
                                                L"Command to launch ", L"Username =t"}));
}

TEST(CreateTriggerlessElevatedScheduleTask, AnEmptyCommandIsRefused) {
    const Action action(L"TaskName=t;CommandToLaunch=;Username=u");
    EXPECT_EQ(action.Run(), 1U);
    ASSERT_EQ(action.scheduler.Registrations().size(), 1U);
    EXPECT_EQ(action.scheduler.Registrations()[0].xml, ElevatedTaskXml(L"t", L""));
}

TEST(CreateTriggerlessElevatedScheduleTask, AnAbsentNameOrUserIsTheTextFromIndex8) {
    {
        const Action action(L"CommandToLaunch=c;Username=u");
        EXPECT_EQ(action.Run(), 0U);
        ASSERT_EQ(action.scheduler.Registrations().size(), 1U);
        EXPECT_EQ(action.scheduler.Registrations()[0].path, L"oLaunch=c");
        EXPECT_EQ(action.session.LogLines()[1], L"Task Name oLaunch=c");
    }
    {
        const Action action(L"CommandToLaunch=c;TaskName=t");
        EXPECT_EQ(action.Run(), 0U);
        ASSERT_EQ(action.scheduler.Registrations().size(), 1U);
        EXPECT_EQ(action.scheduler.Registrations()[0].user, L"8:oLaunch=c");
        EXPECT_EQ(action.session.LogLines()[3], L"Username oLaunch=c");
    }
}

TEST(CreateTriggerlessElevatedScheduleTask, AnEmptyUserIsLeftToTheTaskScheduler) {
    const Action action(L"TaskName=t;CommandToLaunch=c;Username=");
    EXPECT_EQ(action.Run(), 0U);
    ASSERT_EQ(action.scheduler.Registrations().size(), 1U);
    EXPECT_EQ(action.scheduler.Registrations()[0].user, L"8:");
}

TEST(CreateTriggerlessElevatedScheduleTask, DataShorterThanAKeyThrowsAndRegistersNothing) {
    for (const std::wstring& data : {std::wstring(), std::wstring(L"a"), std::wstring(7, L'x')}) {
        const Action action(data);
        EXPECT_THROW(action.Run(), std::out_of_range);
        EXPECT_EQ(action.session.LogLines(), Lines{L"CustomActionData: " + data});
        EXPECT_EQ(action.scheduler.Lines().size(), 1U);
    }
    // Enough for both keys: all three values are empty.
    const Action action(std::wstring(8, L'x'));
    EXPECT_EQ(action.Run(), 1U);
    EXPECT_EQ(action.session.LogLines(), (Lines{L"CustomActionData: xxxxxxxx", L"Task Name ",
                                                L"Command to launch ", L"Username "}));
}

TEST(CreateTriggerlessElevatedScheduleTask, AMissingPropertyThrowsAsEmptyDataDoes) {
    const CurrentSessionScope current;
    const StandInSession session;
    EXPECT_THROW(CreateTriggerlessElevatedScheduleTask(session.Get()), std::out_of_range);
    EXPECT_EQ(session.LogLines(), Lines{L"CustomActionData: "});
}

TEST(CreateTriggerlessElevatedScheduleTask, ACommandTooLongForTheLogIsRegisteredWhole) {
    const std::wstring command(600, L'c');
    const Action action(L"TaskName=t;Username=u;CommandToLaunch=" + command);
    EXPECT_EQ(action.Run(), 0U);
    EXPECT_EQ(action.session.LogLines(), (Lines{L"CA buffer overflow\n", L"Task Name t",
                                                L"CA buffer overflow\n", L"Username u"}));
    ASSERT_EQ(action.scheduler.Registrations().size(), 1U);
    EXPECT_EQ(action.scheduler.Registrations()[0].xml, ElevatedTaskXml(L"t", command));
}

TEST(CreateTriggerlessElevatedScheduleTask, ANameOrCommandThatBreaksTheXmlIsRefused) {
    for (const wchar_t* data : {L"TaskName=A & B;CommandToLaunch=c;Username=u",
                                L"TaskName=t;CommandToLaunch=a & b;Username=u"}) {
        const Action action(data);
        EXPECT_EQ(action.Run(), 1U) << data;
        EXPECT_EQ(action.scheduler.Registrations().size(), 1U);
    }
}

TEST(CreateTriggerlessElevatedScheduleTask, PutsTheTaskIntoTheStoreOfTheSystem) {
    const StoredTask task(L"Halvard test elevated");
    const CurrentSessionScope current;
    const StandInSession session;
    session.SetProperty(
        L"CustomActionData",
        L"TaskName=Halvard test elevated;CommandToLaunch=C:\\A B\\a.exe;Username=A user");
    EXPECT_EQ(CreateTriggerlessElevatedScheduleTask(session.Get()), 0U);
    EXPECT_TRUE(task.Holds("<Author>Zenvo Corporation</Author>\n"
                           "    <Description>Halvard test elevated</Description>\n"
                           "    <URI>Halvard test elevated</URI>\n"));
}
