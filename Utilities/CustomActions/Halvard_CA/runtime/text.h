#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <string>

namespace halvard {

/// Position (in wide characters, from 0) of the first occurrence of `pattern` in `text`, or -1 when
/// there is none. Upper and lower case of the basic Latin letters A to Z count as equal, those of
/// every other letter do not. An empty pattern is found at 0.
std::int32_t FindNoCase(const std::wstring& text, const std::wstring& pattern);

/// Cuts the text at every delimiter; a text with none is one piece. Pieces may be empty.
///
/// Throws std::length_error ("list too long") when more than `largestList` pieces would be needed.
std::list<std::wstring> SplitString(const std::wstring& text, wchar_t delimiter,
                                    std::size_t largestList = std::list<std::wstring>().max_size());

} // namespace halvard
