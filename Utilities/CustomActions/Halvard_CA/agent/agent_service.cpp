#include "agent/agent_service.h"

#include "agent/service_wait.h"
#include "runtime/registry.h"
#include "runtime/open_service_manager.h"

#include <cstdio>
#include <utility>

namespace halvard {

namespace {

constexpr DWORD kStopLimitMilliseconds = 30000;
constexpr std::size_t kBinaryPathCapacity = 1024;

struct OpenedService {
    OwnedService manager;
    // Null when either cannot be opened.
    OwnedService service;
};

OpenedService Open(const wchar_t* serviceName, DWORD access) noexcept {
    OwnedService manager = OpenServiceManager(nullptr);
    if (!manager) {
        OutputDebugStringW(L"Error: Failed to open SCM.\n");
        return {};
    }
    OwnedService service(OpenServiceW(manager.get(), serviceName, access));
    return {std::move(manager), std::move(service)};
}

// Leaves `status` as it was when it fails.
bool QueryStatus(SC_HANDLE service, SERVICE_STATUS_PROCESS& status) noexcept {
    SERVICE_STATUS_PROCESS current = {};
    DWORD needed = 0;
    if (QueryServiceStatusEx(service, SC_STATUS_PROCESS_INFO, reinterpret_cast<BYTE*>(&current),
                             sizeof(current), &needed) == FALSE) {
        OutputDebugStringW(L"Error: QueryServiceStatusEx failed.\n");
        return false;
    }
    status = current;
    return true;
}

bool RequestStop(SC_HANDLE service, SERVICE_STATUS_PROCESS& status) noexcept {
    SERVICE_STATUS current = {};
    if (ControlService(service, SERVICE_CONTROL_STOP, &current) == FALSE) {
        OutputDebugStringW(L"Error: ControlService failed.\n");
        return false;
    }
    status.dwCurrentState = current.dwCurrentState;
    status.dwWaitHint = current.dwWaitHint;
    return true;
}

bool Stop(SC_HANDLE service, DWORD start, SERVICE_STATUS_PROCESS status) noexcept {
    while (status.dwCurrentState == SERVICE_STOP_PENDING) {
        OutputDebugStringW(L"Service stop pending...\n");
        Sleep(PollMilliseconds(status.dwWaitHint));
        if (!QueryStatus(service, status)) {
            return false;
        }
        if (status.dwCurrentState != SERVICE_STOPPED &&
            HasPassed(start, GetTickCount(), kStopLimitMilliseconds)) {
            OutputDebugStringW(L"Service stop timed out.\n");
            return false;
        }
    }
    if (status.dwCurrentState != SERVICE_STOPPED && !RequestStop(service, status)) {
        return false;
    }
    while (status.dwCurrentState != SERVICE_STOPPED) {
        // The whole hint, unlike above: once asked to stop, a service is taken at its word.
        Sleep(status.dwWaitHint);
        if (!QueryStatus(service, status)) {
            return false;
        }
        if (status.dwCurrentState != SERVICE_STOPPED &&
            HasPassed(start, GetTickCount(), kStopLimitMilliseconds)) {
            OutputDebugStringW(L"Error: Timeout waiting for service to stop.\n");
            return false;
        }
    }
    OutputDebugStringW(L"Service stopped successfully.\n");
    return true;
}

// False when it fails or the time is over.
bool AwaitPendingStop(SC_HANDLE service, SERVICE_STATUS_PROCESS& status) noexcept {
    while (status.dwCurrentState == SERVICE_STOP_PENDING) {
        // Each sleep is measured by itself, against the hint that the service gives after it. One
        // that has stopped gives none as a rule, and counts as too late.
        const DWORD start = GetTickCount();
        const DWORD checkpoint = status.dwCheckPoint;
        Sleep(PollMilliseconds(status.dwWaitHint));
        if (!QueryStatus(service, status)) {
            return false;
        }
        if (status.dwCheckPoint <= checkpoint &&
            HasPassed(start, GetTickCount(), status.dwWaitHint)) {
            OutputDebugStringW(L"Error: Timeout waiting for service to stop.\n");
            return false;
        }
    }
    return true;
}

void AwaitPendingStart(SC_HANDLE service, SERVICE_STATUS_PROCESS& status) noexcept {
    DWORD start = GetTickCount();
    DWORD checkpoint = status.dwCheckPoint;
    while (status.dwCurrentState == SERVICE_START_PENDING) {
        Sleep(PollMilliseconds(status.dwWaitHint));
        if (!QueryStatus(service, status)) {
            return;
        }
        if (status.dwCheckPoint > checkpoint) {
            start = GetTickCount();
            checkpoint = status.dwCheckPoint;
        } else if (HasPassed(start, GetTickCount(), status.dwWaitHint)) {
            return;
        }
    }
}

bool Start(SC_HANDLE service) noexcept {
    if (StartServiceW(service, 0, nullptr) == FALSE) {
        wchar_t message[64] = {};
        wsprintfW(message, L"Unable to start service and Error code is %d", GetLastError());
        OutputDebugStringW(message);
        return false;
    }
    SERVICE_STATUS_PROCESS status = {};
    if (!QueryStatus(service, status)) {
        return false;
    }
    AwaitPendingStart(service, status);
    if (status.dwCurrentState != SERVICE_RUNNING) {
        OutputDebugStringW(L"Warning: Service did not start successfully.\n");
        return false;
    }
    OutputDebugStringW(L"Service started successfully.\n");
    return true;
}

using InstallDir = BoundedText<260>;

// Empty when it cannot be read.
InstallDir ReadInstallManagerDir() noexcept {
    const OwnedKey key = OpenKey(HKEY_LOCAL_MACHINE,
                                 L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\"
                                 L"Zenvo Meridian Install Manager",
                                 KEY_READ | KEY_WOW64_64KEY);
    InstallDir directory;
    if (key) {
        ReadBoundedText(key.get(), L"InstallDir", directory);
    }
    return directory;
}

} // namespace

bool StopServiceWithTimeout(const std::wstring& serviceName) noexcept {
    const DWORD start = GetTickCount();
    const OpenedService opened = Open(serviceName.c_str(), SERVICE_STOP | SERVICE_QUERY_STATUS |
                                                               SERVICE_ENUMERATE_DEPENDENTS);
    SERVICE_STATUS_PROCESS status = {};
    if (!opened.service || !QueryStatus(opened.service.get(), status)) {
        return false;
    }
    if (status.dwCurrentState == SERVICE_STOPPED) {
        OutputDebugStringW(L"Service is already stopped.\n");
        return true;
    }
    return Stop(opened.service.get(), start, status);
}

bool StartAgentService() noexcept {
    const OpenedService opened = Open(kAgentService, SERVICE_ALL_ACCESS);
    SERVICE_STATUS_PROCESS status = {};
    if (!opened.service || !QueryStatus(opened.service.get(), status)) {
        return false;
    }
    if (status.dwCurrentState != SERVICE_STOPPED && status.dwCurrentState != SERVICE_STOP_PENDING) {
        return true;
    }
    return AwaitPendingStop(opened.service.get(), status) && Start(opened.service.get());
}

void CreateAgentService() noexcept {
    const InstallDir directory = ReadInstallManagerDir();
    wchar_t binaryPath[kBinaryPathCapacity] = {};
    wsprintfW(binaryPath, L"\"%s\\..\\Usage Profile Agent\\TeloDU.exe\"", directory.characters);

    // Never closed.
    SC_HANDLE manager = OpenServiceManager(nullptr).release();
    if (manager == nullptr) {
        static_cast<void>(std::fputws(L"Error: Failed to open SCM.\n", stdout));
        static_cast<void>(std::fflush(stdout));
        return;
    }
    const OwnedService service(CreateServiceW(
        manager, kAgentService, L"Zenvo User Experience Program Data Uploader", SERVICE_ALL_ACCESS,
        SERVICE_WIN32_OWN_PROCESS | SERVICE_INTERACTIVE_PROCESS, SERVICE_AUTO_START,
        SERVICE_ERROR_NORMAL, binaryPath, nullptr, nullptr, nullptr, nullptr, nullptr));
    if (service) {
        SERVICE_DELAYED_AUTO_START_INFO delayed = {TRUE};
        ChangeServiceConfig2W(service.get(), SERVICE_CONFIG_DELAYED_AUTO_START_INFO, &delayed);
    }
}

} // namespace halvard
