#pragma once

#include "trace/event.h"

#include <windows.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <functional>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

// What the hooks of all groups have in common.

namespace halvard_runner {

/// Wide enough for each parameter and each result of a function of Windows for x64.
using Word = std::uint64_t;

// The most parameters of a function that is hooked, which is CreateServiceW. What lies behind the
// last one of a shorter function is read and handed on, and nobody looks at it.
constexpr std::size_t kMostParameters = 13;
using Words = std::array<Word, kMostParameters>;

/// A pointer or a handle that came as a number.
template <class Type>
Type PointerOf(Word word) {
    static_assert(std::is_pointer_v<Type> && sizeof(void*) == sizeof(Word));
    Type pointer = nullptr;
    std::memcpy(&pointer, &word, sizeof word);
    return pointer;
}

/// How a function tells that it failed.
enum class FailureSign {
    Zero,     // FALSE or a null pointer; the last error has the code
    AllOnes,  // INVALID_HANDLE_VALUE or INVALID_FILE_ATTRIBUTES; likewise
    Status,   // the code of Windows is the result
    HResult,  // an HRESULT is the result
    NtStatus, // an NTSTATUS is the result
    MinusOne, // of the C run-time; the last error is that of the function which it calls
};

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

/// The text that the system has for a code; empty without one.
std::wstring MeaningOf(DWORD code);

/// A path as users write it: without the prefix of the extended-length form.
std::wstring ShownPath(const std::wstring& path);

/// The hooks of each group.
std::vector<Hook> RegistryHooks();
std::vector<Hook> ProgramHooks();
std::vector<Hook> FileHooks();
std::vector<Hook> ServiceHooks();
std::vector<Hook> OtherHooks();

/// Tells what became of the programs that nobody has waited for.
void TellOfLeftPrograms();

/// A handle is being closed: what is known by it is not any more.
void ForgetProgramHandle(HANDLE handle);
void ForgetFileHandle(HANDLE handle);

} // namespace halvard_runner
