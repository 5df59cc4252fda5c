#pragma once

#include <windows.h>
#include <msi.h>

namespace halvard {

extern "C" {

/// Registers a scheduled task that has no trigger and runs elevated when it is started on demand. A
/// task that has the name already is replaced.
///
/// Deferred action, result checked. Inputs: the items TaskName=, CommandToLaunch= and Username= of
/// CustomActionData. The command is a whole command line, the user is the account that runs the
/// task. Name and command go into the task's XML as they are and must not hold "&", "<" or "]]>".
/// An absent CommandToLaunch= is an empty command, which the Task Scheduler refuses; an absent
/// TaskName= or Username= is not detected, and its value is then the data from index 8 onward.
/// Stores its session as the current session.
/// Results: 0, 1. ERROR_SUCCESS, or 1, a failure to the installer, when the task could not be
/// registered.
/// Throws std::out_of_range when the data has fewer than 8 characters, and std::bad_alloc.
UINT __stdcall CreateTriggerlessElevatedScheduleTask(MSIHANDLE session);

} // extern "C"

} // namespace halvard
