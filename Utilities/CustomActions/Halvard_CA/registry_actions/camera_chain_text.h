#pragma once

#include <list>
#include <string>

namespace halvard {

/// Removes every element that is the class identifier of the package's camera transform: all 38
/// characters, hexadecimal digits in upper case.
void RemoveTransformId(std::list<std::wstring>& transforms);

} // namespace halvard
