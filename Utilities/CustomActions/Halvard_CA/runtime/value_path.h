#pragma once

#include <cstddef>
#include <string>

// The full path of a registry value: the name of a predefined root, the key and the value's name,
// with a backslash between them. A backslash that belongs to the name cannot be told from one
// between keys: what stands before the last one counts as part of the key.

namespace halvard {

/// Where the name begins in the full path of a value, in wide characters from 0; 0 without a
/// backslash.
std::size_t ValueNameStart(const std::wstring& path);

/// Where a value lies: its key below the root, and its name.
struct RegistryValue {
    std::wstring subkey;
    std::wstring name;
};

/// Cuts the full path of a value behind its first backslash and at its last.
RegistryValue SplitValuePath(const std::wstring& path);

} // namespace halvard
