#pragma once

#include "trace/event.h"

#include <windows.h>

#include <functional>

namespace halvard_runner {

/// What is told of each event, in the thread that it happens in.
using TraceSink = std::function<void(const TraceEvent&)>;

/// Puts hooks into the imports of a library that is loaded, for the rest of this process. Times
/// count from here. Once in a process, or once more where no trace before found anything to hook.
void StartTrace(HMODULE library, TraceMode mode, TraceSink sink);

/// Tells what became of the programs that nobody has waited for. Nothing where there is no trace.
void EndTrace();

} // namespace halvard_runner
