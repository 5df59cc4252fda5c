#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace halvard {

/// The longest command line that the suite's own tools and TaskKill.exe are started with, in wide
/// characters with its terminator.
inline constexpr std::size_t kLaunchCommandLimit = 519;

/// The command, or nothing when it does not fit `limit` wide characters with its terminator.
std::optional<std::wstring> CommandIfItFits(std::wstring command, std::size_t limit);

/// The command line that lets the command interpreter run `command`: "cmd.exe /C " and the command
/// in one pair of double quotes. Quotes inside the command stay as they are.
std::wstring CmdCommandLine(const std::wstring& command);

/// What a debugger may see of a command line that CreateProcessW refused with Win32 error `code`.
std::wstring FailedLaunchText(const std::wstring& commandLine, std::uint32_t code);

/// The text for the `hInstApp` code that ShellExecuteExW leaves after a failure; every code that is
/// not in the table gets one common text. The texts are never null and live as long as the library.
const wchar_t* ShellExecuteErrorText(std::intptr_t code);

} // namespace halvard
