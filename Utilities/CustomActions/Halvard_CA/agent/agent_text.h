#pragma once

#include <list>
#include <optional>
#include <string>

// Paths, texts and lists of the usage-profile agent's installation, without a Windows call.

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

/// The pending renames of a restart that name nothing in the agent's folder and are not empty, in
/// their order. Upper and lower case count.
///
/// They are not taken as pairs of source and destination: a deletion, which is a source with an
/// empty destination, loses its empty half.
std::list<std::wstring> RenamesToKeep(const std::list<std::wstring>& renames);

} // namespace halvard
