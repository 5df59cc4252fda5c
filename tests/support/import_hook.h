#pragma once

#include "trace/import_patches.h"

#include <windows.h>

#include <functional>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>

// Swaps one imported Windows function for the length of a scope, in the import table of the test
// program, which the library's own objects are linked into. A hook counts calls, sees arguments,
// and makes calls fail:
//
//     HOOK(closing, RegCloseKey, [&](HKEY key) { return closing.Original(key); });
//     FAIL_CALL(reading, RegGetValueW, 2, ERROR_MORE_DATA, NO_ERROR);
//     COUNT_CALLS(opening, RegOpenKeyExW);
//     EXPECT_EQ(opening.Calls(), closing.Calls());
//
// A function may be hooked again: the later hook sees the call first, and its Original is the
// earlier one. What runs inside of a hooked call is no part of the code under test:
// AllocationFailure passes it over, and so does a CallTrace.

#define HOOK(variable, function, ...)                                                              \
    ::halvard_tests::ImportHook<&function> variable {                                              \
#function, __VA_ARGS__                                                                     \
    }

// The call number `nth`, counted from 1, returns `result` with the last error set to `lastError`;
// 0 for every call.
#define FAIL_CALL(variable, function, nth, result, lastError)                                      \
    ::halvard_tests::ImportHook<&function> variable {                                              \
#function, nth, result, lastError                                                          \
    }

#define COUNT_CALLS(variable, function)                                                            \
    ::halvard_tests::ImportHook<&function> variable {                                              \
#function                                                                                  \
    }

namespace halvard_tests {

/// The slot of the program's import table that holds the address of `function`. Throws
/// std::runtime_error when the program does not import it: a hook that catches nothing is an error.
void** ImportSlot(const char* function);

using halvard_runner::WriteImportSlot;

/// The length of a hooked call.
class HookedCall {
public:
    HookedCall();
    ~HookedCall();
    HookedCall(const HookedCall&) = delete;
    HookedCall& operator=(const HookedCall&) = delete;
};

/// How many hooked calls this thread is in: 1 for one that the code makes, more for those that a
/// hook makes itself.
int HookDepth();

template <auto* Function>
class ImportHook;

template <class Result, class... Arguments, Result(WINAPI* Function)(Arguments...)>
class ImportHook<Function> {
public:
    using Handler = std::function<Result(Arguments...)>;
    using FailedResult = std::conditional_t<std::is_void_v<Result>, int, Result>;

    ImportHook(const char* name, Handler handler)
        : slot_(ImportSlot(name)), below_(top_),
          original_(below_ != nullptr ? below_->original_ : reinterpret_cast<Pointer>(*slot_)),
          handler_(std::move(handler)) {
        if (below_ == nullptr) {
            WriteImportSlot(slot_, reinterpret_cast<void*>(&Trampoline));
        }
        top_ = this;
    }

    explicit ImportHook(const char* name)
        : ImportHook(name, [this](Arguments... arguments) { return Original(arguments...); }) {}

    ImportHook(const char* name, int nth, FailedResult result, DWORD lastError)
        : ImportHook(name, [this, nth, result, lastError](Arguments... arguments) {
              if (nth == 0 || calls_ == nth) {
                  SetLastError(lastError);
                  return result;
              }
              return Original(arguments...);
          }) {}

    ~ImportHook() {
        ImportHook** link = &top_;
        while (*link != this) {
            link = &(*link)->below_;
        }
        *link = below_;
        if (top_ == nullptr) {
            WriteImportSlot(slot_, reinterpret_cast<void*>(original_));
        }
    }

    ImportHook(const ImportHook&) = delete;
    ImportHook& operator=(const ImportHook&) = delete;

    Result Original(Arguments... arguments) const {
        return below_ != nullptr ? below_->Call(arguments...) : original_(arguments...);
    }
    int Calls() const { return calls_; }

private:
    using Pointer = Result(WINAPI*)(Arguments...);

    static Result WINAPI Trampoline(Arguments... arguments) {
        const HookedCall call;
        return top_->Call(arguments...);
    }

    Result Call(Arguments... arguments) {
        ++calls_;
        return handler_(arguments...);
    }

    static inline ImportHook* top_ = nullptr;

    void** slot_;
    ImportHook* below_;
    Pointer original_;
    Handler handler_;
    int calls_ = 0;
};

} // namespace halvard_tests
