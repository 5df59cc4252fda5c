#include "cleanup/directory_tree.h"

#include "child_programs.h"
#include "import_hook.h"
#include "lines.h"
#include "open_handles.h"
#include "removal_calls.h"
#include "restart_renames.h"
#include "scratch_tree.h"

#include <windows.h>
#include <winternl.h>

#include <algorithm>
#include <vector>

using halvard::kRemovalFailed;
using halvard::RemoveDirectoryTree;
using halvard_tests::Begins;
using halvard_tests::CreateFolders;
using halvard_tests::Deletion;
using halvard_tests::ExpectFileSystemError;
using halvard_tests::IsThere;
using halvard_tests::kDispositionWithFlags;
using halvard_tests::kExtended;
using halvard_tests::Listing;
using halvard_tests::OpenHandleCount;
using halvard_tests::Opening;
using halvard_tests::Question;
using halvard_tests::QuestionForTag;
using halvard_tests::RemovalCalls;
using halvard_tests::ScratchTree;
using halvard_tests::WriteFileAt;

namespace {

using RemoveDirectoryTreeTest = ScratchTree;
using RemoveAllTest = ScratchTree;
using FallbackTest = ScratchTree;

// How the lines of calls begin that change something by a path.
const Lines kChangesByPath = {L"remove ", L"delete file ", L"unlink ", L"set attributes ",
                              L"move "};

const std::vector<DWORD> kMeanUnknownClass = {ERROR_INVALID_FUNCTION, ERROR_NOT_SUPPORTED,
                                              ERROR_INVALID_PARAMETER, ERROR_CALL_NOT_IMPLEMENTED,
                                              ERROR_INVALID_LEVEL};

// Whether the system knows deletions with flags, asked with a new file of the throw-away drive.
bool KnowsDeletionWithFlags(const std::wstring& path) {
    const HANDLE file =
        CreateFileW(path.c_str(), DELETE, 7, nullptr, CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr);
    DWORD flags = 3;
    const bool knows =
        SetFileInformationByHandle(file, kDispositionWithFlags, &flags, sizeof(flags)) != FALSE;
    CloseHandle(file);
    DeleteFileW(path.c_str());
    return knows;
}

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
    ExpectRemoved();
    EXPECT_TRUE(IsThere(Beside(L"neighbour.txt")));
    EXPECT_TRUE(IsThere(Beside(L"tree2")));
}

TEST_F(RemoveDirectoryTreeTest, RemovesAnEmptyFolder) {
    RemoveDirectoryTree(In(L"sub\\empty"));
    EXPECT_FALSE(Has(L"sub\\empty"));
    EXPECT_TRUE(Has(L"sub"));
}

TEST_F(RemoveDirectoryTreeTest, LeavesWhatDoesNotExistAlone) {
    const RemovalCalls calls;
    RemoveDirectoryTree(L"");
    RemoveDirectoryTree(Beside(L"missing"));
    RemoveDirectoryTree(Beside(L"missing\\below"));
    EXPECT_EQ(calls.Of({L"attributes of "}).size(), 3U);
    EXPECT_EQ(calls.Of(kChangesByPath + Lines{L"open ", L"change entry "}), Lines());
}

TEST_F(RemoveDirectoryTreeTest, LeavesAFileAtThePathAlone) {
    const RemovalCalls calls;
    RemoveDirectoryTree(In(L"a.txt"));
    EXPECT_EQ(calls.Of(kChangesByPath + Lines{L"change entry "}), Lines());
    EXPECT_TRUE(Has(L"a.txt"));
}

TEST_F(RemoveDirectoryTreeTest, TakesSlashesOfBothKindsAndAtTheEnd) {
    RemoveDirectoryTree(L"T:/Scratch/tree/sub/");
    EXPECT_FALSE(Has(L"sub"));
    RemoveDirectoryTree(Top() + L"\\");
    EXPECT_FALSE(IsThere(Top()));
}

TEST_F(RemoveDirectoryTreeTest, SeesARelativePathFromTheCurrentDirectory) {
    const halvard_tests::CurrentDirectoryScope directory(Top());
    RemoveDirectoryTree(L"sub");
    EXPECT_FALSE(Has(L"sub"));
    EXPECT_TRUE(Has(L"a.txt"));
}

TEST_F(RemoveDirectoryTreeTest, AsksForTheStatusTwiceAndBelievesTheSecondAnswer) {
    const Lines looks(2, L"attributes of " + kExtended + Top());
    for (const DWORD tag : {IO_REPARSE_TAG_SYMLINK, IO_REPARSE_TAG_MOUNT_POINT}) {
        RemovalCalls calls;
        calls.points = {Top()};
        calls.tags = {{Top(), tag}};
        HOOK(asking, GetFileAttributesW, [&](LPCWSTR path) -> DWORD {
            return asking.Original(path) | (asking.Calls() == 2 ? FILE_ATTRIBUTE_REPARSE_POINT : 0);
        });
        RemoveDirectoryTree(Top());
        EXPECT_EQ(calls.Of({L"attributes of ", L"about ", L"remove "}),
                  (looks + Lines{Question(Top()), QuestionForTag(Top())}));
    }
    RemovalCalls calls;
    calls.Fail(L"attributes of ", ERROR_PATH_NOT_FOUND, 2);
    RemoveDirectoryTree(Top());
    EXPECT_EQ(calls.Of({L"attributes of ", L"remove "}), looks);
}

TEST_F(RemoveDirectoryTreeTest, NamesTheQueryThatFailed) {
    std::size_t nth = 0;
    for (const char* operation : {"exists", "status"}) {
        RemovalCalls calls;
        calls.Fail(L"attributes of ", ERROR_ACCESS_DENIED, ++nth);
        ExpectFileSystemError([&] { RemoveDirectoryTree(Top()); }, operation, Top(),
                              ERROR_ACCESS_DENIED);
    }
    EXPECT_TRUE(Has(L"sub\\b.txt"));
}

TEST_F(RemoveDirectoryTreeTest, AReadOnlyFileEndsItWithItsCode) {
    WriteFileAt(In(L"sub\\empty\\file"));
    for (const wchar_t* file : {L"a.txt", L"sub\\empty\\file"}) {
        SetFileAttributesW(In(file).c_str(), FILE_ATTRIBUTE_READONLY);
        const RemovalCalls calls;
        ExpectRemoveAllError(ERROR_ACCESS_DENIED);
        EXPECT_TRUE(Has(file));
        EXPECT_EQ(calls.Of({L"set attributes ", L"move "}), Lines());
        SetFileAttributesW(In(file).c_str(), FILE_ATTRIBUTE_NORMAL);
    }
}

TEST_F(RemoveDirectoryTreeTest, WhatWasRemovedBeforeAnErrorStaysRemoved) {
    RemovalCalls calls;
    calls.Before(L"change entry ", [&] {
        if (calls.Deletions().size() == 2) {
            calls.Fail(L"change entry ", ERROR_LOCK_VIOLATION);
        }
    });
    ExpectRemoveAllError(ERROR_LOCK_VIOLATION);
    EXPECT_EQ(calls.Deletions().size(), 2U);
    EXPECT_EQ(Has(L"a.txt") + Has(L"sub\\b.txt") + Has(L"sub\\empty"), 2);
    EXPECT_TRUE(IsThere(Top()));
}

TEST_F(RemoveDirectoryTreeTest, AFileHeldOpenStaysUnlessItIsSharedForDeletion) {
    // Where the system knows POSIX semantics, a file that is shared for deletion leaves its folder
    // at once; elsewhere it goes when it is closed, and keeps its folder until then.
    const bool leavesAtOnce = KnowsDeletionWithFlags(Beside(L"asked"));
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
            EXPECT_FALSE(Has(L"held"));
        } else {
            ExpectFileSystemError([&] { RemoveDirectoryTree(In(L"held")); }, "remove_all",
                                  In(L"held"),
                                  deletable ? ERROR_DIR_NOT_EMPTY : ERROR_SHARING_VIOLATION);
        }
        CloseHandle(held);
        EXPECT_EQ(Has(L"held\\open.txt"), !deletable);
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
    EXPECT_TRUE(Has(L"sub"));
    EXPECT_FALSE(Has(L"sub\\b.txt"));
    ExpectRemoved();
}

TEST_F(RemoveDirectoryTreeTest, AFolderThatWasInUseGoesWhenItsTurnComes) {
    const halvard_tests::CurrentDirectoryScope directory(In(L"sub"));
    RemovalCalls calls;
    calls.Before(Opening(In(L"sub\\b.txt")), [] { SetCurrentDirectoryW(L"C:\\"); });
    EXPECT_EQ(Remove(), Count(5, ERROR_SUCCESS));
    EXPECT_FALSE(IsThere(Top()));
    SetCurrentDirectoryW(L"C:\\");
}

TEST_F(RemoveDirectoryTreeTest, AFolderThatCannotBeOpenedForItsDeletionIsEmptiedAllTheSame) {
    for (const int refusal : {ERROR_ACCESS_DENIED, ERROR_SHARING_VIOLATION}) {
        // Each opening for its deletion, or the first alone.
        for (const bool staysRefused : {true, false}) {
            Fill();
            RemovalCalls calls;
            calls.before = [&](const std::wstring& line) {
                const bool isFirst = Begins(line, Opening(In(L"sub")) + L"0x110081 ");
                const bool isLast = Begins(line, Opening(In(L"sub")) + L"0x10080 ");
                if (isFirst || (isLast && staysRefused)) {
                    calls.Fail(line, static_cast<DWORD>(refusal));
                }
            };
            if (!staysRefused) {
                ExpectRemoved();
                continue;
            }
            ExpectRemoveAllError(refusal);
            EXPECT_TRUE(Has(L"sub"));
            EXPECT_FALSE(Has(L"sub\\b.txt"));
            EXPECT_FALSE(Has(L"sub\\empty"));
        }
    }
}

TEST_F(RemoveDirectoryTreeTest, ALibraryInUseStays) {
    ASSERT_TRUE(CopyFileW(L"C:\\windows\\system32\\version.dll", In(L"used.dll").c_str(), FALSE));
    const HMODULE loaded =
        LoadLibraryExW(In(L"used.dll").c_str(), nullptr, LOAD_LIBRARY_AS_IMAGE_RESOURCE);
    ASSERT_NE(loaded, nullptr);
    ExpectRemoveAllError(ERROR_ACCESS_DENIED);
    FreeLibrary(loaded);
    EXPECT_TRUE(Has(L"used.dll"));
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
    EXPECT_TRUE(Has(L"both"));
    ExpectRemoved();
}

TEST_F(RemoveDirectoryTreeTest, RemovesNamesThatAreReservedForDevices) {
    CreateDirectoryW((kExtended + In(L"con")).c_str(), nullptr);
    WriteFileAt(kExtended + In(L"con\\NUL"));
    ASSERT_TRUE(IsThere(kExtended + In(L"con\\NUL")));
    ExpectRemoved();
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
    ExpectRemoved();
}

TEST_F(RemoveDirectoryTreeTest, LooksUpNothingByAPathBelowTheTop) {
    const RemovalCalls calls;
    HOOK(entries, NtOpenFile,
         [&](PHANDLE opened, ACCESS_MASK access, POBJECT_ATTRIBUTES object, PIO_STATUS_BLOCK result,
             ULONG sharing, ULONG options) -> NTSTATUS {
             const std::wstring name(object->ObjectName->Buffer,
                                     object->ObjectName->Length / sizeof(wchar_t));
             EXPECT_NE(object->RootDirectory, nullptr);
             EXPECT_EQ(name.find_first_of(L"\\/"), std::wstring::npos);
             return entries.Original(opened, access, object, result, sharing, options);
         });
    RemoveDirectoryTree(Top());
    // Existence, kind, the attempt on the top itself, and its opening; the folder above is listed,
    // to see that the top lies in it.
    const std::wstring top = kExtended + Top();
    EXPECT_EQ(
        calls.Of(kChangesByPath + Lines{L"attributes of ", L"open file "}),
        (Lines{L"attributes of " + top, L"attributes of " + top, L"remove " + top,
               L"open file 0x10081 " + top, L"open file 0x1 " + kExtended + Parent() + L"\\"}));
    EXPECT_EQ(entries.Calls(), 4);
}

namespace {

bool IsQuestion(const std::wstring& line) {
    return Begins(line, L"about ") && line.substr(line.size() - 2) == L" 0";
}

class FailingRemovalTest : public ScratchTree {
protected:
    /// Lets each call of a kind fail in turn, until none is left, over a new tree each time. How
    /// many ended the removal.
    template <class IsMeant>
    std::size_t CallsThatEndARemoval(int code, IsMeant isMeant) const {
        std::size_t nth = 0;
        for (bool ended = true; ended;) {
            Fill();
            WriteFileAt(In(L"sub\\c.txt"));
            RemovalCalls calls;
            ++nth;
            calls.before = [&](const std::wstring& line) {
                if (isMeant(calls, line, nth)) {
                    calls.Fail(line, static_cast<DWORD>(code));
                }
            };
            const int answered = Remove().second;
            ended = answered != ERROR_SUCCESS;
            EXPECT_EQ(answered, ended ? code : ERROR_SUCCESS) << nth;
            EXPECT_EQ(IsThere(Top()), ended) << nth;
        }
        return nth - 1;
    }
};

} // namespace

TEST_F(FailingRemovalTest, EachOpeningQuestionAndDeletionThatFailsEndsItAndLeavesNothingOpen) {
    ExpectFileSystemError([&] { halvard::RemoveDirectoryTree(Top(), FailWithACode); }, "remove_all",
                          Top(), ERROR_ACCESS_DENIED);
    const int before = OpenHandleCount();
    // For its deletion, then for its listing: a folder takes two refusals.
    const auto isOpening = [](const RemovalCalls& calls, const std::wstring& line,
                              std::size_t nth) {
        return Begins(line, L"open entry ") && calls.Of({L"open entry "}).size() >= nth;
    };
    EXPECT_EQ(CallsThatEndARemoval(ERROR_ACCESS_DENIED, isOpening), 5U);
    const auto isDeletion = [](const RemovalCalls& calls, const std::wstring& line,
                               std::size_t nth) {
        return Begins(line, L"change entry ") && calls.Deletions().size() == nth;
    };
    EXPECT_EQ(CallsThatEndARemoval(ERROR_WRITE_PROTECT, isDeletion), 6U);
    const auto isQuestion = [](const RemovalCalls& calls, const std::wstring& line,
                               std::size_t nth) {
        return IsQuestion(line) && std::count_if(calls.All().begin(), calls.All().end(),
                                                 IsQuestion) == static_cast<std::ptrdiff_t>(nth);
    };
    // The top and two folders, and for each opening the folder that holds the entry.
    EXPECT_EQ(CallsThatEndARemoval(ERROR_SEEK, isQuestion), 3U + 5U);
    EXPECT_EQ(OpenHandleCount(), before);
    ExpectRemoved();
    EXPECT_EQ(OpenHandleCount(), before);
}

TEST_F(RemoveDirectoryTreeTest, ATopThatCannotBeOpenedEndsIt) {
    const int before = OpenHandleCount();
    RemovalCalls calls;
    calls.Fail(L"open file ", ERROR_NETWORK_ACCESS_DENIED);
    ExpectRemoveAllError(ERROR_NETWORK_ACCESS_DENIED);
    EXPECT_EQ(calls.Of({L"open file "}).size(), 1U);
    EXPECT_EQ(OpenHandleCount(), before);
}

TEST_F(RemoveAllTest, CountsEveryEntryAndTheFolderItself) {
    EXPECT_EQ(RemoveAt(In(L"sub\\empty")), Count(1, ERROR_SUCCESS));
    EXPECT_EQ(Remove(), Count(4, ERROR_SUCCESS));
    EXPECT_EQ(Remove(), Count(0, ERROR_SUCCESS));
}

TEST_F(RemoveAllTest, DeletesTheFolderItselfFirstAndEmptiesItOnlyWhenItMust) {
    const RemovalCalls calls;
    Remove();
    const Lines removals = calls.Of({L"remove ", L"change entry "});
    EXPECT_EQ(removals.front(), L"remove " + kExtended + Top());
    EXPECT_EQ(calls.Of({L"remove "}).size(), 1U);
    const Lines deletions = calls.Deletions();
    ASSERT_EQ(deletions.size(), 5U);
    EXPECT_EQ(deletions.back(), Top());
    const auto position = [&](const std::wstring& name) {
        return std::find(deletions.begin(), deletions.end(), In(name)) - deletions.begin();
    };
    EXPECT_LT(position(L"a.txt"), 4);
    EXPECT_LT(position(L"sub\\b.txt"), position(L"sub"));
    EXPECT_LT(position(L"sub\\empty"), position(L"sub"));
    EXPECT_LT(position(L"sub"), 4);
}

TEST_F(RemoveAllTest, DeletesWithPosixSemanticsWhereTheyAreKnown) {
    std::vector<DWORD> flags;
    HOOK(setting, SetFileInformationByHandle,
         [&](HANDLE file, FILE_INFO_BY_HANDLE_CLASS type, LPVOID data, DWORD) {
             EXPECT_EQ(type, kDispositionWithFlags);
             flags.push_back(*static_cast<DWORD*>(data));
             FILE_DISPOSITION_INFO plain = {TRUE};
             return setting.Original(file, FileDispositionInfo, &plain, sizeof(plain));
         });
    EXPECT_EQ(Remove(), Count(5, ERROR_SUCCESS));
    EXPECT_EQ(flags, std::vector<DWORD>(5, 3U));
}

TEST_F(RemoveAllTest, AsksForPosixSemanticsOnceARemovalWhereTheyAreRefused) {
    for (const DWORD refusal : kMeanUnknownClass) {
        Fill();
        RemovalCalls calls;
        calls.before = [&](const std::wstring& line) {
            if (Begins(line, L"change entry ") && line.substr(line.size() - 3) == L" 21") {
                calls.Fail(line, refusal);
            }
        };
        EXPECT_EQ(Remove(), Count(5, ERROR_SUCCESS)) << refusal;
        Lines expected = calls.Deletions();
        ASSERT_EQ(expected.size(), 5U);
        for (std::wstring& line : expected) {
            line = Deletion(line) + L"4";
        }
        expected.insert(expected.begin(), Deletion(calls.Deletions().front()) + L"21");
        EXPECT_EQ(calls.Of({L"change entry "}), expected);
    }
}

TEST_F(RemoveAllTest, AnyOtherRefusalOfADeletionIsAnError) {
    RemovalCalls calls;
    calls.Fail(L"change entry ", ERROR_ACCESS_DENIED, 0);
    EXPECT_EQ(Remove(), Count(0, ERROR_ACCESS_DENIED));
    EXPECT_EQ(calls.Of({L"change entry "}), Lines{Deletion(calls.Deletions().front()) + L"21"});
}

TEST_F(RemoveAllTest, AFolderThatAnswersAnotherCodeIsNotEmptied) {
    RemovalCalls calls;
    calls.Fail(L"remove ", ERROR_SHARING_VIOLATION);
    EXPECT_EQ(Remove(), Count(0, ERROR_SHARING_VIOLATION));
    EXPECT_TRUE(Has(L"a.txt"));
}

TEST_F(RemoveAllTest, WhatHasGoneMeanwhileCountsAsNothing) {
    for (const DWORD gone :
         {ERROR_FILE_NOT_FOUND, ERROR_PATH_NOT_FOUND, ERROR_INVALID_NAME, ERROR_BAD_NETPATH}) {
        RemovalCalls calls;
        calls.Fail(Opening(In(L"sub\\b.txt")), gone);
        CreateFolders(In(L"sub\\empty"));
        // It is still there, so its folder is not empty when its turn comes.
        EXPECT_EQ(Remove().second, ERROR_DIR_NOT_EMPTY) << gone;
        EXPECT_FALSE(Has(L"sub\\empty")) << gone;
        EXPECT_TRUE(Has(L"sub\\b.txt")) << gone;
    }
    RemovalCalls calls;
    calls.Fail(L"remove ", ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(Remove(), Count(0, ERROR_SUCCESS));
}

// A server may be lost: what is open has not gone for that.
TEST_F(RemoveAllTest, WhatIsOpenHasNotGoneWhateverItAnswers) {
    for (const int gone : {2, 3, 53, 123}) {
        SCOPED_TRACE(gone);
        Fill();
        const int before = OpenHandleCount();
        for (const std::wstring& entry : {In(L"sub\\empty"), In(L"sub"), Top()}) {
            for (const std::wstring& failing : {Question(entry), Deletion(entry)}) {
                RemovalCalls calls;
                calls.Fail(failing, static_cast<DWORD>(gone));
                ExpectRemoveAllError(gone);
                EXPECT_TRUE(IsThere(entry));
            }
        }
        EXPECT_EQ(OpenHandleCount(), before);
    }
}

TEST_F(RemoveAllTest, AFolderThatVanishesBeforeItIsEnteredHoldsNothing) {
    RemovalCalls calls;
    calls.Before(Opening(In(L"sub")), [&] { halvard_tests::RemoveTree(In(L"sub")); });
    EXPECT_EQ(Remove(), Count(2, ERROR_SUCCESS));
    EXPECT_FALSE(IsThere(Top()));
}

TEST_F(RemoveAllTest, ATopThatVanishesBeforeItIsEnteredHoldsNothing) {
    RemovalCalls calls;
    calls.Before(L"open file ", [&] { halvard_tests::RemoveTree(Top()); });
    EXPECT_EQ(Remove(), Count(0, ERROR_SUCCESS));
}

TEST_F(RemoveAllTest, AFolderThatFillsAgainIsNotEmptiedTwice) {
    RemovalCalls calls;
    // Filled each time when its own turn comes.
    calls.Before(Deletion(In(L"sub")), [&] { WriteFileAt(In(L"sub\\again.txt")); });
    EXPECT_EQ(Remove().second, ERROR_DIR_NOT_EMPTY);
    // With what it holds, and with its end.
    EXPECT_EQ(calls.Of({Listing(In(L"sub"))}).size(), 2U);
    EXPECT_TRUE(Has(L"sub\\again.txt"));
}

TEST_F(FallbackTest, IsEnteredForTheErrorCountAlone) {
    {
        const RemovalCalls calls;
        halvard::RemoveDirectoryTree(Top(), RemoveNothing);
        ExpectFileSystemError([&] { halvard::RemoveDirectoryTree(Top(), FailWithACode); },
                              "remove_all", Top(), ERROR_ACCESS_DENIED);
        EXPECT_EQ(calls.Of({L"about "}), Lines());
    }
    RemoveDirectoryTree(In(L"sub"));
    const RemovalCalls calls;
    halvard::RemoveDirectoryTree(Top(), FailWithoutACode);
    const Lines listings = {Listing(Parent() + L"\\"), Listing(Top())};
    EXPECT_EQ(WithoutRepeats(calls.Of(listings)), listings);
}

TEST_F(FallbackTest, RemovesEntriesOneByOneAndLeavesTheFolder) {
    RemoveDirectoryTree(In(L"sub"));
    WriteFileAt(In(L"b.txt"));
    CreateFolders(In(L"empty"));
    halvard::RemoveDirectoryTree(Top(), FailWithoutACode);
    EXPECT_FALSE(Has(L"a.txt"));
    EXPECT_FALSE(Has(L"b.txt"));
    EXPECT_FALSE(Has(L"empty"));
    EXPECT_TRUE(IsThere(Top()));
}

TEST_F(FallbackTest, AFolderThatIsNotEmptyEndsIt) {
    ExpectFileSystemError([&] { halvard::RemoveDirectoryTree(Top(), FailWithoutACode); }, "remove",
                          In(L"sub"), ERROR_DIR_NOT_EMPTY);
    EXPECT_TRUE(Has(L"sub\\b.txt"));
}

TEST_F(FallbackTest, NamesTheWalkThatCannotBegin) {
    RemovalCalls calls;
    calls.Fail(L"open file ", ERROR_ACCESS_DENIED);
    ExpectFileSystemError([&] { halvard::RemoveDirectoryTree(Top(), FailWithoutACode); },
                          "recursive_directory_iterator::recursive_directory_iterator", Top(),
                          ERROR_ACCESS_DENIED);
}

TEST_F(FallbackTest, NamesTheWalkThatCannotGoOn) {
    RemoveDirectoryTree(In(L"sub"));
    RemovalCalls calls;
    calls.Fail(Listing(Top()), ERROR_GEN_FAILURE, 2);
    ExpectFileSystemError([&] { halvard::RemoveDirectoryTree(Top(), FailWithoutACode); },
                          "recursive_directory_iterator::operator++", Top(), ERROR_GEN_FAILURE);
}

TEST_F(FallbackTest, AnEntryOfWhichTheNameIsAPathIsNotLookedUp) {
    RemovalCalls calls;
    calls.List(Top(), L"a.txt", [](auto& entry) { entry.FileName[1] = L'\\'; });
    ExpectFileSystemError([&] { halvard::RemoveDirectoryTree(Top(), FailWithoutACode); }, "remove",
                          In(L"a\\txt"), ERROR_INVALID_NAME);
    EXPECT_EQ(calls.Of({L"set attributes ", L"move "}), Lines());
    EXPECT_TRUE(Has(L"a.txt"));
}

namespace {

/// One entry, "stays", that has gone whenever it is to be removed. What lies in it is treated
/// alike.
class StayingEntryTest : public testing::Test {
protected:
    StayingEntryTest() {
        CreateFolders(top);
        WriteFileAt(stays);
    }

    void Remove() {
        HOOK(getting, GetFileAttributesW, [&](LPCWSTR path) {
            // Existence and kind of the top come first.
            return path == kExtended + top ? getting.Original(path) : attributes;
        });
        FAIL_CALL(setting, SetFileAttributesW, 0, canBeSet, NO_ERROR);
        FAIL_CALL(queuing, MoveFileExW, 0, FALSE, ERROR_ACCESS_DENIED);
        RemovalCalls calls;
        bool isFirst = true;
        calls.before = [&](const std::wstring& line) {
            const bool isRemoval = Begins(line, L"open entry " + stays) &&
                                   line.find(L" 0x10000 ") != std::wstring::npos;
            const DWORD code = isFirst ? firstRemoval : secondRemoval;
            isFirst = isFirst && !isRemoval;
            if (isRemoval || Begins(line, L"attributes of " + kExtended + stays) ||
                Begins(line, L"set attributes ") || Begins(line, L"move ")) {
                done.push_back(line);
            }
            if (isRemoval && code != NO_ERROR) {
                calls.Fail(line, code);
            }
        };
        halvard::RemoveDirectoryTree(top, FailWithoutACode);
    }

    /// Its removals and what else is done about an entry.
    static Lines Treatment(const std::wstring& entry, const std::wstring& attributesSet = L"0x20") {
        const std::wstring removal = Opening(entry) + L"0x10000 shared 0x7 options 0x2040" +
                                     (IsFolder(entry) ? L"01" : L"40");
        const std::wstring path = kExtended + entry;
        return {removal, L"attributes of " + path, L"set attributes " + path + L" " + attributesSet,
                removal, L"move " + path + L" to null 0x4"};
    }
    static Lines FirstOf(const Lines& lines, std::size_t count) {
        return Lines(lines.begin(), lines.begin() + static_cast<std::ptrdiff_t>(count));
    }

    halvard_tests::ScratchFolder scratch;
    std::wstring top = scratch.File(L"tree");
    std::wstring stays = top + L"\\stays";
    DWORD attributes = FILE_ATTRIBUTE_ARCHIVE | FILE_ATTRIBUTE_READONLY;
    BOOL canBeSet = TRUE;
    DWORD firstRemoval = ERROR_FILE_NOT_FOUND;
    DWORD secondRemoval = ERROR_FILE_NOT_FOUND;
    Lines done;

private:
    static bool IsFolder(const std::wstring& path) {
        return (GetFileAttributesW(path.c_str()) & FILE_ATTRIBUTE_DIRECTORY) != 0;
    }
};

} // namespace

TEST_F(StayingEntryTest, LosesItsReadOnlyAttributeAndIsQueuedForTheNextRestart) {
    Remove();
    EXPECT_EQ(done, Treatment(stays));
}

// A folder too, and it is entered all the same: what it holds is queued behind it.
TEST_F(StayingEntryTest, AFolderIsTreatedAsAFileIs) {
    ASSERT_NE(DeleteFileW(stays.c_str()), FALSE);
    CreateFolders(stays);
    WriteFileAt(stays + L"\\in");
    attributes = FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_READONLY;
    Remove();
    EXPECT_EQ(done, Treatment(stays, L"0x10") + Treatment(stays + L"\\in", L"0x10"));
}

TEST_F(StayingEntryTest, AttributesThatCannotBeReadAreWrittenBackAllTheSame) {
    attributes = INVALID_FILE_ATTRIBUTES;
    Remove();
    EXPECT_EQ(done, Treatment(stays, L"0xfffffffe"));
}

TEST_F(StayingEntryTest, IsPassedOverWhenItsAttributesCannotBeSet) {
    // Listed behind it.
    WriteFileAt(top + L"\\t");
    canBeSet = FALSE;
    Remove();
    EXPECT_EQ(done, FirstOf(Treatment(stays), 3));
    EXPECT_FALSE(IsThere(top + L"\\t"));
}

TEST_F(StayingEntryTest, IsNotQueuedWhenTheSecondRemovalWorks) {
    const Lines treatment = Treatment(stays);
    secondRemoval = NO_ERROR;
    Remove();
    EXPECT_EQ(done, FirstOf(treatment, 4));
}

TEST_F(StayingEntryTest, ARemovalThatFailsEndsIt) {
    secondRemoval = ERROR_ACCESS_DENIED;
    ExpectFileSystemError([&] { Remove(); }, "remove", stays, ERROR_ACCESS_DENIED);
    EXPECT_EQ(done, FirstOf(Treatment(stays), 4));
    done.clear();
    firstRemoval = ERROR_SHARING_VIOLATION;
    ExpectFileSystemError([&] { Remove(); }, "remove", stays, ERROR_SHARING_VIOLATION);
    EXPECT_EQ(done, FirstOf(Treatment(stays), 1));
}

TEST_F(StayingEntryTest, IsReallyQueuedWithTheSystem) {
    const halvard_tests::PendingRenames pending;
    {
        RemovalCalls calls;
        calls.Fail(L"open entry ", ERROR_FILE_NOT_FOUND, 0);
        halvard::RemoveDirectoryTree(top, FailWithoutACode);
    }
    ASSERT_TRUE(pending.IsThere());
    EXPECT_EQ(pending.Type(), DWORD{REG_MULTI_SZ});
    const std::wstring queued = pending.Read();
    EXPECT_EQ(queued.substr(0, queued.find(L'\0')), L"\\??\\" + stays);
}
