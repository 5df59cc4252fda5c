#pragma once

#include <string>

// The service of the usage-profile agent, "TeloLauncher". What these routines have to say goes to
// the debugger, never into the installer's log.

namespace halvard {

inline constexpr wchar_t kAgentService[] = L"TeloLauncher";

/// Stops a service and waits for it; true when it is stopped at the end. Services that depend on it
/// are not stopped: with one of them running the request is refused.
///
/// Gives up 30000 milliseconds after the call, as soon as the sleep in which they ran out is over:
/// at most 10000 milliseconds for a service that was stopping already, and one whole wait hint
/// after the request, which is not bounded: the largest of all means for ever. A service that
/// reports no wait hint after the request is asked at full speed.
bool StopServiceWithTimeout(const std::wstring& serviceName) noexcept;

/// Starts the agent's service and waits for it; true when it runs at the end. A service that is
/// neither stopped nor stopping is left alone and gives true, whatever its state.
///
/// Waits for as long as the service goes on reporting progress, and otherwise for its wait hint and
/// one more sleep of at most 10000 milliseconds. One that was stopping has to report progress, or a
/// longer wait hint than such a sleep, each time it is asked, having stopped included; otherwise it
/// is not started.
bool StartAgentService() noexcept;

/// Creates the agent's service: it starts by itself, delayed, as LocalSystem. Its program lies
/// beside the folder of the install manager, whose "InstallDir" has at most 260 bytes; one that is
/// longer, or missing, counts as empty. A service that is there already keeps its configuration. It
/// is marked interactive, which no service can be any more: each start of it writes the event 7030
/// and is none the worse (documented: "Interactive Services"; the number is assumed).
///
/// "Error: Failed to open SCM.\n" goes to standard output; nothing else is reported. The handle of
/// the service manager stays open.
void CreateAgentService() noexcept;

} // namespace halvard
