#pragma once

#include <string>

namespace halvard_runner {

/// Who has a file open, by the Restart Manager: names and numbers of programs, or why that is not
/// known. Folders cannot be asked for.
std::wstring WhoHolds(const std::wstring& path);

} // namespace halvard_runner
