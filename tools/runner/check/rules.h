#pragma once

#include "check/package_model.h"
#include "check/rule_table.h"

#include <string>
#include <vector>

namespace halvard_runner {

/// What a rule has found in a package.
struct Finding {
    int number;
    std::wstring table;
    /// The key of the row; empty where it is the package as a whole.
    std::wstring row;
    /// What was found there.
    std::wstring what;
};

const RuleText& TextOf(const Finding& finding);

/// What is wrong with a package, by the rules but for those whose numbers are `skipped`. `version`
/// is that of this program. Ordered by number and as the tables have it.
std::vector<Finding> Findings(const Package& package, const std::wstring& version,
                              const std::vector<int>& skipped);

} // namespace halvard_runner
