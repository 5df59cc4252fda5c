#pragma once

#include <list>
#include <string>

namespace halvard {

/// The pending renames of a restart that name nothing in the agent's folder and are not empty, in
/// their order. Upper and lower case count.
///
/// They are not taken as pairs of source and destination: a deletion, which is a source with an
/// empty destination, loses its empty half.
std::list<std::wstring> RenamesToKeep(const std::list<std::wstring>& renames);

} // namespace halvard
