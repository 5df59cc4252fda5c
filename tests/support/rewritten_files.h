#pragma once

#include <cstddef>
#include <optional>
#include <string>

namespace halvard_tests {

// The files of a rewriting on the throw-away drive, read and written through the C run-time, whose
// calls for files no hook sees.

inline constexpr wchar_t kSource[] = L"T:\\task.xml";
inline constexpr wchar_t kTarget[] = L"T:\\rewritten.xml";

/// Throws std::runtime_error when it cannot be written.
void WriteBytes(const wchar_t* path, const void* bytes, std::size_t size);

/// As UTF-16, as it is.
void WriteSource(const std::wstring& document);

/// The whole target as UTF-16, its byte-order mark too; none when there is no such file.
std::optional<std::wstring> ReadTarget();

} // namespace halvard_tests
