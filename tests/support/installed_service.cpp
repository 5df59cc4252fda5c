#include "installed_service.h"

#include "stand_in_session.h"

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <stdexcept>

namespace halvard_tests {

namespace {

constexpr wchar_t kSettings[] = L"SOFTWARE\\HalvardTestServices";
constexpr DWORD kLimitMilliseconds = 20000;

void Check(bool done, const char* what) {
    if (!done) {
        throw std::runtime_error(std::string(what) + " failed with " +
                                 std::to_string(GetLastError()));
    }
}

// A service and its manager, opened for a look at it; both null when there is none.
class OpenedService {
public:
    explicit OpenedService(const std::wstring& name)
        : manager_(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS)),
          service_(OpenServiceW(manager_, name.c_str(), SERVICE_ALL_ACCESS)) {}
    ~OpenedService() {
        if (service_ != nullptr) {
            CloseServiceHandle(service_);
        }
        if (manager_ != nullptr) {
            CloseServiceHandle(manager_);
        }
    }
    OpenedService(const OpenedService&) = delete;
    OpenedService& operator=(const OpenedService&) = delete;

    SC_HANDLE Get() const { return service_; }

    SERVICE_STATUS_PROCESS Status() const {
        SERVICE_STATUS_PROCESS status = {};
        DWORD size = 0;
        QueryServiceStatusEx(service_, SC_STATUS_PROCESS_INFO, reinterpret_cast<BYTE*>(&status),
                             sizeof(status), &size);
        return status;
    }

    HANDLE OpenProcess() const {
        const DWORD id = Status().dwProcessId;
        return id == 0 ? nullptr : ::OpenProcess(PROCESS_TERMINATE | SYNCHRONIZE, FALSE, id);
    }

private:
    SC_HANDLE manager_;
    SC_HANDLE service_;
};

void End(HANDLE process) {
    TerminateProcess(process, 1);
    WaitForSingleObject(process, kLimitMilliseconds);
    CloseHandle(process);
}

// Not Sleep, which tests replace.
void Pause() {
    WaitForSingleObject(GetCurrentProcess(), 5);
}

void WaitFor(const std::function<bool()>& reached) {
    const ULONGLONG start = GetTickCount64();
    while (!reached()) {
        if (GetTickCount64() - start > kLimitMilliseconds) {
            throw std::runtime_error("the service does not become what the test waits for");
        }
        Pause();
    }
}

void Set(HKEY key, const wchar_t* name, DWORD value) {
    Check(RegSetValueExW(key, name, 0, REG_DWORD, reinterpret_cast<const BYTE*>(&value),
                         sizeof(value)) == ERROR_SUCCESS,
          "RegSetValueExW");
}

} // namespace

void CopyTestService(const std::wstring& path) {
    Check(CopyFileW(BesideTestProgram(L"..\\support\\test_service.exe").c_str(), path.c_str(),
                    FALSE) != FALSE,
          "CopyFileW");
}

ServiceScope::ServiceScope(const std::wstring& name, const ServiceBehavior& behavior)
    : name_(name) {
    HKEY key = nullptr;
    Check(RegCreateKeyExW(HKEY_LOCAL_MACHINE, (std::wstring(kSettings) + L"\\" + name).c_str(), 0,
                          nullptr, 0, KEY_ALL_ACCESS, nullptr, &key, nullptr) == ERROR_SUCCESS,
          "RegCreateKeyExW");
    Set(key, L"StartFailure", behavior.startFailure);
    Set(key, L"StartPending", behavior.startPending);
    Set(key, L"StopIgnored", behavior.stopIgnored ? 1 : 0);
    Set(key, L"StopPending", behavior.stopPending);
    Set(key, L"WaitHint", behavior.waitHint);
    Set(key, L"CheckpointInterval", behavior.checkpointInterval);
    Set(key, L"StoppedWaitHint", behavior.stoppedWaitHint);
    RegCloseKey(key);
    proceed_ =
        CreateEventW(nullptr, FALSE, FALSE, (L"Global\\HalvardTestServices " + name).c_str());
    Check(proceed_ != nullptr, "CreateEventW");
}

ServiceScope::~ServiceScope() {
    {
        const OpenedService service(name_);
        if (service.Get() != nullptr) {
            DeleteService(service.Get());
        }
    }
    EndProcess();
    // A service that stays would answer later tests.
    if (!WaitUntilGone()) {
        std::fwprintf(stderr, L"the service cannot be removed: %ls\n", name_.c_str());
        std::abort();
    }
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, (std::wstring(kSettings) + L"\\" + name_).c_str());
    CloseHandle(proceed_);
    // Goes with its last subkey.
    RegDeleteKeyW(HKEY_LOCAL_MACHINE, kSettings);
}

bool ServiceScope::Exists() const {
    const OpenedService service(name_);
    if (service.Get() == nullptr && GetLastError() != ERROR_SERVICE_DOES_NOT_EXIST) {
        throw std::runtime_error("the service manager does not tell whether a service exists");
    }
    return service.Get() != nullptr;
}

bool ServiceScope::IsBeingDeleted() const {
    const OpenedService service(name_);
    // A change of nothing, which is refused for such a service.
    return service.Get() != nullptr &&
           ChangeServiceConfigW(service.Get(), SERVICE_NO_CHANGE, SERVICE_NO_CHANGE,
                                SERVICE_NO_CHANGE, nullptr, nullptr, nullptr, nullptr, nullptr,
                                nullptr, nullptr) == FALSE &&
           GetLastError() == ERROR_SERVICE_MARKED_FOR_DELETE;
}

SERVICE_STATUS_PROCESS ServiceScope::Status() const {
    return OpenedService(name_).Status();
}

void ServiceScope::WaitForState(DWORD state) const {
    WaitFor([&] { return State() == state; });
}

void ServiceScope::WaitForProgress(DWORD checkpoint) const {
    WaitFor([&] { return Status().dwCheckPoint != checkpoint; });
}

void ServiceScope::RequestStart() const {
    Check(StartServiceW(OpenedService(name_).Get(), 0, nullptr) != FALSE, "StartServiceW");
}

void ServiceScope::RequestStop() const {
    SERVICE_STATUS status = {};
    Check(ControlService(OpenedService(name_).Get(), SERVICE_CONTROL_STOP, &status) != FALSE,
          "ControlService");
}

void ServiceScope::Delete() const {
    Check(DeleteService(OpenedService(name_).Get()) != FALSE, "DeleteService");
}

void ServiceScope::Proceed() const {
    SetEvent(proceed_);
}

void ServiceScope::EndProcess() const {
    const OpenedService service(name_);
    if (service.Get() != nullptr) {
        const HANDLE process = service.OpenProcess();
        if (process != nullptr) {
            End(process);
        }
    }
}

bool ServiceScope::WaitUntilGone() const {
    const ULONGLONG start = GetTickCount64();
    while (Exists()) {
        if (GetTickCount64() - start > kLimitMilliseconds) {
            return false;
        }
        Pause();
    }
    return true;
}

InstalledService::InstalledService(const std::wstring& name, const std::wstring& binaryPath,
                                   const ServiceBehavior& behavior)
    : ServiceScope(name, behavior) {
    const SC_HANDLE manager = OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS);
    const SC_HANDLE service =
        CreateServiceW(manager, name.c_str(), nullptr, SERVICE_ALL_ACCESS,
                       SERVICE_WIN32_OWN_PROCESS, SERVICE_DEMAND_START, SERVICE_ERROR_NORMAL,
                       binaryPath.c_str(), nullptr, nullptr, nullptr, nullptr, nullptr);
    const DWORD code = GetLastError();
    if (service != nullptr) {
        CloseServiceHandle(service);
    }
    CloseServiceHandle(manager);
    SetLastError(code);
    Check(service != nullptr, "CreateServiceW");
}

InstalledService::~InstalledService() {
    // A process that is about to end by itself still holds its file.
    if (process_ != nullptr) {
        End(process_);
    }
}

void InstalledService::Start() {
    const OpenedService service(Name());
    Check(StartServiceW(service.Get(), 0, nullptr) != FALSE, "StartServiceW");
    process_ = service.OpenProcess();
    const ULONGLONG start = GetTickCount64();
    while (service.Status().dwCurrentState != SERVICE_RUNNING) {
        if (service.Status().dwCurrentState == SERVICE_STOPPED ||
            GetTickCount64() - start > kLimitMilliseconds) {
            throw std::runtime_error("the service does not run");
        }
        Pause();
    }
    Check(process_ != nullptr, "OpenProcess");
}

bool InstalledService::WaitForProcess() const {
    return WaitForSingleObject(process_, kLimitMilliseconds) == WAIT_OBJECT_0;
}

} // namespace halvard_tests
