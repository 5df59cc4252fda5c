#pragma once

#include <string>

// Files and folders of the tests. Folders and links are removed on the throw-away drive t: only.

namespace halvard_tests {

/// Makes a folder with all that leads to it.
void CreateFolders(const std::wstring& folder);

/// Removes a folder of the throw-away drive with all it holds, read-only files too; links are left.
/// Throws std::logic_error for a folder of another drive.
void RemoveTree(const std::wstring& folder);

/// The same for a folder in which a program still runs, or one that has just ended: it is removed
/// when that lets go of it. Ends this program when it is still there after 60 seconds: left there,
/// it would be the next test's, and go in the middle of it.
void RemoveForGood(const std::wstring& folder);

/// A link in a folder of the throw-away drive, gone at the end: the host's own kind, which shows as
/// a folder with the reparse attribute and no tag. `target` is the host's text, relative to the
/// folder, and has to be there at both times. Whatever deletes the link by the system's calls
/// reaches the target.
class Link {
public:
    Link(const std::wstring& folder, const std::wstring& name, const std::wstring& target);
    ~Link();
    Link(const Link&) = delete;
    Link& operator=(const Link&) = delete;

private:
    std::wstring folder_;
    std::wstring name_;
};

/// Writes a file with something in it.
void WriteFileAt(const std::wstring& path);

/// Writes a file anew. Throws std::runtime_error when it cannot.
void WriteWholeFile(const std::wstring& path, const std::string& bytes);

/// Writes text as UTF-16 with a byte order mark.
void WriteWholeFile(const std::wstring& path, const std::wstring& utf16);

/// The bytes of a file, "no such file" for one that is not there.
std::string ReadWholeFile(const std::wstring& path);

/// Whether there is a file or folder of this name.
bool IsThere(const std::wstring& path);

/// The current directory of this process.
std::wstring CurrentDirectory();

/// Makes a folder that is there the current directory for the length of a scope.
class CurrentDirectoryScope {
public:
    explicit CurrentDirectoryScope(const std::wstring& directory);
    ~CurrentDirectoryScope();
    CurrentDirectoryScope(const CurrentDirectoryScope&) = delete;
    CurrentDirectoryScope& operator=(const CurrentDirectoryScope&) = delete;

private:
    std::wstring former_;
};

/// A folder of its own on the throw-away drive, empty at the start and gone at the end.
class ScratchFolder {
public:
    ScratchFolder();
    ~ScratchFolder();
    ScratchFolder(const ScratchFolder&) = delete;
    ScratchFolder& operator=(const ScratchFolder&) = delete;

    const std::wstring& Path() const { return path_; }
    std::wstring File(const std::wstring& name) const { return path_ + L"\\" + name; }

private:
    std::wstring path_;
};

} // namespace halvard_tests
