#pragma once

#include "runtime/owned.h"

#include <windows.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

// A folder held open and its entries, for code that must never leave a tree: below the top of the
// tree nothing is looked up by a path.

namespace halvard {

/// Whether attributes and tag are those of a link: a symbolic link, a mount point, or a reparse
/// point without a valid tag. Other reparse points (cloud files, deduplicated ones) are what they
/// seem.
bool IsLink(DWORD attributes, DWORD reparseTag);

/// An entry of a folder as the folder's listing gives it.
struct ListedEntry {
    std::wstring name;
    DWORD attributes = 0;
    DWORD reparseTag = 0;
    /// 0 where the file system gives none.
    std::uint64_t fileId = 0;

    /// A folder or a link to one.
    [[nodiscard]] bool HasFolderAttribute() const {
        return (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
    }
    [[nodiscard]] bool IsFolder() const {
        return HasFolderAttribute() && !IsLink(attributes, reparseTag);
    }
};

/// What a folder is opened for.
enum class FolderUse { List, ListAndDelete };

/// A folder open as itself. What OpenTop and OpenIn opened is not shared for deletion: while it is
/// held, nobody can rename it, remove it or put another in its place. Its entries are listed and
/// opened through its handle. It is listed as it is worked on, so that it holds the same memory
/// whatever it contains.
///
/// Functions return Win32 codes.
class HeldFolder {
public:
    /// Opens what a path in the extended-length form leads to, as itself: ERROR_DIRECTORY (267) for
    /// a file, ERROR_SHARING_VIOLATION (32) where another process has the folder open for its
    /// deletion. The folder above is listed, to see that this one lies in it, which takes time with
    /// the number of entries there: ERROR_DIR_NOT_EMPTY (145) when it does not. Where that folder
    /// cannot be listed, or this one has no identity, it is taken to lie there.
    DWORD OpenTop(const std::wstring& systemPath, FolderUse use);

    /// Opens a folder listed in `parent`. One that cannot be deleted now, such as the current
    /// directory of a process, is opened for listing alone. ERROR_SHARING_VIOLATION (32) where
    /// another process has the folder open for its deletion, ERROR_DIR_NOT_EMPTY (145) when it is
    /// not the folder that was listed any more, and as OpenForDeletion. What was listed as a
    /// reparse point of whatever kind, and has no tag now, counts as a link.
    DWORD OpenIn(const HeldFolder& parent, const ListedEntry& folder, FolderUse use);

    /// Lets go of a folder that is open for listing alone, and opens it once more for its deletion:
    /// who used it may have left it by now. As OpenForDeletion, and ERROR_DIR_NOT_EMPTY (145) when
    /// its name has become that of another folder, or a folder's that of a link.
    DWORD ReopenForDeletion(const HeldFolder& parent, const ListedEntry& folder);

    /// Whether there is a folder to work with.
    [[nodiscard]] bool IsOpen() const { return static_cast<bool>(handle_); }

    /// Whether the handle can be used for the folder's deletion.
    [[nodiscard]] bool IsOpenForDeletion() const { return isOpenForDeletion_; }

    /// Whether what was opened turned out to be a link. It must not be listed.
    [[nodiscard]] bool IsOpenLink() const { return isLink_; }

    DWORD BeginListing();

    /// The next entry; ERROR_NO_MORE_FILES (18) when there is none.
    DWORD Next(ListedEntry& entry);

    /// ERROR_DIR_NOT_EMPTY (145) when someone has made a link of the folder: emptied by others, a
    /// folder can become one while it is held.
    [[nodiscard]] DWORD CheckIsNoLink() const;

    /// Opens a listed entry for its deletion, as what it was listed: a file as a file, a folder or
    /// a link to one as a folder. ERROR_SUCCESS and nothing opened where it has gone,
    /// ERROR_ACCESS_DENIED (5) where a file has become a folder,
    /// ERROR_DIRECTORY (267) the other way round, ERROR_INVALID_NAME (123) for a name that is none,
    /// and as CheckIsNoLink.
    DWORD OpenForDeletion(const ListedEntry& entry, OwnedHandle& opened) const;

    [[nodiscard]] HANDLE Handle() const { return handle_.get(); }

private:
    // Some sixty entries a call. A tree of a thousand levels holds as many of these.
    struct Listing {
        alignas(FILE_ID_BOTH_DIR_INFO) unsigned char bytes[8192];
    };

    DWORD OpenEntry(const ListedEntry& entry, ACCESS_MASK access, ULONG sharing, ULONG options,
                    OwnedHandle& opened) const;
    DWORD OpenSubfolder(const ListedEntry& folder, ACCESS_MASK deletion, OwnedHandle& opened) const;
    DWORD CheckOpened(DWORD listedAttributes);
    DWORD CheckOpenedAs(const ListedEntry& folder);
    DWORD CheckLiesIn(const std::wstring& folder, const std::wstring& name);
    DWORD NextListed(ListedEntry& entry, std::wstring* shortName);
    DWORD ReadListing();

    OwnedHandle handle_;
    // 0 where there is none.
    std::uint64_t fileId_ = 0;
    bool isOpenForDeletion_ = false;
    bool isLink_ = false;
    std::unique_ptr<Listing> listing_;
    FILE_INFO_BY_HANDLE_CLASS listingClass_ = FileIdBothDirectoryInfo;
    // Where the next entry stands in the listing, while there is one.
    std::size_t offset_ = 0;
    bool hasNext_ = false;
};

} // namespace halvard
