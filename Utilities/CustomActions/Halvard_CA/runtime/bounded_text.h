#pragma once

#include <cstddef>

namespace halvard {

/// Room for `Bytes` bytes that a call writes and that are taken for text. Not every writer ends a
/// text with a null character: one stands behind the room, so that the text ends in any case.
template <std::size_t Bytes>
struct BoundedText {
    wchar_t characters[(Bytes + sizeof(wchar_t) - 1) / sizeof(wchar_t) + 1] = {};
};

} // namespace halvard
