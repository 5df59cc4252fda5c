#pragma once

#include <string>
#include <vector>

// Which entries of the branding folder stay, told from texts alone.

namespace halvard {

/// The path with slashes in place of its backslashes: the form in which entries and retained paths
/// are compared.
std::wstring WithSlashes(std::wstring path);

/// The path with backslashes in place of its slashes, as Windows wants it.
std::wstring WithBackslashes(std::wstring path);

/// Takes the entries that are kept out of a listing of paths with slashes; the order of the others
/// stays. An entry is kept when the retain list holds exactly its path, or when the path contains
/// "Skins" and the retain list holds exactly that word. Upper and lower case are told apart.
/// The time grows with the sum of both lengths.
std::vector<std::wstring> EntriesToDelete(std::vector<std::wstring> listing,
                                          const std::vector<std::wstring>& retainList);

} // namespace halvard
