#pragma once

#include <windows.h>

#include <string>

namespace halvard_runner {

/// All that comes until the last writer has gone.
std::string ReadToEnd(HANDLE pipe);

/// Whether all of it could be written.
bool WriteAll(HANDLE file, const std::string& bytes);

} // namespace halvard_runner
