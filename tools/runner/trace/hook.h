#pragma once

#include "trace/event.h"
#include "trace/thunks.h"

#include <windows.h>

#include <functional>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

// What the hooks of all groups have in common.

namespace halvard_runner {

/// A call of the library.
class HookedCall {
public:
    HookedCall(void* original, const Words& words, DWORD lastError)
        : arguments(words), lastError_(lastError), original_(original) {}

    /// Makes the call. The last error is the one that the library left before, and then is that of
    /// the function.
    Word Forward();

    /// Answers in place of the function: ERROR_SUCCESS for what `success` stands for.
    Word Answer(FailureSign sign, DWORD code, Word success = 1);

    /// The code of Windows, ERROR_SUCCESS for none.
    [[nodiscard]] DWORD Code(FailureSign sign, Word result) const;

    [[nodiscard]] DWORD LastError() const { return lastError_; }

    /// A parameter as what it is.
    template <class Type>
    [[nodiscard]] Type Parameter(std::size_t index) const {
        if constexpr (std::is_pointer_v<Type>) {
            return PointerOf<Type>(arguments[index]);
        } else {
            return static_cast<Type>(arguments[index]);
        }
    }

    [[nodiscard]] std::wstring Text(std::size_t index) const {
        const auto* const text = Parameter<const wchar_t*>(index);
        return text == nullptr ? L"" : text;
    }

    Words arguments;

private:
    DWORD lastError_;
    void* original_;
};

/// What hooks keep is never destroyed: threads of the action may go on to the end of the process,
/// and what a library does there is told too. Made before anything else has begun, for which there
/// has to be memory.
template <class Type>
Type& NeverDestroyed() noexcept {
    return *new Type; // NOLINT(bugprone-unhandled-exception-at-new)
}

/// For files that this trace opens beside whoever has them open.
inline constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

/// Takes the place of an imported function.
struct Hook {
    const char* function;
    std::function<Word(HookedCall&)> run;
};

/// The index of a parameter that a function of a row does not have.
inline constexpr std::size_t kNone = kMostParameters;

/// A hook for each row of a table of functions that are told alike. The table outlives the hooks.
template <class Row, std::size_t count>
void AddRows(std::vector<Hook>& hooks, const Row (&rows)[count],
             Word (*run)(const Row& row, HookedCall& call)) {
    for (const Row& row : rows) {
        hooks.push_back({row.function, [&row, run](HookedCall& call) {
                             return run(row, call);
                         }});
    }
}

/// Tells an event. `code` is one of Windows: the event has failed unless it is ERROR_SUCCESS.
void Tell(TraceGroup group, const std::wstring& what, const std::wstring& target, DWORD code = 0,
          TraceDetails details = {});

/// Tells an event as it is; its time is put in.
void Tell(TraceEvent event);

/// Tells that a call was answered in its place: as it would have ended.
void TellNotMade(TraceGroup group, const std::wstring& what, const std::wstring& target,
                 DWORD code = 0, TraceDetails details = {});

/// Whether calls that change something are to be answered in their place.
bool IsDryRun();

/// Since the trace began.
double TraceMilliseconds();

/// The hooks of each group.
std::vector<Hook> RegistryHooks();
std::vector<Hook> ProgramHooks();
std::vector<Hook> FileHooks();
std::vector<Hook> ServiceHooks();
std::vector<Hook> OtherHooks();

constexpr const wchar_t* kTaskScheduler = L"Task Scheduler";

/// From here on a connection by this object, its folders and what is registered in them are told,
/// where it was asked for as an ITaskService.
void WatchTaskScheduler(const IID& interfaceId, void* object);

/// Tells what became of the programs that nobody has waited for.
void TellOfLeftPrograms();

/// A handle is being closed: what is known by it is not any more.
void ForgetProgramHandle(HANDLE handle);
void ForgetFileHandle(HANDLE handle);

} // namespace halvard_runner
