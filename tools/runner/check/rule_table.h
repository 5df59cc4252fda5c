#pragma once

#include <string>
#include <vector>

namespace halvard_runner {

enum class Severity { Hint, Warning, Error };

/// What a rule is called, as the page of rules has it too.
struct RuleText {
    int number;
    Severity severity;
    std::wstring rule;
    std::wstring why;
    std::wstring remedy;
};

/// By their numbers.
const std::vector<RuleText>& RuleTable();

} // namespace halvard_runner
