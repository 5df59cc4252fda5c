#pragma once

#include <windows.h>

#include <optional>
#include <string>

// What the actions share that manage tasks with the schtasks tool.

namespace halvard {

/// Where the rewritten copy of a task's XML file goes: the temporary folder; empty when Windows
/// does not tell the folder or it is longer than 259 wide characters.
std::wstring TemporaryXmlPath(const std::wstring& xmlFileName);

/// Looks up the system folder, as the packages' actions have always done before they create a task.
/// Nothing uses it: schtasks is run by its bare name.
void LookUpSystemFolder();

/// Runs a command in `directory` (empty for none) and waits for it when asked. A command that did
/// not fit its limit is not run. True when schtasks started; its exit code is never looked at.
bool RunSchtasks(const std::optional<std::wstring>& command, const std::wstring& directory,
                 bool wait);

/// Deletes a task and waits: 1 when schtasks started, 0 when it could not be started. Packages get
/// this raw flag as the action's result.
UINT DeleteTask(const std::wstring& taskName);

} // namespace halvard
