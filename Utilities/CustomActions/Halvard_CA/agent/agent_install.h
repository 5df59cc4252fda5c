#pragma once

#include <windows.h>
#include <msi.h>

#include <string>

namespace halvard {

/// Ends all processes of a program by force with TaskKill.exe of the system folder, for which it
/// waits without limit. True when TaskKill.exe started, whatever it did. A command that does not
/// fit kLaunchCommandLimit is not run. Throws std::bad_alloc only.
bool KillProcessByImage(const std::wstring& imageName);

extern "C" {

/// Clears away a running agent, and older ones, before the files of a new one are copied: ends
/// their processes, stops and deletes the services "UPAL" and "TeloLauncher", and removes the
/// agent's folder "Zenvo\Usage Profile Agent" below Program Files, for which it tries three times.
///
/// Deferred action, result ignored, without CustomActionData. Inputs: none but the location of
/// Program Files. When Windows does not tell it, the folder is looked for at the root of the
/// current drive. An older file whose path has 256 wide characters and more is left to the removal
/// of the folder.
/// Blocks while TaskKill.exe runs, ten times, and for each of the two services for as long as
/// StopServiceWithTimeout waits. A service that still runs is marked for deletion, and the system
/// removes it when it stops.
/// Results: 0. What cannot be ended, stopped or deleted is passed over.
/// Throws std::filesystem::filesystem_error, with the steps before it done and those behind it not:
/// "exists" and "status" when the folder cannot be looked at, "remove_all" when something in it
/// cannot be removed. Throws std::bad_alloc.
UINT __stdcall PreInstallUPA(MSIHANDLE session);

/// Sets up the agent whose files have been copied, and starts it: writes HKLM
/// "SYSTEM\CurrentControlSet\Services\PerfOS\Performance", REG_SZ "Disable Performance Counters" =
/// "0", gives the machine an identity (HKLM "SOFTWARE\Telo", REG_SZ "GUID") if it has none, opens
/// the data folder "Zenvo\UPA" below the common application data folder to all users, creates and
/// starts the service, and registers and runs the logon task.
///
/// Deferred action, result checked. Inputs: the items TaskName=, CommandToLaunch= and Username= of
/// CustomActionData. The command is a whole command line. Name and command go into the task's XML
/// as they are and must not hold "&", "<" or "]]>"; a name with blanks is registered but not run.
/// An absent item is not detected: its value is then the data from index 8 onward, for the command
/// from index 15. HKLM "SOFTWARE\Telo", "GUID" of any type: it is kept, unless it cannot be read,
/// as one of more than 520 bytes cannot. Stores its session as the current session, and logs
/// CustomActionData and the three items.
/// Results: 0, 1603. ERROR_INSTALL_FAILURE when the event log cannot be reached, with nothing done;
/// else ERROR_SUCCESS, whatever became of the steps. When the system makes no identity, none is
/// written, and a later installation makes it.
/// Throws std::out_of_range, with nothing done, when the data is shorter than 8 characters, or
/// than 15 without CommandToLaunch=. Throws std::bad_alloc.
/// The event source, the data folder and the process of schtasks stay open, and so does a handle of
/// the service manager.
UINT __stdcall PostInstallUPA(MSIHANDLE session);

/// Keeps the next restart from deleting what has just been installed, by CleanPendingRenames, and
/// starts the agent's service.
///
/// Deferred action, result ignored, without CustomActionData. Inputs: HKLM
/// "SYSTEM\CurrentControlSet\Control\Session Manager", REG_MULTI_SZ "PendingFileRenameOperations".
/// Results: 0, also when the service does not start.
/// Throws what CleanPendingRenames throws, before the service is started: a RegKeyError, or
/// std::bad_alloc. Its write is refused, so this happens on every machine that has such a value,
/// which is wherever renames wait for a restart.
UINT __stdcall AfterInstallUPA(MSIHANDLE session);

} // extern "C"

} // namespace halvard
