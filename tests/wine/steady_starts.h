#pragma once

#include <functional>

namespace halvard_tests {

/// Calls `start`, which gives what CreateProcessW does, and where it fails with
/// ERROR_INTERNAL_ERROR calls `tell` and then `start` once more.
///
/// Wine 8 refuses about one start of five thousand in this way where the host draws the addresses
/// of a program's parts by chance: what was to become the process has ended in the host's loader,
/// before a program of Windows began. CreateProcessW of a test program does this for every start
/// and tells it in a line of standard output, so that no action is judged by a tool that the engine
/// has lost.
int StartOnceMoreIfLost(const std::function<int()>& start, const std::function<void()>& tell);

} // namespace halvard_tests
