#pragma once

#include <windows.h>

#include <cstdint>
#include <string>

namespace halvard {

/// The count with which a removal says that it failed, if it does not say so by a code. RemoveAll
/// never gives it; removals of the standard library may, and what RemoveDirectoryTree then does is
/// its contract whichever removal it is given.
inline constexpr std::uintmax_t kRemovalFailed = UINTMAX_MAX;

/// Removes an empty folder, or a link to a folder, as it is. The path is in the extended-length
/// form, the result a Win32 code.
DWORD RemoveFolder(const std::wstring& systemPath);

/// Removes a folder with all it holds and counts the entries removed, the folder included. Links
/// are removed as themselves and never entered. `code` is the Win32 code of the first entry that
/// could not be removed, which ends the removal; what was removed before stays removed.
///
/// The folder itself is deleted as it is when it can be, and emptied first, subfolders before their
/// own deletion, when it answers ERROR_DIR_NOT_EMPTY. A subfolder that cannot be deleted, such as
/// the current directory of a process, is emptied all the same before its code ends the removal.
/// Below the folder nothing is looked up by a path: names are taken as they are listed, whatever
/// their length and form.
///
/// A name that leads to another folder than when it was listed is not entered, and ends the removal
/// with ERROR_DIR_NOT_EMPTY. So does a folder that becomes a link while it is emptied, and a top
/// that becomes one behind the attempt to delete it. A folder below that has become a link before
/// its turn is not entered, and the link goes. A folder that another process has open for its
/// deletion ends the removal with ERROR_SHARING_VIOLATION. docs/security.md tells what this keeps
/// out. Memory grows with the depth of the tree, not with the number of entries.
std::uintmax_t RemoveAll(const std::wstring& path, DWORD& code);

/// Removes a folder with all it holds. What does not exist or is not a folder is left alone; a link
/// to a folder counts as one and goes alone.
///
/// Throws std::filesystem::filesystem_error, with the Win32 code in the system category, named
/// "exists" or "status" when the path cannot be asked, and "remove_all" with `path` when an entry
/// cannot be removed (read-only, in use, access denied).
void RemoveDirectoryTree(const std::wstring& path);

/// RemoveDirectoryTree with another way of removing everything. When that gives kRemovalFailed
/// without a code, the entries are removed one by one. An entry that turns out to have gone loses
/// its read-only attribute and is removed again, and when it still counts as gone it is queued for
/// deletion at the next restart. The folder itself stays; of a link to a folder nothing is removed.
///
/// Throws further: "recursive_directory_iterator::recursive_directory_iterator" and
/// "recursive_directory_iterator::operator++" for a folder that cannot be listed, "remove" with the
/// path of an entry that cannot be removed, such as a folder that is not empty.
void RemoveDirectoryTree(const std::wstring& path,
                         std::uintmax_t (*removeAll)(const std::wstring& path, DWORD& code));

} // namespace halvard
