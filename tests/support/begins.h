#pragma once

#include <string>

namespace halvard_tests {

inline bool Begins(const std::wstring& text, const std::wstring& start) {
    return text.compare(0, start.size(), start) == 0;
}

} // namespace halvard_tests
