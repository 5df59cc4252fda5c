#include "processes/service_removal.h"

#include "runtime/file_status.h"

#include "runtime/session.h"

#include "allocation_failure.h"
#include "call_trace.h"
#include "current_session.h"
#include "files.h"
#include "import_hook.h"
#include "installed_service.h"
#include "lines.h"
#include "open_handles.h"
#include "service_manager_stand_in.h"
#include "stand_in_session.h"

#include <msi.h>
#include <msiquery.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <stdexcept>
#include <system_error>

using halvard::DeleteServiceIfBinaryIsInDirectory;
using halvard::RemoveServiceInDirectory;
using halvard_tests::CallTrace;
using halvard_tests::CurrentSessionScope;
using halvard_tests::InstalledService;
using halvard_tests::kInstaller;
using halvard_tests::ScratchFolder;
using halvard_tests::ServiceBehavior;
using halvard_tests::ServiceManagerCalls;
using halvard_tests::ServiceScope;
using halvard_tests::StandInSession;

namespace {

constexpr wchar_t kName[] = L"HalvardTestService";
constexpr wchar_t kFolder[] = L"T:\\Scratch\\Svc";
constexpr wchar_t kProgram[] = L"T:\\Scratch\\Svc\\svc.exe";
constexpr wchar_t kWaiting[] = L"Waiting for service to stop.";

// The folder of a service with its program in it.
class ServiceFolder {
public:
    ServiceFolder() {
        halvard_tests::CreateFolders(kFolder);
        halvard_tests::CopyTestService(kProgram);
    }

private:
    ScratchFolder scratch_;
};

Lines LinesOfFoundService(const std::wstring& program = kProgram,
                          const std::wstring& parent = kFolder) {
    return {L"binary path = " + program + L"\n", L"Parent path of " + program + L" is " + parent};
}

const Lines& DeletedLine() {
    static const Lines line = {std::wstring(L"Successfully deleted ") + kName};
    return line;
}

Lines NotInLine(const std::wstring& program, const std::wstring& directory) {
    return {program + L" is not in directory " + directory};
}

// What a removal logs, every line of it to session 0.
Lines LogOf(const std::wstring& name, const std::wstring& directory) {
    const CurrentSessionScope other(99); // none of the lines may reach it
    const CallTrace calls(kInstaller);
    RemoveServiceInDirectory(name, directory);
    std::size_t lost = 0;
    for (const std::wstring& line : calls.All()) {
        lost += line == L"send 0x4000000 to 0" ? 1 : 0;
    }
    EXPECT_EQ(lost, calls.Rests(L"set field 0 ").size());
    return calls.Rests(L"set field 0 ");
}

// The code with which Windows refuses to tell what is there.
DWORD RefusalOf(const std::wstring& path) {
    return GetFileAttributesW(halvard::SystemPath(path).c_str()) == INVALID_FILE_ATTRIBUTES
               ? GetLastError()
               : NO_ERROR;
}

// `missing` is the one of both that is not there.
void ExpectFolderError(const std::wstring& program, const std::wstring& parent,
                       const std::wstring& directory, const std::wstring& missing) {
    const DWORD refusal = RefusalOf(missing);
    EXPECT_TRUE(halvard::MeansMissing(refusal)) << program.c_str() << " " << refusal;
    try {
        RemoveServiceInDirectory(kName, directory);
        ADD_FAILURE() << "nothing was thrown";
    } catch (const std::filesystem::filesystem_error& error) {
        EXPECT_NE(std::string(error.what()).find("equivalent"), std::string::npos) << error.what();
        EXPECT_EQ(error.path1().wstring(), parent) << program.c_str();
        EXPECT_EQ(error.path2().wstring(), directory) << program.c_str();
        EXPECT_EQ(error.code(), std::error_code(static_cast<int>(refusal), std::system_category()))
            << program.c_str();
    }
}

// `run` throws with this code.
template <class Run>
void ExpectRefusedConfiguration(DWORD code, Run run) {
    try {
        run();
        ADD_FAILURE() << "nothing was thrown";
    } catch (const std::system_error& error) {
        EXPECT_EQ(error.code(), std::error_code(static_cast<int>(code), std::system_category()));
        EXPECT_EQ(std::string(error.what()).find("Unable to call QueryServiceConfig: "), 0U)
            << error.what();
    }
}

} // namespace

TEST(DeleteServiceIfBinaryIsInDirectory, StopsAndDeletesAServiceOfTheFolder) {
    const ServiceFolder folder;
    InstalledService service(kName, kProgram);
    service.Start();
    const CurrentSessionScope current;
    const StandInSession session;
    const std::wstring data =
        std::wstring(L"ServiceName=") + kName + L";DirectoryOfBinary=" + kFolder;
    session.SetProperty(L"CustomActionData", data);
    {
        const CallTrace calls(kInstaller);
        EXPECT_EQ(DeleteServiceIfBinaryIsInDirectory(session.Get()), 0U);
        EXPECT_EQ(WithoutRepeats(calls.Rests(L"set field 0 ")),
                  Lines{L"CustomActionData: " + data} + LinesOfFoundService() + Lines{kWaiting} +
                      DeletedLine());
    }
    EXPECT_TRUE(service.WaitUntilGone());
    EXPECT_TRUE(service.WaitForProcess());
    // Nothing else reaches the log.
    EXPECT_EQ(session.LogLines(), Lines{L"CustomActionData: " + data});
    EXPECT_EQ(session.Messages().size(), 1U);
}

TEST(DeleteServiceIfBinaryIsInDirectory, TakesItsItemsInAnyOrder) {
    const ServiceFolder folder;
    const InstalledService service(kName, kProgram);
    const CurrentSessionScope current;
    const StandInSession session;
    session.SetProperty(L"CustomActionData",
                        std::wstring(L"DirectoryOfBinary=") + kFolder + L";ServiceName=" + kName);
    EXPECT_EQ(DeleteServiceIfBinaryIsInDirectory(session.Get()), 0U);
    EXPECT_FALSE(service.Exists());
}

TEST(DeleteServiceIfBinaryIsInDirectory, StoresItsSessionBeforeAnythingElse) {
    const StandInSession session;
    session.SetProperty(L"CustomActionData", L"ServiceName=;DirectoryOfBinary=T:\\");
    const CurrentSessionScope current(99);
    HOOK(reading, MsiGetPropertyW,
         [&](MSIHANDLE handle, LPCWSTR name, LPWSTR buffer, LPDWORD length) {
             EXPECT_EQ(halvard::CurrentSession(), session.Get());
             EXPECT_EQ(handle, session.Get());
             return reading.Original(handle, name, buffer, length);
         });
    EXPECT_EQ(DeleteServiceIfBinaryIsInDirectory(session.Get()), 0U);
    EXPECT_EQ(reading.Calls(), 2);
    EXPECT_EQ(halvard::CurrentSession(), session.Get());
}

TEST(DeleteServiceIfBinaryIsInDirectory, DataShorterThanAKeyThrowsAndTouchesNoService) {
    const CurrentSessionScope current;
    const StandInSession session;
    for (const std::wstring& data : {std::wstring(), std::wstring(L"ServiceName="),
                                     std::wstring(L"ServiceName=abcd"), std::wstring(16, L'x')}) {
        session.SetProperty(L"CustomActionData", data);
        COUNT_CALLS(managers, OpenSCManagerW);
        EXPECT_THROW(DeleteServiceIfBinaryIsInDirectory(session.Get()), std::out_of_range);
        EXPECT_EQ(managers.Calls(), 0);
    }
    EXPECT_EQ(session.LogLines().size(), 4U);
}

TEST(DeleteServiceIfBinaryIsInDirectory, AnAbsentNameIsTheTextFromIndex11) {
    const CurrentSessionScope current;
    const StandInSession session;
    session.SetProperty(L"CustomActionData", L"DirectoryOfBinary=T:\\");
    const CallTrace calls(kInstaller);
    EXPECT_EQ(DeleteServiceIfBinaryIsInDirectory(session.Get()), 0U);
    ASSERT_EQ(calls.Rests(L"set field 0 ").size(), 2U);
    EXPECT_EQ(
        calls.Rests(L"set field 0 ")[1].find(L"Unable to open service Binary=T:\\. Error code: "),
        0U);
}

TEST(DeleteServiceIfBinaryIsInDirectory, AnAbsentDirectoryIsTheTextFromIndex17) {
    const ServiceFolder folder;
    const InstalledService service(kName, kProgram);
    const CurrentSessionScope current;
    const StandInSession session;
    session.SetProperty(L"CustomActionData", std::wstring(L"ServiceName=") + kName);
    const std::wstring directory = std::wstring(kName).substr(5);
    try {
        DeleteServiceIfBinaryIsInDirectory(session.Get());
        ADD_FAILURE() << "nothing was thrown";
    } catch (const std::filesystem::filesystem_error& error) {
        EXPECT_EQ(error.path2().wstring(), directory);
    }
    EXPECT_TRUE(service.Exists());
}

TEST(DeleteServiceIfBinaryIsInDirectory, WhatLeavesTheRemovalLeavesTheAction) {
    const CurrentSessionScope current;
    const StandInSession session;
    session.SetProperty(L"CustomActionData", L"ServiceName=Spooler;DirectoryOfBinary=T:\\");
    ServiceManagerCalls manager;
    manager.Fail(L"configuration");
    ExpectRefusedConfiguration(ERROR_ACCESS_DENIED,
                               [&] { DeleteServiceIfBinaryIsInDirectory(session.Get()); });
}

TEST(RemoveServiceInDirectory, LeavesAServiceThatRunsFromElsewhere) {
    const ServiceFolder folder;
    halvard_tests::CreateFolders(L"T:\\Scratch\\Svc\\Sub");
    InstalledService service(kName, kProgram);
    service.Start();
    for (const std::wstring directory : {L"T:\\Scratch", L"T:\\Scratch\\Svc\\Sub", kProgram}) {
        EXPECT_EQ(LogOf(kName, directory), LinesOfFoundService() + NotInLine(kProgram, directory));
    }
    EXPECT_EQ(service.State(), static_cast<DWORD>(SERVICE_RUNNING));
    EXPECT_FALSE(service.IsBeingDeleted());
}

TEST(RemoveServiceInDirectory, WaitsForAServiceThatTakesTwoSecondsToStop) {
    const ServiceFolder folder;
    ServiceBehavior behavior;
    behavior.stopPending = 2000;
    InstalledService service(kName, kProgram, behavior);
    service.Start();
    const ULONGLONG start = GetTickCount64();
    const Lines lines = LogOf(kName, kFolder);
    const ULONGLONG elapsed = GetTickCount64() - start;
    EXPECT_TRUE(service.WaitUntilGone());

    const auto waits = static_cast<std::size_t>(std::count(lines.begin(), lines.end(), kWaiting));
    EXPECT_EQ(lines, LinesOfFoundService() + Lines(waits, kWaiting) + DeletedLine());
    EXPECT_GE(waits, 1U);
    EXPECT_LT(waits, 30U);
    EXPECT_GE(elapsed, 1980U);
}

TEST(RemoveServiceInDirectory, MarksAServiceThatIgnoresTheStopForDeletion) {
    const ServiceFolder folder;
    ServiceBehavior behavior;
    behavior.stopIgnored = true;
    InstalledService service(kName, kProgram, behavior);
    service.Start();
    const ULONGLONG start = GetTickCount64();
    const Lines lines = LogOf(kName, kFolder);
    const ULONGLONG elapsed = GetTickCount64() - start;

    EXPECT_EQ(lines, LinesOfFoundService() + Lines(30, kWaiting) + DeletedLine());
    EXPECT_GE(elapsed, 3000U);
    EXPECT_EQ(service.State(), static_cast<DWORD>(SERVICE_RUNNING));
    EXPECT_TRUE(service.IsBeingDeleted());
    // The system removes it when it stops at last.
    service.EndProcess();
    EXPECT_TRUE(service.WaitUntilGone());
}

TEST(RemoveServiceInDirectory, DeletesAServiceThatIsStoppedAlready) {
    const ServiceFolder folder;
    const InstalledService service(kName, kProgram);
    EXPECT_EQ(LogOf(kName, kFolder), LinesOfFoundService() + DeletedLine());
    EXPECT_FALSE(service.Exists());
}

TEST(RemoveServiceInDirectory, ANameWithoutAServiceIsLogged) {
    const ScratchFolder scratch;
    const ServiceScope service(kName);
    EXPECT_EQ(LogOf(kName, scratch.Path()),
              Lines{std::wstring(L"Unable to open service ") + kName + L". Error code: 1060"});
}

TEST(RemoveServiceInDirectory, AServiceThatIsBeingDeletedCannotBeDeletedAgain) {
    const ServiceFolder folder;
    ServiceBehavior behavior;
    behavior.stopPending = 300;
    InstalledService service(kName, kProgram, behavior);
    service.Start();
    {
        const SC_HANDLE manager = OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT);
        const SC_HANDLE opened = OpenServiceW(manager, kName, DELETE);
        EXPECT_NE(DeleteService(opened), FALSE);
        CloseServiceHandle(opened);
        CloseServiceHandle(manager);
    }
    const Lines lines = LogOf(kName, kFolder);
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.back(), std::wstring(L"Unable to delete ") + kName + L". Error code: 1072");
    EXPECT_TRUE(service.WaitUntilGone());
}

TEST(RemoveServiceInDirectory, OnlyTheFolderOfTheProgramHasToBeThere) {
    const ServiceFolder folder;
    DeleteFileW(kProgram);
    const InstalledService service(kName, kProgram);
    EXPECT_EQ(LogOf(kName, kFolder), LinesOfFoundService() + DeletedLine());
    EXPECT_FALSE(service.Exists());
}

TEST(RemoveServiceInDirectory, TheSameFolderInAnotherSpelling) {
    const ServiceFolder folder;
    halvard_tests::CreateFolders(L"T:\\Scratch\\Other");
    const halvard_tests::Link link(L"T:\\Scratch", L"Link", L"Svc");
    const halvard_tests::CurrentDirectoryScope current(L"T:\\Scratch");
    for (const std::wstring directory :
         {L"t:\\SCRATCH\\svc", L"T:/Scratch/Svc", L"T:\\Scratch\\Svc\\", L"T:/Scratch/Svc/",
          L"T:\\Scratch\\\\Svc\\\\", L"T:\\Scratch\\Other\\..\\.\\Svc", L"\\\\?\\T:\\Scratch\\Svc",
          L"Svc", L".\\Svc\\", L"T:Svc", L"T:\\Scratch\\Link"}) {
        const InstalledService service(kName, kProgram);
        EXPECT_EQ(LogOf(kName, directory), LinesOfFoundService() + DeletedLine())
            << std::string(directory.begin(), directory.end());
        EXPECT_FALSE(service.Exists());
    }
}

TEST(RemoveServiceInDirectory, TheSameProgramInAnotherSpelling) {
    const ServiceFolder folder;
    halvard_tests::CreateFolders(L"T:\\Scratch\\Other");
    const halvard_tests::Link link(L"T:\\Scratch", L"Link", L"Svc");
    const std::vector<std::pair<std::wstring, std::wstring>> programsAndParents = {
        {L"t:\\SCRATCH\\svc\\SVC.EXE", L"t:\\SCRATCH\\svc"},
        {L"T:/Scratch/Svc/svc.exe", L"T:/Scratch/Svc"},
        {L"T:\\Scratch\\Svc\\/\\svc.exe", L"T:\\Scratch\\Svc"},
        {L"T:\\Scratch\\Other\\..\\Svc\\svc.exe", L"T:\\Scratch\\Other\\..\\Svc"},
        {L"T:\\Scratch\\Link\\svc.exe", L"T:\\Scratch\\Link"},
        {L"T:\\Scratch\\Svc\\", L"T:\\Scratch\\Svc"},
    };
    for (const auto& [program, parent] : programsAndParents) {
        const InstalledService service(kName, program);
        EXPECT_EQ(LogOf(kName, kFolder), LinesOfFoundService(program, parent) + DeletedLine());
        EXPECT_FALSE(service.Exists());
    }
}

TEST(RemoveServiceInDirectory, AProgramInTheRootOfADrive) {
    const ScratchFolder scratch;
    const halvard_tests::CurrentDirectoryScope current(scratch.Path());
    const InstalledService service(kName, L"T:\\svc.exe");
    const Lines found = LinesOfFoundService(L"T:\\svc.exe", L"T:\\");
    // "T:" alone would be the current folder of the drive.
    EXPECT_EQ(LogOf(kName, scratch.Path()), found + NotInLine(L"T:\\svc.exe", scratch.Path()));
    EXPECT_TRUE(service.Exists());
    EXPECT_EQ(LogOf(kName, L"T:\\"), found + DeletedLine());
    EXPECT_FALSE(service.Exists());
}

TEST(RemoveServiceInDirectory, ArgumentsWithoutASlashAreOfNoConcern) {
    const ServiceFolder folder;
    const std::wstring program = std::wstring(kProgram) + L" -k group";
    const InstalledService service(kName, program);
    EXPECT_EQ(LogOf(kName, kFolder), LinesOfFoundService(program) + DeletedLine());
    EXPECT_FALSE(service.Exists());
}

TEST(RemoveServiceInDirectory, QuotesAndArgumentsWithASlashGiveAFolderThatIsNotThere) {
    const ServiceFolder folder;
    const std::wstring program = kProgram;
    const std::vector<std::pair<std::wstring, std::wstring>> programsAndParents = {
        {L"\"" + program + L"\"", std::wstring(L"\"") + kFolder},
        {L"\"" + program + L"\" -k group", std::wstring(L"\"") + kFolder},
        {L"\"" + program + L"\" /run", L"\"" + program + L"\" "},
        {program + L" -f T:\\Scratch\\x.ini", program + L" -f T:\\Scratch"},
        {L"svc.exe", L""},
        {L"%SystemRoot%\\svc.exe", L"%SystemRoot%"},
        {L"T:\\Scratch\\missing\\svc.exe", L"T:\\Scratch\\missing"},
    };
    for (const auto& [stored, parent] : programsAndParents) {
        const InstalledService service(kName, stored);
        ExpectFolderError(stored, parent, kFolder, parent);
        EXPECT_TRUE(service.Exists());
        EXPECT_FALSE(service.IsBeingDeleted());
    }
}

TEST(RemoveServiceInDirectory, AnArgumentBehindASlashIsNotInTheFolder) {
    const ServiceFolder folder;
    const std::wstring program = std::wstring(kProgram) + L" /run";
    const InstalledService service(kName, program);
    // What stands before the slash is the program itself: the system drops the blank at its end.
    EXPECT_EQ(LogOf(kName, kFolder), LinesOfFoundService(program, std::wstring(kProgram) + L" ") +
                                         NotInLine(program, kFolder));
    EXPECT_TRUE(service.Exists());
}

TEST(RemoveServiceInDirectory, ADirectoryThatIsNotThereThrows) {
    const ServiceFolder folder;
    InstalledService service(kName, kProgram);
    service.Start();
    for (const wchar_t* directory :
         {L"T:\\Scratch\\missing", L"T:\\Scratch\\missing\\Svc", L"", L"\"T:\\Scratch\\Svc\""}) {
        ExpectFolderError(kProgram, kFolder, directory, directory);
    }
    EXPECT_EQ(service.State(), static_cast<DWORD>(SERVICE_RUNNING));
    EXPECT_FALSE(service.IsBeingDeleted());
}

TEST(RemoveServiceInDirectory, PathsTooLongForTheLogAreStillCompared) {
    const ScratchFolder scratch;
    const std::wstring longFolder = scratch.Path() + L"\\" + std::wstring(200, L'a') + L"\\" +
                                    std::wstring(200, L'b') + L"\\" + std::wstring(100, L'c');
    halvard_tests::CreateFolders(L"\\\\?\\" + longFolder);
    const InstalledService service(kName, longFolder + L"\\svc.exe");
    const std::wstring overflow = L"CA buffer overflow\n";
    EXPECT_EQ(LogOf(kName, scratch.Path()), (Lines{overflow, overflow, overflow}));
    EXPECT_TRUE(service.Exists());
    EXPECT_EQ(LogOf(kName, longFolder), (Lines{overflow, overflow}) + DeletedLine());
    EXPECT_FALSE(service.Exists());
}

namespace {

// The calls of a removal to a service manager that knows one service, and to the installer's log.
struct ManagerCalls : ServiceManagerCalls {
    ManagerCalls() : ServiceManagerCalls({{}}, 0, kInstaller) { binaryPath = kProgram; }

    // What is told as the state: first by the request to stop, then by each query. 0 is a query
    // that fails.
    void Tell(const std::vector<DWORD>& states) {
        stopAnswer = {states[0]};
        queries.clear();
        for (std::size_t query = states.size() > 1 ? 1 : 0; query < states.size(); ++query) {
            queries.push_back({states[query]});
        }
    }

    const CurrentSessionScope other{99}; // none of the lines may reach it
};

// How these lines reach the log of session 0.
Lines Logged(const Lines& texts) {
    Lines lines;
    for (const std::wstring& text : texts) {
        lines = lines + Lines{L"create record 0", L"set field 0 " + text, L"send 0x4000000 to 0",
                              L"close record"};
    }
    return lines;
}

const std::wstring kService = kName;
const Lines kOpenedManager = {L"open manager 0xf003f in ServicesActive"};
const Lines kOpened = kOpenedManager + Lines{L"open service " + kService + L" 0xf003f"};
const Lines kStopRequested = {L"control service " + kService + L" 1"};
const Lines kDeletion = {L"delete service " + kService};
const Lines kClosedManager = {L"close service manager"};
const Lines kClosed = Lines{L"close service " + kService} + kClosedManager;

Lines Configured(const std::vector<DWORD>& sizes) {
    Lines lines;
    for (const DWORD size : sizes) {
        lines.push_back(L"configuration of service " + kService + L" " + std::to_wstring(size));
    }
    return lines;
}

const Lines kConfigured = Configured({0, 1000});

Lines Polls(std::size_t count) {
    Lines lines;
    for (std::size_t poll = 0; poll < count; ++poll) {
        lines = lines + Logged({kWaiting}) + Lines{L"sleep 101", L"state of service " + kService};
    }
    return lines;
}

Lines DeletionAfter(std::size_t polls, const Lines& configured = kConfigured) {
    return kOpened + configured + Logged(LinesOfFoundService()) + kStopRequested + Polls(polls) +
           kDeletion + Logged(DeletedLine()) + kClosed;
}

} // namespace

TEST(RemoveServiceInDirectory, MakesItsCallsInThisOrder) {
    const ServiceFolder folder;
    const ManagerCalls manager;
    RemoveServiceInDirectory(kName, kFolder);
    EXPECT_EQ(manager.All(), DeletionAfter(0));
}

TEST(RemoveServiceInDirectory, AnEmptyNameAsksNobodyAndIsLoggedToNoSession) {
    const ManagerCalls manager;
    const StandInSession session;
    const CurrentSessionScope current(session.Get());
    RemoveServiceInDirectory(L"", kFolder);
    EXPECT_EQ(manager.All(), Logged({L"Empty service name provided"}));
    EXPECT_EQ(session.LogLines(), Lines{});
}

TEST(RemoveServiceInDirectory, WhatCannotBeOpenedIsLoggedAndTheManagerClosed) {
    const std::pair<std::wstring, Lines> refusals[] = {
        {L"open manager", kOpenedManager + Logged({L"Unable call  OpenSCManager. Error code: 5"})},
        {L"open service", kOpened +
                              Logged({L"Unable to open service " + kService + L". Error code: 5"}) +
                              kClosedManager},
    };
    for (const auto& [refused, calls] : refusals) {
        ManagerCalls manager;
        manager.Fail(refused);
        RemoveServiceInDirectory(kName, kFolder);
        EXPECT_EQ(manager.All(), calls);
    }
}

TEST(RemoveServiceInDirectory, AConfigurationThatGrowsIsAskedForAgain) {
    const ServiceFolder folder;
    ManagerCalls manager;
    manager.configurationSizes = {100, 300, 400};
    RemoveServiceInDirectory(kName, kFolder);
    EXPECT_EQ(manager.All(), DeletionAfter(0, Configured({0, 100, 300, 400})));
}

TEST(RemoveServiceInDirectory, AConfigurationThatWantsNoMoreRoomThanItHadIsAnError) {
    for (const DWORD size : {100U, 99U}) {
        ManagerCalls manager;
        manager.configurationSizes = {100, size, 0, 0};
        ExpectRefusedConfiguration(ERROR_INSUFFICIENT_BUFFER,
                                   [] { RemoveServiceInDirectory(kName, kFolder); });
        EXPECT_EQ(manager.All(), kOpened + Configured({0, 100}) + kClosed);
    }
}

// A driver's program, as the service manager stores it.
TEST(RemoveServiceInDirectory, FindsTheFolderOfADriver) {
    const ServiceFolder folder;
    ManagerCalls manager;
    const std::wstring program = std::wstring(L"\\??\\") + kProgram;
    manager.binaryPath = program.c_str();
    RemoveServiceInDirectory(kName, kFolder);
    EXPECT_EQ(manager.Of(kDeletion), kDeletion);
}

TEST(RemoveServiceInDirectory, AConfigurationThatCannotBeReadThrowsAndClosesBothHandles) {
    for (const DWORD code : {ERROR_ACCESS_DENIED, ERROR_INVALID_HANDLE, ERROR_MORE_DATA}) {
        for (const bool afterGrowth : {false, true}) {
            ManagerCalls manager;
            manager.configurationError = code;
            manager.configurationSizes.resize(afterGrowth ? 1 : 0);
            ExpectRefusedConfiguration(code, [] { RemoveServiceInDirectory(kName, kFolder); });
            EXPECT_EQ(manager.All(),
                      kOpened + (afterGrowth ? kConfigured : Configured({0})) + kClosed);
        }
    }
}

TEST(RemoveServiceInDirectory, AFolderThatIsNotTheSameClosesBothHandlesAndCallsNothingElse) {
    const ServiceFolder folder;
    const ManagerCalls manager;
    RemoveServiceInDirectory(kName, L"T:\\Scratch");
    EXPECT_EQ(manager.All(),
              kOpened + kConfigured +
                  Logged(LinesOfFoundService() + NotInLine(kProgram, L"T:\\Scratch")) + kClosed);
}

TEST(RemoveServiceInDirectory, AFolderThatCannotBeComparedClosesBothHandles) {
    const ServiceFolder folder;
    const auto run = [] {
        const ManagerCalls manager;
        EXPECT_THROW(RemoveServiceInDirectory(kName, L"T:\\Scratch\\missing"),
                     std::filesystem::filesystem_error);
        EXPECT_EQ(manager.All(), kOpened + kConfigured + Logged(LinesOfFoundService()) + kClosed);
    };
    run();
    const int before = halvard_tests::OpenHandleCount();
    run();
    EXPECT_EQ(halvard_tests::OpenHandleCount(), before);
}

TEST(RemoveServiceInDirectory, AConfigurationWithoutAProgramIsInNoFolder) {
    const ServiceFolder folder;
    ManagerCalls manager;
    manager.binaryPath = nullptr;
    EXPECT_THROW(RemoveServiceInDirectory(kName, kFolder), std::filesystem::filesystem_error);
    const Lines logged = Logged({L"binary path = \n", L"Parent path of  is "});
    EXPECT_EQ(manager.All(), kOpened + kConfigured + logged + kClosed);
}

TEST(RemoveServiceInDirectory, AStopThatIsRefusedIsNotWaitedFor) {
    const ServiceFolder folder;
    for (const DWORD code :
         {ERROR_SERVICE_NOT_ACTIVE, ERROR_SERVICE_CANNOT_ACCEPT_CTRL, ERROR_ACCESS_DENIED}) {
        ManagerCalls manager;
        manager.stopError = code;
        manager.Tell({SERVICE_STOP_PENDING});
        RemoveServiceInDirectory(kName, kFolder);
        EXPECT_EQ(manager.All(), DeletionAfter(0));
    }
}

TEST(RemoveServiceInDirectory, WaitsUntilTheStateIsStopped) {
    const ServiceFolder folder;
    for (const std::size_t polls : {1U, 3U, 29U, 30U}) {
        ManagerCalls manager;
        std::vector<DWORD> states(polls, SERVICE_STOP_PENDING);
        states.push_back(SERVICE_STOPPED);
        manager.Tell(states);
        RemoveServiceInDirectory(kName, kFolder);
        EXPECT_EQ(manager.All(), DeletionAfter(polls));
    }
}

TEST(RemoveServiceInDirectory, GivesUpAfter30WaitsInEveryOtherState) {
    const ServiceFolder folder;
    for (const DWORD state : {SERVICE_START_PENDING, SERVICE_STOP_PENDING, SERVICE_RUNNING,
                              SERVICE_CONTINUE_PENDING, SERVICE_PAUSE_PENDING, SERVICE_PAUSED}) {
        ManagerCalls manager;
        manager.Tell({state});
        RemoveServiceInDirectory(kName, kFolder);
        EXPECT_EQ(manager.All(), DeletionAfter(30));
    }
}

TEST(RemoveServiceInDirectory, AStateThatCannotBeAskedForStaysAsItWas) {
    const ServiceFolder folder;
    const std::pair<std::vector<DWORD>, std::size_t> statesAndPolls[] = {
        {{SERVICE_RUNNING, 0, 0, SERVICE_STOPPED}, 3}, {{SERVICE_RUNNING, 0}, 30}};
    for (const auto& [states, polls] : statesAndPolls) {
        ManagerCalls manager;
        manager.Tell(states);
        RemoveServiceInDirectory(kName, kFolder);
        EXPECT_EQ(manager.All(), DeletionAfter(polls));
    }
}

TEST(RemoveServiceInDirectory, ADeletionThatIsRefusedIsLogged) {
    const ServiceFolder folder;
    ManagerCalls manager;
    manager.Fail(L"delete service", ERROR_SERVICE_MARKED_FOR_DELETE);
    RemoveServiceInDirectory(kName, kFolder);
    EXPECT_EQ(manager.All(),
              kOpened + kConfigured + Logged(LinesOfFoundService()) + kStopRequested + kDeletion +
                  Logged({L"Unable to delete " + kService + L". Error code: 1072"}) + kClosed);
}

TEST(RemoveServiceInDirectory, DeletesNothingWhenMemoryRunsOut) {
    const ServiceFolder folder;
    const InstalledService service(kName, kProgram);
    const std::wstring directory = kFolder;
    const std::wstring name = kName;
    FAIL_CALL(stopping, ControlService, 0, FALSE, ERROR_SERVICE_NOT_ACTIVE);
    FAIL_CALL(deleting, DeleteService, 0, FALSE, ERROR_ACCESS_DENIED);
    const int failures = halvard_tests::FailEachAllocation(
        [] {}, [&] { RemoveServiceInDirectory(name, directory); },
        [&](bool thrown) { EXPECT_EQ(deleting.Calls(), thrown ? 0 : 1); });
    EXPECT_GE(failures, 3);
}
