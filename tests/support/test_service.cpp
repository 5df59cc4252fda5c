// test_service: the program of services that the tests start, stop and delete. It learns the name
// of its service when it is started and does as the numbers (REG_DWORD, 0 when not set) below
// HKEY_LOCAL_MACHINE\SOFTWARE\HalvardTestServices\<name> say:
// StartFailure: the Win32 code with which it stops instead of running.
// StartPending: milliseconds until it runs, or fails.
// StopIgnored: 1 when a request to stop changes nothing.
// StopPending: milliseconds until it has stopped.
// WaitHint: the wait hint, in milliseconds, that it reports while a change is pending.
// CheckpointInterval: milliseconds between two steps of the checkpoint while a change is pending;
// without it the checkpoint stays 1.
// StoppedWaitHint: the wait hint, in milliseconds, that it reports when it has stopped.
//
// A pending change is over at once when the event Global\HalvardTestServices <name> is set.
//
// Its command line is of no concern to it.

#include <windows.h>

#include <algorithm>
#include <string>

namespace {

SERVICE_STATUS_HANDLE reporter = nullptr;
HANDLE stopRequested = nullptr;
HANDLE proceed = nullptr;
std::wstring settings;

// Milliseconds for a thread that has nothing left to do but to write an answer to a pipe.
#ifdef HALVARD_ANSWER_TIME
constexpr DWORD ANSWER_TIME = HALVARD_ANSWER_TIME;
#else
constexpr DWORD ANSWER_TIME = 300; // ample
#endif

DWORD Setting(const wchar_t* name) {
    DWORD value = 0;
    DWORD size = sizeof(value);
    const LSTATUS status = RegGetValueW(HKEY_LOCAL_MACHINE, settings.c_str(), name,
                                        RRF_RT_REG_DWORD, nullptr, &value, &size);
    return status == ERROR_SUCCESS ? value : 0;
}

void Report(DWORD state, DWORD exitCode = NO_ERROR, DWORD checkpoint = 0, DWORD waitHint = 0) {
    SERVICE_STATUS status = {};
    status.dwServiceType = SERVICE_WIN32_OWN_PROCESS;
    status.dwCurrentState = state;
    status.dwControlsAccepted = state == SERVICE_RUNNING ? SERVICE_ACCEPT_STOP : 0;
    status.dwWin32ExitCode = exitCode;
    status.dwCheckPoint = checkpoint;
    status.dwWaitHint = waitHint;
    SetServiceStatus(reporter, &status);
}

// The first report of a pending change; Pend goes on from there.
void ReportPending(DWORD state) {
    Report(state, NO_ERROR, 1, Setting(L"WaitHint"));
}

void ReportStopped(DWORD exitCode = NO_ERROR) {
    Report(SERVICE_STOPPED, exitCode, 0, Setting(L"StoppedWaitHint"));
}

void Pend(DWORD state, DWORD milliseconds) {
    const DWORD interval = Setting(L"CheckpointInterval");
    const ULONGLONG end = GetTickCount64() + milliseconds;
    DWORD checkpoint = 1;
    for (ULONGLONG now = GetTickCount64(); now < end; now = GetTickCount64()) {
        const auto left = static_cast<DWORD>(end - now);
        const DWORD waited =
            WaitForSingleObject(proceed, interval == 0 ? left : std::min(left, interval));
        if (waited == WAIT_OBJECT_0) {
            return;
        }
        if (interval != 0) {
            Report(state, NO_ERROR, ++checkpoint, Setting(L"WaitHint"));
        }
    }
}

DWORD WINAPI Control(DWORD control, DWORD /*event*/, void* /*data*/, void* /*context*/) {
    if (control != SERVICE_CONTROL_STOP) {
        return control == SERVICE_CONTROL_INTERROGATE ? NO_ERROR : ERROR_CALL_NOT_IMPLEMENTED;
    }
    if (Setting(L"StopIgnored") == 0) {
        if (Setting(L"StopPending") != 0) {
            // Before the request returns: whoever asked sees that it was heard.
            ReportPending(SERVICE_STOP_PENDING);
        }
        SetEvent(stopRequested);
    }
    return NO_ERROR;
}

void WINAPI Serve(DWORD /*count*/, wchar_t** arguments) {
    settings = std::wstring(L"SOFTWARE\\HalvardTestServices\\") + arguments[0];
    stopRequested = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    proceed = CreateEventW(nullptr, FALSE, FALSE,
                           (std::wstring(L"Global\\HalvardTestServices ") + arguments[0]).c_str());
    reporter = RegisterServiceCtrlHandlerExW(arguments[0], Control, nullptr);

    ReportPending(SERVICE_START_PENDING);
    Pend(SERVICE_START_PENDING, Setting(L"StartPending"));
    const DWORD failure = Setting(L"StartFailure");
    if (failure != NO_ERROR) {
        // As below: the request to start is answered by another thread too.
        Sleep(ANSWER_TIME);
        ReportStopped(failure);
        return;
    }
    Report(SERVICE_RUNNING);

    WaitForSingleObject(stopRequested, INFINITE);
    const DWORD stopPending = Setting(L"StopPending");
    // Another thread of this process answers the request, once Control has returned. A report that
    // the service has stopped, or the end of the process, makes the request fail when it comes
    // before.
    if (stopPending == 0) {
        Sleep(ANSWER_TIME);
    } else {
        Pend(SERVICE_STOP_PENDING, stopPending);
    }
    ReportStopped();
    // At once: who waits for a stopped service goes on to remove its program, which cannot be done
    // before the process is gone.
    TerminateProcess(GetCurrentProcess(), NO_ERROR);
}

} // namespace

int main() {
    wchar_t unused[] = L"";
    const SERVICE_TABLE_ENTRYW services[] = {{unused, Serve}, {nullptr, nullptr}};
    return StartServiceCtrlDispatcherW(services) != FALSE ? 0 : static_cast<int>(GetLastError());
}
