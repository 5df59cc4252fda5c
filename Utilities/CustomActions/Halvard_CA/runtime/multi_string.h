#pragma once

#include <list>
#include <string>

namespace halvard {

/// Cuts the characters of a REG_MULTI_SZ value, terminators included, into its strings.
///
/// Every null character ends an element, an empty one too: a, null, b, null, null gives the three
/// elements "a", "b" and "". Characters behind the last null character are dropped.
///
/// Throws std::length_error ("list too long") when more than `largestList` elements would be
/// needed.
std::list<std::wstring>
SplitMultiString(const std::wstring& characters,
                 std::size_t largestList = std::list<std::wstring>().max_size());

/// Joins strings to the characters of a REG_MULTI_SZ value: each element followed by a null
/// character, and one more null character after the last. An empty list gives one null character.
std::wstring JoinMultiString(const std::list<std::wstring>& strings);

} // namespace halvard
