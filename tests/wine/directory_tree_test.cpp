#include "cleanup/directory_tree.h"

#include "cleanup/folder_chain.h"

#include "allocation_failure.h"
#include "child_programs.h"
#include "file_system_error.h"
#include "files.h"
#include "import_hook.h"
#include "lines.h"
#include "open_handles.h"
#include "stand_in_session.h"

#include <windows.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <vector>

using halvard::kRemovalFailed;
using halvard::RemoveAll;
using halvard::RemoveDirectoryTree;
using halvard_tests::CreateFolders;
using halvard_tests::ExpectFileSystemError;
using halvard_tests::IsThere;
using halvard_tests::ScratchFolder;
using halvard_tests::WriteFileAt;

namespace {

const std::wstring kExtended = L"\\\\?\\";

/// A tree below the scratch folder: a file, a folder with a file and an empty folder.
class TreeTest : public testing::Test {
protected:
    TreeTest() {
        CreateFolders(In(L"sub\\empty"));
        WriteFileAt(In(L"a.txt"));
        WriteFileAt(In(L"sub\\b.txt"));
    }

    std::wstring Top() const { return scratch_.File(L"tree"); }
    std::wstring In(const std::wstring& name) const { return Top() + L"\\" + name; }
    std::wstring Beside(const std::wstring& name) const { return scratch_.File(name); }
    const std::wstring& Parent() const { return scratch_.Path(); }

    void ExpectRemoveAllError(int code) const {
        ExpectFileSystemError([&] { RemoveDirectoryTree(Top()); }, "remove_all", Top(), code);
    }

private:
    ScratchFolder scratch_;
};

using RemoveDirectoryTreeTest = TreeTest;
using RemoveAllTest = TreeTest;
using LinkTest = TreeTest;
using FallbackTest = TreeTest;

/// Removals in their order: "folder PATH" or "file PATH", with the result.
class RecordRemovals {
public:
    std::vector<std::wstring> Lines() const { return lines_; }

private:
    BOOL Note(const wchar_t* kind, LPCWSTR path, BOOL done) {
        const DWORD code = GetLastError();
        lines_.push_back(kind + std::wstring(path) + (done != FALSE ? L"" : L" refused"));
        SetLastError(code);
        return done;
    }

    std::vector<std::wstring> lines_;
    HOOK(folder_, RemoveDirectoryW,
         [this](LPCWSTR path) { return Note(L"folder ", path, folder_.Original(path)); });
    HOOK(file_, DeleteFileW,
         [this](LPCWSTR path) { return Note(L"file ", path, file_.Original(path)); });
};

std::uintmax_t RemoveNothing(const std::wstring&, DWORD&) {
    return 0;
}

std::uintmax_t FailWithoutACode(const std::wstring&, DWORD&) {
    return kRemovalFailed;
}

std::uintmax_t FailWithACode(const std::wstring&, DWORD& code) {
    code = ERROR_ACCESS_DENIED;
    return kRemovalFailed;
}

} // namespace

TEST_F(RemoveDirectoryTreeTest, RemovesAFolderWithAllItHoldsAndNothingElse) {
    WriteFileAt(Beside(L"neighbour.txt"));
    CreateFolders(Beside(L"tree2"));
    RemoveDirectoryTree(Top());
    EXPECT_FALSE(IsThere(Top()));
    EXPECT_TRUE(IsThere(Beside(L"neighbour.txt")));
    EXPECT_TRUE(IsThere(Beside(L"tree2")));
}

TEST_F(RemoveDirectoryTreeTest, RemovesAnEmptyFolder) {
    RemoveDirectoryTree(In(L"sub\\empty"));
    EXPECT_FALSE(IsThere(In(L"sub\\empty")));
    EXPECT_TRUE(IsThere(In(L"sub")));
}

TEST_F(RemoveDirectoryTreeTest, LeavesWhatDoesNotExistAlone) {
    const RecordRemovals removals;
    COUNT_CALLS(opening, CreateFileW);
    RemoveDirectoryTree(L"");
    RemoveDirectoryTree(Beside(L"missing"));
    RemoveDirectoryTree(Beside(L"missing\\below"));
    EXPECT_EQ(opening.Calls(), 3);
    EXPECT_EQ(removals.Lines(), std::vector<std::wstring>());
}

TEST_F(RemoveDirectoryTreeTest, LeavesAFileAtThePathAlone) {
    const RecordRemovals removals;
    RemoveDirectoryTree(In(L"a.txt"));
    EXPECT_TRUE(IsThere(In(L"a.txt")));
    EXPECT_EQ(removals.Lines(), std::vector<std::wstring>());
}

TEST_F(RemoveDirectoryTreeTest, TakesSlashesOfBothKindsAndAtTheEnd) {
    RemoveDirectoryTree(L"T:/Scratch/tree/sub/");
    EXPECT_FALSE(IsThere(In(L"sub")));
    RemoveDirectoryTree(Top() + L"\\");
    EXPECT_FALSE(IsThere(Top()));
}

TEST_F(RemoveDirectoryTreeTest, SeesARelativePathFromTheCurrentDirectory) {
    const halvard_tests::CurrentDirectoryScope directory(Top());
    RemoveDirectoryTree(L"sub");
    EXPECT_FALSE(IsThere(In(L"sub")));
    EXPECT_TRUE(IsThere(In(L"a.txt")));
}

TEST_F(RemoveDirectoryTreeTest, AsksForTheStatusTwiceAndBelievesTheSecondAnswer) {
    const RecordRemovals removals;
    for (const DWORD tag : {IO_REPARSE_TAG_SYMLINK, IO_REPARSE_TAG_MOUNT_POINT}) {
        int looks = 0;
        HOOK(reading, GetFileInformationByHandleEx,
             [&](HANDLE file, FILE_INFO_BY_HANDLE_CLASS type, LPVOID data, DWORD size) -> BOOL {
                 if (type == FileAttributeTagInfo) {
                     *static_cast<FILE_ATTRIBUTE_TAG_INFO*>(data) = {FILE_ATTRIBUTE_REPARSE_POINT,
                                                                     tag};
                     return TRUE;
                 }
                 const BOOL done = reading.Original(file, type, data, size);
                 if (++looks == 2) {
                     static_cast<FILE_BASIC_INFO*>(data)->FileAttributes |=
                         FILE_ATTRIBUTE_REPARSE_POINT;
                 }
                 return done;
             });
        RemoveDirectoryTree(Top());
        EXPECT_EQ(looks, 2);
        EXPECT_EQ(reading.Calls(), 3);
    }
    {
        FAIL_CALL(opening, CreateFileW, 2, INVALID_HANDLE_VALUE, ERROR_PATH_NOT_FOUND);
        RemoveDirectoryTree(Top());
        EXPECT_EQ(opening.Calls(), 2);
    }
    EXPECT_EQ(removals.Lines(), std::vector<std::wstring>());
}

TEST_F(RemoveDirectoryTreeTest, NamesTheQueryThatFailed) {
    const auto remove = [&] {
        RemoveDirectoryTree(Top());
    };
    {
        FAIL_CALL(opening, CreateFileW, 1, INVALID_HANDLE_VALUE, ERROR_ACCESS_DENIED);
        ExpectFileSystemError(remove, "exists", Top(), ERROR_ACCESS_DENIED);
    }
    {
        FAIL_CALL(opening, CreateFileW, 2, INVALID_HANDLE_VALUE, ERROR_ACCESS_DENIED);
        ExpectFileSystemError(remove, "status", Top(), ERROR_ACCESS_DENIED);
    }
    EXPECT_TRUE(IsThere(In(L"sub\\b.txt")));
}

TEST_F(RemoveDirectoryTreeTest, AReadOnlyFileEndsItWithItsCode) {
    SetFileAttributesW(In(L"a.txt").c_str(), FILE_ATTRIBUTE_READONLY);
    COUNT_CALLS(attributes, SetFileAttributesW);
    COUNT_CALLS(queuing, MoveFileExW);
    ExpectRemoveAllError(ERROR_ACCESS_DENIED);
    EXPECT_TRUE(IsThere(In(L"a.txt")));
    EXPECT_EQ(attributes.Calls(), 0);
    EXPECT_EQ(queuing.Calls(), 0);
}

TEST_F(RemoveDirectoryTreeTest, WhatWasRemovedBeforeAnErrorStaysRemoved) {
    int removed = 0;
    HOOK(deleting, DeleteFileW, [&](LPCWSTR path) -> BOOL {
        if (deleting.Calls() == 2) {
            SetLastError(ERROR_LOCK_VIOLATION);
            return FALSE;
        }
        ++removed;
        return deleting.Original(path);
    });
    ExpectRemoveAllError(ERROR_LOCK_VIOLATION);
    EXPECT_EQ(deleting.Calls(), 2);
    EXPECT_EQ(removed, 1);
    EXPECT_EQ(IsThere(In(L"a.txt")) + IsThere(In(L"sub\\b.txt")), 1);
    EXPECT_TRUE(IsThere(Top()));
}

TEST_F(RemoveDirectoryTreeTest, AFileHeldOpenStaysWhateverItIsSharedFor) {
    for (DWORD share = 0; share <= 7; ++share) {
        SCOPED_TRACE(share);
        CreateFolders(In(L"held"));
        WriteFileAt(In(L"held\\open.txt"));
        const HANDLE held = CreateFileW(In(L"held\\open.txt").c_str(), GENERIC_READ, share, nullptr,
                                        OPEN_EXISTING, 0, nullptr);
        ASSERT_NE(held, INVALID_HANDLE_VALUE);
        const bool deletable = (share & FILE_SHARE_DELETE) != 0;
        // Shared for deletion, the file takes its deletion and goes when it is closed.
        ExpectFileSystemError([&] { RemoveDirectoryTree(In(L"held")); }, "remove_all", In(L"held"),
                              deletable ? ERROR_DIR_NOT_EMPTY : ERROR_SHARING_VIOLATION);
        CloseHandle(held);
        EXPECT_EQ(IsThere(In(L"held\\open.txt")), !deletable);
    }
}

TEST_F(RemoveDirectoryTreeTest, TheCurrentDirectoryOfAProcessStays) {
    const halvard_tests::RecorderAt program(Beside(L"stays.exe"));
    const halvard_tests::EnvironmentVariable delay(L"HALVARD_RECORD_DELAY", L"60000");
    std::wstring command = L"stays";
    STARTUPINFOW startup = {};
    startup.cb = sizeof(startup);
    PROCESS_INFORMATION child = {};
    ASSERT_TRUE(CreateProcessW(Beside(L"stays.exe").c_str(), command.data(), nullptr, nullptr,
                               FALSE, 0, nullptr, In(L"sub").c_str(), &startup, &child));
    EXPECT_EQ(halvard_tests::WaitForRecordings(1).size(), 1U);
    ExpectRemoveAllError(ERROR_SHARING_VIOLATION);
    TerminateProcess(child.hProcess, 1);
    WaitForSingleObject(child.hProcess, INFINITE);
    CloseHandle(child.hThread);
    CloseHandle(child.hProcess);
    EXPECT_TRUE(IsThere(In(L"sub")));
    EXPECT_FALSE(IsThere(In(L"sub\\b.txt")));
    RemoveDirectoryTree(Top());
    EXPECT_FALSE(IsThere(Top()));
}

TEST_F(RemoveDirectoryTreeTest, ALibraryInUseStays) {
    ASSERT_TRUE(CopyFileW(L"C:\\windows\\system32\\version.dll", In(L"used.dll").c_str(), FALSE));
    const HMODULE loaded =
        LoadLibraryExW(In(L"used.dll").c_str(), nullptr, LOAD_LIBRARY_AS_IMAGE_RESOURCE);
    ASSERT_NE(loaded, nullptr);
    ExpectRemoveAllError(ERROR_ACCESS_DENIED);
    FreeLibrary(loaded);
    EXPECT_TRUE(IsThere(In(L"used.dll")));
}

TEST_F(RemoveDirectoryTreeTest, RemovesNamesThatEndInDotsAndBlanks) {
    for (const wchar_t* name : {L"dots..", L"blanks  ", L"both. ."}) {
        CreateDirectoryW((kExtended + In(name)).c_str(), nullptr);
        WriteFileAt(kExtended + In(name) + L"\\file. ");
        ASSERT_TRUE(IsThere(kExtended + In(name) + L"\\file. "));
    }
    // What the plain spelling of "both. ." leads to.
    CreateFolders(In(L"both"));
    RemoveDirectoryTree(kExtended + In(L"both. ."));
    EXPECT_FALSE(IsThere(kExtended + In(L"both. .")));
    EXPECT_TRUE(IsThere(In(L"both")));
    RemoveDirectoryTree(Top());
    EXPECT_FALSE(IsThere(Top()));
}

TEST_F(RemoveDirectoryTreeTest, RemovesNamesThatAreReservedForDevices) {
    CreateDirectoryW((kExtended + In(L"con")).c_str(), nullptr);
    WriteFileAt(kExtended + In(L"con\\NUL"));
    ASSERT_TRUE(IsThere(kExtended + In(L"con\\NUL")));
    RemoveDirectoryTree(Top());
    EXPECT_FALSE(IsThere(Top()));
}

TEST_F(RemoveDirectoryTreeTest, RemovesPathsAroundAndBeyondTheClassicLimit) {
    for (std::size_t length : {246U, 247U, 248U, 258U, 259U, 260U, 261U, 300U, 3500U}) {
        SCOPED_TRACE(length);
        std::wstring folder = kExtended + Top();
        while (folder.size() + 101 < kExtended.size() + length) {
            folder += L"\\" + std::wstring(100, L'x');
            CreateDirectoryW(folder.c_str(), nullptr);
        }
        folder += L"\\" + std::wstring(kExtended.size() + length - folder.size() - 1, L'y');
        CreateDirectoryW(folder.c_str(), nullptr);
        WriteFileAt(folder + L"\\file.txt");
        const std::wstring plain = folder.substr(kExtended.size());
        ASSERT_EQ(plain.size(), length);
        RemoveDirectoryTree(plain);
        EXPECT_FALSE(IsThere(folder));
    }
    RemoveDirectoryTree(Top());
    EXPECT_FALSE(IsThere(Top()));
}

TEST_F(RemoveDirectoryTreeTest, UsesTheExtendedLengthFormInEveryCall) {
    std::vector<std::wstring> paths;
    HOOK(opening, CreateFileW,
         [&](LPCWSTR path, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES security,
             DWORD disposition, DWORD flags, HANDLE model) {
             paths.emplace_back(path);
             return opening.Original(path, access, share, security, disposition, flags, model);
         });
    HOOK(asking, GetFileAttributesW, [&](LPCWSTR path) {
        paths.emplace_back(path);
        return asking.Original(path);
    });
    HOOK(searching, FindFirstFileExW,
         [&](LPCWSTR path, FINDEX_INFO_LEVELS level, LPVOID data, FINDEX_SEARCH_OPS operation,
             LPVOID filter, DWORD flags) {
             paths.emplace_back(path);
             return searching.Original(path, level, data, operation, filter, flags);
         });
    HOOK(removing, RemoveDirectoryW, [&](LPCWSTR path) {
        paths.emplace_back(path);
        return removing.Original(path);
    });
    HOOK(deleting, DeleteFileW, [&](LPCWSTR path) {
        paths.emplace_back(path);
        return deleting.Original(path);
    });
    RemoveDirectoryTree(Top());
    EXPECT_GE(paths.size(), 10U);
    for (const std::wstring& path : paths) {
        EXPECT_EQ(path.rfind(kExtended + Top(), 0), 0U) << std::string(path.begin(), path.end());
    }
}

TEST_F(RemoveDirectoryTreeTest, LeavesNothingOpenWhateverCallFails) {
    ExpectFileSystemError([&] { halvard::RemoveDirectoryTree(Top(), FailWithACode); }, "remove_all",
                          Top(), ERROR_ACCESS_DENIED);
    const int before = halvard_tests::OpenHandleCount();
    {
        FAIL_CALL(deleting, DeleteFileW, 0, FALSE, ERROR_WRITE_PROTECT);
        ExpectRemoveAllError(ERROR_WRITE_PROTECT);
    }
    for (int call = 3; call <= 4; ++call) {
        FAIL_CALL(opening, CreateFileW, call, INVALID_HANDLE_VALUE, ERROR_NETWORK_ACCESS_DENIED);
        FAIL_CALL(deleting, DeleteFileW, 0, FALSE, ERROR_FILE_NOT_FOUND);
        ExpectRemoveAllError(ERROR_NETWORK_ACCESS_DENIED);
        EXPECT_EQ(opening.Calls(), call);
    }
    for (int call = 1; call <= 2; ++call) {
        FAIL_CALL(searching, FindFirstFileExW, call, INVALID_HANDLE_VALUE, ERROR_CRC);
        FAIL_CALL(deleting, DeleteFileW, 0, FALSE, ERROR_FILE_NOT_FOUND);
        ExpectRemoveAllError(ERROR_CRC);
        EXPECT_EQ(searching.Calls(), call);
    }
    for (int call = 1; call <= 4; ++call) {
        FAIL_CALL(searching, FindNextFileW, call, FALSE, ERROR_SEEK);
        FAIL_CALL(deleting, DeleteFileW, 0, FALSE, ERROR_FILE_NOT_FOUND);
        ExpectRemoveAllError(ERROR_SEEK);
        EXPECT_EQ(searching.Calls(), call);
    }
    EXPECT_EQ(halvard_tests::OpenHandleCount(), before);
    RemoveDirectoryTree(Top());
    EXPECT_EQ(halvard_tests::OpenHandleCount(), before);
}

TEST_F(RemoveDirectoryTreeTest, LeavesNothingOpenWhenMemoryRunsOut) {
    const int before = halvard_tests::OpenHandleCount();
    bool happened = true;
    int failures = 0;
    for (int nth = 1; happened; ++nth) {
        const halvard_tests::AllocationFailure failure(nth);
        try {
            RemoveDirectoryTree(Top());
        } catch (const std::bad_alloc&) {
            ++failures;
        }
        happened = failure.Happened();
    }
    EXPECT_GT(failures, 5);
    EXPECT_EQ(halvard_tests::OpenHandleCount(), before);
    EXPECT_FALSE(IsThere(Top()));
}

TEST_F(RemoveAllTest, CountsEveryEntryAndTheFolderItself) {
    DWORD code = 1;
    EXPECT_EQ(RemoveAll(In(L"sub\\empty"), code), 1U);
    EXPECT_EQ(code, static_cast<DWORD>(ERROR_SUCCESS));
    EXPECT_EQ(RemoveAll(Top(), code), 4U);
    EXPECT_EQ(code, static_cast<DWORD>(ERROR_SUCCESS));
    EXPECT_EQ(RemoveAll(Top(), code), 0U);
    EXPECT_EQ(code, static_cast<DWORD>(ERROR_SUCCESS));
}

TEST_F(RemoveAllTest, DeletesTheFolderItselfFirstAndEmptiesItOnlyWhenItMust) {
    const RecordRemovals removals;
    DWORD code = 1;
    RemoveAll(Top(), code);
    const std::vector<std::wstring> lines = removals.Lines();
    const std::wstring top = kExtended + Top();
    ASSERT_EQ(lines.size(), 6U);
    EXPECT_EQ(lines.front(), L"folder " + top + L" refused");
    EXPECT_EQ(lines.back(), L"folder " + top);

    const auto position = [&](const std::wstring& line) {
        return std::find(lines.begin(), lines.end(), line) - lines.begin();
    };
    const std::wstring sub = L"folder " + top + L"\\sub";
    EXPECT_LT(position(L"file " + top + L"\\a.txt"), 5);
    EXPECT_LT(position(L"file " + top + L"\\sub\\b.txt"), position(sub));
    EXPECT_LT(position(sub + L"\\empty"), position(sub));
    EXPECT_LT(position(sub), 5);
}

TEST_F(RemoveAllTest, AFolderThatAnswersAnotherCodeIsNotEmptied) {
    FAIL_CALL(removing, RemoveDirectoryW, 1, FALSE, ERROR_SHARING_VIOLATION);
    DWORD code = 0;
    EXPECT_EQ(RemoveAll(Top(), code), 0U);
    EXPECT_EQ(code, static_cast<DWORD>(ERROR_SHARING_VIOLATION));
    EXPECT_TRUE(IsThere(In(L"a.txt")));
}

TEST_F(RemoveAllTest, WhatHasGoneMeanwhileCountsAsNothing) {
    for (const DWORD gone : {2U, 3U, 53U, 123U}) {
        // Nothing is really removed, so a folder is still full when its turn comes.
        FAIL_CALL(deleting, DeleteFileW, 0, FALSE, gone);
        DWORD code = 0;
        RemoveAll(Top(), code);
        EXPECT_EQ(code, static_cast<DWORD>(ERROR_DIR_NOT_EMPTY)) << gone;
        EXPECT_GE(deleting.Calls(), 1);
    }
    FAIL_CALL(removing, RemoveDirectoryW, 1, FALSE, ERROR_FILE_NOT_FOUND);
    DWORD code = 1;
    EXPECT_EQ(RemoveAll(Top(), code), 0U);
    EXPECT_EQ(code, static_cast<DWORD>(ERROR_SUCCESS));
}

TEST_F(RemoveAllTest, AFolderThatVanishesBeforeItIsEnteredHoldsNothing) {
    HOOK(opening, CreateFileW,
         [&](LPCWSTR path, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES security,
             DWORD disposition, DWORD flags, HANDLE model) {
             if (path == kExtended + In(L"sub")) {
                 halvard_tests::RemoveTree(In(L"sub"));
             }
             return opening.Original(path, access, share, security, disposition, flags, model);
         });
    DWORD code = 1;
    EXPECT_EQ(RemoveAll(Top(), code), 2U);
    EXPECT_EQ(code, static_cast<DWORD>(ERROR_SUCCESS));
    EXPECT_FALSE(IsThere(Top()));
}

TEST_F(RemoveAllTest, ATopThatVanishesBeforeItIsEnteredHoldsNothing) {
    HOOK(opening, CreateFileW,
         [&](LPCWSTR path, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES security,
             DWORD disposition, DWORD flags, HANDLE model) {
             halvard_tests::RemoveTree(Top());
             return opening.Original(path, access, share, security, disposition, flags, model);
         });
    DWORD code = 1;
    EXPECT_EQ(RemoveAll(Top(), code), 0U);
    EXPECT_EQ(code, static_cast<DWORD>(ERROR_SUCCESS));
}

TEST_F(RemoveAllTest, AFolderThatFillsAgainIsNotEmptiedTwice) {
    HOOK(removing, RemoveDirectoryW, [&](LPCWSTR path) {
        // Filled each time when its own turn comes.
        if (path == kExtended + In(L"sub")) {
            WriteFileAt(In(L"sub\\again.txt"));
        }
        return removing.Original(path);
    });
    COUNT_CALLS(entered, FindFirstFileExW);
    DWORD code = 0;
    RemoveAll(Top(), code);
    EXPECT_EQ(code, static_cast<DWORD>(ERROR_DIR_NOT_EMPTY));
    EXPECT_EQ(entered.Calls(), 3);
}

TEST_F(RemoveAllTest, EmptiesADriveThatHasNoDots) {
    FAIL_CALL(searching, FindFirstFileExW, 1, INVALID_HANDLE_VALUE, ERROR_FILE_NOT_FOUND);
    DWORD code = 0;
    EXPECT_EQ(RemoveAll(Top(), code), 0U);
    EXPECT_EQ(code, static_cast<DWORD>(ERROR_DIR_NOT_EMPTY));
    EXPECT_TRUE(IsThere(In(L"a.txt")));
}

TEST_F(RemoveAllTest, HoldsEveryFolderOnTheWayToTheOneAtWork) {
    CreateFolders(In(L"sub\\deep"));
    WriteFileAt(In(L"sub\\deep\\c.txt"));
    int attempts = 0;
    HOOK(deleting, DeleteFileW, [&](LPCWSTR path) {
        if (path == kExtended + In(L"sub\\deep\\c.txt")) {
            for (const std::wstring& folder : {Top(), In(L"sub"), In(L"sub\\deep")}) {
                EXPECT_FALSE(MoveFileW(folder.c_str(), Beside(L"moved").c_str()));
                EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_SHARING_VIOLATION));
                const HANDLE taken =
                    CreateFileW(folder.c_str(), DELETE, 7, nullptr, OPEN_EXISTING,
                                FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT, nullptr);
                EXPECT_EQ(taken, INVALID_HANDLE_VALUE);
                EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_SHARING_VIOLATION));
                ++attempts;
            }
        }
        return deleting.Original(path);
    });
    RemoveDirectoryTree(Top());
    EXPECT_EQ(attempts, 3);
    EXPECT_FALSE(IsThere(Top()));
}

namespace {

DWORD RenameByAnotherProcess(const std::wstring& folder) {
    std::wstring command = L"cmd.exe /c ren \"" + folder + L"\" moved";
    STARTUPINFOW startup = {};
    startup.cb = sizeof(startup);
    PROCESS_INFORMATION child = {};
    EXPECT_TRUE(CreateProcessW(nullptr, command.data(), nullptr, nullptr, FALSE, CREATE_NO_WINDOW,
                               nullptr, L"C:\\", &startup, &child));
    WaitForSingleObject(child.hProcess, INFINITE);
    DWORD exitCode = 0;
    GetExitCodeProcess(child.hProcess, &exitCode);
    CloseHandle(child.hThread);
    CloseHandle(child.hProcess);
    return exitCode;
}

} // namespace

TEST_F(RemoveAllTest, NoOtherProcessRenamesAFolderAtWork) {
    HOOK(deleting, DeleteFileW, [&](LPCWSTR path) {
        if (path == kExtended + In(L"sub\\b.txt")) {
            EXPECT_NE(RenameByAnotherProcess(In(L"sub")), 0U);
            EXPECT_NE(RenameByAnotherProcess(Top()), 0U);
        }
        return deleting.Original(path);
    });
    RemoveDirectoryTree(Top());
    EXPECT_FALSE(IsThere(Top()));
    EXPECT_FALSE(IsThere(Beside(L"moved")));

    CreateFolders(Top());
    EXPECT_EQ(RenameByAnotherProcess(Top()), 0U);
    EXPECT_TRUE(IsThere(Beside(L"moved")));
}

TEST_F(RemoveAllTest, OpensFoldersForListingWithoutDeleteSharingAndAsThemselves) {
    int entered = 0;
    HOOK(opening, CreateFileW,
         [&](LPCWSTR path, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES security,
             DWORD disposition, DWORD flags, HANDLE model) {
             EXPECT_EQ(access, static_cast<DWORD>(FILE_LIST_DIRECTORY));
             EXPECT_EQ(share, static_cast<DWORD>(FILE_SHARE_READ | FILE_SHARE_WRITE));
             EXPECT_EQ(disposition, static_cast<DWORD>(OPEN_EXISTING));
             EXPECT_EQ(flags, static_cast<DWORD>(FILE_FLAG_BACKUP_SEMANTICS |
                                                 FILE_FLAG_OPEN_REPARSE_POINT));
             ++entered;
             return opening.Original(path, access, share, security, disposition, flags, model);
         });
    DWORD code = 1;
    RemoveAll(Top(), code);
    EXPECT_EQ(entered, 3);
}

TEST_F(LinkTest, ALinkInTheTreeIsNotEntered) {
    CreateFolders(Beside(L"outside\\deep"));
    WriteFileAt(Beside(L"outside\\kept.txt"));
    const halvard_tests::Link link(In(L"sub"), L"link", L"../../outside");
    ExpectRemoveAllError(ERROR_DIR_NOT_EMPTY);
    EXPECT_TRUE(IsThere(Beside(L"outside\\kept.txt")));
    EXPECT_TRUE(IsThere(Beside(L"outside\\deep")));
    EXPECT_TRUE(IsThere(In(L"sub\\link\\kept.txt")));
}

TEST_F(LinkTest, ALinkAsTheTopIsNotEntered) {
    const halvard_tests::Link link(Parent(), L"link", L"tree");
    for (const std::wstring& top : {Beside(L"link"), Beside(L"link\\"), Beside(L"link/")}) {
        ExpectFileSystemError([&] { RemoveDirectoryTree(top); }, "remove_all", top,
                              ERROR_DIR_NOT_EMPTY);
    }
    EXPECT_TRUE(IsThere(In(L"a.txt")));
    EXPECT_TRUE(IsThere(In(L"sub\\b.txt")));
    EXPECT_TRUE(IsThere(In(L"sub\\empty")));
}

TEST_F(LinkTest, AFolderSwappedForALinkBeforeItIsEnteredIsNotEntered) {
    CreateFolders(Beside(L"outside"));
    WriteFileAt(Beside(L"outside\\kept.txt"));
    std::unique_ptr<const halvard_tests::Link> link;
    HOOK(opening, CreateFileW,
         [&](LPCWSTR path, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES security,
             DWORD disposition, DWORD flags, HANDLE model) {
             if (path == kExtended + In(L"sub") && !link) {
                 EXPECT_TRUE(MoveFileW(In(L"sub").c_str(), Beside(L"moved").c_str()));
                 link = std::make_unique<const halvard_tests::Link>(Top(), L"sub", L"../outside");
             }
             return opening.Original(path, access, share, security, disposition, flags, model);
         });
    ExpectRemoveAllError(ERROR_DIR_NOT_EMPTY);
    EXPECT_NE(link, nullptr);
    EXPECT_TRUE(IsThere(Beside(L"outside\\kept.txt")));
    EXPECT_TRUE(IsThere(Beside(L"moved\\b.txt")));
}

namespace {

/// Shows the folder "sub" as a reparse point: in listings, by its path, by its handle.
class SubAsReparsePoint {
public:
    std::wstring folder;
    bool listed = false;
    bool seenByPath = false;
    bool seenByHandle = false;
    DWORD listedTag = 0;
    DWORD tag = 0;
    DWORD tagError = ERROR_SUCCESS;
    bool wasOpened = false;

private:
    BOOL Listed(WIN32_FIND_DATAW& found, BOOL done) const {
        if (done != FALSE && listed && std::wstring(found.cFileName) == L"sub") {
            found.dwFileAttributes |= FILE_ATTRIBUTE_REPARSE_POINT;
            found.dwReserved0 = listedTag;
        }
        return done;
    }

    HANDLE sub_ = nullptr;
    HOOK(next_, FindNextFileW, [this](HANDLE search, LPWIN32_FIND_DATAW found) {
        return Listed(*found, next_.Original(search, found));
    });
    HOOK(opening_, CreateFileW,
         [this](LPCWSTR path, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES security,
                DWORD disposition, DWORD flags, HANDLE model) {
             const HANDLE opened =
                 opening_.Original(path, access, share, security, disposition, flags, model);
             if (path == folder) {
                 sub_ = opened;
                 wasOpened = true;
             }
             return opened;
         });
    HOOK(path_, GetFileAttributesW, [this](LPCWSTR path) {
        const DWORD attributes = path_.Original(path);
        return path == folder && seenByPath ? attributes | FILE_ATTRIBUTE_REPARSE_POINT
                                            : attributes;
    });
    HOOK(handle_, GetFileInformationByHandleEx,
         [this](HANDLE file, FILE_INFO_BY_HANDLE_CLASS type, LPVOID data, DWORD size) -> BOOL {
             if (file != sub_ || type != FileAttributeTagInfo) {
                 const BOOL done = handle_.Original(file, type, data, size);
                 if (file == sub_ && seenByHandle) {
                     static_cast<FILE_BASIC_INFO*>(data)->FileAttributes |=
                         FILE_ATTRIBUTE_REPARSE_POINT;
                 }
                 return done;
             }
             SetLastError(tagError);
             *static_cast<FILE_ATTRIBUTE_TAG_INFO*>(data) = {
                 FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT, tag};
             return tagError == ERROR_SUCCESS ? TRUE : FALSE;
         });
};

} // namespace

TEST_F(LinkTest, WhatListingPathOrHandleCallsALinkIsNotEntered) {
    const DWORD cloud = IO_REPARSE_TAG_CLOUD;
    struct Case {
        const char* name;
        bool listed;
        bool byPath;
        bool byHandle;
        DWORD listedTag;
        DWORD tag;
        DWORD tagError;
    };
    const Case cases[] = {
        {"listed as a symbolic link", true, false, false, IO_REPARSE_TAG_SYMLINK, cloud, 0},
        {"listed as a mount point", true, false, false, IO_REPARSE_TAG_MOUNT_POINT, cloud, 0},
        {"listed with no tag", true, false, false, 0, cloud, 0},
        {"path shows a symbolic link", false, true, false, 0, IO_REPARSE_TAG_SYMLINK, 0},
        {"path shows a mount point", false, true, false, 0, IO_REPARSE_TAG_MOUNT_POINT, 0},
        {"path shows no tag", false, true, false, 0, 0, 0},
        {"path shows an unreadable tag", false, true, false, 0, cloud, ERROR_INVALID_FUNCTION},
        {"handle is a symbolic link", false, false, true, 0, IO_REPARSE_TAG_SYMLINK, 0},
        {"handle is a mount point", false, false, true, 0, IO_REPARSE_TAG_MOUNT_POINT, 0},
        {"handle has no tag", false, false, true, 0, 0, 0},
        {"handle has an unreadable tag", false, false, true, 0, cloud, ERROR_INVALID_FUNCTION},
        {"listed as a cloud folder, but a link", true, false, false, cloud, IO_REPARSE_TAG_SYMLINK,
         0},
        {"listed as a cloud folder with an unreadable tag", true, false, false, cloud, cloud,
         ERROR_INVALID_FUNCTION},
    };
    for (const Case& shown : cases) {
        SCOPED_TRACE(shown.name);
        SubAsReparsePoint sub;
        sub.folder = kExtended + In(L"sub");
        sub.listed = shown.listed;
        sub.seenByPath = shown.byPath;
        sub.seenByHandle = shown.byHandle;
        sub.listedTag = shown.listedTag;
        sub.tag = shown.tag;
        sub.tagError = shown.tagError;
        ExpectRemoveAllError(ERROR_DIR_NOT_EMPTY);
        EXPECT_TRUE(IsThere(In(L"sub\\b.txt")));
        EXPECT_TRUE(IsThere(In(L"sub\\empty")));
    }
}

TEST_F(LinkTest, ReparsePointsThatAreNoLinksAreFolders) {
    for (const DWORD tag : {DWORD{IO_REPARSE_TAG_CLOUD}, DWORD{IO_REPARSE_TAG_DEDUP}}) {
        SubAsReparsePoint sub;
        CreateFolders(In(L"sub\\empty"));
        WriteFileAt(In(L"sub\\b.txt"));
        sub.folder = kExtended + In(L"sub");
        sub.listed = sub.seenByPath = sub.seenByHandle = true;
        sub.listedTag = sub.tag = tag;
        RemoveDirectoryTree(Top());
        EXPECT_FALSE(IsThere(Top()));
        CreateFolders(Top());
    }
}

TEST_F(LinkTest, AFolderThatCannotBeAskedIsNotEntered) {
    {
        // The first two looks are those at the status of the top.
        FAIL_CALL(reading, GetFileInformationByHandleEx, 3, FALSE, ERROR_GEN_FAILURE);
        ExpectRemoveAllError(ERROR_GEN_FAILURE);
    }
    FAIL_CALL(asking, GetFileAttributesW, 1, INVALID_FILE_ATTRIBUTES, ERROR_ACCESS_DENIED);
    ExpectRemoveAllError(ERROR_ACCESS_DENIED);
    EXPECT_TRUE(IsThere(In(L"a.txt")));
    EXPECT_TRUE(IsThere(In(L"sub\\b.txt")));
}

TEST_F(LinkTest, ALinkThatCanBeRemovedGoesAlone) {
    // As Windows does it: the folder call takes a link away whatever lies behind it.
    for (const bool isListed : {true, false}) {
        std::vector<std::wstring> taken;
        HOOK(removing, RemoveDirectoryW, [&](LPCWSTR path) -> BOOL {
            if (path == kExtended + In(L"sub")) {
                taken.emplace_back(path);
                return TRUE;
            }
            return removing.Original(path);
        });
        SubAsReparsePoint sub;
        sub.folder = kExtended + In(L"sub");
        sub.listed = isListed;
        sub.seenByPath = !isListed;
        sub.listedTag = sub.tag = IO_REPARSE_TAG_MOUNT_POINT;
        WriteFileAt(In(L"a.txt"));
        DWORD code = 0;
        EXPECT_EQ(RemoveAll(Top(), code), 2U);
        EXPECT_EQ(taken, std::vector<std::wstring>{kExtended + In(L"sub")});
        EXPECT_TRUE(IsThere(In(L"sub\\b.txt")));
    }
}

TEST_F(LinkTest, AListedLinkIsNotEvenOpened) {
    SubAsReparsePoint sub;
    sub.listed = true;
    sub.listedTag = IO_REPARSE_TAG_SYMLINK;
    COUNT_CALLS(searching, FindFirstFileExW);
    sub.folder = kExtended + In(L"sub");
    ExpectRemoveAllError(ERROR_DIR_NOT_EMPTY);
    EXPECT_FALSE(sub.wasOpened);
    EXPECT_EQ(searching.Calls(), 1);
}

TEST_F(LinkTest, ALinkAsTheTopThatCanBeRemovedGoesAlone) {
    FAIL_CALL(removing, RemoveDirectoryW, 1, TRUE, NO_ERROR);
    COUNT_CALLS(searching, FindFirstFileExW);
    RemoveDirectoryTree(Top());
    EXPECT_EQ(removing.Calls(), 1);
    EXPECT_EQ(searching.Calls(), 0);
    EXPECT_TRUE(IsThere(In(L"sub\\b.txt")));
}

TEST_F(LinkTest, AFolderThatBecomesALinkWhileItIsAtWorkIsLeft) {
    // Emptied by others it can be made one in place, though it is held.
    SubAsReparsePoint sub;
    sub.folder = kExtended + In(L"sub");
    sub.tag = IO_REPARSE_TAG_MOUNT_POINT;
    std::vector<std::wstring> removed;
    HOOK(searching, FindFirstFileExW,
         [&](LPCWSTR path, FINDEX_INFO_LEVELS level, LPVOID data, FINDEX_SEARCH_OPS operation,
             LPVOID filter, DWORD flags) {
             const HANDLE search = searching.Original(path, level, data, operation, filter, flags);
             sub.seenByHandle = path == sub.folder + L"\\*";
             return search;
         });
    HOOK(deleting, DeleteFileW, [&](LPCWSTR path) {
        removed.emplace_back(path);
        return deleting.Original(path);
    });
    ExpectRemoveAllError(ERROR_DIR_NOT_EMPTY);
    EXPECT_TRUE(IsThere(In(L"sub\\b.txt")));
    EXPECT_TRUE(IsThere(In(L"sub\\empty")));
    for (const std::wstring& path : removed) {
        EXPECT_EQ(path, kExtended + In(L"a.txt"));
    }
}

TEST_F(LinkTest, AFolderAtWorkThatCannotBeAskedAnyMoreIsLeft) {
    // Two looks at the status of the top, one as it is entered.
    FAIL_CALL(reading, GetFileInformationByHandleEx, 4, FALSE, ERROR_GEN_FAILURE);
    ExpectRemoveAllError(ERROR_GEN_FAILURE);
    EXPECT_TRUE(IsThere(In(L"a.txt")));
    EXPECT_TRUE(IsThere(In(L"sub\\b.txt")));
}

TEST_F(RemoveAllTest, AHeldFolderThatCannotBeListedIsAnErrorWhateverTheCode) {
    for (const DWORD code : {DWORD{ERROR_PATH_NOT_FOUND}, DWORD{ERROR_BAD_NETPATH}}) {
        for (int call = 1; call <= 2; ++call) {
            FAIL_CALL(searching, FindFirstFileExW, call, INVALID_HANDLE_VALUE, code);
            FAIL_CALL(deleting, DeleteFileW, 0, FALSE, ERROR_FILE_NOT_FOUND);
            ExpectRemoveAllError(static_cast<int>(code));
        }
    }
}

TEST(RemoveEntry, RemovesByKindAndPassesOverWhatHasGone) {
    const ScratchFolder scratch;
    CreateFolders(scratch.File(L"folder\\full"));
    WriteFileAt(scratch.File(L"file"));
    const auto remove = [&](const wchar_t* name, DWORD attributes, bool& removed) {
        return halvard::RemoveEntry({scratch.File(name), attributes, 0}, removed);
    };
    bool removed = false;
    EXPECT_EQ(remove(L"file", FILE_ATTRIBUTE_ARCHIVE, removed), 0U);
    EXPECT_TRUE(removed);
    EXPECT_EQ(remove(L"file", FILE_ATTRIBUTE_ARCHIVE, removed), 0U);
    EXPECT_FALSE(removed);
    EXPECT_EQ(remove(L"folder", FILE_ATTRIBUTE_DIRECTORY, removed),
              static_cast<DWORD>(ERROR_DIR_NOT_EMPTY));
    EXPECT_FALSE(removed);
    // What has become a folder or a file since it was listed stays.
    EXPECT_EQ(remove(L"folder\\full", FILE_ATTRIBUTE_ARCHIVE, removed),
              static_cast<DWORD>(ERROR_ACCESS_DENIED));
    WriteFileAt(scratch.File(L"file"));
    EXPECT_EQ(remove(L"file", FILE_ATTRIBUTE_DIRECTORY, removed),
              static_cast<DWORD>(ERROR_DIRECTORY));
    EXPECT_EQ(remove(L"folder\\full", FILE_ATTRIBUTE_DIRECTORY, removed), 0U);
    EXPECT_TRUE(removed);
}

TEST(IsLink, KnowsLinksByAttributeAndTag) {
    constexpr DWORD point = FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT;
    for (const DWORD tag :
         {DWORD{0}, DWORD{IO_REPARSE_TAG_SYMLINK}, DWORD{IO_REPARSE_TAG_MOUNT_POINT}}) {
        EXPECT_TRUE(halvard::IsLink(point, tag)) << tag;
        EXPECT_FALSE(halvard::IsLink(FILE_ATTRIBUTE_DIRECTORY, tag)) << tag;
    }
    EXPECT_FALSE(halvard::IsLink(point, IO_REPARSE_TAG_CLOUD));
    EXPECT_FALSE(halvard::IsLink(point, IO_REPARSE_TAG_DEDUP));
}

TEST_F(FallbackTest, IsEnteredForTheErrorCountAlone) {
    COUNT_CALLS(searching, FindFirstFileExW);
    halvard::RemoveDirectoryTree(Top(), RemoveNothing);
    EXPECT_EQ(searching.Calls(), 0);
    ExpectFileSystemError([&] { halvard::RemoveDirectoryTree(Top(), FailWithACode); }, "remove_all",
                          Top(), ERROR_ACCESS_DENIED);
    EXPECT_EQ(searching.Calls(), 0);
    RemoveDirectoryTree(In(L"sub"));
    const int before = searching.Calls();
    halvard::RemoveDirectoryTree(Top(), FailWithoutACode);
    EXPECT_EQ(searching.Calls(), before + 1);
}

TEST_F(FallbackTest, RemovesEntriesOneByOneAndLeavesTheFolder) {
    RemoveDirectoryTree(In(L"sub"));
    WriteFileAt(In(L"b.txt"));
    CreateFolders(In(L"empty"));
    halvard::RemoveDirectoryTree(Top(), FailWithoutACode);
    EXPECT_FALSE(IsThere(In(L"a.txt")));
    EXPECT_FALSE(IsThere(In(L"b.txt")));
    EXPECT_FALSE(IsThere(In(L"empty")));
    EXPECT_TRUE(IsThere(Top()));
}

TEST_F(FallbackTest, AFolderThatIsNotEmptyEndsIt) {
    ExpectFileSystemError([&] { halvard::RemoveDirectoryTree(Top(), FailWithoutACode); }, "remove",
                          In(L"sub"), ERROR_DIR_NOT_EMPTY);
    EXPECT_TRUE(IsThere(In(L"sub\\b.txt")));
}

namespace {

/// One entry, "stays", that has gone whenever it is to be removed, and what is done about it.
class StayingEntry {
public:
    DWORD attributes = FILE_ATTRIBUTE_ARCHIVE | FILE_ATTRIBUTE_READONLY;
    BOOL canBeSet = TRUE;
    DWORD secondRemoval = ERROR_FILE_NOT_FOUND;
    std::vector<std::wstring> calls;

private:
    void Note(const wchar_t* call, LPCWSTR path, DWORD number) {
        calls.push_back(call + std::wstring(path) + L" " + std::to_wstring(number));
    }

    BOOL Remove(const wchar_t* call, LPCWSTR path) {
        Note(call, path, 0);
        const bool first = removals_++ == 0;
        SetLastError(first ? ERROR_FILE_NOT_FOUND : secondRemoval);
        return !first && secondRemoval == ERROR_SUCCESS ? TRUE : FALSE;
    }

    int removals_ = 0;

    HOOK(deleting_, DeleteFileW, [this](LPCWSTR path) { return Remove(L"delete ", path); });
    HOOK(removing_, RemoveDirectoryW, [this](LPCWSTR path) { return Remove(L"remove ", path); });
    HOOK(getting_, GetFileAttributesW, [this](LPCWSTR path) {
        if (std::wstring(path).find(L"stays") == std::wstring::npos) {
            return getting_.Original(path);
        }
        Note(L"get ", path, 0);
        return attributes;
    });
    HOOK(setting_, SetFileAttributesW, [this](LPCWSTR path, DWORD set) {
        Note(L"set ", path, set);
        return canBeSet;
    });
    HOOK(queuing_, MoveFileExW, [this](LPCWSTR path, LPCWSTR target, DWORD flags) -> BOOL {
        EXPECT_EQ(target, nullptr);
        Note(L"move ", path, flags);
        SetLastError(ERROR_ACCESS_DENIED);
        return FALSE;
    });
};

class StayingEntryTest : public testing::Test {
protected:
    StayingEntryTest() {
        CreateFolders(top);
        WriteFileAt(top + L"\\stays");
    }

    void Remove() { halvard::RemoveDirectoryTree(top, FailWithoutACode); }

    ScratchFolder scratch;
    std::wstring top = scratch.File(L"tree");
    std::wstring file = kExtended + top + L"\\stays";
};

} // namespace

TEST_F(StayingEntryTest, LosesItsReadOnlyAttributeAndIsQueuedForTheNextRestart) {
    StayingEntry stays;
    Remove();
    EXPECT_EQ(stays.calls,
              (Lines{L"delete " + file + L" 0", L"get " + file + L" 0", L"set " + file + L" 32",
                     L"delete " + file + L" 0", L"move " + file + L" 4"}));
}

// A folder too, and it is entered all the same: what it holds is queued behind it.
TEST_F(StayingEntryTest, AFolderIsTreatedAsAFileIs) {
    ASSERT_NE(DeleteFileW(file.c_str()), FALSE);
    CreateFolders(top + L"\\stays");
    WriteFileAt(top + L"\\stays\\in");
    StayingEntry stays;
    stays.attributes = FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_READONLY;
    Remove();
    const auto treated = [](const std::wstring& removal, const std::wstring& entry) {
        return Lines{removal + entry + L" 0", L"get " + entry + L" 0", L"set " + entry + L" 16",
                     removal + entry + L" 0", L"move " + entry + L" 4"};
    };
    // Between the two it is asked whether it is a link.
    EXPECT_EQ(stays.calls, treated(L"remove ", file) + Lines{L"get " + file + L" 0"} +
                               treated(L"delete ", file + L"\\in"));
}

TEST_F(StayingEntryTest, AttributesThatCannotBeReadAreWrittenBackAllTheSame) {
    StayingEntry stays;
    stays.attributes = INVALID_FILE_ATTRIBUTES;
    Remove();
    ASSERT_EQ(stays.calls.size(), 5U);
    EXPECT_EQ(stays.calls[2], L"set " + file + L" " + std::to_wstring(0xFFFFFFFEU));
}

TEST_F(StayingEntryTest, IsPassedOverWhenItsAttributesCannotBeSet) {
    StayingEntry stays;
    stays.canBeSet = FALSE;
    Remove();
    EXPECT_EQ(stays.calls,
              (Lines{L"delete " + file + L" 0", L"get " + file + L" 0", L"set " + file + L" 32"}));
}

TEST_F(StayingEntryTest, IsNotQueuedWhenTheSecondRemovalWorks) {
    StayingEntry stays;
    stays.secondRemoval = ERROR_SUCCESS;
    Remove();
    EXPECT_EQ(stays.calls.size(), 4U);
}

TEST_F(StayingEntryTest, ASecondRemovalThatFailsEndsIt) {
    StayingEntry stays;
    stays.secondRemoval = ERROR_ACCESS_DENIED;
    ExpectFileSystemError([&] { Remove(); }, "remove", top + L"\\stays", ERROR_ACCESS_DENIED);
    EXPECT_EQ(stays.calls.size(), 4U);
}

TEST_F(StayingEntryTest, AFirstRemovalThatFailsEndsIt) {
    FAIL_CALL(deleting, DeleteFileW, 1, FALSE, ERROR_SHARING_VIOLATION);
    COUNT_CALLS(setting, SetFileAttributesW);
    ExpectFileSystemError([&] { Remove(); }, "remove", top + L"\\stays", ERROR_SHARING_VIOLATION);
    EXPECT_EQ(setting.Calls(), 0);
}

TEST_F(StayingEntryTest, IsReallyQueuedWithTheSystem) {
    const wchar_t* const manager = L"SYSTEM\\CurrentControlSet\\Control\\Session Manager";
    const wchar_t* const pending = L"PendingFileRenameOperations";
    RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, manager, pending);
    {
        FAIL_CALL(deleting, DeleteFileW, 0, FALSE, ERROR_FILE_NOT_FOUND);
        Remove();
    }
    std::wstring queued(1024, L'\0');
    auto size = static_cast<DWORD>(queued.size() * sizeof(wchar_t));
    EXPECT_EQ(RegGetValueW(HKEY_LOCAL_MACHINE, manager, pending, RRF_RT_REG_MULTI_SZ, nullptr,
                           queued.data(), &size),
              ERROR_SUCCESS);
    RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, manager, pending);
    queued.resize(queued.find(L'\0'));
    EXPECT_EQ(queued, L"\\??\\" + top + L"\\stays");
}

TEST_F(FallbackTest, NamesTheWalkThatCannotBegin) {
    // The third: the two looks at the status come first.
    FAIL_CALL(opening, CreateFileW, 3, INVALID_HANDLE_VALUE, ERROR_ACCESS_DENIED);
    ExpectFileSystemError([&] { halvard::RemoveDirectoryTree(Top(), FailWithoutACode); },
                          "recursive_directory_iterator::recursive_directory_iterator", Top(),
                          ERROR_ACCESS_DENIED);
}

TEST_F(FallbackTest, NamesTheWalkThatCannotGoOn) {
    FAIL_CALL(searching, FindNextFileW, 2, FALSE, ERROR_GEN_FAILURE);
    ExpectFileSystemError([&] { halvard::RemoveDirectoryTree(Top(), FailWithoutACode); },
                          "recursive_directory_iterator::operator++", Top(), ERROR_GEN_FAILURE);
}
