#pragma once

#include <list>
#include <string>

namespace halvard {

/// Where a value lies: its key below the root, and its name.
struct RegistryValue {
    std::wstring subkey;
    std::wstring name;
};

/// Cuts the full path of a value, which begins with the name of a predefined root, behind its first
/// backslash and at its last. A backslash that belongs to the value's name cannot be told from one
/// between keys: what stands before it counts as part of the subkey.
RegistryValue SplitValuePath(const std::wstring& path);

/// Removes every element that is the class identifier of the package's camera transform: all 38
/// characters, hexadecimal digits in upper case.
void RemoveTransformId(std::list<std::wstring>& transforms);

} // namespace halvard
