#pragma once

#include <windows.h>

#include <string>
#include <vector>

// The keys and values below a key, by their full paths.

namespace halvard {

/// Appends the full paths of all keys below `root`\`path` to `keyPaths`, depth first in the order
/// of the registry's indices, and those of the values to `valuePaths`; each path begins with the
/// name of a predefined root. Paths that a vector holds already are skipped, a key with all below
/// it.
///
/// With `names` not empty only values of these names count (basic Latin letters in either case),
/// once for each entry that matches. What cannot be opened or enumerated is skipped, as are key
/// names of 255 and value names of 16383 wide characters and more. The two vectors must not be the
/// same one. Throws std::bad_alloc only.
void EnumerateKeyTree(HKEY root, const std::wstring& path, std::vector<std::wstring>& keyPaths,
                      std::vector<std::wstring>& valuePaths,
                      const std::vector<std::wstring>& names);

/// The walk of EnumerateKeyTree into one vector that takes keys and values, without a filter. With
/// a null root it does not descend and writes one line for each key to standard output; the actions
/// walk below HKEY_LOCAL_MACHINE alone.
void QueryKey(HKEY root, const std::wstring& path, std::vector<std::wstring>& paths);

} // namespace halvard
