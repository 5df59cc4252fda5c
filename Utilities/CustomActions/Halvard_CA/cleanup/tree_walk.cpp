#include "cleanup/tree_walk.h"

#include "runtime/file_paths.h"
#include "runtime/file_status.h"

#include <utility>

namespace halvard {

TreeWalk::TreeWalk(const std::wstring& top) : top_(top), systemTop_(SystemPath(top)) {
    Level level;
    DWORD code = level.folder.OpenTop(systemTop_, FolderUse::List);
    if (code == ERROR_SUCCESS && level.folder.IsOpenLink()) {
        return;
    }
    if (code == ERROR_SUCCESS) {
        code = level.folder.BeginListing();
    }
    if (code != ERROR_SUCCESS) {
        ThrowFileSystemError("recursive_directory_iterator::recursive_directory_iterator", top,
                             code);
    }
    levels_.push_back(std::move(level));
}

bool TreeWalk::Next() {
    if (enterBeforeNext_) {
        EnterVisitedFolder();
    }
    while (!levels_.empty()) {
        DWORD code = levels_.back().folder.Next(entry_);
        if (code == ERROR_SUCCESS) {
            // The path of the entry would lead out of the tree.
            code = levels_.back().folder.CheckIsNoLink();
        }
        if (code == ERROR_SUCCESS) {
            enterBeforeNext_ = entry_.IsFolder();
            return true;
        }
        const std::wstring below = std::move(levels_.back().below);
        levels_.pop_back();
        if (code != ERROR_NO_MORE_FILES) {
            ThrowFileSystemError("recursive_directory_iterator::operator++", Spelled(below), code);
        }
    }
    return false;
}

std::wstring TreeWalk::EntrySystemPath() const {
    return FileInFolder(systemTop_, EntryBelow());
}

void TreeWalk::EnterVisitedFolder() {
    enterBeforeNext_ = false;
    Level level;
    level.below = EntryBelow();
    DWORD code = level.folder.OpenIn(levels_.back().folder, entry_, FolderUse::List);
    if (code == ERROR_SUCCESS && (!level.folder.IsOpen() || level.folder.IsOpenLink())) {
        return;
    }
    if (code == ERROR_SUCCESS) {
        code = level.folder.BeginListing();
    }
    if (code != ERROR_SUCCESS) {
        ThrowFileSystemError("recursive_directory_iterator::operator++", Path(), code);
    }
    levels_.push_back(std::move(level));
}

std::wstring TreeWalk::EntryBelow() const {
    const std::wstring& below = levels_.back().below;
    return below.empty() ? entry_.name : FileInFolder(below, entry_.name);
}

std::wstring TreeWalk::Spelled(const std::wstring& below) const {
    if (below.empty()) {
        return top_;
    }
    // Behind the colon of "C:" a separator would lead to the root instead of the current directory.
    return top_.back() == L':' ? top_ + below : FileInFolder(top_, below);
}

} // namespace halvard
