#include "installed_service.h"

#include "files.h"

#include <gtest/gtest.h>

#include <stdexcept>

using halvard_tests::InstalledService;
using halvard_tests::ScratchFolder;
using halvard_tests::ServiceBehavior;

namespace {

constexpr wchar_t kName[] = L"HalvardTestService";

// The service manager's own view of a service.
class OpenedService {
public:
    OpenedService()
        : manager_(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS)),
          service_(OpenServiceW(manager_, kName, SERVICE_ALL_ACCESS)) {}
    ~OpenedService() {
        CloseServiceHandle(service_);
        CloseServiceHandle(manager_);
    }
    OpenedService(const OpenedService&) = delete;
    OpenedService& operator=(const OpenedService&) = delete;

    SC_HANDLE Get() const { return service_; }
    SERVICE_STATUS Status() const {
        SERVICE_STATUS status = {};
        EXPECT_NE(QueryServiceStatus(service_, &status), FALSE);
        return status;
    }

private:
    SC_HANDLE manager_;
    SC_HANDLE service_;
};

std::wstring ProgramIn(const ScratchFolder& folder) {
    halvard_tests::CopyTestService(folder.File(L"svc.exe"));
    return folder.File(L"svc.exe");
}

// How often the checkpoint was seen to grow until the state is no longer `pending`.
int StepsWhile(const OpenedService& service, DWORD pending, DWORD waitHint) {
    int steps = 0;
    DWORD checkpoint = 0;
    for (SERVICE_STATUS status = service.Status(); status.dwCurrentState == pending;
         status = service.Status()) {
        if (status.dwWaitHint == waitHint && status.dwCheckPoint > checkpoint) {
            checkpoint = status.dwCheckPoint;
            ++steps;
        }
        Sleep(5);
    }
    return steps;
}

} // namespace

TEST(TheTestService, ReportsProgressWhileItStartsAndStops) {
    const ScratchFolder folder;
    ServiceBehavior behavior;
    behavior.startPending = 300;
    behavior.stopPending = 300;
    behavior.waitHint = 700;
    behavior.checkpointInterval = 50;
    const InstalledService service(kName, ProgramIn(folder), behavior);
    const OpenedService opened;
    ASSERT_NE(StartServiceW(opened.Get(), 0, nullptr), FALSE);
    EXPECT_GE(StepsWhile(opened, SERVICE_START_PENDING, 700), 2);
    EXPECT_EQ(opened.Status().dwCurrentState, static_cast<DWORD>(SERVICE_RUNNING));
    SERVICE_STATUS status = {};
    ASSERT_NE(ControlService(opened.Get(), SERVICE_CONTROL_STOP, &status), FALSE);
    EXPECT_EQ(status.dwCurrentState, static_cast<DWORD>(SERVICE_STOP_PENDING));
    EXPECT_GE(StepsWhile(opened, SERVICE_STOP_PENDING, 700), 2);
    EXPECT_EQ(opened.Status().dwCurrentState, static_cast<DWORD>(SERVICE_STOPPED));
}

TEST(TheTestService, ProceedsWithAPendingChangeWhenItIsTold) {
    const ScratchFolder folder;
    ServiceBehavior behavior;
    behavior.startPending = INFINITE;
    behavior.stopPending = INFINITE;
    behavior.stoppedWaitHint = 1234;
    InstalledService service(kName, ProgramIn(folder), behavior);
    service.Proceed();
    service.Start();
    service.RequestStop();
    EXPECT_EQ(service.State(), static_cast<DWORD>(SERVICE_STOP_PENDING));
    service.Proceed();
    service.WaitForState(SERVICE_STOPPED);
    EXPECT_EQ(service.Status().dwWaitHint, 1234U);
    EXPECT_TRUE(service.WaitForProcess());
}

TEST(TheTestService, RefusesToStart) {
    const ScratchFolder folder;
    ServiceBehavior behavior;
    behavior.startFailure = ERROR_ACCESS_DENIED;
    InstalledService service(kName, ProgramIn(folder), behavior);
    EXPECT_THROW(service.Start(), std::runtime_error);
    const OpenedService opened;
    EXPECT_EQ(opened.Status().dwCurrentState, static_cast<DWORD>(SERVICE_STOPPED));
    EXPECT_EQ(opened.Status().dwWin32ExitCode, static_cast<DWORD>(ERROR_ACCESS_DENIED));
}

TEST(TheTestService, LeavesNothingBehindEvenWhenItIgnoresTheStop) {
    const ScratchFolder folder;
    ServiceBehavior behavior;
    behavior.stopIgnored = true;
    const std::wstring program = ProgramIn(folder);
    {
        InstalledService service(kName, program, behavior);
        service.Start();
    }
    EXPECT_FALSE(halvard_tests::ServiceScope(kName).Exists());
    EXPECT_NE(DeleteFileW(program.c_str()), FALSE);
    HKEY settings = nullptr;
    EXPECT_EQ(
        RegOpenKeyExW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\HalvardTestServices", 0, KEY_READ, &settings),
        ERROR_FILE_NOT_FOUND);
}
