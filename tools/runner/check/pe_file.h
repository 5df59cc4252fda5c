#pragma once

#include "check/package_model.h"

#include <optional>
#include <string>

namespace halvard_runner {

/// What the bytes of a library say of it; nothing for bytes that are no portable executable file.
std::optional<LibraryFacts> ReadLibraryFacts(const std::wstring& binary, const std::string& bytes);

} // namespace halvard_runner
