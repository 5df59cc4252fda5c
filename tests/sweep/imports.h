#pragma once

#include "trace/import_patches.h"
#include "trace/thunks.h"

#include <windows.h>

#include <map>
#include <string>

// The imports of a loaded library, behind whose back they can fail. A function that the library
// looks up by its name, as the loader of delayed imports does, is treated like an imported one.

namespace halvard_sweep {

using halvard_runner::FailureSign;

/// The reason that a function gives.
enum class FailureCode { AccessDenied, OutOfMemory };

/// All functions that are known, with the sign of each.
using FunctionTable = std::map<std::string, FailureSign>;

struct Failure {
    std::string function; // empty for none
    int position = 0;     // counted from 1
    FailureCode code = FailureCode::AccessDenied;
};

/// Sends the calls of the library through this program for the length of a scope. One scope at a
/// time. Throws std::runtime_error for an import that the table does not know.
class WatchedImports {
public:
    WatchedImports(HMODULE library, const FunctionTable& table, const Failure& failure);
    WatchedImports(const WatchedImports&) = delete;
    WatchedImports& operator=(const WatchedImports&) = delete;

    /// From here on calls of this thread are counted, and one of them fails.
    static void BeginInThisThread();
    static void End();

    /// How often each function was called, of those that can fail.
    static std::map<std::string, int> Calls();

    /// A function that was looked up and that the table does not know; empty for none.
    static std::string Unknown();

    /// Whether the call that had to fail was made.
    static bool HasFailed();

    /// What was acquired and not given back, by the function that acquired it. Asked once, when
    /// the calling thread has ended.
    static std::map<std::string, int> TakeKept();

private:
    halvard_runner::ImportPatches patches_;
};

} // namespace halvard_sweep
