#pragma once

#include <windows.h>

#include <string>

namespace halvard {

/// Registers a task of this name and definition in the Task Scheduler's root folder; a task that
/// has the name already is replaced.
///
/// `userName`: the account that runs the task while it is logged on. An empty one is left for the
/// Task Scheduler to judge. The result is 0, or 1 when a call failed.
///
/// Works on any thread. One that had entered a single-threaded apartment has left it, or one level
/// of it, afterwards. Throws nothing, and what it logs reaches no session.
UINT RegisterTaskFromXml(const std::wstring& taskName, const std::wstring& xmlText,
                         const std::wstring& userName) noexcept;

/// Registers the usage-profile agent's logon task, which runs `command` (a whole command line).
/// Results as those of RegisterTaskFromXml. Throws std::bad_alloc only.
UINT RegisterAgentLogonTask(const std::wstring& taskName, const std::wstring& command,
                            const std::wstring& userName);

} // namespace halvard
