#pragma once

#include <optional>
#include <string>
#include <vector>

namespace halvard_runner {

/// Carries out `--verify` and `--verify-installer` where they are what is asked for, and gives the
/// exit code; nothing for other requests. Throws RunnerError (WrongArguments).
std::optional<int> Verify(const std::vector<std::wstring>& arguments);

} // namespace halvard_runner
