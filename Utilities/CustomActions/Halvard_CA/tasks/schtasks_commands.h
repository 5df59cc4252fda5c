#pragma once

#include <optional>
#include <string>

// The command lines with which the library drives the schtasks tool, and the paths that go into
// them. Values are pasted in as they are.

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

/// The path of a file in a folder; a folder that ends in a slash of either kind gets no other.
std::wstring FileInFolder(const std::wstring& folder, const std::wstring& fileName);

/// The path of a program in a folder, always with a backslash between them: a folder that ends in
/// one gives two, which Windows takes for one and which existing tasks show.
std::wstring ProgramInFolder(const std::wstring& folder, const std::wstring& fileName);

} // namespace halvard
