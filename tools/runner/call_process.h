#pragma once

#include "arguments.h"
#include "report.h"

#include <functional>
#include <string>

namespace halvard_runner {

/// The word by which this program starts itself to call an action; two handles stand behind it.
constexpr const wchar_t* kCallWord = L"--call-for-parent";

/// What tells a reader of a call while it runs.
struct CallWatcher {
    std::function<void(const Message&)> message;
    std::function<void(const TraceEvent&)> event;
    /// A line of standard output or of standard error.
    std::function<void(Stream, const std::wstring&)> line;
};

/// Calls an action in a process of its own, and tells how it ended, also when that process was
/// ended by the action, crashed, or did not end in time: then it is ended with all that it has
/// started. What a call that came to its end has started lives on.
///
/// Throws RunnerError where no action was called.
Outcome CallInProcess(const Arguments& arguments, const CallWatcher& watcher);

/// The other side: reads the request from the first handle, calls, and reports to the second.
/// `words` are the handles.
int CallForParent(const std::vector<std::wstring>& words);

} // namespace halvard_runner
