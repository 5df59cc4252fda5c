#pragma once

#include "check/rules.h"
#include "runner_error.h"

#include <string>
#include <vector>

namespace halvard_runner {

/// What a script may rely on, besides the exit codes of the program for what is not written and for
/// its own failure.
enum class CheckExit {
    /// Hints aside.
    NoFindings = 0,
    Warnings = 1,
    Errors = 2,
    /// The package cannot be read, or the arguments are wrong.
    NotChecked = 4,
};

/// That of the worst finding.
CheckExit CheckExitCode(const std::vector<Finding>& findings);

/// The findings for a reader.
std::wstring CheckLines(const std::wstring& package, const std::vector<Finding>& findings);

/// The same for scripts: one JSON object, with a line end.
std::wstring CheckJson(const std::wstring& package, const std::vector<Finding>& findings,
                       const std::vector<int>& skipped);

} // namespace halvard_runner
