#pragma once

#include "check/rules.h"
#include "runner_error.h"

#include <string>
#include <vector>

namespace halvard_runner {

/// 0 without findings but hints, 1 with warnings, 2 with errors.
int CheckExitCode(const std::vector<Finding>& findings);

/// The findings for a reader.
std::wstring CheckLines(const std::wstring& package, const std::vector<Finding>& findings);

/// The same for scripts: one JSON object, with a line end.
std::wstring CheckJson(const std::wstring& package, const std::vector<Finding>& findings,
                       const std::vector<int>& skipped);

} // namespace halvard_runner
