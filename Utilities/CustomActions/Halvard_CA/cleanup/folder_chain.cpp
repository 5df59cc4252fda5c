#include "cleanup/folder_chain.h"

#include "runtime/file_paths.h"
#include "runtime/file_status.h"

#include <cwchar>
#include <utility>

namespace halvard {

namespace {

bool IsDots(const wchar_t* name) {
    return std::wcscmp(name, L".") == 0 || std::wcscmp(name, L"..") == 0;
}

// Whether an open folder is a link, given what else is known of its attributes. The result is a
// Win32 code; a tag that cannot be read is none, and makes a link.
DWORD AskWhetherLink(HANDLE held, DWORD knownAttributes, bool& isLink) {
    DWORD attributes = 0;
    const DWORD code = ReadAttributes(held, attributes);
    if (code != ERROR_SUCCESS) {
        return code;
    }
    attributes |= knownAttributes;
    isLink = false;
    if ((attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0) {
        DWORD tag = 0;
        isLink = ReadReparseTag(held, tag) != ERROR_SUCCESS || IsLink(attributes, tag);
    }
    return ERROR_SUCCESS;
}

// Asked once the folder is held: what its name leads to cannot change any more.
DWORD AskWhetherHeldLink(const FolderEntry& folder, HANDLE held, bool& isLink) {
    const DWORD pathAttributes = GetFileAttributesW(folder.path.c_str());
    if (pathAttributes == INVALID_FILE_ATTRIBUTES) {
        return GetLastError();
    }
    return AskWhetherLink(held, folder.attributes | pathAttributes, isLink);
}

} // namespace

bool IsLink(DWORD attributes, DWORD reparseTag) {
    return (attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0 &&
           (reparseTag == IO_REPARSE_TAG_SYMLINK || reparseTag == IO_REPARSE_TAG_MOUNT_POINT ||
            reparseTag == 0);
}

DWORD RemoveEntry(const FolderEntry& entry, bool& removed) {
    const bool isFolder = (entry.attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
    removed = (isFolder ? RemoveDirectoryW(entry.path.c_str()) : DeleteFileW(entry.path.c_str())) !=
              FALSE;
    const DWORD code = removed ? ERROR_SUCCESS : GetLastError();
    return MeansMissing(code) ? ERROR_SUCCESS : code;
}

Entering FolderChain::Enter(const FolderEntry& folder, DWORD& code) {
    if (IsLink(folder.attributes, folder.reparseTag)) {
        return Entering::Link;
    }
    Folder entered;
    entered.entry = folder;
    HANDLE held = CreateFileW(folder.path.c_str(), FILE_LIST_DIRECTORY,
                              FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
                              FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT, nullptr);
    if (held == INVALID_HANDLE_VALUE) {
        code = GetLastError();
        return MeansMissing(code) ? Entering::Gone : Entering::Failed;
    }
    entered.held.reset(held);
    bool isLink = true;
    code = AskWhetherHeldLink(folder, held, isLink);
    if (code != ERROR_SUCCESS) {
        return Entering::Failed;
    }
    if (isLink) {
        return Entering::Link;
    }

    const std::wstring pattern = FileInFolder(folder.path, L"*");
    HANDLE search = FindFirstFileExW(pattern.c_str(), FindExInfoBasic, &entered.found,
                                     FindExSearchNameMatch, nullptr, FIND_FIRST_EX_LARGE_FETCH);
    if (search != INVALID_HANDLE_VALUE) {
        entered.search.reset(search);
        entered.hasFound = true;
    } else {
        // Not found: an empty drive has not even the two dots.
        code = GetLastError();
        if (code != ERROR_FILE_NOT_FOUND) {
            return Entering::Failed;
        }
    }
    folders_.push_back(std::move(entered));
    return Entering::Entered;
}

DWORD FolderChain::Next(FolderEntry& entry) {
    Folder& folder = folders_.back();
    if (!folder.search) {
        return ERROR_NO_MORE_FILES;
    }
    do {
        if (!folder.hasFound && FindNextFileW(folder.search.get(), &folder.found) == FALSE) {
            return GetLastError();
        }
        folder.hasFound = false;
    } while (IsDots(folder.found.cFileName));

    // The paths of its entries would lead out of the tree.
    bool isLink = true;
    const DWORD code = AskWhetherLink(folder.held.get(), 0, isLink);
    if (code != ERROR_SUCCESS || isLink) {
        return code != ERROR_SUCCESS ? code : ERROR_DIR_NOT_EMPTY;
    }
    entry.path = FileInFolder(folder.entry.path, folder.found.cFileName);
    entry.attributes = folder.found.dwFileAttributes;
    entry.reparseTag = folder.found.dwReserved0;
    return ERROR_SUCCESS;
}

FolderEntry FolderChain::Leave() {
    FolderEntry left = std::move(folders_.back().entry);
    folders_.pop_back();
    return left;
}

} // namespace halvard
