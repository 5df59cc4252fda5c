#include "action_call.h"

#include "names.h"
#include "text_output.h"

#include <chrono>
#include <csignal>
#include <mutex>
#include <system_error>
#include <typeinfo>

#ifdef __GNUC__
#include <cxxabi.h>

#include <cstdlib>
#include <memory>
#endif

namespace halvard_runner {

namespace {

using Clock = std::chrono::steady_clock;

struct Call {
    Action action = nullptr;
    MSIHANDLE session = 0;
    Outcome outcome;
};

// Bytes.
constexpr ULONG kStackReserve = 64 * 1024;

// Of the one call that runs: what handles a fault is not told of it. A thread that the action has
// started may fault at any time, also when the call has ended.
Call* running = nullptr;
std::mutex runningLock;

/// Tells the running call how its action ended; false when none runs any more.
bool TellRunningCall(const EscapedException& exception) {
    const std::lock_guard<std::mutex> lock(runningLock);
    if (running == nullptr) {
        return false;
    }
    running->outcome.exception = exception;
    return true;
}

std::wstring ReadableName(const std::type_info& type) {
#ifdef __GNUC__
    int status = 0;
    const std::unique_ptr<char, decltype(&std::free)> readable(
        abi::__cxa_demangle(type.name(), nullptr, nullptr, &status), &std::free);
    if (readable != nullptr) {
        return Widened(readable.get());
    }
#endif
    return Widened(type.name());
}

/// The class of an exception that is no std::exception; empty where the run-time does not tell.
std::wstring UnknownClass() {
#ifdef __GNUC__
    const std::type_info* const type = abi::__cxa_current_exception_type();
    return type == nullptr ? L"" : ReadableName(*type);
#else
    return {};
#endif
}

EscapedException CppException(const std::wstring& type) {
    EscapedException exception;
    exception.kind = L"C++ exception";
    exception.type = type;
    return exception;
}

void CallInThisThread(Call& call) {
    Outcome& outcome = call.outcome;
    try {
        outcome.result = call.action(call.session);
    } catch (const std::system_error& error) {
        outcome.exception = CppException(ReadableName(typeid(error)));
        outcome.exception->code = error.code().value();
        outcome.exception->category = Widened(error.code().category().name());
        outcome.exception->text = Widened(error.what());
    } catch (const std::exception& error) {
        outcome.exception = CppException(ReadableName(typeid(error)));
        outcome.exception->text = Widened(error.what());
    } catch (...) {
        outcome.exception = CppException(UnknownClass());
    }
}

DWORD WINAPI CallThread(void* parameter) {
    // For what tells of an exhausted stack.
    ULONG reserve = kStackReserve;
    SetThreadStackGuarantee(&reserve);
    CallInThisThread(*static_cast<Call*>(parameter));
    return 0;
}

/// Where something happened, as the library's debug information has it: the offset in its module.
std::wstring PlaceText(const void* address) {
    HMODULE module = nullptr;
    wchar_t path[MAX_PATH] = {};
    if (GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS |
                               GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                           static_cast<const wchar_t*>(address), &module) == FALSE ||
        GetModuleFileNameW(module, path, MAX_PATH) == 0) {
        return L"at " + HexadecimalText(reinterpret_cast<std::uintptr_t>(address));
    }
    const std::wstring name = path;
    const auto offset =
        reinterpret_cast<std::uintptr_t>(address) - reinterpret_cast<std::uintptr_t>(module);
    return L"at " + name.substr(name.rfind(L'\\') + 1) + L"+" + HexadecimalText(offset);
}

std::wstring FaultText(const EXCEPTION_RECORD& record) {
    std::wstring place = PlaceText(record.ExceptionAddress);
    if (record.ExceptionCode != EXCEPTION_ACCESS_VIOLATION || record.NumberParameters < 2) {
        return place;
    }
    const ULONG_PTR access = record.ExceptionInformation[0];
    const wchar_t* const what = access == 0 ? L"reading " : access == 1 ? L"writing " : L"running ";
    return what + HexadecimalText(record.ExceptionInformation[1]) + L" " + place;
}

EscapedException StructuredException(DWORD code, const std::wstring& text) {
    EscapedException exception;
    exception.code = code;
    exception.text = text;
    if (const wchar_t* const compiler = CompilerOfException(code)) {
        exception.kind = L"foreign C++ exception";
        exception.text =
            std::wstring(L"of ") + compiler + L", whose classes this program cannot read, " + text;
        return exception;
    }
    const wchar_t* const name = StructuredExceptionName(code);
    exception.kind = L"structured exception";
    exception.type = name == nullptr ? L"" : name;
    return exception;
}

/// What no handler on the stack has taken. The thread of the action ends here, and with it whatever
/// the action holds; the program goes on to tell of it.
LONG WINAPI EndFaultyThread(EXCEPTION_POINTERS* fault) {
    const EXCEPTION_RECORD& record = *fault->ExceptionRecord;
    if (!TellRunningCall(StructuredException(record.ExceptionCode, FaultText(record)))) {
        return EXCEPTION_CONTINUE_SEARCH;
    }
    ExitThread(record.ExceptionCode);
}

/// std::terminate and abort of a library that shares this program's C run-time.
void EndAbortedThread(int /*signal*/) {
    EscapedException exception;
    exception.kind = L"abort";
    exception.text = L"the action gave up (std::terminate or abort)";
    TellRunningCall(exception);
    ExitThread(1);
}

/// The action's thread is gone, and no handler was asked before.
EscapedException EndedThread(DWORD code) {
    if (StructuredExceptionName(code) != nullptr) {
        return StructuredException(code, {});
    }
    EscapedException exception;
    exception.kind = L"ended thread";
    exception.code = code;
    exception.text = L"the thread of the action ended without a result";
    return exception;
}

} // namespace

Outcome CallAction(Action action, MSIHANDLE session) {
    Call call = {action, session, {}};
    {
        const std::lock_guard<std::mutex> lock(runningLock);
        running = &call;
    }
    SetUnhandledExceptionFilter(EndFaultyThread);
    static_cast<void>(std::signal(SIGABRT, EndAbortedThread));

    const Clock::time_point start = Clock::now();
    void* const thread = CreateThread(nullptr, 0, CallThread, &call, 0, nullptr);
    if (thread == nullptr) {
        const DWORD code = GetLastError();
        throw RunnerError(ExitCode::NoSession, L"no thread for the action: " + ErrorText(code));
    }
    WaitForSingleObject(thread, INFINITE);
    call.outcome.milliseconds =
        std::chrono::duration<double, std::milli>(Clock::now() - start).count();
    DWORD ended = 0;
    GetExitCodeThread(thread, &ended);
    CloseHandle(thread);
    {
        const std::lock_guard<std::mutex> lock(runningLock);
        running = nullptr;
    }
    if (call.outcome.exception) {
        // Of a thread that the action started: in the installer's process it would have been the
        // end of the action too, whatever it returned here.
        call.outcome.result.reset();
    } else if (!call.outcome.result) {
        call.outcome.exception = EndedThread(ended);
    }

    SetUnhandledExceptionFilter(nullptr);
    static_cast<void>(std::signal(SIGABRT, SIG_DFL));
    return call.outcome;
}

} // namespace halvard_runner
