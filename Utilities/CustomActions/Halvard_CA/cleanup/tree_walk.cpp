#include "cleanup/tree_walk.h"

#include "runtime/file_paths.h"
#include "runtime/file_status.h"

namespace halvard {

TreeWalk::TreeWalk(const std::wstring& top) : top_(top) {
    FolderEntry folder;
    folder.path = SystemPath(top);
    folder.attributes = FILE_ATTRIBUTE_DIRECTORY;
    DWORD code = ERROR_SUCCESS;
    const Entering entering = chain_.Enter(folder, code);
    if (entering == Entering::Failed || entering == Entering::Gone) {
        ThrowFileSystemError("recursive_directory_iterator::recursive_directory_iterator", top,
                             code);
    }
    systemTopLength_ = folder.path.size();
}

bool TreeWalk::Next() {
    if (enterBeforeNext_) {
        EnterVisitedFolder();
    }
    while (!chain_.IsEmpty()) {
        const DWORD code = chain_.Next(entry_);
        if (code == ERROR_SUCCESS) {
            enterBeforeNext_ = (entry_.attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
            return true;
        }
        const FolderEntry left = chain_.Leave();
        if (code != ERROR_NO_MORE_FILES) {
            ThrowFileSystemError("recursive_directory_iterator::operator++", SpelledPath(left.path),
                                 code);
        }
    }
    return false;
}

void TreeWalk::EnterVisitedFolder() {
    enterBeforeNext_ = false;
    DWORD code = ERROR_SUCCESS;
    if (chain_.Enter(entry_, code) == Entering::Failed) {
        ThrowFileSystemError("recursive_directory_iterator::operator++", SpelledPath(entry_.path),
                             code);
    }
}

std::wstring TreeWalk::SpelledPath(const std::wstring& path) const {
    std::size_t below = systemTopLength_;
    while (below < path.size() && path[below] == L'\\') {
        ++below;
    }
    if (below == path.size()) {
        return top_;
    }
    // Behind the colon of "C:" a separator would lead to the root instead of the current directory.
    return top_.back() == L':' ? top_ + path.substr(below) : FileInFolder(top_, path.substr(below));
}

} // namespace halvard
