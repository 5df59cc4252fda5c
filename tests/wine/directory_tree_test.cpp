#include "cleanup/directory_tree.h"

#include "cleanup/held_folder.h"

#include "allocation_failure.h"
#include "child_programs.h"
#include "file_system_error.h"
#include "files.h"
#include "import_hook.h"
#include "lines.h"
#include "open_handles.h"
#include "removal_calls.h"
#include "restart_renames.h"
#include "stand_in_session.h"

#include <windows.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
#include <utility>
#include <vector>

using halvard::kRemovalFailed;
using halvard::RemoveAll;
using halvard::RemoveDirectoryTree;
using halvard_tests::CreateFolders;
using halvard_tests::ExpectFileSystemError;
using halvard_tests::IsThere;
using halvard_tests::RemovalCalls;
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
    const ScratchFolder& Scratch() const { return scratch_; }

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
    const RemovalCalls calls;
    COUNT_CALLS(asking, GetFileAttributesW);
    RemoveDirectoryTree(L"");
    RemoveDirectoryTree(Beside(L"missing"));
    RemoveDirectoryTree(Beside(L"missing\\below"));
    EXPECT_EQ(asking.Calls(), 3);
    EXPECT_EQ(calls.openedByPath, Lines());
    EXPECT_EQ(calls.removals, Lines());
}

TEST_F(RemoveDirectoryTreeTest, LeavesAFileAtThePathAlone) {
    const RemovalCalls calls;
    RemoveDirectoryTree(In(L"a.txt"));
    EXPECT_TRUE(IsThere(In(L"a.txt")));
    EXPECT_EQ(calls.removals, Lines());
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
    COUNT_CALLS(removing, RemoveDirectoryW);
    for (const DWORD tag : {IO_REPARSE_TAG_SYMLINK, IO_REPARSE_TAG_MOUNT_POINT}) {
        HOOK(asking, GetFileAttributesW, [&](LPCWSTR path) -> DWORD {
            return asking.Original(path) | (asking.Calls() == 2 ? FILE_ATTRIBUTE_REPARSE_POINT : 0);
        });
        HOOK(reading, GetFileInformationByHandleEx,
             [&](HANDLE file, FILE_INFO_BY_HANDLE_CLASS type, LPVOID data, DWORD size) -> BOOL {
                 if (type == FileAttributeTagInfo) {
                     *static_cast<FILE_ATTRIBUTE_TAG_INFO*>(data) = {FILE_ATTRIBUTE_REPARSE_POINT,
                                                                     tag};
                     return TRUE;
                 }
                 const BOOL done = reading.Original(file, type, data, size);
                 static_cast<FILE_BASIC_INFO*>(data)->FileAttributes |=
                     FILE_ATTRIBUTE_REPARSE_POINT;
                 return done;
             });
        RemoveDirectoryTree(Top());
        EXPECT_EQ(asking.Calls(), 2);
        EXPECT_EQ(reading.Calls(), 2);
    }
    {
        FAIL_CALL(asking, GetFileAttributesW, 2, INVALID_FILE_ATTRIBUTES, ERROR_PATH_NOT_FOUND);
        RemoveDirectoryTree(Top());
        EXPECT_EQ(asking.Calls(), 2);
    }
    EXPECT_EQ(removing.Calls(), 0);
}

TEST_F(RemoveDirectoryTreeTest, NamesTheQueryThatFailed) {
    const auto remove = [&] {
        RemoveDirectoryTree(Top());
    };
    {
        FAIL_CALL(asking, GetFileAttributesW, 1, INVALID_FILE_ATTRIBUTES, ERROR_ACCESS_DENIED);
        ExpectFileSystemError(remove, "exists", Top(), ERROR_ACCESS_DENIED);
    }
    {
        FAIL_CALL(asking, GetFileAttributesW, 2, INVALID_FILE_ATTRIBUTES, ERROR_ACCESS_DENIED);
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
    RemovalCalls calls;
    int deletions = 0;
    calls.beforeDeletion = [&](const std::wstring&) -> DWORD {
        return ++deletions == 2 ? ERROR_LOCK_VIOLATION : ERROR_SUCCESS;
    };
    ExpectRemoveAllError(ERROR_LOCK_VIOLATION);
    EXPECT_EQ(deletions, 2);
    EXPECT_EQ(IsThere(In(L"a.txt")) + IsThere(In(L"sub\\b.txt")) + IsThere(In(L"sub\\empty")), 2);
    EXPECT_TRUE(IsThere(Top()));
}

TEST_F(RemoveDirectoryTreeTest, AFileHeldOpenStaysUnlessItIsSharedForDeletion) {
    // Where the system knows POSIX semantics, a file that is shared for deletion leaves its folder
    // at once; elsewhere it goes when it is closed, and keeps its folder until then.
    const bool leavesAtOnce = halvard_tests::KnowsDeletionWithFlags(Beside(L"asked"));
    for (DWORD share = 0; share <= 7; ++share) {
        SCOPED_TRACE(share);
        CreateFolders(In(L"held"));
        WriteFileAt(In(L"held\\open.txt"));
        const HANDLE held = CreateFileW(In(L"held\\open.txt").c_str(), GENERIC_READ, share, nullptr,
                                        OPEN_EXISTING, 0, nullptr);
        ASSERT_NE(held, INVALID_HANDLE_VALUE);
        const bool deletable = (share & FILE_SHARE_DELETE) != 0;
        if (deletable && leavesAtOnce) {
            RemoveDirectoryTree(In(L"held"));
            EXPECT_FALSE(IsThere(In(L"held")));
        } else {
            ExpectFileSystemError([&] { RemoveDirectoryTree(In(L"held")); }, "remove_all",
                                  In(L"held"),
                                  deletable ? ERROR_DIR_NOT_EMPTY : ERROR_SHARING_VIOLATION);
        }
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

TEST_F(RemoveDirectoryTreeTest, AFolderThatWasInUseGoesWhenItsTurnComes) {
    const halvard_tests::CurrentDirectoryScope directory(In(L"sub"));
    RemovalCalls calls;
    calls.beforeOpening = [&](const std::wstring& path) {
        if (path == In(L"sub\\b.txt")) {
            SetCurrentDirectoryW(L"C:\\");
        }
        return halvard_tests::kStatusSuccess;
    };
    DWORD code = 1;
    EXPECT_EQ(RemoveAll(Top(), code), 5U);
    EXPECT_EQ(code, static_cast<DWORD>(ERROR_SUCCESS));
    EXPECT_FALSE(IsThere(Top()));
    SetCurrentDirectoryW(L"C:\\");
}

TEST_F(RemoveDirectoryTreeTest, AFolderThatCannotBeOpenedForItsDeletionIsEmptiedAllTheSame) {
    for (const NTSTATUS refusal :
         {halvard_tests::kStatusAccessDenied, halvard_tests::kStatusSharingViolation}) {
        CreateFolders(In(L"sub\\empty"));
        WriteFileAt(In(L"sub\\b.txt"));
        RemovalCalls calls;
        // Each opening for its deletion, or the first alone.
        bool staysRefused = true;
        calls.beforeOpening = [&](const std::wstring& path) {
            const bool forDeletion = (calls.openings.back().access & DELETE) != 0;
            const bool first = std::count(calls.removals.begin(), calls.removals.end(),
                                          L"delete " + In(L"sub\\b.txt")) == 0;
            return path == In(L"sub") && forDeletion && (staysRefused || first)
                       ? refusal
                       : halvard_tests::kStatusSuccess;
        };
        ExpectRemoveAllError(refusal == halvard_tests::kStatusAccessDenied
                                 ? ERROR_ACCESS_DENIED
                                 : ERROR_SHARING_VIOLATION);
        EXPECT_TRUE(IsThere(In(L"sub")));
        EXPECT_FALSE(IsThere(In(L"sub\\b.txt")));
        EXPECT_FALSE(IsThere(In(L"sub\\empty")));
        WriteFileAt(In(L"sub\\b.txt"));
        calls.removals.clear();
        staysRefused = false;
        RemoveDirectoryTree(Top());
        EXPECT_FALSE(IsThere(Top()));
    }
}

TEST_F(RemoveDirectoryTreeTest, AReadOnlyEntryBelowEndsItWithItsCode) {
    WriteFileAt(In(L"sub\\empty\\file"));
    SetFileAttributesW(In(L"sub\\empty\\file").c_str(), FILE_ATTRIBUTE_READONLY);
    ExpectRemoveAllError(ERROR_ACCESS_DENIED);
    EXPECT_TRUE(IsThere(In(L"sub\\empty\\file")));
}

TEST_F(RemoveDirectoryTreeTest, ListingsThatTakeManyCallsLoseNoEntry) {
    const std::wstring longName(200, L'n');
    for (int number = 0; number < 150; ++number) {
        WriteFileAt(In(L"sub\\" + std::to_wstring(number) + longName));
    }
    RemovalCalls calls;
    int reads = 0;
    calls.beforeListing = [&](const std::wstring& path) -> DWORD {
        reads += path == In(L"sub") ? 1 : 0;
        return ERROR_SUCCESS;
    };
    DWORD code = 1;
    EXPECT_EQ(RemoveAll(Top(), code), 155U);
    EXPECT_EQ(code, static_cast<DWORD>(ERROR_SUCCESS));
    EXPECT_GE(reads, 5);
}

TEST_F(RemoveDirectoryTreeTest, ListsWithoutIdentitiesWhereThoseAreRefused) {
    for (const DWORD refusal :
         {ERROR_INVALID_FUNCTION, ERROR_NOT_SUPPORTED, ERROR_INVALID_PARAMETER,
          ERROR_CALL_NOT_IMPLEMENTED, ERROR_INVALID_LEVEL}) {
        CreateFolders(In(L"sub\\empty"));
        WriteFileAt(In(L"sub\\b.txt"));
        RemovalCalls calls;
        calls.beforeListing = [&](const std::wstring&) {
            return refusal;
        };
        DWORD code = 1;
        EXPECT_GE(RemoveAll(Top(), code), 4U);
        EXPECT_EQ(code, static_cast<DWORD>(ERROR_SUCCESS)) << refusal;
        EXPECT_FALSE(IsThere(Top()));
    }
}

TEST_F(RemoveDirectoryTreeTest, AListingThatLeavesItsRoomIsAnError) {
    RemovalCalls calls;
    calls.afterQuestion = [&](const std::wstring& path, FILE_INFO_BY_HANDLE_CLASS type,
                              void* data) -> DWORD {
        if (type == FileIdBothDirectoryInfo && path == In(L"sub")) {
            halvard_tests::ForEachListed(data, [](const std::wstring& name, auto& info) {
                info.FileNameLength = name == L"b.txt" ? 9000 : info.FileNameLength;
            });
        }
        return ERROR_SUCCESS;
    };
    ExpectRemoveAllError(ERROR_INVALID_DATA);
    EXPECT_TRUE(IsThere(In(L"sub\\b.txt")));

    // So does the next entry.
    calls.afterQuestion = [&](const std::wstring& path, FILE_INFO_BY_HANDLE_CLASS type,
                              void* data) -> DWORD {
        if (type == FileIdBothDirectoryInfo && path == In(L"sub")) {
            static_cast<FILE_ID_BOTH_DIR_INFO*>(data)->NextEntryOffset = 0x100000;
        }
        return ERROR_SUCCESS;
    };
    ExpectRemoveAllError(ERROR_INVALID_DATA);
    EXPECT_TRUE(IsThere(In(L"sub\\b.txt")));
}

TEST_F(RemoveDirectoryTreeTest, AnEntryWithoutANameIsLeft) {
    RemovalCalls calls;
    calls.afterQuestion = [&](const std::wstring& path, FILE_INFO_BY_HANDLE_CLASS type,
                              void* data) -> DWORD {
        if (type == FileIdBothDirectoryInfo && path == In(L"sub")) {
            halvard_tests::ForEachListed(data, [](const std::wstring& name, auto& info) {
                info.FileNameLength = name == L"b.txt" ? 0 : info.FileNameLength;
            });
        }
        return ERROR_SUCCESS;
    };
    ExpectRemoveAllError(ERROR_INVALID_NAME);
    EXPECT_TRUE(IsThere(In(L"sub\\b.txt")));
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

TEST_F(RemoveDirectoryTreeTest, LooksUpNothingByAPathBelowTheTop) {
    std::vector<std::wstring> paths;
    const auto note = [&](LPCWSTR path) {
        EXPECT_EQ(path, kExtended + Top());
        paths.emplace_back(path);
    };
    HOOK(opening, CreateFileW,
         [&](LPCWSTR path, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES security,
             DWORD disposition, DWORD flags, HANDLE model) {
             // The folder above is listed, to see that the top lies in it.
             if (path != kExtended + Parent() + L"\\") {
                 note(path);
             }
             return opening.Original(path, access, share, security, disposition, flags, model);
         });
    HOOK(removing, RemoveDirectoryW, [&](LPCWSTR path) {
        note(path);
        return removing.Original(path);
    });
    HOOK(entries, NtOpenFile,
         [&](PHANDLE opened, ACCESS_MASK access, POBJECT_ATTRIBUTES object, PIO_STATUS_BLOCK result,
             ULONG sharing, ULONG options) -> NTSTATUS {
             const std::wstring name(object->ObjectName->Buffer,
                                     object->ObjectName->Length / sizeof(wchar_t));
             EXPECT_NE(object->RootDirectory, nullptr);
             EXPECT_EQ(name.find_first_of(L"\\/"), std::wstring::npos);
             return entries.Original(opened, access, object, result, sharing, options);
         });
    HOOK(asking, GetFileAttributesW, [&](LPCWSTR path) {
        note(path);
        return asking.Original(path);
    });
    COUNT_CALLS(deleting, DeleteFileW);
    RemoveDirectoryTree(Top());
    // Existence, kind, the attempt on the top itself, and its opening.
    EXPECT_EQ(paths.size(), 4U);
    EXPECT_EQ(entries.Calls(), 4);
    EXPECT_EQ(deleting.Calls(), 0);
}

namespace {

/// Lets each call of a kind fail in turn, until none is left, over a new tree each time.
template <class Arrange>
int CallsThatEndARemoval(const std::wstring& top, DWORD code, Arrange arrange) {
    int calls = 0;
    for (bool ended = true; ended; ++calls) {
        CreateFolders(top + L"\\sub\\empty");
        WriteFileAt(top + L"\\a.txt");
        WriteFileAt(top + L"\\sub\\b.txt");
        WriteFileAt(top + L"\\sub\\c.txt");
        RemovalCalls watched;
        arrange(watched, calls + 1);
        DWORD answered = 0;
        RemoveAll(top, answered);
        ended = answered != ERROR_SUCCESS;
        EXPECT_EQ(answered, ended ? code : DWORD{ERROR_SUCCESS}) << calls;
        EXPECT_EQ(IsThere(top), ended) << calls;
    }
    return calls - 1;
}

} // namespace

TEST_F(RemoveDirectoryTreeTest, EachOpeningQuestionAndDeletionThatFailsEndsItAndLeavesNothingOpen) {
    ExpectFileSystemError([&] { halvard::RemoveDirectoryTree(Top(), FailWithACode); }, "remove_all",
                          Top(), ERROR_ACCESS_DENIED);
    const int before = halvard_tests::OpenHandleCount();
    // For its deletion, then for its listing: a folder takes two refusals.
    const int openings = CallsThatEndARemoval(Top(), ERROR_ACCESS_DENIED, [](auto& calls, int nth) {
        calls.beforeOpening = [count = 0, nth](const std::wstring&) mutable {
            return ++count >= nth ? halvard_tests::kStatusAccessDenied
                                  : halvard_tests::kStatusSuccess;
        };
    });
    EXPECT_EQ(openings, 5);
    const int deletions =
        CallsThatEndARemoval(Top(), ERROR_WRITE_PROTECT, [](auto& calls, int nth) {
            calls.beforeDeletion = [count = 0, nth](const std::wstring&) mutable -> DWORD {
                return ++count == nth ? ERROR_WRITE_PROTECT : ERROR_SUCCESS;
            };
        });
    EXPECT_EQ(deletions, 6);
    const int questions = CallsThatEndARemoval(Top(), ERROR_SEEK, [](auto& calls, int nth) {
        calls.afterQuestion = [count = 0, nth](const std::wstring&, auto asked,
                                               void*) mutable -> DWORD {
            return asked == FileBasicInfo && ++count == nth ? ERROR_SEEK : ERROR_SUCCESS;
        };
    });
    // The top and two folders, and for each opening the folder that holds the entry.
    EXPECT_EQ(questions, 3 + 5);
    EXPECT_EQ(halvard_tests::OpenHandleCount(), before);
    RemoveDirectoryTree(Top());
    EXPECT_EQ(halvard_tests::OpenHandleCount(), before);
}

TEST_F(RemoveDirectoryTreeTest, ATopThatCannotBeOpenedEndsIt) {
    const int before = halvard_tests::OpenHandleCount();
    FAIL_CALL(opening, CreateFileW, 1, INVALID_HANDLE_VALUE, ERROR_NETWORK_ACCESS_DENIED);
    ExpectRemoveAllError(ERROR_NETWORK_ACCESS_DENIED);
    EXPECT_EQ(opening.Calls(), 1);
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
    const RemovalCalls calls;
    DWORD code = 1;
    RemoveAll(Top(), code);
    const std::vector<std::wstring>& lines = calls.removals;
    ASSERT_EQ(lines.size(), 6U);
    EXPECT_EQ(lines.front(), L"remove " + Top() + L" refused");
    EXPECT_EQ(lines.back(), L"delete " + Top());

    const auto position = [&](const std::wstring& line) {
        return std::find(lines.begin(), lines.end(), line) - lines.begin();
    };
    const std::wstring sub = L"delete " + In(L"sub");
    EXPECT_LT(position(L"delete " + In(L"a.txt")), 5);
    EXPECT_LT(position(sub + L"\\b.txt"), position(sub));
    EXPECT_LT(position(sub + L"\\empty"), position(sub));
    EXPECT_LT(position(sub), 5);
}

TEST_F(RemoveAllTest, DeletesWithPosixSemanticsWhereTheyAreKnown) {
    RemovalCalls calls;
    calls.simulatesFlags = true;
    DWORD code = 1;
    EXPECT_EQ(RemoveAll(Top(), code), 5U);
    EXPECT_EQ(calls.flags, std::vector<DWORD>(5, 3U));
    EXPECT_EQ(calls.dispositions.size(), 5U);
}

TEST_F(RemoveAllTest, AsksForPosixSemanticsOnceARemovalWhereTheyAreRefused) {
    for (const DWORD refusal :
         {ERROR_INVALID_FUNCTION, ERROR_NOT_SUPPORTED, ERROR_INVALID_PARAMETER,
          ERROR_CALL_NOT_IMPLEMENTED, ERROR_INVALID_LEVEL}) {
        CreateFolders(In(L"sub\\empty"));
        std::vector<FILE_INFO_BY_HANDLE_CLASS> asked;
        HOOK(setting, SetFileInformationByHandle,
             [&](HANDLE file, FILE_INFO_BY_HANDLE_CLASS type, LPVOID data, DWORD size) {
                 asked.push_back(type);
                 if (type == halvard_tests::kDispositionWithFlags) {
                     SetLastError(refusal);
                     return FALSE;
                 }
                 return setting.Original(file, type, data, size);
             });
        DWORD code = 1;
        RemoveAll(Top(), code);
        EXPECT_EQ(code, static_cast<DWORD>(ERROR_SUCCESS)) << refusal;
        ASSERT_GE(asked.size(), 4U);
        EXPECT_EQ(asked[0], halvard_tests::kDispositionWithFlags);
        EXPECT_EQ(std::count(asked.begin(), asked.end(), FileDispositionInfo),
                  static_cast<std::ptrdiff_t>(asked.size() - 1));
    }
}

TEST_F(RemoveAllTest, AnyOtherRefusalOfADeletionIsAnError) {
    HOOK(setting, SetFileInformationByHandle,
         [](HANDLE, FILE_INFO_BY_HANDLE_CLASS type, LPVOID, DWORD) -> BOOL {
             EXPECT_EQ(type, halvard_tests::kDispositionWithFlags);
             SetLastError(ERROR_ACCESS_DENIED);
             return FALSE;
         });
    DWORD code = 0;
    EXPECT_EQ(RemoveAll(Top(), code), 0U);
    EXPECT_EQ(code, static_cast<DWORD>(ERROR_ACCESS_DENIED));
    EXPECT_EQ(setting.Calls(), 1);
}

TEST_F(RemoveAllTest, AFolderThatAnswersAnotherCodeIsNotEmptied) {
    FAIL_CALL(removing, RemoveDirectoryW, 1, FALSE, ERROR_SHARING_VIOLATION);
    DWORD code = 0;
    EXPECT_EQ(RemoveAll(Top(), code), 0U);
    EXPECT_EQ(code, static_cast<DWORD>(ERROR_SHARING_VIOLATION));
    EXPECT_TRUE(IsThere(In(L"a.txt")));
}

TEST_F(RemoveAllTest, WhatHasGoneMeanwhileCountsAsNothing) {
    using halvard_tests::kStatusSuccess;
    for (const NTSTATUS gone :
         {halvard_tests::kStatusNoSuchName, halvard_tests::kStatusNoSuchPath,
          halvard_tests::kStatusInvalidName, halvard_tests::kStatusBadNetworkPath}) {
        RemovalCalls calls;
        calls.beforeOpening = [&](const std::wstring& path) {
            return path == In(L"sub\\b.txt") ? gone : kStatusSuccess;
        };
        CreateFolders(In(L"sub\\empty"));
        DWORD code = 0;
        // It is still there, so its folder is not empty when its turn comes.
        RemoveAll(Top(), code);
        EXPECT_EQ(code, static_cast<DWORD>(ERROR_DIR_NOT_EMPTY)) << gone;
        EXPECT_FALSE(IsThere(In(L"sub\\empty"))) << gone;
        EXPECT_TRUE(IsThere(In(L"sub\\b.txt"))) << gone;
    }
    FAIL_CALL(removing, RemoveDirectoryW, 1, FALSE, ERROR_FILE_NOT_FOUND);
    DWORD code = 1;
    EXPECT_EQ(RemoveAll(Top(), code), 0U);
    EXPECT_EQ(code, static_cast<DWORD>(ERROR_SUCCESS));
}

// A server may be lost: what is open has not gone for that.
TEST_F(RemoveAllTest, WhatIsOpenHasNotGoneWhateverItAnswers) {
    for (const DWORD gone : {2U, 3U, 53U, 123U}) {
        SCOPED_TRACE(gone);
        CreateFolders(In(L"sub\\empty"));
        const int before = halvard_tests::OpenHandleCount();
        for (const std::wstring& entry : {In(L"sub\\empty"), In(L"sub"), Top()}) {
            {
                RemovalCalls calls;
                calls.afterQuestion = [&](const std::wstring& path, FILE_INFO_BY_HANDLE_CLASS type,
                                          void*) {
                    const bool isAsked = path == entry && type == FileBasicInfo;
                    return isAsked && !calls.removals.empty() ? gone : DWORD{ERROR_SUCCESS};
                };
                ExpectRemoveAllError(static_cast<int>(gone));
            }
            RemovalCalls calls;
            calls.beforeDeletion = [&](const std::wstring& path) {
                return path == entry ? gone : DWORD{ERROR_SUCCESS};
            };
            ExpectRemoveAllError(static_cast<int>(gone));
            EXPECT_TRUE(IsThere(entry));
        }
        EXPECT_EQ(halvard_tests::OpenHandleCount(), before);
    }
}

TEST_F(RemoveAllTest, AFolderThatVanishesBeforeItIsEnteredHoldsNothing) {
    RemovalCalls calls;
    calls.beforeOpening = [&](const std::wstring& path) {
        if (path == In(L"sub")) {
            halvard_tests::RemoveTree(In(L"sub"));
        }
        return halvard_tests::kStatusSuccess;
    };
    DWORD code = 1;
    EXPECT_EQ(RemoveAll(Top(), code), 2U);
    EXPECT_EQ(code, static_cast<DWORD>(ERROR_SUCCESS));
    EXPECT_FALSE(IsThere(Top()));
}

TEST_F(RemoveAllTest, AFolderThatHasBecomeAFileStays) {
    RemovalCalls calls;
    calls.beforeOpening = [&](const std::wstring& path) {
        if (path == In(L"sub") && IsThere(In(L"sub\\empty"))) {
            halvard_tests::RemoveTree(In(L"sub"));
            WriteFileAt(In(L"sub"));
        }
        return halvard_tests::kStatusSuccess;
    };
    ExpectRemoveAllError(ERROR_DIRECTORY);
    EXPECT_TRUE(IsThere(In(L"sub")));
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

TEST_F(RemoveAllTest, AFileInThePlaceOfTheTopStays) {
    HOOK(opening, CreateFileW,
         [&](LPCWSTR path, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES security,
             DWORD disposition, DWORD flags, HANDLE model) {
             if (path == kExtended + Top() && IsThere(In(L"sub"))) {
                 halvard_tests::RemoveTree(Top());
                 WriteFileAt(Top());
             }
             return opening.Original(path, access, share, security, disposition, flags, model);
         });
    DWORD code = 0;
    EXPECT_EQ(RemoveAll(Top(), code), 0U);
    EXPECT_EQ(code, static_cast<DWORD>(ERROR_DIRECTORY));
    EXPECT_TRUE(IsThere(Top()));
}

TEST_F(RemoveAllTest, AFolderThatFillsAgainIsNotEmptiedTwice) {
    RemovalCalls calls;
    calls.beforeDeletion = [&](const std::wstring& path) -> DWORD {
        // Filled each time when its own turn comes.
        if (path == In(L"sub")) {
            WriteFileAt(In(L"sub\\again.txt"));
        }
        return ERROR_SUCCESS;
    };
    DWORD code = 0;
    RemoveAll(Top(), code);
    EXPECT_EQ(code, static_cast<DWORD>(ERROR_DIR_NOT_EMPTY));
    EXPECT_EQ(std::count(calls.listings.begin(), calls.listings.end(), In(L"sub")), 2);
    EXPECT_TRUE(IsThere(In(L"sub\\again.txt")));
}

TEST(HeldFolder, TheRootOfADriveLiesInNoFolder) {
    COUNT_CALLS(opening, CreateFileW);
    halvard::HeldFolder root;
    EXPECT_EQ(root.OpenTop(L"\\\\?\\T:\\", halvard::FolderUse::List), DWORD{ERROR_SUCCESS});
    EXPECT_EQ(opening.Calls(), 1);
}

TEST_F(RemoveAllTest, ADriveWithoutDotsHoldsNothing) {
    for (const DWORD none : {ERROR_FILE_NOT_FOUND, ERROR_NO_MORE_FILES}) {
        RemovalCalls calls;
        calls.beforeListing = [&](const std::wstring&) {
            return none;
        };
        calls.beforeDeletion = [&](const std::wstring&) -> DWORD {
            return ERROR_CRC;
        };
        DWORD code = 0;
        EXPECT_EQ(RemoveAll(L"T:\\", code), 0U);
        // Its own deletion is tried.
        EXPECT_EQ(code, static_cast<DWORD>(ERROR_CRC));
        EXPECT_EQ(calls.removals, (Lines{L"remove T:\\ refused", L"delete T:\\ refused"}));
    }
    EXPECT_TRUE(IsThere(In(L"a.txt")));
}

TEST_F(RemoveAllTest, HoldsEveryFolderOnTheWayToTheOneAtWork) {
    CreateFolders(In(L"sub\\deep"));
    WriteFileAt(In(L"sub\\deep\\c.txt"));
    int attempts = 0;
    HOOK(opening, NtOpenFile,
         [&](PHANDLE opened, ACCESS_MASK access, POBJECT_ATTRIBUTES object, PIO_STATUS_BLOCK result,
             ULONG sharing, ULONG options) -> NTSTATUS {
             const std::wstring name(object->ObjectName->Buffer,
                                     object->ObjectName->Length / sizeof(wchar_t));
             if (name == L"c.txt") {
                 for (const std::wstring& folder : {Top(), In(L"sub"), In(L"sub\\deep")}) {
                     EXPECT_FALSE(MoveFileW(folder.c_str(), Beside(L"moved").c_str()));
                     EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_SHARING_VIOLATION));
                     const HANDLE taken = CreateFileW(
                         folder.c_str(), DELETE, 7, nullptr, OPEN_EXISTING,
                         FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT, nullptr);
                     EXPECT_EQ(taken, INVALID_HANDLE_VALUE);
                     EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_SHARING_VIOLATION));
                     ++attempts;
                 }
             }
             return opening.Original(opened, access, object, result, sharing, options);
         });
    RemoveDirectoryTree(Top());
    EXPECT_EQ(attempts, 3);
    EXPECT_FALSE(IsThere(Top()));
}

namespace {

void RenameByAnotherProcess(const std::wstring& folder) {
    std::wstring command = L"cmd.exe /c ren \"" + folder + L"\" moved";
    STARTUPINFOW startup = {};
    startup.cb = sizeof(startup);
    PROCESS_INFORMATION child = {};
    EXPECT_TRUE(CreateProcessW(nullptr, command.data(), nullptr, nullptr, FALSE, CREATE_NO_WINDOW,
                               nullptr, L"C:\\", &startup, &child));
    WaitForSingleObject(child.hProcess, INFINITE);
    CloseHandle(child.hThread);
    CloseHandle(child.hProcess);
}

} // namespace

TEST_F(RemoveAllTest, NoOtherProcessRenamesAFolderAtWork) {
    {
        RemovalCalls calls;
        calls.beforeOpening = [&](const std::wstring& path) {
            if (path == In(L"sub\\b.txt")) {
                RenameByAnotherProcess(In(L"sub"));
                RenameByAnotherProcess(Top());
                EXPECT_FALSE(IsThere(In(L"moved")));
                EXPECT_FALSE(IsThere(Beside(L"moved")));
            }
            return halvard_tests::kStatusSuccess;
        };
        RemoveDirectoryTree(Top());
        EXPECT_TRUE(calls.WasOpened(In(L"sub\\b.txt")));
    }
    EXPECT_FALSE(IsThere(Top()));

    CreateFolders(Top());
    RenameByAnotherProcess(Top());
    EXPECT_TRUE(IsThere(Beside(L"moved")));
}

TEST_F(RemoveAllTest, OpensTheTopAsItselfWithoutDeleteSharing) {
    HOOK(opening, CreateFileW,
         [&](LPCWSTR path, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES security,
             DWORD disposition, DWORD flags, HANDLE model) {
             if (path == kExtended + Top()) {
                 EXPECT_EQ(access, DWORD{FILE_LIST_DIRECTORY | FILE_READ_ATTRIBUTES | DELETE});
                 EXPECT_EQ(share, DWORD{FILE_SHARE_READ | FILE_SHARE_WRITE});
                 EXPECT_EQ(flags, DWORD{FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT});
             } else {
                 EXPECT_EQ(path, kExtended + Parent() + L"\\");
                 EXPECT_EQ(access, DWORD{FILE_LIST_DIRECTORY});
                 EXPECT_EQ(share, DWORD{FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE});
                 EXPECT_EQ(flags, DWORD{FILE_FLAG_BACKUP_SEMANTICS});
             }
             EXPECT_EQ(disposition, DWORD{OPEN_EXISTING});
             return opening.Original(path, access, share, security, disposition, flags, model);
         });
    DWORD code = 1;
    RemoveAll(Top(), code);
    EXPECT_EQ(opening.Calls(), 2);
}

TEST_F(RemoveAllTest, OpensEntriesAsThemselvesByTheirNames) {
    const RemovalCalls calls;
    DWORD code = 1;
    RemoveAll(Top(), code);
    ASSERT_EQ(calls.openings.size(), 4U);
    constexpr ULONG asItself = FILE_OPEN_REPARSE_POINT | FILE_OPEN_FOR_BACKUP_INTENT;
    for (const halvard_tests::EntryOpening& opening : calls.openings) {
        const bool isFile = opening.name.find(L".txt") != std::wstring::npos;
        SCOPED_TRACE(std::string(opening.name.begin(), opening.name.end()));
        EXPECT_TRUE(opening.isRelative);
        // Names of entries that differ in case alone are told apart.
        EXPECT_EQ(opening.attributes, 0U);
        EXPECT_EQ(opening.access, isFile ? ACCESS_MASK{DELETE}
                                         : ACCESS_MASK{FILE_LIST_DIRECTORY | FILE_READ_ATTRIBUTES |
                                                       SYNCHRONIZE | DELETE});
        EXPECT_EQ(opening.sharing, isFile ? ULONG{7} : ULONG{FILE_SHARE_READ | FILE_SHARE_WRITE});
        EXPECT_EQ(opening.options,
                  asItself | (isFile ? FILE_NON_DIRECTORY_FILE
                                     : FILE_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT));
    }
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
    for (const std::wstring& top :
         {Beside(L"link"), Beside(L"link\\"), Beside(L"link/"), kExtended + Beside(L"link\\")}) {
        ExpectFileSystemError([&] { RemoveDirectoryTree(top); }, "remove_all", top,
                              ERROR_DIR_NOT_EMPTY);
    }
    EXPECT_TRUE(IsThere(In(L"a.txt")));
    EXPECT_TRUE(IsThere(In(L"sub\\b.txt")));
    EXPECT_TRUE(IsThere(In(L"sub\\empty")));
}

namespace {

/// Puts a link to "outside" in the place of an entry of the tree, which is moved away meanwhile.
class Swap {
public:
    /// `name` and `target` are the host's, the name seen from the scratch folder: a program cannot
    /// be started in a folder that is open for its deletion.
    Swap(const ScratchFolder& scratch, const std::wstring& name, const std::wstring& target)
        : place_(scratch.File(name)), moved_(scratch.File(L"moved")) {
        EXPECT_TRUE(MoveFileW(place_.c_str(), moved_.c_str()));
        link_.emplace(scratch.Path(), name, target);
    }
    void Back() {
        link_.reset();
        EXPECT_TRUE(MoveFileW(moved_.c_str(), place_.c_str()));
    }

private:
    std::wstring place_;
    std::wstring moved_;
    std::optional<halvard_tests::Link> link_;
};

class SwapTest : public TreeTest {
protected:
    SwapTest() {
        CreateFolders(Beside(L"outside"));
        WriteFileAt(Beside(L"outside\\kept.txt"));
    }

    void ExpectLeftAlone() const { EXPECT_TRUE(IsThere(Beside(L"outside\\kept.txt"))); }

    RemovalCalls calls;
    std::optional<Swap> swap;
};

} // namespace

TEST_F(SwapTest, AFolderSwappedForALinkBeforeItIsOpenedIsNotEntered) {
    calls.beforeOpening = [&](const std::wstring& path) {
        if (path == In(L"sub") && !swap) {
            swap.emplace(Scratch(), L"tree/sub", L"../outside");
        }
        return halvard_tests::kStatusSuccess;
    };
    ExpectRemoveAllError(ERROR_DIR_NOT_EMPTY);
    EXPECT_TRUE(swap.has_value());
    EXPECT_TRUE(IsThere(Beside(L"moved\\b.txt")));
    ExpectLeftAlone();
}

TEST_F(SwapTest, AFolderSwappedForALinkWhileItIsOpenedIsNotEntered) {
    calls.beforeOpening = [&](const std::wstring& path) {
        if (path == In(L"sub")) {
            swap.emplace(Scratch(), L"tree/sub", L"../outside");
        }
        return halvard_tests::kStatusSuccess;
    };
    calls.afterOpening = [&](const std::wstring& path) {
        if (path == In(L"sub")) {
            swap->Back();
        }
    };
    ExpectRemoveAllError(ERROR_DIR_NOT_EMPTY);
    EXPECT_TRUE(IsThere(In(L"sub\\b.txt")));
    ExpectLeftAlone();
}

TEST_F(SwapTest, TheTopSwappedForALinkWhileItIsOpenedIsNotEntered) {
    int looks = 0;
    calls.beforeOpeningPath = [&](const std::wstring& path) {
        if (path == Top() && ++looks == 1) {
            swap.emplace(Scratch(), L"tree", L"outside");
        }
    };
    calls.afterOpeningPath = [&](const std::wstring& path) {
        if (path == Top() && looks == 1) {
            swap->Back();
        }
    };
    ExpectRemoveAllError(ERROR_DIR_NOT_EMPTY);
    EXPECT_TRUE(IsThere(In(L"sub\\b.txt")));
    ExpectLeftAlone();
}

TEST_F(SwapTest, TheTopSwappedForALinkForGoodIsNotEntered) {
    int looks = 0;
    calls.beforeOpeningPath = [&](const std::wstring& path) {
        if (path == Top() && ++looks == 1) {
            swap.emplace(Scratch(), L"tree", L"outside");
        }
    };
    ExpectRemoveAllError(ERROR_DIR_NOT_EMPTY);
    EXPECT_TRUE(IsThere(Beside(L"moved\\sub\\b.txt")));
    ExpectLeftAlone();
}

namespace {

/// Changes how the folder above lists the top.
template <class Change>
void ChangeListedTop(RemovalCalls& calls, const std::wstring& above, Change change) {
    calls.afterQuestion = [above, change](const std::wstring& path, FILE_INFO_BY_HANDLE_CLASS type,
                                          void* data) -> DWORD {
        if (type == FileIdBothDirectoryInfo && path == above) {
            halvard_tests::ForEachListed(data, [&](const std::wstring& name, auto& info) {
                if (name == L"tree") {
                    change(info);
                }
            });
        }
        return ERROR_SUCCESS;
    };
}

} // namespace

TEST_F(LinkTest, ATopIsKnownByItsNameAndItsIdentity) {
    const auto otherName = [](auto& info) {
        info.FileName[0] = L'x';
    };
    const auto otherIdentity = [](auto& info) {
        info.FileId.QuadPart ^= 1;
    };
    {
        // Another of the same name, or neither.
        RemovalCalls calls;
        ChangeListedTop(calls, Parent() + L"\\", otherIdentity);
        ExpectRemoveAllError(ERROR_DIR_NOT_EMPTY);
        ChangeListedTop(calls, Parent() + L"\\", [&](auto& info) {
            otherName(info);
            otherIdentity(info);
        });
        ExpectRemoveAllError(ERROR_DIR_NOT_EMPTY);
        EXPECT_TRUE(IsThere(In(L"a.txt")));
    }
    {
        // Names in other case stand for others where a folder tells them apart.
        CreateFolders(Beside(L"eert"));
        RemovalCalls calls;
        calls.afterQuestion = [&](const std::wstring& path, FILE_INFO_BY_HANDLE_CLASS type,
                                  void* data) -> DWORD {
            if (type == FileIdBothDirectoryInfo && path == Parent() + L"\\") {
                halvard_tests::ForEachListed(data, [](const std::wstring& name, auto& info) {
                    if (name == L"eert") {
                        std::wstring(L"TREE").copy(info.FileName, name.size());
                    }
                });
            }
            return ERROR_SUCCESS;
        };
        RemoveDirectoryTree(In(L"sub"));
        RemoveDirectoryTree(Top());
        EXPECT_FALSE(IsThere(Top()));
    }
    CreateFolders(In(L"sub"));
    {
        // Its identity is enough: a short name that leaves its room counts as none.
        RemovalCalls calls;
        ChangeListedTop(calls, Parent() + L"\\", [&](auto& info) {
            otherName(info);
            info.ShortNameLength = sizeof(info.ShortName) + 2;
        });
        RemoveDirectoryTree(Top());
        EXPECT_FALSE(IsThere(Top()));
    }
    CreateFolders(In(L"sub"));
    {
        // A reparse point that is no link, such as that of a namespace of servers.
        RemovalCalls calls;
        ChangeListedTop(calls, Parent() + L"\\", [&](auto& info) {
            otherIdentity(info);
            info.FileAttributes |= FILE_ATTRIBUTE_REPARSE_POINT;
            info.EaSize = IO_REPARSE_TAG_DFS;
        });
        RemoveDirectoryTree(Top());
        EXPECT_FALSE(IsThere(Top()));
    }
    CreateFolders(In(L"sub"));
    {
        // Listed as one of the two dots alone, which are other folders.
        RemovalCalls calls;
        ChangeListedTop(calls, Parent() + L"\\", [](auto& info) {
            std::wstring(L"..").copy(info.FileName, 2);
            info.FileNameLength = 2 * sizeof(wchar_t);
        });
        ExpectRemoveAllError(ERROR_DIR_NOT_EMPTY);
        EXPECT_TRUE(IsThere(In(L"sub")));
    }
    RemovalCalls calls;
    ChangeListedTop(calls, Parent() + L"\\", otherName);
    RemoveDirectoryTree(Top());
    EXPECT_FALSE(IsThere(Top()));
}

TEST_F(LinkTest, ATopIsKnownInEverySpellingOfItsName) {
    RemoveDirectoryTree(L"t:\\SCRATCH\\TREE\\SUB");
    EXPECT_FALSE(IsThere(In(L"sub")));
    wchar_t shortPath[MAX_PATH] = {};
    CreateFolders(In(L"a long name.of a folder"));
    WriteFileAt(In(L"a long name.of a folder\\file"));
    ASSERT_NE(GetShortPathNameW(In(L"a long name.of a folder").c_str(), shortPath, MAX_PATH), 0U);
    ASSERT_EQ(std::wstring(shortPath).find(L"a long name"), std::wstring::npos);
    RemoveDirectoryTree(shortPath);
    EXPECT_FALSE(IsThere(In(L"a long name.of a folder")));
}

TEST_F(SwapTest, AFileSwappedForALinkToAFolderIsAnError) {
    calls.beforeOpening = [&](const std::wstring& path) {
        if (path == In(L"a.txt") && !swap) {
            swap.emplace(Scratch(), L"tree/a.txt", L"../outside");
        }
        return halvard_tests::kStatusSuccess;
    };
    ExpectRemoveAllError(ERROR_ACCESS_DENIED);
    ExpectLeftAlone();
}

TEST_F(SwapTest, AnEntryOfWhichTheNameIsAPathIsLeft) {
    // The host knows such names, and a server may list whatever it likes.
    WriteFileAt(Beside(L"outside\\kt"));
    const halvard_tests::Link link(Top(), L"ln", L"../outside");
    calls.afterQuestion = [&](const std::wstring& path, FILE_INFO_BY_HANDLE_CLASS type,
                              void* data) -> DWORD {
        if (type == FileIdBothDirectoryInfo && path == Top()) {
            halvard_tests::ForEachListed(data, [](const std::wstring& name, auto& info) {
                if (name == L"a.txt") {
                    std::wstring(L"ln\\kt").copy(info.FileName, name.size());
                }
            });
        }
        return ERROR_SUCCESS;
    };
    ExpectRemoveAllError(ERROR_INVALID_NAME);
    // The fallback looks up its queue by path.
    COUNT_CALLS(setting, SetFileAttributesW);
    COUNT_CALLS(queuing, MoveFileExW);
    ExpectFileSystemError([&] { halvard::RemoveDirectoryTree(Top(), FailWithoutACode); }, "remove",
                          In(L"ln\\kt"), ERROR_INVALID_NAME);
    EXPECT_EQ(setting.Calls() + queuing.Calls(), 0);
    EXPECT_TRUE(IsThere(In(L"a.txt")));
    EXPECT_TRUE(IsThere(Beside(L"outside\\kt")));
    ExpectLeftAlone();
}

namespace {

/// Shows the folder "sub" as a reparse point: in listings, by its handle.
class SubAsReparsePoint : public RemovalCalls {
public:
    std::wstring folder;
    bool listed = false;
    bool seenByHandle = false;
    DWORD listedTag = 0;
    DWORD tag = 0;
    DWORD tagError = ERROR_SUCCESS;
    // Another identity than the one listed.
    bool isAnother = false;

    SubAsReparsePoint() {
        afterQuestion = [this](const std::wstring& path, FILE_INFO_BY_HANDLE_CLASS type,
                               void* data) {
            return Show(path, type, data);
        };
    }

private:
    DWORD Show(const std::wstring& path, FILE_INFO_BY_HANDLE_CLASS type, void* data) {
        if (type == FileIdBothDirectoryInfo) {
            halvard_tests::ForEachListed(data, [this](const std::wstring& name, auto& info) {
                if (name == L"sub" && listed) {
                    info.FileAttributes |= FILE_ATTRIBUTE_REPARSE_POINT;
                    info.EaSize = listedTag;
                }
                if (name == L"sub" && isAnother) {
                    info.FileId.QuadPart ^= 1;
                }
            });
        } else if (path == folder && type == FileBasicInfo && seenByHandle) {
            static_cast<FILE_BASIC_INFO*>(data)->FileAttributes |= FILE_ATTRIBUTE_REPARSE_POINT;
        } else if (path == folder && type == FileAttributeTagInfo) {
            *static_cast<FILE_ATTRIBUTE_TAG_INFO*>(data) = {
                FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT, tag};
            return tagError;
        }
        return ERROR_SUCCESS;
    }
};

} // namespace

TEST_F(LinkTest, WhatListingHandleOrIdentityCallsALinkIsNotEntered) {
    const DWORD cloud = IO_REPARSE_TAG_CLOUD;
    struct Case {
        const char* name;
        bool listed;
        bool byHandle;
        bool isAnother;
        DWORD listedTag;
        DWORD tag;
        DWORD tagError;
    };
    const Case cases[] = {
        {"listed as a symbolic link", true, false, false, IO_REPARSE_TAG_SYMLINK, cloud, 0},
        {"listed as a mount point", true, false, false, IO_REPARSE_TAG_MOUNT_POINT, cloud, 0},
        {"listed with no tag", true, false, false, 0, cloud, 0},
        {"handle is a symbolic link", false, true, false, 0, IO_REPARSE_TAG_SYMLINK, 0},
        {"handle is a mount point", false, true, false, 0, IO_REPARSE_TAG_MOUNT_POINT, 0},
        {"handle has no tag", false, true, false, 0, 0, 0},
        {"handle has an unreadable tag", false, true, false, 0, cloud, ERROR_INVALID_FUNCTION},
        {"listed as a cloud folder, but a link", true, false, false, cloud, IO_REPARSE_TAG_SYMLINK,
         0},
        {"listed as a cloud folder with an unreadable tag", true, false, false, cloud, cloud,
         ERROR_INVALID_FUNCTION},
        {"another than the one listed", false, false, true, 0, 0, 0},
        {"another cloud folder than the one listed", true, true, true, cloud, cloud, 0},
    };
    for (const Case& shown : cases) {
        SCOPED_TRACE(shown.name);
        SubAsReparsePoint sub;
        sub.folder = In(L"sub");
        sub.listed = shown.listed;
        sub.seenByHandle = shown.byHandle;
        sub.isAnother = shown.isAnother;
        sub.listedTag = shown.listedTag;
        sub.tag = shown.tag;
        sub.tagError = shown.tagError;
        ExpectRemoveAllError(ERROR_DIR_NOT_EMPTY);
        EXPECT_TRUE(IsThere(In(L"sub\\b.txt")));
        EXPECT_TRUE(IsThere(In(L"sub\\empty")));
    }
}

TEST_F(LinkTest, AnotherFolderThanTheOneListedStaysEvenEmpty) {
    halvard_tests::RemoveTree(In(L"sub"));
    CreateFolders(In(L"sub"));
    SubAsReparsePoint sub;
    sub.folder = In(L"sub");
    sub.isAnother = true;
    ExpectRemoveAllError(ERROR_DIR_NOT_EMPTY);
    EXPECT_TRUE(IsThere(In(L"sub")));
    EXPECT_EQ(std::count(sub.removals.begin(), sub.removals.end(), L"delete " + In(L"sub")), 0);
}

// What could only be opened for listing is opened again under its name, when it has been emptied.
TEST_F(LinkTest, AFolderInThePlaceOfAnEmptiedOneIsNotTheOneThatWasListed) {
    for (const bool asLink : {false, true}) {
        SCOPED_TRACE(asLink);
        CreateFolders(In(L"sub"));
        WriteFileAt(In(L"sub\\b.txt"));
        SubAsReparsePoint sub;
        sub.folder = In(L"sub");
        sub.tag = IO_REPARSE_TAG_MOUNT_POINT;
        int forDeletion = 0;
        sub.beforeOpening = [&](const std::wstring& path) {
            if (path != In(L"sub") || (sub.openings.back().access & DELETE) == 0) {
                return halvard_tests::kStatusSuccess;
            }
            if (++forDeletion == 1) {
                return halvard_tests::kStatusSharingViolation;
            }
            if (asLink) {
                sub.seenByHandle = true;
            } else {
                EXPECT_TRUE(MoveFileW(In(L"sub").c_str(), Beside(L"moved").c_str()));
                CreateFolders(In(L"sub"));
            }
            return halvard_tests::kStatusSuccess;
        };
        ExpectRemoveAllError(ERROR_DIR_NOT_EMPTY);
        EXPECT_EQ(forDeletion, 2);
        EXPECT_TRUE(IsThere(In(L"sub")));
        EXPECT_FALSE(IsThere(In(L"sub\\b.txt")));
    }
}

TEST_F(LinkTest, AFolderOfAnotherIdentityIsAnother) {
    HOOK(identifying, NtQueryInformationFile,
         [&](HANDLE file, PIO_STATUS_BLOCK result, PVOID info, ULONG size,
             FILE_INFORMATION_CLASS type) -> NTSTATUS {
             EXPECT_EQ(type, 6);
             EXPECT_EQ(size, sizeof(LARGE_INTEGER));
             const NTSTATUS status = identifying.Original(file, result, info, size, type);
             // The first is the top.
             static_cast<LARGE_INTEGER*>(info)->QuadPart += identifying.Calls() - 1;
             return status;
         });
    ExpectRemoveAllError(ERROR_DIR_NOT_EMPTY);
    EXPECT_TRUE(IsThere(In(L"sub\\b.txt")));
}

TEST_F(LinkTest, ATopThatIsALinkByItsHandleOrItsListingIsNotEntered) {
    for (const bool byHandle : {true, false}) {
        RemovalCalls calls;
        calls.afterQuestion = [&](const std::wstring& path, FILE_INFO_BY_HANDLE_CLASS type,
                                  void* data) -> DWORD {
            // Existence and kind are asked before the attempt on the folder itself.
            if (calls.removals.empty()) {
                return ERROR_SUCCESS;
            }
            if (byHandle && path == Top() && type == FileBasicInfo) {
                static_cast<FILE_BASIC_INFO*>(data)->FileAttributes |= FILE_ATTRIBUTE_REPARSE_POINT;
            } else if (byHandle && path == Top() && type == FileAttributeTagInfo) {
                *static_cast<FILE_ATTRIBUTE_TAG_INFO*>(data) = {FILE_ATTRIBUTE_DIRECTORY |
                                                                    FILE_ATTRIBUTE_REPARSE_POINT,
                                                                IO_REPARSE_TAG_MOUNT_POINT};
            } else if (!byHandle && type == FileIdBothDirectoryInfo) {
                halvard_tests::ForEachListed(data, [](const std::wstring& name, auto& info) {
                    if (name == L"tree") {
                        info.FileAttributes |= FILE_ATTRIBUTE_REPARSE_POINT;
                        info.EaSize = IO_REPARSE_TAG_MOUNT_POINT;
                    }
                });
            }
            return ERROR_SUCCESS;
        };
        ExpectRemoveAllError(ERROR_DIR_NOT_EMPTY);
        EXPECT_EQ(std::count(calls.listings.begin(), calls.listings.end(), Top()), 0);
        EXPECT_TRUE(IsThere(In(L"a.txt")));
    }
}

TEST_F(LinkTest, ReparsePointsThatAreNoLinksAreFolders) {
    for (const DWORD tag : {DWORD{IO_REPARSE_TAG_CLOUD}, DWORD{IO_REPARSE_TAG_DEDUP}}) {
        SubAsReparsePoint sub;
        CreateFolders(In(L"sub\\empty"));
        WriteFileAt(In(L"sub\\b.txt"));
        sub.folder = In(L"sub");
        sub.listed = sub.seenByHandle = true;
        sub.listedTag = sub.tag = tag;
        RemoveDirectoryTree(Top());
        EXPECT_FALSE(IsThere(Top()));
        CreateFolders(Top());
    }
}

TEST_F(LinkTest, WhereThereAreNoIdentitiesFoldersAreWhatTheySeem) {
    for (const LONGLONG none : {LONGLONG{0}, LONGLONG{-1}}) {
        CreateFolders(In(L"sub\\empty"));
        WriteFileAt(In(L"sub\\b.txt"));
        RemovalCalls calls;
        calls.afterQuestion = [&](const std::wstring&, FILE_INFO_BY_HANDLE_CLASS type,
                                  void* data) -> DWORD {
            if (type == FileIdBothDirectoryInfo) {
                halvard_tests::ForEachListed(
                    data, [&](const std::wstring&, auto& info) { info.FileId.QuadPart = none; });
            }
            return ERROR_SUCCESS;
        };
        RemoveDirectoryTree(Top());
        EXPECT_FALSE(IsThere(Top()));
    }
    {
        // Nor by its name, where it is given in a spelling that is not listed.
        CreateFolders(In(L"sub\\empty"));
        RemovalCalls calls;
        calls.afterQuestion = [&](const std::wstring& path, FILE_INFO_BY_HANDLE_CLASS type,
                                  void* data) -> DWORD {
            if (type == FileIdBothDirectoryInfo) {
                halvard_tests::ForEachListed(data, [&](const std::wstring&, auto& info) {
                    info.FileId.QuadPart = 0;
                    info.FileName[0] = path == Parent() + L"\\" ? L'x' : info.FileName[0];
                });
            }
            return ERROR_SUCCESS;
        };
        RemoveDirectoryTree(Top());
        EXPECT_FALSE(IsThere(Top()));
    }
    CreateFolders(In(L"sub\\empty"));
    {
        FAIL_CALL(identifying, NtQueryInformationFile, 0, halvard_tests::kStatusInvalidName,
                  NO_ERROR);
        RemoveDirectoryTree(Top());
        EXPECT_FALSE(IsThere(Top()));
        EXPECT_GE(identifying.Calls(), 2);
    }
    CreateFolders(In(L"sub\\empty"));
    HOOK(identifying, NtQueryInformationFile,
         [&](HANDLE file, PIO_STATUS_BLOCK result, PVOID info, ULONG size,
             FILE_INFORMATION_CLASS type) -> NTSTATUS {
             const NTSTATUS status = identifying.Original(file, result, info, size, type);
             static_cast<LARGE_INTEGER*>(info)->QuadPart = -1;
             return status;
         });
    RemoveDirectoryTree(Top());
    EXPECT_FALSE(IsThere(Top()));
}

TEST_F(LinkTest, ATopIsEnteredWhereTheFolderAboveCannotBeListed) {
    {
        FAIL_CALL(opening, CreateFileW, 2, INVALID_HANDLE_VALUE, ERROR_ACCESS_DENIED);
        RemoveDirectoryTree(In(L"sub"));
        EXPECT_EQ(opening.Calls(), 2);
        EXPECT_FALSE(IsThere(In(L"sub")));
    }
    {
        // The listing breaks off, so far without the top.
        RemovalCalls calls;
        int reads = 0;
        calls.beforeListing = [&](const std::wstring& path) -> DWORD {
            return path == Parent() + L"\\" && ++reads == 2 ? ERROR_ACCESS_DENIED : ERROR_SUCCESS;
        };
        ChangeListedTop(calls, Parent() + L"\\", [](auto& info) {
            info.FileName[0] = L'x';
            info.FileId.QuadPart ^= 1;
        });
        RemoveDirectoryTree(Top());
        EXPECT_EQ(reads, 2);
        EXPECT_FALSE(IsThere(Top()));
    }
    CreateFolders(In(L"sub"));
    RemovalCalls calls;
    calls.afterQuestion = [&](const std::wstring& path, FILE_INFO_BY_HANDLE_CLASS type,
                              void*) -> DWORD {
        return type == FileIdBothDirectoryInfo && path == Parent() + L"\\" ? ERROR_ACCESS_DENIED
                                                                           : ERROR_SUCCESS;
    };
    RemoveDirectoryTree(Top());
    EXPECT_FALSE(IsThere(Top()));
}

TEST_F(LinkTest, AFolderThatCannotBeAskedIsNotEntered) {
    for (const std::wstring& asked : {Top(), In(L"sub")}) {
        RemovalCalls calls;
        calls.afterQuestion = [&](const std::wstring& path, FILE_INFO_BY_HANDLE_CLASS type,
                                  void*) -> DWORD {
            return path == asked && type == FileBasicInfo && !calls.removals.empty()
                       ? ERROR_GEN_FAILURE
                       : ERROR_SUCCESS;
        };
        ExpectRemoveAllError(ERROR_GEN_FAILURE);
        EXPECT_EQ(std::count(calls.listings.begin(), calls.listings.end(), asked), 0);
        EXPECT_TRUE(IsThere(In(L"sub\\b.txt")));
    }
}

TEST_F(LinkTest, ALinkThatCanBeRemovedGoesAlone) {
    // As Windows does it: a deletion takes a link away whatever lies behind it.
    for (const bool isListed : {true, false}) {
        SubAsReparsePoint sub;
        sub.simulatesFlags = true;
        sub.folder = In(L"sub");
        sub.listed = isListed;
        sub.seenByHandle = !isListed;
        sub.listedTag = sub.tag = IO_REPARSE_TAG_MOUNT_POINT;
        bool taken = false;
        sub.simulatesDeletion = [&](const std::wstring& path) {
            taken = taken || path == In(L"sub");
            return path == In(L"sub") || path == Top();
        };
        WriteFileAt(In(L"a.txt"));
        DWORD code = 0;
        EXPECT_EQ(RemoveAll(Top(), code), 3U);
        EXPECT_TRUE(taken);
        EXPECT_EQ(std::count(sub.listings.begin(), sub.listings.end(), In(L"sub")), 0);
        EXPECT_TRUE(IsThere(In(L"sub\\b.txt")));
    }
}

TEST_F(LinkTest, AListedLinkIsOpenedForItsDeletionAlone) {
    SubAsReparsePoint sub;
    sub.listed = true;
    sub.listedTag = IO_REPARSE_TAG_SYMLINK;
    sub.folder = In(L"sub");
    ExpectRemoveAllError(ERROR_DIR_NOT_EMPTY);
    ASSERT_TRUE(sub.WasOpened(In(L"sub")));
    for (const halvard_tests::EntryOpening& opening : sub.openings) {
        EXPECT_EQ(opening.access, ACCESS_MASK{DELETE});
        if (opening.path == In(L"sub")) {
            EXPECT_NE(opening.options & FILE_DIRECTORY_FILE, 0U);
            EXPECT_NE(opening.options & FILE_OPEN_REPARSE_POINT, 0U);
        }
    }
}

TEST_F(LinkTest, ALinkAsTheTopThatCanBeRemovedGoesAlone) {
    const halvard_tests::Link link(Parent(), L"link", L"tree");
    // As Windows does it: the call takes the link away whatever lies behind it.
    FAIL_CALL(removing, RemoveDirectoryW, 1, TRUE, NO_ERROR);
    COUNT_CALLS(opening, CreateFileW);
    COUNT_CALLS(entries, NtOpenFile);
    RemoveDirectoryTree(Beside(L"link"));
    EXPECT_EQ(removing.Calls(), 1);
    // Existence and kind alone.
    EXPECT_EQ(opening.Calls(), 2);
    EXPECT_EQ(entries.Calls(), 0);
    EXPECT_TRUE(IsThere(In(L"sub\\b.txt")));
}

TEST_F(LinkTest, AFolderThatBecomesALinkWhileItIsAtWorkIsLeft) {
    // Emptied by others it can be made one in place, though it is held: before an entry is opened,
    // and behind that.
    for (const bool behind : {false, true}) {
        SubAsReparsePoint sub;
        sub.folder = In(L"sub");
        sub.tag = IO_REPARSE_TAG_MOUNT_POINT;
        const auto become = [&](const std::wstring& path) {
            sub.seenByHandle = sub.seenByHandle || path == In(L"sub\\b.txt");
        };
        if (behind) {
            sub.afterOpening = become;
        } else {
            sub.beforeOpening = [&](const std::wstring& path) {
                become(path);
                return halvard_tests::kStatusSuccess;
            };
        }
        ExpectRemoveAllError(ERROR_DIR_NOT_EMPTY);
        EXPECT_TRUE(sub.seenByHandle);
        EXPECT_TRUE(IsThere(In(L"sub\\b.txt")));
        EXPECT_EQ(
            std::count(sub.removals.begin(), sub.removals.end(), L"delete " + In(L"sub\\b.txt")),
            0);
    }
}

TEST_F(LinkTest, WhatIsNotFoundInAFolderThatHasBecomeALinkIsNoAnswer) {
    halvard_tests::RemoveTree(In(L"sub\\empty"));
    SubAsReparsePoint sub;
    sub.folder = In(L"sub");
    sub.tag = IO_REPARSE_TAG_MOUNT_POINT;
    sub.beforeOpening = [&](const std::wstring& path) {
        if (path == In(L"sub\\b.txt")) {
            // Emptied by others, and made a link.
            EXPECT_TRUE(DeleteFileW(path.c_str()));
            sub.seenByHandle = true;
        }
        return halvard_tests::kStatusSuccess;
    };
    ExpectRemoveAllError(ERROR_DIR_NOT_EMPTY);
    EXPECT_TRUE(sub.seenByHandle);
    EXPECT_TRUE(IsThere(In(L"sub")));
}

TEST_F(LinkTest, AnEntryThatIsOpenIsTheOneDeletedWhateverBecomesOfItsFolder) {
    SubAsReparsePoint sub;
    sub.folder = In(L"sub");
    sub.tag = IO_REPARSE_TAG_MOUNT_POINT;
    sub.beforeDeletion = [&](const std::wstring& path) -> DWORD {
        sub.seenByHandle = sub.seenByHandle || path == In(L"sub\\b.txt");
        return ERROR_SUCCESS;
    };
    // Listed behind it.
    WriteFileAt(In(L"sub\\c.txt"));
    ExpectRemoveAllError(ERROR_DIR_NOT_EMPTY);
    EXPECT_EQ(sub.removals.back(), L"delete " + In(L"sub\\b.txt"));
    EXPECT_FALSE(IsThere(In(L"sub\\b.txt")));
    EXPECT_TRUE(IsThere(In(L"sub\\c.txt")));
}

TEST_F(LinkTest, AFolderAtWorkThatCannotBeAskedAnyMoreIsLeft) {
    RemovalCalls calls;
    calls.afterQuestion = [&](const std::wstring& path, FILE_INFO_BY_HANDLE_CLASS type,
                              void*) -> DWORD {
        return path == In(L"sub") && type == FileBasicInfo && calls.WasOpened(In(L"sub\\b.txt"))
                   ? ERROR_GEN_FAILURE
                   : ERROR_SUCCESS;
    };
    ExpectRemoveAllError(ERROR_GEN_FAILURE);
    EXPECT_TRUE(IsThere(In(L"sub\\b.txt")));
}

TEST_F(RemoveAllTest, AHeldFolderThatCannotBeListedIsAnErrorWhateverTheCode) {
    for (const DWORD code : {DWORD{ERROR_PATH_NOT_FOUND}, DWORD{ERROR_BAD_NETPATH}}) {
        for (const std::wstring& folder : {Top(), In(L"sub")}) {
            for (int call = 1; call <= 2; ++call) {
                CreateFolders(In(L"sub"));
                RemovalCalls calls;
                int listings = 0;
                calls.beforeListing = [&](const std::wstring& path) -> DWORD {
                    return path == folder && ++listings == call ? code : DWORD{ERROR_SUCCESS};
                };
                ExpectRemoveAllError(static_cast<int>(code));
                EXPECT_EQ(listings, call);
            }
        }
    }
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
    {
        const RemovalCalls calls;
        halvard::RemoveDirectoryTree(Top(), RemoveNothing);
        ExpectFileSystemError([&] { halvard::RemoveDirectoryTree(Top(), FailWithACode); },
                              "remove_all", Top(), ERROR_ACCESS_DENIED);
        EXPECT_EQ(calls.listings, Lines());
    }
    RemoveDirectoryTree(In(L"sub"));
    const RemovalCalls calls;
    halvard::RemoveDirectoryTree(Top(), FailWithoutACode);
    EXPECT_EQ(calls.listings, (Lines{Parent() + L"\\", Top()}));
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

/// One entry, "stays", that has gone whenever it is to be removed, and what is done about it. What
/// lies in it is treated alike.
class StayingEntry {
public:
    explicit StayingEntry(const std::wstring& top) : top_(kExtended + top) {
        removing_.beforeOpening = [this](const std::wstring& path) {
            const bool forDeletion = (removing_.openings.back().access & DELETE) != 0;
            const bool stays = path.find(L"\\stays") != std::wstring::npos;
            return forDeletion && stays ? Remove(path) : halvard_tests::kStatusSuccess;
        };
    }

    DWORD attributes = FILE_ATTRIBUTE_ARCHIVE | FILE_ATTRIBUTE_READONLY;
    BOOL canBeSet = TRUE;
    NTSTATUS secondRemoval = halvard_tests::kStatusNoSuchName;
    std::vector<std::wstring> calls;

private:
    void Note(const wchar_t* call, LPCWSTR path, DWORD number) {
        calls.push_back(call + std::wstring(path) + L" " + std::to_wstring(number));
    }

    NTSTATUS Remove(const std::wstring& path) {
        Note(L"delete ", (kExtended + path).c_str(), 0);
        return removals_++ == 0 ? halvard_tests::kStatusNoSuchName : secondRemoval;
    }

    const std::wstring top_;
    int removals_ = 0;
    RemovalCalls removing_;

    HOOK(getting_, GetFileAttributesW, [this](LPCWSTR path) {
        // Existence and kind of the top come first.
        if (path == top_) {
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
    StayingEntry stays(top);
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
    StayingEntry stays(top);
    stays.attributes = FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_READONLY;
    Remove();
    const auto treated = [](const std::wstring& entry) {
        return Lines{L"delete " + entry + L" 0", L"get " + entry + L" 0", L"set " + entry + L" 16",
                     L"delete " + entry + L" 0", L"move " + entry + L" 4"};
    };
    EXPECT_EQ(stays.calls, treated(file) + treated(file + L"\\in"));
}

TEST_F(StayingEntryTest, AttributesThatCannotBeReadAreWrittenBackAllTheSame) {
    StayingEntry stays(top);
    stays.attributes = INVALID_FILE_ATTRIBUTES;
    Remove();
    ASSERT_EQ(stays.calls.size(), 5U);
    EXPECT_EQ(stays.calls[2], L"set " + file + L" " + std::to_wstring(0xFFFFFFFEU));
}

TEST_F(StayingEntryTest, IsPassedOverWhenItsAttributesCannotBeSet) {
    // Listed behind it.
    WriteFileAt(top + L"\\t");
    {
        StayingEntry stays(top);
        stays.canBeSet = FALSE;
        Remove();
        EXPECT_EQ(stays.calls, (Lines{L"delete " + file + L" 0", L"get " + file + L" 0",
                                      L"set " + file + L" 32"}));
    }
    EXPECT_FALSE(IsThere(top + L"\\t"));
}

TEST_F(StayingEntryTest, IsNotQueuedWhenTheSecondRemovalWorks) {
    StayingEntry stays(top);
    stays.secondRemoval = halvard_tests::kStatusSuccess;
    Remove();
    EXPECT_EQ(stays.calls.size(), 4U);
}

TEST_F(StayingEntryTest, ASecondRemovalThatFailsEndsIt) {
    StayingEntry stays(top);
    stays.secondRemoval = halvard_tests::kStatusAccessDenied;
    ExpectFileSystemError([&] { Remove(); }, "remove", top + L"\\stays", ERROR_ACCESS_DENIED);
    EXPECT_EQ(stays.calls.size(), 4U);
}

TEST_F(StayingEntryTest, AFirstRemovalThatFailsEndsIt) {
    FAIL_CALL(opening, NtOpenFile, 1, halvard_tests::kStatusSharingViolation, NO_ERROR);
    COUNT_CALLS(setting, SetFileAttributesW);
    ExpectFileSystemError([&] { Remove(); }, "remove", top + L"\\stays", ERROR_SHARING_VIOLATION);
    EXPECT_EQ(setting.Calls(), 0);
}

TEST_F(StayingEntryTest, IsReallyQueuedWithTheSystem) {
    const halvard_tests::PendingRenames pending;
    {
        FAIL_CALL(opening, NtOpenFile, 0, halvard_tests::kStatusNoSuchName, NO_ERROR);
        Remove();
    }
    ASSERT_TRUE(pending.IsThere());
    EXPECT_EQ(pending.Type(), DWORD{REG_MULTI_SZ});
    const std::wstring queued = pending.Read();
    EXPECT_EQ(queued.substr(0, queued.find(L'\0')), L"\\??\\" + top + L"\\stays");
}

TEST_F(FallbackTest, NamesTheWalkThatCannotBegin) {
    FAIL_CALL(opening, CreateFileW, 1, INVALID_HANDLE_VALUE, ERROR_ACCESS_DENIED);
    ExpectFileSystemError([&] { halvard::RemoveDirectoryTree(Top(), FailWithoutACode); },
                          "recursive_directory_iterator::recursive_directory_iterator", Top(),
                          ERROR_ACCESS_DENIED);
}

TEST_F(FallbackTest, NamesTheWalkThatCannotGoOn) {
    RemovalCalls calls;
    int listings = 0;
    calls.beforeListing = [&](const std::wstring& path) -> DWORD {
        return path == Top() && ++listings == 2 ? ERROR_GEN_FAILURE : ERROR_SUCCESS;
    };
    RemoveDirectoryTree(In(L"sub"));
    ExpectFileSystemError([&] { halvard::RemoveDirectoryTree(Top(), FailWithoutACode); },
                          "recursive_directory_iterator::operator++", Top(), ERROR_GEN_FAILURE);
}
