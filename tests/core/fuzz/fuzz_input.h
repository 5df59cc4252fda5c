#pragma once

#ifdef _WIN32
#include <windows.h>
#endif

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

namespace halvard_tests {

/// The bytes of a fuzzer's input as characters of 16 bits; an odd last byte is left out.
inline std::wstring Characters(const std::uint8_t* bytes, std::size_t size) {
    std::wstring text;
    for (std::size_t index = 0; index + 1 < size; index += 2) {
        text += static_cast<wchar_t>(bytes[index] | bytes[index + 1] << 8);
    }
    return text;
}

using Texts = std::vector<std::wstring>;

/// The bytes of a fuzzer's input as a text that meets what matters sooner than characters of 16
/// bits by chance: ASCII stands for itself, the next 64 bytes are characters at the edges of what
/// UTF-16, names and XML take, and all others are the fuzzer's own words.
inline std::wstring Text(const std::uint8_t* bytes, std::size_t size, const Texts& words) {
    static constexpr wchar_t kEdges[] = {
        0x7F,   0x80,   0x85,   0xA0,   0xC4,   0xDF,   0x130,  0x131,
        0x17F,  0x212A, 0x2028, 0x3000, 0xD7FF, 0xD800, 0xD83D, 0xDBFF,
        0xDC00, 0xDE00, 0xDFFF, 0xE000, 0xFEFF, 0xFFFD, 0xFFFE, 0xFFFF,
    };
    constexpr std::size_t kFirstEdge = 0x80;
    constexpr std::size_t kFirstWord = 0xC0;
    std::wstring text;
    for (std::size_t index = 0; index < size; ++index) {
        const std::size_t byte = bytes[index];
        if (byte < kFirstEdge) {
            text += static_cast<wchar_t>(byte);
        } else if (byte < kFirstWord) {
            text += kEdges[(byte - kFirstEdge) % std::size(kEdges)];
        } else {
            text += words[(byte - kFirstWord) % words.size()];
        }
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

/// All lines of the text, the last one too when nothing ends it.
inline Texts Lines(std::wstring text) {
    Texts lines;
    while (!text.empty()) {
        auto [line, rest] = CutAtLineFeed(text);
        lines.push_back(std::move(line));
        text = std::move(rest);
    }
    return lines;
}

#ifdef _WIN32
/// What a property that does not hold raises: another code than arithmetic that is not defined,
/// which runs into a trap.
inline constexpr DWORD kBrokenProperty = 0xE0484C56;
#endif

/// Ends the fuzzer's run with a report when a property does not hold.
inline void Require(bool holds) {
    if (!holds) {
#ifdef _WIN32
        RaiseException(kBrokenProperty, EXCEPTION_NONCONTINUABLE, 0, nullptr);
#else
        __builtin_trap();
#endif
    }
}

} // namespace halvard_tests
