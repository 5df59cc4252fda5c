#include "cleanup/held_folder.h"

#include "import_hook.h"
#include "removal_calls.h"
#include "scratch_tree.h"

#include <windows.h>
#include <winternl.h>

#include <algorithm>
#include <optional>

using halvard::RemoveDirectoryTree;
using halvard_tests::Begins;
using halvard_tests::CreateFolders;
using halvard_tests::Deletion;
using halvard_tests::ExpectFileSystemError;
using halvard_tests::IsThere;
using halvard_tests::kExtended;
using halvard_tests::Link;
using halvard_tests::Listing;
using halvard_tests::Opening;
using halvard_tests::Question;
using halvard_tests::QuestionForTag;
using halvard_tests::RemovalCalls;
using halvard_tests::RemoveTree;
using halvard_tests::ScratchTree;
using halvard_tests::WriteFileAt;

namespace {

using HeldFolderTest = ScratchTree;
using LinkTest = ScratchTree;

bool IsListing(const std::wstring& line) {
    return Begins(line, L"about ") && line.substr(line.size() - 3) == L" 10";
}

// What an entry may be changed to in a listing.
using Entry = FILE_ID_BOTH_DIR_INFO;

void BeAnother(Entry& entry) {
    entry.FileId.QuadPart ^= 1;
}

void BecomePoint(Entry& entry, DWORD tag) {
    entry.FileAttributes |= FILE_ATTRIBUTE_REPARSE_POINT;
    entry.EaSize = tag;
}

} // namespace

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

TEST_F(HeldFolderTest, ListingsThatTakeManyCallsLoseNoEntry) {
    const std::wstring longName(200, L'n');
    for (int number = 0; number < 150; ++number) {
        WriteFileAt(In(L"sub\\" + std::to_wstring(number) + longName));
    }
    const RemovalCalls calls;
    EXPECT_EQ(Remove(), Count(155, ERROR_SUCCESS));
    EXPECT_GE(calls.Of({Listing(In(L"sub"))}).size(), 5U);
}

TEST_F(HeldFolderTest, ListsWithoutIdentitiesWhereThoseAreRefused) {
    for (const DWORD refusal :
         {ERROR_INVALID_FUNCTION, ERROR_NOT_SUPPORTED, ERROR_INVALID_PARAMETER,
          ERROR_CALL_NOT_IMPLEMENTED, ERROR_INVALID_LEVEL}) {
        Fill();
        RemovalCalls calls;
        calls.before = [&](const std::wstring& line) {
            if (IsListing(line)) {
                calls.Fail(line, refusal);
            }
        };
        EXPECT_EQ(Remove(), Count(5, ERROR_SUCCESS)) << refusal;
        EXPECT_FALSE(IsThere(Top()));
    }
}

TEST_F(HeldFolderTest, AFolderWhoseIdentitiesAreRefusedTakesNoneOfTheFolderAbove) {
    Fill();
    RemovalCalls calls;
    calls.before = [&](const std::wstring& line) {
        if (line == Listing(In(L"sub"))) {
            calls.Fail(line, ERROR_NOT_SUPPORTED);
        }
    };
    EXPECT_EQ(Remove(), Count(5, ERROR_SUCCESS));
}

TEST_F(HeldFolderTest, AListingThatLeavesItsRoomOrHasNoNameIsAnError) {
    const struct {
        const wchar_t* name;
        void (*change)(Entry&);
        int code;
    } cases[] = {
        {L"b.txt", [](Entry& entry) { entry.FileNameLength = 9000; }, ERROR_INVALID_DATA},
        {L".", [](Entry& entry) { entry.NextEntryOffset = 0x100000; }, ERROR_INVALID_DATA},
        {L"b.txt", [](Entry& entry) { entry.FileNameLength = 0; }, ERROR_INVALID_NAME},
    };
    for (const auto& [name, change, code] : cases) {
        RemovalCalls calls;
        calls.List(In(L"sub"), name, change);
        ExpectRemoveAllError(code);
        EXPECT_TRUE(Has(L"sub\\b.txt"));
    }
}

TEST_F(HeldFolderTest, AFolderThatHasBecomeAFileStays) {
    RemovalCalls calls;
    calls.Before(Opening(In(L"sub")), [&] {
        if (Has(L"sub\\empty")) {
            RemoveTree(In(L"sub"));
            WriteFileAt(In(L"sub"));
        }
    });
    ExpectRemoveAllError(ERROR_DIRECTORY);
    EXPECT_TRUE(Has(L"sub"));
}

TEST_F(HeldFolderTest, AFileInThePlaceOfTheTopStays) {
    RemovalCalls calls;
    calls.Before(L"open file 0x10081 " + kExtended + Top(), [&] {
        RemoveTree(Top());
        WriteFileAt(Top());
    });
    EXPECT_EQ(Remove(), Count(0, ERROR_DIRECTORY));
    EXPECT_TRUE(IsThere(Top()));
}

TEST(HeldFolder, TheRootOfADriveLiesInNoFolder) {
    COUNT_CALLS(opening, CreateFileW);
    halvard::HeldFolder root;
    EXPECT_EQ(root.OpenTop(L"\\\\?\\T:\\", halvard::FolderUse::List), DWORD{ERROR_SUCCESS});
    EXPECT_EQ(opening.Calls(), 1);
}

TEST_F(HeldFolderTest, ADriveWithoutDotsHoldsNothing) {
    for (const DWORD none : {ERROR_FILE_NOT_FOUND, ERROR_NO_MORE_FILES}) {
        RemovalCalls calls;
        calls.before = [&](const std::wstring& line) {
            if (IsListing(line)) {
                calls.Fail(line, none);
            } else if (Begins(line, L"change entry ")) {
                calls.Fail(line, ERROR_CRC);
            }
        };
        // Its own deletion is tried.
        EXPECT_EQ(RemoveAt(L"T:\\"), Count(0, ERROR_CRC));
        EXPECT_EQ(calls.Of({L"remove ", L"change entry "}),
                  (Lines{L"remove " + kExtended + L"T:\\", Deletion(L"T:\\") + L"21"}));
    }
    EXPECT_TRUE(Has(L"a.txt"));
}

TEST_F(HeldFolderTest, HoldsEveryFolderOnTheWayToTheOneAtWork) {
    CreateFolders(In(L"sub\\deep"));
    WriteFileAt(In(L"sub\\deep\\c.txt"));
    int attempts = 0;
    RemovalCalls calls;
    calls.Before(Opening(In(L"sub\\deep\\c.txt")), [&] {
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
    });
    ExpectRemoved();
    EXPECT_EQ(attempts, 3);
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

TEST_F(HeldFolderTest, NoOtherProcessRenamesAFolderAtWork) {
    {
        RemovalCalls calls;
        calls.Before(Opening(In(L"sub\\b.txt")), [&] {
            RenameByAnotherProcess(In(L"sub"));
            RenameByAnotherProcess(Top());
            EXPECT_FALSE(Has(L"moved"));
            EXPECT_FALSE(IsThere(Beside(L"moved")));
        });
        ExpectRemoved();
        EXPECT_EQ(calls.Of({Opening(In(L"sub\\b.txt"))}).size(), 1U);
    }
    CreateFolders(Top());
    RenameByAnotherProcess(Top());
    EXPECT_TRUE(IsThere(Beside(L"moved")));
}

TEST_F(HeldFolderTest, OpensTheTopAsItselfWithoutDeleteSharing) {
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
    Remove();
    EXPECT_EQ(opening.Calls(), 2);
}

TEST_F(HeldFolderTest, OpensEntriesAsThemselvesByTheirNames) {
    const RemovalCalls calls;
    Remove();
    // Without attributes: names of entries that differ in case alone are told apart. A folder is
    // listed, asked and deleted (0x110081), by calls that wait, and not shared for deletion.
    const std::wstring file = L"0x10000 shared 0x7 options 0x204040";
    const std::wstring folder = L"0x110081 shared 0x3 options 0x204021";
    Lines openings = calls.Of({L"open entry "});
    Lines expected = {Opening(In(L"a.txt")) + file, Opening(In(L"sub")) + folder,
                      Opening(In(L"sub\\b.txt")) + file, Opening(In(L"sub\\empty")) + folder};
    std::sort(openings.begin(), openings.end());
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(openings, expected);
    // What is no reparse point is not asked for a tag.
    EXPECT_EQ(calls.Of({QuestionForTag(Top()), QuestionForTag(In(L"sub")),
                        QuestionForTag(In(L"sub\\empty"))}),
              Lines());
}

TEST_F(HeldFolderTest, AFolderThatCannotBeListedIsAnErrorWhateverTheCode) {
    for (const int code : {ERROR_PATH_NOT_FOUND, ERROR_BAD_NETPATH}) {
        for (const std::wstring& folder : {Top(), In(L"sub")}) {
            for (std::size_t call = 1; call <= 2; ++call) {
                CreateFolders(In(L"sub"));
                RemovalCalls calls;
                calls.Fail(Listing(folder), static_cast<DWORD>(code), call);
                ExpectRemoveAllError(code);
                EXPECT_EQ(calls.Of({Listing(folder)}).size(), call);
            }
        }
    }
}

TEST_F(LinkTest, ALinkInTheTreeIsNotEntered) {
    CreateFolders(Beside(L"outside\\deep"));
    WriteFileAt(Beside(L"outside\\kept.txt"));
    const Link link(In(L"sub"), L"link", L"../../outside");
    ExpectRemoveAllError(ERROR_DIR_NOT_EMPTY);
    EXPECT_TRUE(IsThere(Beside(L"outside\\kept.txt")));
    EXPECT_TRUE(IsThere(Beside(L"outside\\deep")));
    EXPECT_TRUE(Has(L"sub\\link\\kept.txt"));
}

TEST_F(LinkTest, ALinkAsTheTopIsNotEntered) {
    const Link link(Parent(), L"link", L"tree");
    for (const std::wstring& top :
         {Beside(L"link"), Beside(L"link\\"), Beside(L"link/"), kExtended + Beside(L"link\\")}) {
        ExpectFileSystemError([&] { RemoveDirectoryTree(top); }, "remove_all", top,
                              ERROR_DIR_NOT_EMPTY);
    }
    EXPECT_TRUE(Has(L"a.txt"));
    EXPECT_TRUE(Has(L"sub\\b.txt"));
    EXPECT_TRUE(Has(L"sub\\empty"));
}

namespace {

/// Puts a link to "outside" in the place of an entry of the tree, which is moved away meanwhile.
class Swap {
public:
    /// `name` and `target` are the host's, the name seen from the scratch folder: a program cannot
    /// be started in a folder that is open for its deletion.
    Swap(const std::wstring& scratch, const std::wstring& name, const std::wstring& target)
        : place_(scratch + L"\\" + name), moved_(scratch + L"\\moved") {
        EXPECT_TRUE(MoveFileW(place_.c_str(), moved_.c_str()));
        link_.emplace(scratch, name, target);
    }
    void Back() {
        link_.reset();
        EXPECT_TRUE(MoveFileW(moved_.c_str(), place_.c_str()));
    }

private:
    std::wstring place_;
    std::wstring moved_;
    std::optional<Link> link_;
};

class SwapTest : public ScratchTree {
protected:
    SwapTest() {
        CreateFolders(Beside(L"outside"));
        WriteFileAt(Beside(L"outside\\kept.txt"));
    }

    void SwapFor(const std::wstring& name, const std::wstring& target) {
        if (!swap) {
            swap.emplace(Parent(), name, target);
        }
    }
    /// For the length of the call of which the line begins so.
    void SwapDuring(const std::wstring& start, const std::wstring& name,
                    const std::wstring& target) {
        calls.before = [this, start, name, target,
                        isBack = false](const std::wstring& line) mutable {
            if (Begins(line, start)) {
                SwapFor(name, target);
            } else if (swap && !isBack) {
                swap->Back();
                isBack = true;
            }
        };
    }
    void ExpectLeftAlone() const {
        EXPECT_TRUE(swap.has_value());
        EXPECT_TRUE(IsThere(Beside(L"outside\\kept.txt")));
    }

    const std::wstring openTop = L"open file 0x10081 ";
    RemovalCalls calls;
    std::optional<Swap> swap;
};

} // namespace

TEST_F(SwapTest, AFolderSwappedForALinkBeforeItIsOpenedIsNotEntered) {
    calls.Before(Opening(In(L"sub")), [&] { SwapFor(L"tree/sub", L"../outside"); });
    ExpectRemoveAllError(ERROR_DIR_NOT_EMPTY);
    EXPECT_TRUE(IsThere(Beside(L"moved\\b.txt")));
    ExpectLeftAlone();
}

TEST_F(SwapTest, AFolderSwappedForALinkWhileItIsOpenedIsNotEntered) {
    SwapDuring(Opening(In(L"sub")), L"tree/sub", L"../outside");
    ExpectRemoveAllError(ERROR_DIR_NOT_EMPTY);
    EXPECT_TRUE(Has(L"sub\\b.txt"));
    ExpectLeftAlone();
}

TEST_F(SwapTest, TheTopSwappedForALinkWhileItIsOpenedIsNotEntered) {
    SwapDuring(openTop, L"tree", L"outside");
    ExpectRemoveAllError(ERROR_DIR_NOT_EMPTY);
    EXPECT_TRUE(Has(L"sub\\b.txt"));
    ExpectLeftAlone();
}

TEST_F(SwapTest, TheTopSwappedForALinkForGoodIsNotEntered) {
    calls.Before(openTop, [&] { SwapFor(L"tree", L"outside"); });
    ExpectRemoveAllError(ERROR_DIR_NOT_EMPTY);
    EXPECT_TRUE(IsThere(Beside(L"moved\\sub\\b.txt")));
    ExpectLeftAlone();
}

TEST_F(SwapTest, AFileSwappedForALinkToAFolderIsAnError) {
    calls.Before(Opening(In(L"a.txt")), [&] { SwapFor(L"tree/a.txt", L"../outside"); });
    ExpectRemoveAllError(ERROR_ACCESS_DENIED);
    ExpectLeftAlone();
}

TEST_F(LinkTest, AnEntryOfWhichTheNameIsAPathIsLeft) {
    // The host knows such names, and a server may list whatever it likes.
    CreateFolders(Beside(L"outside"));
    WriteFileAt(Beside(L"outside\\kt"));
    const Link link(Top(), L"ln", L"../outside");
    RemovalCalls calls;
    calls.List(Top(), L"a.txt",
               [](Entry& entry) { std::wstring(L"ln\\kt").copy(entry.FileName, 5); });
    ExpectRemoveAllError(ERROR_INVALID_NAME);
    EXPECT_TRUE(Has(L"a.txt"));
    EXPECT_TRUE(IsThere(Beside(L"outside\\kt")));
}

TEST_F(LinkTest, ATopIsKnownByItsNameAndItsIdentity) {
    CreateFolders(Beside(L"other"));
    const struct {
        const char* name;
        bool isThere;
        void (*change)(Entry&);
    } cases[] = {
        {"another of the same name", false, BeAnother},
        {"neither name nor identity", false,
         [](Entry& entry) {
             entry.FileName[0] = L'x';
             BeAnother(entry);
         }},
        {"listed as one of the two dots alone, which are other folders", false,
         [](Entry& entry) {
             std::wstring(L"..").copy(entry.FileName, 2);
             entry.FileNameLength = 2 * sizeof(wchar_t);
         }},
        {"its identity is enough", true,
         [](Entry& entry) {
             entry.FileName[0] = L'x';
         }},
        {"a short name that leaves its room counts as none", true,
         [](Entry& entry) {
             entry.FileName[0] = L'x';
             entry.ShortNameLength = sizeof(entry.ShortName) + 2;
         }},
        {"a reparse point that is no link, such as that of a namespace of servers", true,
         [](Entry& entry) {
             BeAnother(entry);
             BecomePoint(entry, IO_REPARSE_TAG_DFS);
         }},
    };
    for (const auto& each : cases) {
        SCOPED_TRACE(each.name);
        Fill();
        RemovalCalls calls;
        calls.List(Parent() + L"\\", L"tree", each.change);
        if (each.isThere) {
            ExpectRemoved();
        } else {
            ExpectRemoveAllError(ERROR_DIR_NOT_EMPTY);
            EXPECT_TRUE(Has(L"a.txt"));
        }
    }
}

TEST_F(LinkTest, NamesInOtherCaseStandForOthersWhereAFolderTellsThemApart) {
    CreateFolders(Beside(L"eert"));
    RemovalCalls calls;
    calls.List(Parent() + L"\\", L"eert",
               [](Entry& entry) { std::wstring(L"TREE").copy(entry.FileName, 4); });
    RemoveDirectoryTree(In(L"sub"));
    ExpectRemoved();
}

TEST_F(LinkTest, ATopIsKnownInEverySpellingOfItsName) {
    RemoveDirectoryTree(L"t:\\SCRATCH\\TREE\\SUB");
    EXPECT_FALSE(Has(L"sub"));
    wchar_t shortPath[MAX_PATH] = {};
    CreateFolders(In(L"a long name.of a folder"));
    WriteFileAt(In(L"a long name.of a folder\\file"));
    ASSERT_NE(GetShortPathNameW(In(L"a long name.of a folder").c_str(), shortPath, MAX_PATH), 0U);
    ASSERT_EQ(std::wstring(shortPath).find(L"a long name"), std::wstring::npos);
    RemoveDirectoryTree(shortPath);
    EXPECT_FALSE(Has(L"a long name.of a folder"));
}

TEST_F(LinkTest, WhatListingHandleOrIdentityCallsALinkIsNotEntered) {
    const DWORD cloud = IO_REPARSE_TAG_CLOUD;
    const struct {
        const char* name;
        bool listed;
        bool byHandle;
        bool isAnother;
        DWORD listedTag;
        DWORD tag;
        DWORD tagError;
    } cases[] = {
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
    for (const auto& shown : cases) {
        SCOPED_TRACE(shown.name);
        RemovalCalls calls;
        calls.List(Top(), L"sub", [&](Entry& entry) {
            if (shown.listed) {
                BecomePoint(entry, shown.listedTag);
            }
            entry.FileId.QuadPart ^= shown.isAnother ? 1 : 0;
        });
        if (shown.byHandle) {
            calls.points = {In(L"sub")};
        }
        calls.tags[In(L"sub")] = shown.tag;
        if (shown.tagError != NO_ERROR) {
            calls.Fail(QuestionForTag(In(L"sub")), shown.tagError, 0);
        }
        ExpectRemoveAllError(ERROR_DIR_NOT_EMPTY);
        EXPECT_TRUE(Has(L"sub\\b.txt"));
        EXPECT_TRUE(Has(L"sub\\empty"));
    }
}

TEST_F(LinkTest, AnotherFolderThanTheOneListedStaysEvenEmpty) {
    RemoveTree(In(L"sub"));
    CreateFolders(In(L"sub"));
    RemovalCalls calls;
    calls.List(Top(), L"sub", BeAnother);
    ExpectRemoveAllError(ERROR_DIR_NOT_EMPTY);
    EXPECT_TRUE(Has(L"sub"));
    EXPECT_EQ(calls.Of({Deletion(In(L"sub"))}), Lines());
}

// What could only be opened for listing is opened again under its name, when it has been emptied.
TEST_F(LinkTest, AFolderInThePlaceOfAnEmptiedOneIsNotTheOneThatWasListed) {
    for (const bool asLink : {false, true}) {
        SCOPED_TRACE(asLink);
        Fill();
        const std::wstring opening = Opening(In(L"sub"));
        RemovalCalls calls;
        calls.before = [&](const std::wstring& line) {
            if (Begins(line, opening + L"0x110081 ")) {
                calls.Fail(line, ERROR_SHARING_VIOLATION);
            } else if (Begins(line, opening + L"0x10080 ") && asLink) {
                calls.BecomeLink(In(L"sub"));
            } else if (Begins(line, opening + L"0x10080 ")) {
                EXPECT_TRUE(MoveFileW(In(L"sub").c_str(), Beside(L"moved").c_str()));
                CreateFolders(In(L"sub"));
            }
        };
        ExpectRemoveAllError(ERROR_DIR_NOT_EMPTY);
        EXPECT_EQ(calls.Of({opening}), (Lines{opening + L"0x110081 shared 0x3 options 0x204021",
                                              opening + L"0x100081 shared 0x3 options 0x204021",
                                              opening + L"0x10080 shared 0x7 options 0x204001"}));
        EXPECT_TRUE(Has(L"sub"));
        EXPECT_FALSE(Has(L"sub\\b.txt"));
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
    EXPECT_TRUE(Has(L"sub\\b.txt"));
}

TEST_F(LinkTest, ATopThatIsALinkByItsHandleOrItsListingIsNotEntered) {
    for (const bool byHandle : {true, false}) {
        RemovalCalls calls;
        if (byHandle) {
            calls.BecomeLink(Top());
        } else {
            calls.List(Parent() + L"\\", L"tree",
                       [](Entry& entry) { BecomePoint(entry, IO_REPARSE_TAG_MOUNT_POINT); });
        }
        ExpectRemoveAllError(ERROR_DIR_NOT_EMPTY);
        EXPECT_EQ(calls.Of({Listing(Top())}), Lines());
        EXPECT_TRUE(Has(L"a.txt"));
    }
}

TEST_F(LinkTest, ReparsePointsThatAreNoLinksAreFolders) {
    for (const DWORD tag : {DWORD{IO_REPARSE_TAG_CLOUD}, DWORD{IO_REPARSE_TAG_DEDUP}}) {
        Fill();
        RemovalCalls calls;
        calls.List(Top(), L"sub", [tag](Entry& entry) { BecomePoint(entry, tag); });
        calls.points = {In(L"sub")};
        calls.tags = {{In(L"sub"), tag}};
        ExpectRemoved();
    }
}

TEST_F(LinkTest, WhereThereAreNoIdentitiesFoldersAreWhatTheySeem) {
    // Nor by its name is the top known, where it is given in a spelling that is not listed.
    for (const bool isNamed : {true, false}) {
        for (const LONGLONG none : {LONGLONG{0}, LONGLONG{-1}}) {
            Fill();
            RemovalCalls calls;
            calls.listed = [&](const std::wstring& folder, const std::wstring&, Entry& entry) {
                entry.FileId.QuadPart = none;
                if (!isNamed && folder == Parent() + L"\\") {
                    entry.FileName[0] = L'x';
                }
            };
            ExpectRemoved();
        }
    }
    for (const bool isRefused : {true, false}) {
        Fill();
        HOOK(identifying, NtQueryInformationFile,
             [&](HANDLE file, PIO_STATUS_BLOCK result, PVOID info, ULONG size,
                 FILE_INFORMATION_CLASS type) -> NTSTATUS {
                 const NTSTATUS status = identifying.Original(file, result, info, size, type);
                 static_cast<LARGE_INTEGER*>(info)->QuadPart = isRefused ? 0x1234 : -1;
                 return isRefused ? static_cast<NTSTATUS>(0xC0000033U) : status;
             });
        ExpectRemoved();
        EXPECT_GE(identifying.Calls(), 2);
    }
}

TEST_F(LinkTest, ATopIsEnteredWhereTheFolderAboveCannotBeListed) {
    {
        RemovalCalls calls;
        calls.Fail(L"open file ", ERROR_ACCESS_DENIED, 2);
        RemoveDirectoryTree(In(L"sub"));
        EXPECT_EQ(calls.Of({L"open file "}).size(), 2U);
        EXPECT_FALSE(Has(L"sub"));
    }
    // Neither at all, nor to its end, so far without the top.
    for (const std::size_t nth : {1U, 2U}) {
        Fill();
        RemovalCalls calls;
        calls.List(Parent() + L"\\", L"tree", [](Entry& entry) {
            entry.FileName[0] = L'x';
            BeAnother(entry);
        });
        calls.Fail(Listing(Parent() + L"\\"), ERROR_ACCESS_DENIED, nth);
        ExpectRemoved();
        EXPECT_EQ(calls.Of({Listing(Parent() + L"\\")}).size(), nth);
    }
}

TEST_F(LinkTest, AFolderThatCannotBeAskedIsNotEntered) {
    for (const std::wstring& asked : {Top(), In(L"sub")}) {
        RemovalCalls calls;
        calls.Fail(Question(asked), ERROR_GEN_FAILURE);
        ExpectRemoveAllError(ERROR_GEN_FAILURE);
        EXPECT_EQ(calls.Of({Listing(asked)}), Lines());
        EXPECT_TRUE(Has(L"sub\\b.txt"));
    }
}

TEST_F(LinkTest, ALinkThatCanBeRemovedGoesAlone) {
    for (const bool isListed : {true, false}) {
        Fill();
        RemovalCalls calls;
        if (isListed) {
            calls.List(Top(), L"sub",
                       [](Entry& entry) { BecomePoint(entry, IO_REPARSE_TAG_MOUNT_POINT); });
        } else {
            calls.points = {In(L"sub")};
        }
        calls.tags = {{In(L"sub"), IO_REPARSE_TAG_MOUNT_POINT}};
        // As Windows does it: a deletion takes a link away whatever lies behind it.
        Lines taken;
        HOOK(setting, SetFileInformationByHandle,
             [&](HANDLE file, FILE_INFO_BY_HANDLE_CLASS, LPVOID, DWORD) {
                 taken.push_back(calls.Name(file));
                 FILE_DISPOSITION_INFO plain = {TRUE};
                 return taken.back() == In(L"a.txt")
                            ? setting.Original(file, FileDispositionInfo, &plain, sizeof(plain))
                            : TRUE;
             });
        EXPECT_EQ(Remove().first, 3U);
        EXPECT_NE(std::find(taken.begin(), taken.end(), In(L"sub")), taken.end());
        EXPECT_EQ(calls.Of({Listing(In(L"sub"))}), Lines());
        EXPECT_TRUE(Has(L"sub\\b.txt"));
    }
}

TEST_F(LinkTest, AListedLinkIsOpenedForItsDeletionAlone) {
    RemovalCalls calls;
    calls.List(Top(), L"sub", [](Entry& entry) { BecomePoint(entry, IO_REPARSE_TAG_SYMLINK); });
    ExpectRemoveAllError(ERROR_DIR_NOT_EMPTY);
    EXPECT_EQ(calls.Of({Opening(In(L"sub"))}),
              Lines{Opening(In(L"sub")) + L"0x10000 shared 0x7 options 0x204001"});
    EXPECT_EQ(calls.Of({L"open entry "}).size(),
              calls.Of({Opening(In(L"sub")), Opening(In(L"a.txt")) + L"0x10000 "}).size());
}

TEST_F(LinkTest, ALinkAsTheTopThatCanBeRemovedGoesAlone) {
    const Link link(Parent(), L"link", L"tree");
    // As Windows does it: the call takes the link away whatever lies behind it.
    FAIL_CALL(removing, RemoveDirectoryW, 1, TRUE, NO_ERROR);
    const RemovalCalls calls;
    RemoveDirectoryTree(Beside(L"link"));
    EXPECT_EQ(removing.Calls(), 1);
    // Existence and kind alone.
    EXPECT_EQ(calls.Of({L"open file "}).size(), 2U);
    EXPECT_EQ(calls.Of({L"open entry "}), Lines());
    EXPECT_TRUE(Has(L"sub\\b.txt"));
}

TEST_F(LinkTest, AFolderThatBecomesALinkWhileItIsAtWorkIsLeft) {
    // Emptied by others it can be made one in place, though it is held: before an entry is opened,
    // and behind that.
    for (const bool behind : {false, true}) {
        RemovalCalls calls;
        calls.before = [&, wasOpened = false](const std::wstring& line) mutable {
            const bool isOpened = Begins(line, Opening(In(L"sub\\b.txt")));
            if (behind ? wasOpened : isOpened) {
                calls.BecomeLink(In(L"sub"));
            }
            wasOpened = wasOpened || isOpened;
        };
        ExpectRemoveAllError(ERROR_DIR_NOT_EMPTY);
        EXPECT_EQ(calls.points.size(), 1U);
        EXPECT_TRUE(Has(L"sub\\b.txt"));
        EXPECT_EQ(calls.Of({Deletion(In(L"sub\\b.txt"))}), Lines());
    }
}

TEST_F(LinkTest, WhatIsNotFoundInAFolderThatHasBecomeALinkIsNoAnswer) {
    RemoveTree(In(L"sub\\empty"));
    RemovalCalls calls;
    calls.Before(Opening(In(L"sub\\b.txt")), [&] {
        // Emptied by others, and made a link.
        EXPECT_TRUE(DeleteFileW(In(L"sub\\b.txt").c_str()));
        calls.BecomeLink(In(L"sub"));
    });
    ExpectRemoveAllError(ERROR_DIR_NOT_EMPTY);
    EXPECT_EQ(calls.points.size(), 1U);
    EXPECT_TRUE(Has(L"sub"));
}

TEST_F(LinkTest, AnEntryThatIsOpenIsTheOneDeletedWhateverBecomesOfItsFolder) {
    RemovalCalls calls;
    calls.Before(Deletion(In(L"sub\\b.txt")), [&] { calls.BecomeLink(In(L"sub")); });
    // Listed behind it.
    WriteFileAt(In(L"sub\\c.txt"));
    ExpectRemoveAllError(ERROR_DIR_NOT_EMPTY);
    EXPECT_EQ(calls.Deletions().back(), In(L"sub\\b.txt"));
    EXPECT_FALSE(Has(L"sub\\b.txt"));
    EXPECT_TRUE(Has(L"sub\\c.txt"));
}

TEST_F(LinkTest, AFolderAtWorkThatCannotBeAskedAnyMoreIsLeft) {
    RemovalCalls calls;
    calls.Before(Opening(In(L"sub\\b.txt")),
                 [&] { calls.Fail(Question(In(L"sub")), ERROR_GEN_FAILURE); });
    ExpectRemoveAllError(ERROR_GEN_FAILURE);
    EXPECT_TRUE(Has(L"sub\\b.txt"));
}
