#pragma once

#include "runtime/handle.h"

#include <windows.h>

#include <string>
#include <vector>

// Entries of folders, and the way down into a tree, for code that must never leave that tree.

namespace halvard {

/// An entry of a folder: its path in the extended-length form, and what the listing says of it.
struct FolderEntry {
    std::wstring path;
    DWORD attributes = 0;
    DWORD reparseTag = 0;
};

/// Whether attributes and tag are those of a link: a symbolic link, a mount point, or a reparse
/// point without a valid tag. Other reparse points (cloud files, deduplicated ones) are what they
/// seem.
bool IsLink(DWORD attributes, DWORD reparseTag);

/// Removes one entry and nothing below it: a folder, or a link to one, as a folder, anything else
/// as a file. The result is a Win32 code; ERROR_SUCCESS with `removed` false for an entry that has
/// gone already.
DWORD RemoveEntry(const FolderEntry& entry, bool& removed);

/// What came of entering a folder. A link is never entered, whatever shows it.
enum class Entering { Entered, Link, Gone, Failed };

/// The folders from the top of a tree down to the one at work, each open without delete sharing:
/// until it is left, nobody can rename a folder of the chain, remove it or put a link in its place.
/// Folders are listed as they are worked on, so that memory grows with depth alone.
class FolderChain {
public:
    /// Enters a folder in the one at work, or the top; a folder that is not entered leaves the
    /// chain as it was. Listing, path and handle are asked whether it is a link, and one that says
    /// so is enough. `code`: the Win32 code for Gone and Failed; it is ERROR_SHARING_VIOLATION
    /// where another process has the folder open for its deletion.
    Entering Enter(const FolderEntry& folder, DWORD& code);

    /// The next entry of the folder at work. The result is a Win32 code: ERROR_NO_MORE_FILES (18)
    /// when there is none, ERROR_DIR_NOT_EMPTY (145) when someone has made a link of the folder
    /// itself: a folder that was emptied by others can become one while it is held.
    DWORD Next(FolderEntry& entry);

    /// Lets go of the folder at work and returns it.
    FolderEntry Leave();

    [[nodiscard]] bool IsEmpty() const { return folders_.empty(); }

private:
    struct Folder {
        FolderEntry entry;
        OwnedHandle held;
        OwnedSearch search;
        // What the search has found and Next has not returned yet.
        WIN32_FIND_DATAW found = {};
        bool hasFound = false;
    };

    std::vector<Folder> folders_;
};

} // namespace halvard
