#pragma once

#include <map>
#include <string>
#include <vector>

// The part of the machine that actions, and faults of theirs, might change.

namespace halvard_sweep {

/// What is there, by its name: files as "T:\folder\file" and "TEMP\file", keys as
/// "HKLM\SOFTWARE\Key", values as "HKLM\SOFTWARE\Key : name", and what waits for a restart as
/// "restart T:\file".
using Machine = std::map<std::wstring, std::wstring>;

Machine LookAtMachine();

/// The names of what differs.
std::vector<std::wstring> Differences(const Machine& before, const Machine& after);

} // namespace halvard_sweep
