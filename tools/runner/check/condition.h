#pragma once

#include <map>
#include <optional>
#include <string>

namespace halvard_runner {

/// What is known before a session runs.
enum class Truth { False, Unknown, True };

/// The properties of a session by their names. Those that are not named are not known; an empty
/// value is that of a property that is not set.
using KnownProperties = std::map<std::wstring, std::wstring>;

/// Whether a condition of a sequence holds in a session of which only that is known. States of
/// features and components, and environment variables, are not known, but that a session with
/// REMOVE="ALL" installs none. An empty condition holds.
/// Nothing for one that does not follow the syntax of conditional statements.
std::optional<Truth> Evaluated(const std::wstring& condition, const KnownProperties& known);

} // namespace halvard_runner
