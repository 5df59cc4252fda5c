#pragma once

#include "check/package_model.h"

#include <string>

namespace halvard_runner {

/// Reads a package by the installer's database functions. Throws RunnerError (NoPackage).
Package ReadPackage(const std::wstring& path);

} // namespace halvard_runner
