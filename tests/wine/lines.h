#pragma once

#include <algorithm>
#include <string>
#include <vector>

/// What happened in its order, a text each: calls, log lines, messages.
using Lines = std::vector<std::wstring>;

/// One after the other.
inline Lines operator+(Lines left, const Lines& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

/// Each line once where it stands several times in a row: what is done until something has come.
inline Lines WithoutRepeats(Lines lines) {
    lines.erase(std::unique(lines.begin(), lines.end()), lines.end());
    return lines;
}
