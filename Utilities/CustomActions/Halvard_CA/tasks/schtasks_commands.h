#pragma once

#include <optional>
#include <string>

// The command lines with which the library drives the schtasks tool. Values are pasted in as they
// are.

namespace halvard {

/// The longest create or change command, in wide characters with its terminator.
inline constexpr std::size_t kSchtasksCommandLimit = 260;

/// Creates the task from an XML file; nothing when the command does not fit kSchtasksCommandLimit.
std::optional<std::wstring> CreateTaskCommand(const std::wstring& taskName,
                                              const std::wstring& xmlPath);

/// Lets the task run `programPath` with `argument`; nothing when the command does not fit
/// kSchtasksCommandLimit. The quotes around the program are escaped, so that schtasks keeps them
/// inside the task's command.
std::optional<std::wstring> ChangeTaskCommand(const std::wstring& taskName,
                                              const std::wstring& programPath,
                                              const std::wstring& argument);

std::wstring DeleteTaskCommand(const std::wstring& taskName);
std::wstring RunTaskCommand(const std::wstring& taskName);

/// What the schtasks tool is told, without its own name, to run a task now. The name is not quoted:
/// one with blanks reaches schtasks as several words, of which the first is taken for the name.
std::wstring RunTaskParameters(const std::wstring& taskName);

} // namespace halvard
