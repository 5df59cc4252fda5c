#pragma once

#include "cleanup/held_folder.h"

#include <list>
#include <string>

namespace halvard {

/// A walk through all that a folder holds, a folder before what is in it. Links are visited and
/// never entered, so a link as the top holds nothing; while the walk is below a folder nobody can
/// rename, remove or replace that one. The paths that it tells are texts for others: the walk looks
/// up nothing by them.
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

    /// The folder at work, and the entry of it that is visited.
    [[nodiscard]] const HeldFolder& Folder() const { return levels_.back().folder; }
    [[nodiscard]] const ListedEntry& Entry() const { return entry_; }

    /// The path of the entry visited, in the spelling that the top was given in.
    [[nodiscard]] std::wstring Path() const { return Spelled(EntryBelow()); }

    /// The same in the extended-length form.
    [[nodiscard]] std::wstring EntrySystemPath() const;

private:
    struct Level {
        HeldFolder folder;
        // Its path below the top; empty for the top.
        std::wstring below;
    };

    [[nodiscard]] std::wstring EntryBelow() const;
    [[nodiscard]] std::wstring Spelled(const std::wstring& below) const;
    void EnterVisitedFolder();

    std::wstring top_;
    std::wstring systemTop_;
    std::list<Level> levels_;
    ListedEntry entry_;
    bool enterBeforeNext_ = false;
};

} // namespace halvard
