#pragma once

#include "cleanup/directory_tree.h"

#include "file_system_error.h"
#include "files.h"

#include <windows.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <utility>

namespace halvard_tests {

inline const std::wstring kExtended = L"\\\\?\\";

/// A tree below the scratch folder: a file, a folder with a file and an empty folder.
class ScratchTree : public testing::Test {
protected:
    ScratchTree() { Fill(); }

    /// Makes anew what is missing.
    void Fill() const {
        CreateFolders(In(L"sub\\empty"));
        WriteFileAt(In(L"a.txt"));
        WriteFileAt(In(L"sub\\b.txt"));
    }

    std::wstring Top() const { return scratch_.File(L"tree"); }
    std::wstring In(const std::wstring& name) const { return Top() + L"\\" + name; }
    std::wstring Beside(const std::wstring& name) const { return scratch_.File(name); }
    const std::wstring& Parent() const { return scratch_.Path(); }
    bool Has(const std::wstring& name) const { return IsThere(In(name)); }

    void ExpectRemoveAllError(int code) const {
        ExpectFileSystemError([&] { halvard::RemoveDirectoryTree(Top()); }, "remove_all", Top(),
                              code);
    }
    void ExpectRemoved() const {
        halvard::RemoveDirectoryTree(Top());
        EXPECT_FALSE(IsThere(Top()));
    }

    /// How many entries go with the tree, or with a folder, and the code.
    using Count = std::pair<std::uintmax_t, int>;
    Count Remove() const { return RemoveAt(Top()); }
    static Count RemoveAt(const std::wstring& path) {
        DWORD code = ERROR_INVALID_FUNCTION;
        const std::uintmax_t count = halvard::RemoveAll(path, code);
        return {count, static_cast<int>(code)};
    }

private:
    ScratchFolder scratch_;
};

} // namespace halvard_tests
