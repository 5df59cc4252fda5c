#pragma once

#include <functional>
#include <string>

namespace halvard_tests {

/// What standard output receives while `action` runs, at most 4096 bytes.
std::string StandardOutputOf(const std::function<void()>& action);

} // namespace halvard_tests
