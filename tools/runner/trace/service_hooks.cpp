#include "trace/hook.h"

#include <map>
#include <mutex>
#include <utility>

namespace halvard_runner {

namespace {

struct Service {
    std::wstring name;
    // The state that was told last.
    DWORD state = 0;
};

auto& services = NeverDestroyed<std::map<SC_HANDLE, Service>>();
auto& lock = NeverDestroyed<std::mutex>();

/// A function of the service manager. All say no by a zero.
struct ServiceCall {
    const char* function;
    const wchar_t* what;
    std::size_t name;  // the parameter for it, where a service is opened
    std::size_t state; // the parameter that points to a SERVICE_STATUS, or one that begins as it
    bool opens;
    bool changes;
};

const wchar_t* StateName(DWORD state) {
    constexpr const wchar_t* names[] = {L"(no state)", L"stopped",        L"starting", L"stopping",
                                        L"running",    L"about to go on", L"pausing",  L"paused"};
    return state < std::size(names) ? names[state] : names[0];
}

std::wstring NameOf(SC_HANDLE handle) {
    const std::lock_guard<std::mutex> guard(lock);
    const auto known = services.find(handle);
    return known == services.end() ? L"(unknown service)" : known->second.name;
}

/// Whether a service has another state than when it was asked for it last: waiting for one asks
/// over and over.
bool IsNews(SC_HANDLE handle, DWORD state) {
    const std::lock_guard<std::mutex> guard(lock);
    return std::exchange(services[handle].state, state) != state;
}

Word RunServiceCall(const ServiceCall& function, HookedCall& call) {
    auto* const handle = call.Parameter<SC_HANDLE>(0);
    const std::wstring name = function.name != kNone ? call.Text(function.name)
                              : function.opens       ? L"(the service manager)"
                                                     : NameOf(handle);
    if (function.changes && IsDryRun()) {
        TellNotMade(TraceGroup::Service, function.what, name);
        return call.Answer(FailureSign::Zero, ERROR_ACCESS_DENIED);
    }
    const Word result = call.Forward();
    const DWORD code = call.Code(FailureSign::Zero, result);
    // The question for the room that an answer takes.
    if (code == ERROR_INSUFFICIENT_BUFFER) {
        return result;
    }
    if (function.opens && code == ERROR_SUCCESS) {
        const std::lock_guard<std::mutex> guard(lock);
        services[PointerOf<SC_HANDLE>(result)] = {name, 0};
    }
    TraceDetails details;
    if (function.state != kNone && code == ERROR_SUCCESS) {
        // SERVICE_STATUS_PROCESS begins as SERVICE_STATUS does.
        const DWORD state = call.Parameter<const SERVICE_STATUS*>(function.state)->dwCurrentState;
        if (!IsNews(handle, state) && !function.changes) {
            return result;
        }
        details.emplace_back(L"state", StateName(state));
    }
    Tell(TraceGroup::Service, function.what, name, code, std::move(details));
    return result;
}

Word CloseService(HookedCall& call) {
    {
        const std::lock_guard<std::mutex> guard(lock);
        services.erase(call.Parameter<SC_HANDLE>(0));
    }
    return call.Forward();
}

constexpr ServiceCall kCalls[] = {
    {"OpenSCManagerW", L"opens", kNone, kNone, true, false},
    {"OpenServiceW", L"opens service", 1, kNone, true, false},
    {"CreateServiceW", L"creates service", 1, kNone, true, true},
    {"StartServiceW", L"starts service", kNone, kNone, false, true},
    // The library sends nothing else than a request to stop.
    {"ControlService", L"stops service", kNone, 2, false, true},
    {"DeleteService", L"deletes service", kNone, kNone, false, true},
    {"ChangeServiceConfig2W", L"configures", kNone, kNone, false, true},
    {"QueryServiceStatus", L"asks for state", kNone, 1, false, false},
    {"QueryServiceStatusEx", L"asks for state", kNone, 2, false, false},
    {"QueryServiceConfigW", L"reads service", kNone, kNone, false, false},
};

} // namespace

std::vector<Hook> ServiceHooks() {
    std::vector<Hook> hooks = {{"CloseServiceHandle", CloseService}};
    AddRows(hooks, kCalls, RunServiceCall);
    return hooks;
}

} // namespace halvard_runner
