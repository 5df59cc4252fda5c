#pragma once

#include "cleanup/folder_chain.h"

#include <string>

namespace halvard {

/// A walk through all that a folder holds, a folder before what is in it. Links are visited and
/// never entered, so a link as the top holds nothing; while the walk is below a folder nobody can
/// rename, remove or replace that one.
///
/// Throws std::filesystem::filesystem_error with the path of the folder that cannot be listed:
/// "recursive_directory_iterator::recursive_directory_iterator" for the top, else
/// "recursive_directory_iterator::operator++".
class TreeWalk {
public:
    explicit TreeWalk(const std::wstring& top);

    /// Goes on to the next entry; false when there is none. A folder that has gone since it was
    /// visited holds nothing.
    bool Next();

    /// The entry visited: its path in the spelling that the top was given in, and as the system's
    /// calls take it.
    [[nodiscard]] std::wstring Path() const { return SpelledPath(entry_.path); }
    [[nodiscard]] const FolderEntry& Entry() const { return entry_; }

private:
    [[nodiscard]] std::wstring SpelledPath(const std::wstring& path) const;
    void EnterVisitedFolder();

    std::wstring top_;
    std::size_t systemTopLength_ = 0;
    FolderChain chain_;
    FolderEntry entry_;
    bool enterBeforeNext_ = false;
};

} // namespace halvard
