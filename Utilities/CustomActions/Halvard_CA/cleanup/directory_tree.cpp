#include "cleanup/directory_tree.h"

#include "cleanup/folder_chain.h"
#include "cleanup/tree_walk.h"
#include "runtime/file_status.h"

namespace halvard {

namespace {

// Whether the entry was there to be removed.
bool RemoveVisitedEntry(const TreeWalk& walk) {
    bool removed = false;
    const DWORD code = RemoveEntry(walk.Entry(), removed);
    if (code != ERROR_SUCCESS) {
        ThrowFileSystemError("remove", walk.Path(), code);
    }
    return removed;
}

void RemoveOneByOne(const std::wstring& path) {
    TreeWalk walk(path);
    while (walk.Next()) {
        if (RemoveVisitedEntry(walk)) {
            continue;
        }
        const wchar_t* const entry = walk.Entry().path.c_str();
        // Attributes that cannot be read are all ones, and are written back like any others.
        const DWORD attributes = GetFileAttributesW(entry);
        if (SetFileAttributesW(entry, attributes & ~DWORD{FILE_ATTRIBUTE_READONLY}) != FALSE &&
            !RemoveVisitedEntry(walk)) {
            MoveFileExW(entry, nullptr, MOVEFILE_DELAY_UNTIL_REBOOT);
        }
    }
}

// Removes what the folder at work holds next, or the folder itself when it holds nothing. A folder
// is entered instead, and its own turn comes when it has been emptied.
DWORD RemoveNext(FolderChain& chain, bool& removed) {
    removed = false;
    FolderEntry entry;
    DWORD code = chain.Next(entry);
    if (code == ERROR_NO_MORE_FILES) {
        entry = chain.Leave();
    } else if (code != ERROR_SUCCESS) {
        return code;
    } else if ((entry.attributes & FILE_ATTRIBUTE_DIRECTORY) != 0) {
        switch (chain.Enter(entry, code)) {
        case Entering::Entered:
        case Entering::Gone:
            return ERROR_SUCCESS;
        case Entering::Failed:
            return code;
        case Entering::Link:
            break;
        }
    }
    return RemoveEntry(entry, removed);
}

} // namespace

std::uintmax_t RemoveAll(const std::wstring& path, DWORD& code) {
    FolderEntry top;
    top.path = SystemPath(path);
    top.attributes = FILE_ATTRIBUTE_DIRECTORY;
    bool removed = false;
    code = RemoveEntry(top, removed);
    std::uintmax_t count = removed ? 1 : 0;
    if (code != ERROR_DIR_NOT_EMPTY) {
        return count;
    }

    FolderChain chain;
    switch (chain.Enter(top, code)) {
    case Entering::Entered:
    case Entering::Gone:
        code = ERROR_SUCCESS;
        break;
    case Entering::Failed:
        return count;
    case Entering::Link:
        code = ERROR_DIR_NOT_EMPTY;
        return count;
    }
    while (code == ERROR_SUCCESS && !chain.IsEmpty()) {
        code = RemoveNext(chain, removed);
        count += removed ? 1 : 0;
    }
    return count;
}

void RemoveDirectoryTree(const std::wstring& path) {
    RemoveDirectoryTree(path, RemoveAll);
}

void RemoveDirectoryTree(const std::wstring& path,
                         std::uintmax_t (*removeAll)(const std::wstring& path, DWORD& code)) {
    if (!Exists(path) || !IsDirectory(path)) {
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
