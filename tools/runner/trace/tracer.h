#pragma once

#include "trace/event.h"

#include <windows.h>

#include <functional>

namespace halvard_runner {

/// What is told of each event, in the thread that it happens in.
using TraceSink = std::function<void(const TraceEvent&)>;

/// Puts hooks into the imports of a library that is loaded, for the rest of this process. Times
/// count from here. A later trace takes the place of an earlier one.
void StartTrace(HMODULE library, TraceMode mode, TraceSink sink);

/// Tells what became of the programs that nobody has waited for. Nothing where there is no trace.
void EndTrace();

} // namespace halvard_runner
