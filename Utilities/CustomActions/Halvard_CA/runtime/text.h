#pragma once

#include <cstdint>
#include <string>

namespace halvard {

/// Position (in wide characters, from 0) of the first occurrence of `pattern` in `text`, or -1 when
/// there is none. Upper and lower case of the basic Latin letters A to Z count as equal, those of
/// every other letter do not. An empty pattern is found at 0.
std::int32_t FindNoCase(const std::wstring& text, const std::wstring& pattern);

} // namespace halvard
