#pragma once

#include <functional>
#include <string>
#include <vector>

namespace halvard_tests {

/// What this process sends to the debugger while `action` runs, one text for each call, as a
/// monitor of the debugger's channel gets it: in the system's ANSI code page. Throws
/// std::runtime_error when the channel cannot be made or somebody listens to it already.
std::vector<std::string> DebuggerOutputOf(const std::function<void()>& action);

} // namespace halvard_tests
