#pragma once

#include "begins.h"
#include "call_trace.h"
#include "import_hook.h"
#include "stand_in_clock.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

namespace halvard_tests {

/// One answer about a service: state, checkpoint, wait hint in milliseconds.
struct ServiceAnswer {
    DWORD state = SERVICE_STOPPED;
    DWORD checkpoint = 0;
    DWORD waitHint = 0;
};
using ServiceAnswers = std::vector<ServiceAnswer>;

/// The answer to a query that fails.
inline constexpr ServiceAnswer kNoAnswer = {0, 0, 0};

/// A service manager of the tests' own that knows one service, of whatever name, with a clock of
/// its own. Each call leaves an error of its own behind. Services are opened and created by the
/// manager's handle, and queries have the level and the room that Windows asks for.
class StandInServiceManager {
public:
    /// What the queries are answered, one after the other, anew with each opening of the service.
    /// The last one stays.
    ServiceAnswers queries;
    /// The answer to a request to stop, and the code with which it is refused all the same.
    ServiceAnswer stopAnswer;
    DWORD stopError = NO_ERROR;
    /// The program of the service, null for none. The sizes that are asked for, one after the
    /// other, before the configuration is there, and the code with which it is refused then.
    const wchar_t* binaryPath = nullptr;
    std::vector<DWORD> configurationSizes = {1000};
    DWORD configurationError = NO_ERROR;
    /// Whether handles can be closed.
    bool closes = true;
    StandInClock clock;

    StandInServiceManager(const StandInServiceManager&) = delete;
    StandInServiceManager& operator=(const StandInServiceManager&) = delete;

protected:
    StandInServiceManager(ServiceAnswers queried, DWORD startTick)
        : queries(std::move(queried)), clock(startTick) {}
    ~StandInServiceManager() = default;

private:
    static SC_HANDLE Manager() { return reinterpret_cast<SC_HANDLE>(0x100); }
    static SC_HANDLE Service() { return reinterpret_cast<SC_HANDLE>(0x200); }

    static BOOL Done(DWORD error = NO_ERROR) {
        SetLastError(error == NO_ERROR ? ERROR_INVALID_DATA : error);
        return error == NO_ERROR ? TRUE : FALSE;
    }

    static SC_HANDLE OpenedBy(SC_HANDLE manager) {
        EXPECT_EQ(manager, Manager());
        Done();
        return Service();
    }

    // A query that fails has nothing to tell, whatever it leaves in the buffer.
    template <class Status>
    BOOL TellState(Status& status, DWORD left) {
        const ServiceAnswer& answer = queries[std::min(told_++, queries.size() - 1)];
        const bool fails = answer.state == kNoAnswer.state;
        status = {};
        status.dwCurrentState = fails ? left : answer.state;
        status.dwCheckPoint = answer.checkpoint;
        status.dwWaitHint = answer.waitHint;
        return Done(fails ? ERROR_ACCESS_DENIED : NO_ERROR);
    }

    BOOL TellConfiguration(QUERY_SERVICE_CONFIGW* configuration, DWORD size, DWORD* needed) {
        EXPECT_EQ(configuration == nullptr, size == 0);
        if (asked_ < configurationSizes.size()) {
            *needed = configurationSizes[asked_++];
            return Done(ERROR_INSUFFICIENT_BUFFER);
        }
        if (configurationError == NO_ERROR) {
            *configuration = {};
            configuration->lpBinaryPathName = const_cast<wchar_t*>(binaryPath);
        }
        return Done(configurationError);
    }

    std::size_t told_ = 0;
    std::size_t asked_ = 0;

    HOOK(openManager_, OpenSCManagerW, [](LPCWSTR, LPCWSTR, DWORD) {
        Done();
        return Manager();
    });
    HOOK(open_, OpenServiceW, [this](SC_HANDLE manager, LPCWSTR, DWORD) {
        told_ = 0;
        asked_ = 0;
        return OpenedBy(manager);
    });
    HOOK(create_, CreateServiceW,
         [](SC_HANDLE manager, LPCWSTR, LPCWSTR, DWORD, DWORD, DWORD, DWORD, LPCWSTR, LPCWSTR,
            LPDWORD, LPCWSTR, LPCWSTR, LPCWSTR) { return OpenedBy(manager); });
    HOOK(queryProcess_, QueryServiceStatusEx,
         [this](SC_HANDLE, SC_STATUS_TYPE level, LPBYTE buffer, DWORD size, LPDWORD needed) {
             EXPECT_EQ(level, SC_STATUS_PROCESS_INFO);
             EXPECT_EQ(size, sizeof(SERVICE_STATUS_PROCESS));
             EXPECT_NE(needed, nullptr);
             return TellState(*reinterpret_cast<SERVICE_STATUS_PROCESS*>(buffer), SERVICE_RUNNING);
         });
    HOOK(query_, QueryServiceStatus, [this](SC_HANDLE, LPSERVICE_STATUS status) {
        return TellState(*status, SERVICE_STOPPED);
    });
    HOOK(control_, ControlService, [this](SC_HANDLE, DWORD, LPSERVICE_STATUS status) {
        status->dwCurrentState = stopAnswer.state;
        status->dwCheckPoint = stopAnswer.checkpoint;
        status->dwWaitHint = stopAnswer.waitHint;
        return Done(stopError);
    });
    HOOK(start_, StartServiceW, [](SC_HANDLE, DWORD, LPCWSTR*) { return Done(); });
    HOOK(configuration_, QueryServiceConfigW,
         [this](SC_HANDLE, LPQUERY_SERVICE_CONFIGW configuration, DWORD size, LPDWORD needed) {
             return TellConfiguration(configuration, size, needed);
         });
    HOOK(change_, ChangeServiceConfig2W, [](SC_HANDLE, DWORD, LPVOID) { return Done(); });
    HOOK(delete_, DeleteService, [](SC_HANDLE) { return Done(); });
    HOOK(close_, CloseServiceHandle,
         [this](SC_HANDLE) { return Done(closes ? NO_ERROR : ERROR_INVALID_HANDLE); });
    HOOK(say_, OutputDebugStringW, [](LPCWSTR) { Done(); });
};

/// Watches the calls to that service manager, with messages and sleeps.
class ServiceManagerCalls : public StandInServiceManager, public CallTrace {
public:
    explicit ServiceManagerCalls(ServiceAnswers queried = {{}}, DWORD startTick = 0,
                                 unsigned further = 0)
        : StandInServiceManager(std::move(queried), startTick),
          CallTrace(kServices | kServiceClosing | kMessages | kSleeps | further) {
        before = [this](const std::wstring& line) {
            for (const auto& [slow, milliseconds] : takes) {
                clock.now += Begins(line, slow) ? milliseconds : 0;
            }
        };
    }

    /// How many milliseconds the calls take whose lines begin so.
    std::vector<std::pair<std::wstring, DWORD>> takes;
};

inline Lines Sleeping(DWORD milliseconds) {
    return {L"sleep " + std::to_wstring(milliseconds)};
}

} // namespace halvard_tests
