#include "cleanup/directory_tree.h"

#include "cleanup/held_folder.h"
#include "cleanup/tree_walk.h"
#include "runtime/file_status.h"

#include <iterator>
#include <list>

namespace halvard {

namespace {

// What headers for older systems lack: class and structure of a deletion with flags.
constexpr auto kFileDispositionInfoEx = static_cast<FILE_INFO_BY_HANDLE_CLASS>(21);
struct DispositionFlags {
    DWORD flags;
};
constexpr DWORD kDelete = 0x1;
constexpr DWORD kPosixSemantics = 0x2;

/// Deletes what is open. With POSIX semantics it leaves its folder as soon as this handle is
/// closed, even while another process holds it. Systems before Windows 10 1607 and some file
/// systems do not know them, which the first deletion tells for all.
class Deletion {
public:
    /// The result is a Win32 code; the count grows by what is deleted.
    DWORD Delete(HANDLE opened, std::uintmax_t& count) {
        const DWORD code = Delete(opened);
        count += code == ERROR_SUCCESS ? 1 : 0;
        return code;
    }

private:
    DWORD Delete(HANDLE opened) {
        if (knowsFlags_) {
            DispositionFlags info = {kDelete | kPosixSemantics};
            const DWORD code = Set(opened, kFileDispositionInfoEx, info);
            knowsFlags_ = !MeansUnknownClass(code);
            if (knowsFlags_) {
                return code;
            }
        }
        FILE_DISPOSITION_INFO info = {TRUE};
        return Set(opened, FileDispositionInfo, info);
    }

    template <class Info>
    static DWORD Set(HANDLE opened, FILE_INFO_BY_HANDLE_CLASS infoClass, Info& info) {
        return SetFileInformationByHandle(opened, infoClass, &info, sizeof(info)) != FALSE
                   ? ERROR_SUCCESS
                   : GetLastError();
    }

    bool knowsFlags_ = true;
};

// Removes one entry and nothing below it; the result is a Win32 code. An entry that has gone
// already is not removed, and no error. The count grows by what is removed.
DWORD RemoveEntry(const HeldFolder& folder, const ListedEntry& entry, Deletion& deletion,
                  std::uintmax_t& count) {
    OwnedHandle opened;
    const DWORD code = folder.OpenForDeletion(entry, opened);
    return opened ? deletion.Delete(opened.get(), count) : code;
}

/// Removes a tree and counts what it removes. The folders from the top down to the one that is
/// being emptied are held.
class TreeRemoval {
public:
    /// The result is the Win32 code of the first entry that could not be removed.
    DWORD Remove(const std::wstring& path) {
        const std::wstring systemPath = SystemPath(path);
        DWORD code = RemoveFolder(systemPath);
        count_ = code == ERROR_SUCCESS ? 1 : 0;
        if (code == ERROR_DIR_NOT_EMPTY) {
            HeldFolder& top = levels_.emplace_back().folder;
            code = top.OpenTop(systemPath, FolderUse::ListAndDelete);
            if (top.IsOpen()) {
                return code == ERROR_SUCCESS ? RemoveTop(top) : code;
            }
        }
        return MeansMissing(code) ? ERROR_SUCCESS : code;
    }

    [[nodiscard]] std::uintmax_t Count() const { return count_; }

private:
    struct Level {
        HeldFolder folder;
        ListedEntry entry;
    };

    DWORD RemoveTop(HeldFolder& top) {
        DWORD code = top.IsOpenLink() ? DWORD{ERROR_DIR_NOT_EMPTY} : top.BeginListing();
        while (code == ERROR_SUCCESS && !levels_.empty()) {
            code = RemoveNext();
        }
        return code;
    }

    // What the folder at work holds next, or the folder itself when it holds nothing more.
    DWORD RemoveNext() {
        HeldFolder& folder = levels_.back().folder;
        const DWORD code = folder.Next(next_);
        if (code == ERROR_NO_MORE_FILES) {
            return RemoveLast();
        }
        if (code != ERROR_SUCCESS) {
            return code;
        }
        return next_.IsFolder() ? Enter(next_) : RemoveEntry(folder, next_, deletion_, count_);
    }

    // A folder's own turn comes when it has been emptied, a link's at once.
    DWORD Enter(const ListedEntry& entry) {
        const HeldFolder& parent = levels_.back().folder;
        Level& level = levels_.emplace_back();
        level.entry = entry;
        const DWORD code = level.folder.OpenIn(parent, entry, FolderUse::ListAndDelete);
        if (code != ERROR_SUCCESS) {
            return code;
        }
        if (!level.folder.IsOpen()) {
            levels_.pop_back();
            return ERROR_SUCCESS;
        }
        return level.folder.IsOpenLink() ? RemoveLast() : level.folder.BeginListing();
    }

    // The top is never one that is open for listing alone.
    DWORD RemoveLast() {
        std::list<Level> last;
        last.splice(last.begin(), levels_, std::prev(levels_.end()));
        HeldFolder& folder = last.front().folder;
        if (!folder.IsOpenForDeletion()) {
            const DWORD code = folder.ReopenForDeletion(levels_.back().folder, last.front().entry);
            if (code != ERROR_SUCCESS || !folder.IsOpen()) {
                return code;
            }
        }
        return deletion_.Delete(folder.Handle(), count_);
    }

    Deletion deletion_;
    std::uintmax_t count_ = 0;
    std::list<Level> levels_;
    // A member, so that each name is read into the memory of the last one.
    ListedEntry next_;
};

// Whether the entry was there to be removed.
bool RemoveVisitedEntry(const TreeWalk& walk, Deletion& deletion) {
    std::uintmax_t removed = 0;
    const DWORD code = RemoveEntry(walk.Folder(), walk.Entry(), deletion, removed);
    if (code != ERROR_SUCCESS) {
        ThrowFileSystemError("remove", walk.Path(), code);
    }
    return removed != 0;
}

// Attributes and the queue of the next restart are asked for by path: there is no other way to the
// queue.
void RemoveOneByOne(const std::wstring& path) {
    Deletion deletion;
    TreeWalk walk(path);
    while (walk.Next()) {
        if (RemoveVisitedEntry(walk, deletion)) {
            continue;
        }
        const std::wstring entry = walk.EntrySystemPath();
        // Attributes that cannot be read are all ones, and are written back like any others.
        const DWORD attributes = GetFileAttributesW(entry.c_str());
        if (SetFileAttributesW(entry.c_str(), attributes & ~DWORD{FILE_ATTRIBUTE_READONLY}) !=
                FALSE &&
            !RemoveVisitedEntry(walk, deletion)) {
            MoveFileExW(entry.c_str(), nullptr, MOVEFILE_DELAY_UNTIL_REBOOT);
        }
    }
}

} // namespace

DWORD RemoveFolder(const std::wstring& systemPath) {
    return RemoveDirectoryW(systemPath.c_str()) != FALSE ? ERROR_SUCCESS : GetLastError();
}

std::uintmax_t RemoveAll(const std::wstring& path, DWORD& code) {
    TreeRemoval removal;
    code = removal.Remove(path);
    return removal.Count();
}

void RemoveDirectoryTree(const std::wstring& path) {
    RemoveDirectoryTree(path, RemoveAll);
}

void RemoveDirectoryTree(const std::wstring& path,
                         std::uintmax_t (*removeAll)(const std::wstring& path, DWORD& code)) {
    if (!ExistsOrThrow(path) || !IsDirectory(path)) {
        return;
    }
    DWORD code = ERROR_SUCCESS;
    const std::uintmax_t count = removeAll(path, code);
    if (code != ERROR_SUCCESS) {
        ThrowFileSystemError("remove_all", path, code);
    }
    if (count == kRemovalFailed) {
        RemoveOneByOne(path);
    }
}

} // namespace halvard
