#pragma once

#include "library.h"
#include "report.h"

namespace halvard_runner {

/// Calls an action in a thread of its own, waits for it however long it takes, and tells its
/// result and duration, or how it ended without a result. The messages are left out.
///
/// C++ exceptions are caught as such where this program's compiler is that of the library; each
/// side has a run-time of its own, so classes and categories are known by their names. Every other
/// exception is a structured one with the code that its run-time raises. What ends the whole
/// process ends the one that was started for the call. After a fault inside the allocation of
/// memory that process may wait for ever: the thread that had the heap is gone.
Outcome CallAction(Action action, MSIHANDLE session);

} // namespace halvard_runner
