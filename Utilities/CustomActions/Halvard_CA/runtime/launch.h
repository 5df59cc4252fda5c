#pragma once

#include <windows.h>

#include <string>

namespace halvard {

/// Runs `command` through the command interpreter, without a window, and waits for it.
///
/// `directory`: the child's working directory, null for this process's own. An empty one is handed
/// on and refused: ERROR_DIRECTORY (267). The result is the child's exit code or the Win32 code
/// with which CreateProcessW refused it; the two cannot be told apart. The child's output is read,
/// so that it never blocks, and dropped.
///
/// Polls at full speed and without a time limit, and while the child's exit code reads 259
/// (STILL_ACTIVE), so a child that exits with 259 holds the caller for ever. 259 also comes back
/// when the child or its output can no longer be asked. Two pipe handles stay open on purpose.
/// Throws std::bad_alloc only.
DWORD RunCmdCommand(const std::wstring& command, const wchar_t* directory);

/// Starts a command line without a window; true when the process was created.
///
/// `commandLine` must be writable. An empty `directory` means this process's own. With `wait` the
/// call returns when the child has ended, however long that takes; its exit code is not read.
/// Throws std::bad_alloc only.
bool RunCommandLine(wchar_t* commandLine, const std::wstring& directory, bool wait);

/// Opens `file` with `parameters` through the shell, hidden, and waits for up to
/// `timeoutMilliseconds` (INFINITE for no limit). The result is the exit code, 259 (STILL_ACTIVE)
/// when the time was over and the process still runs.
///
/// Throws std::system_error in the system category: "Unable to create process" or "Unable to
/// process exit code", the latter also when the shell opened the file without a new process.
DWORD ShellExecuteAndWait(const std::wstring& file, const std::wstring& parameters,
                          DWORD timeoutMilliseconds);

/// Starts schtasks with `parameters` through the shell and does not wait; true when it started. The
/// process handle stays open on purpose. Throws nothing.
bool LaunchSchtasks(const wchar_t* parameters);

/// Finds a shell folder by its CSIDL number. True when the shell knows the folder, which does not
/// promise a path: `path` keeps its former content when the location has none in the file system or
/// one of 260 wide characters and more. Throws std::bad_alloc only.
bool GetShellFolderPath(int csidl, std::wstring& path);

/// The path of a shell folder as GetShellFolderPath finds it; empty when it finds none. Throws
/// std::bad_alloc only.
std::wstring ShellFolderOrEmpty(int csidl);

/// The root of the drive that holds Windows, such as "C:\"; empty when Windows does not tell.
/// Throws std::bad_alloc only.
std::wstring GetSystemDriveRoot();

} // namespace halvard
