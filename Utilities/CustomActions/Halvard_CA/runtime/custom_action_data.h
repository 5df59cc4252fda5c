#pragma once

#include <string>

namespace halvard {

/// Picks the value of one key out of a CustomActionData text: "Key=value" items joined by ";".
///
/// `key` is written with its trailing "=" and is searched as a plain, case-sensitive substring, so
/// it also matches the tail of a longer key that comes first. The value runs to the next ";" or to
/// the end of the text.
///
/// A key that is absent is not detected: the value is then the text from index (length of `key`
/// minus 1, in wide characters) onward. Callers that act on a value have to guard against that.
///
/// Throws std::out_of_range when the start of the value lies beyond the end of `data`, which
/// happens only for an absent key and a text shorter than the key's length minus 1.
std::wstring GetDataValue(const std::wstring& data, const std::wstring& key);

/// The value that GetDataValue picks, empty when the key is absent: for values that must never be
/// made of other text. Throws std::bad_alloc only.
std::wstring GetDataValueOrEmpty(const std::wstring& data, const std::wstring& key);

} // namespace halvard
