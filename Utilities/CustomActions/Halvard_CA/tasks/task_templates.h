#pragma once

#include <string>

namespace halvard {

// Task definitions of version 1.2 of the Task Scheduler's schema. Lines end in one line feed, none
// follows the last. Names and commands are pasted in as they are: with markup in them ("&", "<",
// "]]>"), or a character that XML has none of, the text is mostly not well-formed, and the Task
// Scheduler refuses it.

/// The definition of a task without a trigger that runs elevated when it is started on demand.
///
/// `command` is a whole command line: the definition has no arguments of its own. The account is
/// given at registration. Throws std::bad_alloc only.
std::wstring ElevatedTaskXml(const std::wstring& taskName, const std::wstring& command);

/// The definition of the usage-profile agent's task, which runs at the logon of any user for the
/// built-in Users group, elevated where the user may be. Throws std::bad_alloc only.
std::wstring AgentLogonTaskXml(const std::wstring& taskName, const std::wstring& command);

} // namespace halvard
