#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace halvard_runner {

/// As many digits as it takes, or `leastDigits` with zeros in front.
std::wstring HexadecimalDigits(std::uint64_t number, std::size_t leastDigits);

/// The text in lines of at most `width` characters, broken at blanks; a longer word stays whole.
std::vector<std::wstring> Wrapped(const std::wstring& text, std::size_t width);

/// With one digit behind the point, rounded.
std::wstring Tenths(double number);

/// Letters of the Latin alphabet alone.
std::wstring LowerCase(std::wstring text);

/// A label with the blanks behind it that bring all texts behind labels into one column.
std::wstring Padded(std::wstring label);

/// A label and behind it the text in lines that a console holds, all but the first indented.
std::wstring Described(const std::wstring& label, const std::wstring& text);

std::wstring Joined(const std::vector<std::wstring>& texts, const wchar_t* between);

} // namespace halvard_runner
