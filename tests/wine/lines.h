#pragma once

#include <string>
#include <vector>

/// What happened in its order, a text each: calls, log lines, messages.
using Lines = std::vector<std::wstring>;

/// One after the other.
inline Lines operator+(Lines left, const Lines& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}
