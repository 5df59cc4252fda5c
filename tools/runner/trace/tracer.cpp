#include "trace/tracer.h"

#include "text_output.h"
#include "trace/hook.h"
#include "trace/import_patches.h"

#include <array>
#include <atomic>
#include <chrono>
#include <cstring>
#include <stdexcept>
#include <utility>

namespace halvard_runner {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kMostHooks = 128;

// Never destroyed: threads of the action may go on to the end of the process.
struct Trace {
    TraceMode mode = TraceMode::None;
    TraceSink sink;
    Clock::time_point start = Clock::now();
    std::vector<Hook> hooks;
    std::array<std::atomic<void*>, kMostHooks> originals = {};
    ImportPatches patches;
};

Trace* trace = nullptr;

Word Run(std::size_t index, const Words& arguments) {
    const DWORD before = GetLastError();
    HookedCall call(trace->originals[index], arguments, before);
    const Word result = trace->hooks[index].run(call);
    SetLastError(call.LastError());
    return result;
}

using HookThunks = Thunks<Run, kMostHooks>;

/// What takes the place of a function; itself where nothing has to.
void* ThunkFor(const char* name, void* original) {
    for (std::size_t index = 0; index < trace->hooks.size(); ++index) {
        if (std::strcmp(trace->hooks[index].function, name) == 0) {
            // Other threads may be reading it: it is written once.
            void* none = nullptr;
            trace->originals[index].compare_exchange_strong(none, original);
            return HookThunks::At(index);
        }
    }
    return original;
}

Word LookUp(HookedCall& call) {
    const Word found = call.Forward();
    return LookedUp(call.arguments, found, ThunkFor);
}

void AddHooks(std::vector<Hook> hooks) {
    for (Hook& hook : hooks) {
        trace->hooks.push_back(std::move(hook));
    }
}

} // namespace

Word HookedCall::Forward() {
    SetLastError(lastError_);
    const Word result = CallWith(original_, arguments);
    lastError_ = GetLastError();
    return result;
}

Word HookedCall::Answer(FailureSign sign, DWORD code, Word success) {
    const bool isOfTheResult = sign == FailureSign::Zero || sign == FailureSign::AllOnes;
    if (code == ERROR_SUCCESS) {
        return isOfTheResult ? success : 0;
    }
    if (isOfTheResult || sign == FailureSign::MinusOne) {
        lastError_ = code;
    }
    return FailureResult(sign, code);
}

DWORD HookedCall::Code(FailureSign sign, Word result) const {
    const auto low = static_cast<DWORD>(result);
    bool failed = false;
    switch (sign) {
    case FailureSign::None:
        break;
    case FailureSign::Zero:
    case FailureSign::Null:
        failed = low == 0;
        break;
    case FailureSign::AllOnes:
    case FailureSign::MinusOne:
        failed = low == ~DWORD{0};
        break;
    case FailureSign::Status:
        return low;
    case FailureSign::HResult:
    case FailureSign::NtStatus:
        return static_cast<std::int32_t>(low) < 0 ? low : DWORD{ERROR_SUCCESS};
    }
    if (!failed) {
        return ERROR_SUCCESS;
    }
    return lastError_ == ERROR_SUCCESS ? DWORD{ERROR_GEN_FAILURE} : lastError_;
}

void Tell(TraceEvent event) {
    event.milliseconds = TraceMilliseconds();
    trace->sink(event);
}

void Tell(TraceGroup group, const std::wstring& what, const std::wstring& target, DWORD code,
          TraceDetails details) {
    TraceEvent event = {0.0, group, what, target, TraceResult::Done, std::nullopt, {}};
    if (code != ERROR_SUCCESS) {
        event.result = TraceResult::Failed;
        event.code = code;
        const std::wstring meaning = MeaningOf(code);
        if (!meaning.empty()) {
            event.details.emplace_back(trace_words::kMeans, meaning);
        }
    }
    event.details.insert(event.details.end(), details.begin(), details.end());
    Tell(std::move(event));
}

void TellNotMade(TraceGroup group, const std::wstring& what, const std::wstring& target, DWORD code,
                 TraceDetails details) {
    if (code != ERROR_SUCCESS) {
        Tell(group, what, target, code, std::move(details));
        return;
    }
    Tell({0.0, group, what, target, TraceResult::NotMade, std::nullopt, std::move(details)});
}

bool IsDryRun() {
    return trace->mode == TraceMode::DryRun;
}

double TraceMilliseconds() {
    return std::chrono::duration<double, std::milli>(Clock::now() - trace->start).count();
}

void StartTrace(HMODULE library, TraceMode mode, TraceSink sink) {
    trace = new Trace; // NOLINT(cppcoreguidelines-owning-memory): for the rest of the process
    trace->mode = mode;
    trace->sink = std::move(sink);
    AddHooks(RegistryHooks());
    AddHooks(ProgramHooks());
    AddHooks(FileHooks());
    AddHooks(ServiceHooks());
    AddHooks(OtherHooks());
    AddHooks({{"GetProcAddress", LookUp}});
    if (trace->hooks.size() > kMostHooks) {
        throw std::runtime_error("more hooks than there is room for");
    }
    trace->start = Clock::now();
    VisitImports(library, [](const char* name, void** slot) {
        void* const thunk = name == nullptr ? *slot : ThunkFor(name, *slot);
        if (thunk != *slot) {
            trace->patches.Redirect(slot, thunk);
        }
    });
}

void EndTrace() {
    if (trace != nullptr) {
        TellOfLeftPrograms();
    }
}

} // namespace halvard_runner
