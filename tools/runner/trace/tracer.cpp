#include "trace/tracer.h"

#include "trace/hook.h"
#include "trace/import_patches.h"

#include <chrono>
#include <cstring>
#include <stdexcept>
#include <utility>

namespace halvard_runner {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kMostHooks = 128;

struct Hooked {
    Hook hook;
    void* original = nullptr;
};

// Never destroyed: threads of the action may go on to the end of the process.
struct Trace {
    TraceMode mode = TraceMode::None;
    TraceSink sink;
    Clock::time_point start = Clock::now();
    std::vector<Hooked> hooks;
    ImportPatches patches;
};

Trace* trace = nullptr;

Word Run(std::size_t index, const Words& arguments) {
    const DWORD before = GetLastError();
    const Hooked& hooked = trace->hooks[index];
    HookedCall call(hooked.original, arguments, before);
    const Word result = hooked.hook.run(call);
    SetLastError(call.LastError());
    return result;
}

template <std::size_t Index>
Word WINAPI Thunk(Word a, Word b, Word c, Word d, Word e, Word f, Word g, Word h, Word i, Word j,
                  Word k, Word l, Word m) {
    return Run(Index, {a, b, c, d, e, f, g, h, i, j, k, l, m});
}

using Hookable = decltype(&Thunk<0>);

template <std::size_t... Indices>
constexpr std::array<Hookable, sizeof...(Indices)>
Thunks(std::index_sequence<Indices...> /*unused*/) {
    return {&Thunk<Indices>...};
}

constexpr auto kThunks = Thunks(std::make_index_sequence<kMostHooks>());

/// What takes the place of a function; nothing where nothing has to.
void* ThunkFor(const char* name, void* original) {
    for (std::size_t index = 0; index < trace->hooks.size(); ++index) {
        if (std::strcmp(trace->hooks[index].hook.function, name) == 0) {
            trace->hooks[index].original = original;
            return reinterpret_cast<void*>(kThunks[index]);
        }
    }
    return nullptr;
}

Word LookUp(HookedCall& call) {
    const Word result = call.Forward();
    const auto* const name = call.Parameter<const char*>(1);
    // One by a number has no name.
    if (result == 0 || IS_INTRESOURCE(name)) {
        return result;
    }
    void* const thunk = ThunkFor(name, PointerOf<void*>(result));
    return thunk == nullptr ? result : reinterpret_cast<std::uintptr_t>(thunk);
}

void AddHooks(std::vector<Hook> hooks) {
    for (Hook& hook : hooks) {
        trace->hooks.push_back({std::move(hook), nullptr});
    }
}

} // namespace

Word HookedCall::Forward() {
    const auto function = reinterpret_cast<Hookable>(original_);
    const Words& a = arguments;
    SetLastError(lastError_);
    const Word result =
        function(a[0], a[1], a[2], a[3], a[4], a[5], a[6], a[7], a[8], a[9], a[10], a[11], a[12]);
    lastError_ = GetLastError();
    return result;
}

Word HookedCall::Answer(FailureSign sign, DWORD code, Word success) {
    const bool failed = code != ERROR_SUCCESS;
    switch (sign) {
    case FailureSign::Zero:
    case FailureSign::AllOnes:
    case FailureSign::MinusOne:
        lastError_ = failed ? code : lastError_;
        if (!failed) {
            return sign == FailureSign::MinusOne ? 0 : success;
        }
        return sign == FailureSign::Zero ? 0 : ~Word{0};
    case FailureSign::Status:
        return code;
    case FailureSign::HResult:
        return static_cast<DWORD>(HRESULT_FROM_WIN32(code));
    case FailureSign::NtStatus:
        break;
    }
    constexpr DWORD kAccessDenied = 0xC0000022;
    return failed ? kAccessDenied : 0;
}

DWORD HookedCall::Code(FailureSign sign, Word result) const {
    const auto low = static_cast<DWORD>(result);
    bool failed = false;
    switch (sign) {
    case FailureSign::Zero:
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

std::wstring MeaningOf(DWORD code) {
    wchar_t text[512] = {};
    const DWORD length = FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS,
                                        nullptr, code, 0, text, 512, nullptr);
    const std::wstring meaning(text, length);
    return meaning.substr(0, meaning.find_last_not_of(L"\r\n. ") + 1);
}

std::wstring ShownPath(const std::wstring& path) {
    if (path.rfind(L"\\\\?\\UNC\\", 0) == 0) {
        return L"\\\\" + path.substr(8);
    }
    return path.rfind(L"\\\\?\\", 0) == 0 ? path.substr(4) : path;
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
        void* const thunk = name == nullptr ? nullptr : ThunkFor(name, *slot);
        if (thunk != nullptr) {
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
