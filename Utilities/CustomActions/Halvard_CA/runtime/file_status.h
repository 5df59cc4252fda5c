#pragma once

#include "runtime/owned.h"

#include <windows.h>

#include <string>

// What a path leads to. Questions that may fail throw std::filesystem::filesystem_error with Win32
// codes in the system category: the standard library of some compilers reports others and takes
// links for folders.

namespace halvard {

enum class FileKind { Missing, File, Directory, SymbolicLink, Junction };

/// Throws std::filesystem::filesystem_error: `operation` as its text, the path, and a Win32 code in
/// the system category. A surrogate that stands alone in the path becomes U+FFFD.
[[noreturn]] void ThrowFileSystemError(const char* operation, const std::wstring& path, DWORD code);

/// Whether a Win32 code says that there is nothing of this name: ERROR_FILE_NOT_FOUND (2),
/// ERROR_PATH_NOT_FOUND (3), ERROR_BAD_NETPATH (53), ERROR_INVALID_NAME (123).
bool MeansMissing(DWORD code);

/// Whether a Win32 code says that the system or the file system does not know a class of file
/// information: ERROR_INVALID_FUNCTION (1), ERROR_NOT_SUPPORTED (50), ERROR_INVALID_PARAMETER (87),
/// ERROR_CALL_NOT_IMPLEMENTED (120), ERROR_INVALID_LEVEL (124).
bool MeansUnknownClass(DWORD code);

/// The extended-length form of a path, a relative one seen from the current directory. A path that
/// Windows cannot make a full one of, such as an empty one, is returned as it is.
std::wstring SystemPath(const std::wstring& path);

/// Opens what a path leads to when links are followed, a file or a folder, whoever else has it
/// open: all is shared. `opened` comes empty, for closing another handle would change the last
/// error. The result is a Win32 code.
DWORD OpenShared(const std::wstring& systemPath, DWORD access, OwnedHandle& opened);

/// The attributes of an open file or folder; the result is a Win32 code.
DWORD ReadAttributes(HANDLE opened, DWORD& attributes);

/// The tag of a reparse point (0 for anything else) in `tag`; the result is a Win32 code.
DWORD ReadReparseTag(HANDLE opened, DWORD& tag);

/// The kind of what a path leads to when links are followed. Attributes are asked for by path,
/// which a folder that grants nothing itself allows too; only a reparse point is opened. A
/// separator behind the name of a file makes it missing. Throws filesystem_error under the name
/// `operation` for codes that do not mean missing.
FileKind QueryKind(const std::wstring& path, const char* operation);

/// Whether a path leads to something when links are followed. Throws filesystem_error ("exists")
/// when that cannot be asked.
bool ExistsOrThrow(const std::wstring& path);

/// Whether the attributes of a path, or of the link that it is, can be read. What cannot be asked
/// is not there.
bool ExistsByAttributes(const std::wstring& path);

/// Whether the shell's own question finds a path. It refuses one of 260 wide characters and more,
/// and what cannot be asked is not there.
bool ExistsForShell(const std::wstring& path);

/// Whether a path leads to a folder when links are followed. Throws filesystem_error ("status").
bool IsDirectory(const std::wstring& path);

/// Whether two paths lead to the same file or folder, by its identity on its volume. Throws
/// filesystem_error ("equivalent", with the first path and the second) when either cannot be opened
/// or identified.
bool AreEquivalent(const std::wstring& first, const std::wstring& second);

} // namespace halvard
