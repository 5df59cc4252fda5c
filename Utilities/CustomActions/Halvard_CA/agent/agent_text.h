#pragma once

#include <optional>
#include <string>

// Paths and texts of the usage-profile agent's installation, without a Windows call.

namespace halvard {

/// The longest path of a file in the agent's folder, in wide characters with its terminator.
inline constexpr std::size_t kAgentFileLimit = 256;

/// The agent's folder below the Program Files folder. An empty one gives a path that starts at the
/// root of the current drive.
std::wstring AgentFolderIn(const std::wstring& programFiles);

/// The agent's data folder below the common application data folder; empty as for AgentFolderIn.
std::wstring AgentDataFolderIn(const std::wstring& commonData);

/// The path of a file in the agent's folder; nothing when it does not fit kAgentFileLimit.
std::optional<std::wstring> AgentFilePath(const std::wstring& agentFolder,
                                          const std::wstring& fileName);

/// The text without its braces of either kind, wherever they stand.
std::wstring WithoutBraces(std::wstring text);

} // namespace halvard
