#pragma once

#include <windows.h>
#include <msi.h>

#include <string>
#include <vector>

namespace halvard_runner {

using Action = UINT(__stdcall*)(MSIHANDLE session);

/// The full path of this program.
std::wstring ProgramPath();

/// `path` in full, relative to the current directory.
std::wstring FullPath(const std::wstring& path);

/// The full path of a library: `path` as the user gave it, relative to the current directory; empty
/// for Halvard_CA.dll beside this program.
std::wstring LibraryPath(const std::wstring& path);

/// A loaded custom-action library. It stays loaded to the end of the program: what an exception
/// that left it tells of itself lies in it.
class Library {
public:
    /// `path` as for LibraryPath. Throws RunnerError (NoLibrary).
    explicit Library(const std::wstring& path);

    /// The full path.
    [[nodiscard]] const std::wstring& Path() const noexcept { return path_; }

    [[nodiscard]] HMODULE Module() const noexcept { return module_; }

    /// The exported names in the order of the export table, which is that of their bytes.
    [[nodiscard]] std::vector<std::wstring> Exports() const;

    /// Throws RunnerError (NoSuchAction), with the names that were probably meant.
    [[nodiscard]] Action Find(const std::wstring& name) const;

private:
    std::wstring path_;
    HMODULE module_;
};

} // namespace halvard_runner
