#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>

namespace halvard_tests {

/// The bytes of a fuzzer's input as characters of 16 bits; an odd last byte is left out.
inline std::wstring Characters(const std::uint8_t* bytes, std::size_t size) {
    std::wstring text;
    for (std::size_t index = 0; index + 1 < size; index += 2) {
        text += static_cast<wchar_t>(bytes[index] | bytes[index + 1] << 8);
    }
    return text;
}

/// Cuts the text at its first line feed; the second part is empty when there is none.
inline std::pair<std::wstring, std::wstring> CutAtLineFeed(const std::wstring& text) {
    const std::size_t feed = text.find(L'\n');
    if (feed == std::wstring::npos) {
        return {text, {}};
    }
    return {text.substr(0, feed), text.substr(feed + 1)};
}

/// Ends the fuzzer's run with a report when a property does not hold.
inline void Require(bool holds) {
    if (!holds) {
        __builtin_trap();
    }
}

} // namespace halvard_tests
