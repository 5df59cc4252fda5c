#pragma once

#include <optional>
#include <string>

// The command lines that make the suite's applications quit, or end them. Values are pasted in as
// they are.

namespace halvard {

/// Tells an application to quit through its command tool; nothing when the command does not fit
/// kLaunchCommandLimit.
std::optional<std::wstring> ExitCommand(const std::wstring& programPath);

/// Ends all processes of a program by force; nothing when the command does not fit
/// kLaunchCommandLimit. `end` closes the command: nothing follows it.
std::optional<std::wstring> TaskKillCommand(const std::wstring& systemFolder,
                                            const std::wstring& imageName, const std::wstring& end);

} // namespace halvard
