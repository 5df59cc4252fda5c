#include "cleanup/tree_walk.h"

#include "file_system_error.h"
#include "files.h"
#include "lines.h"
#include "open_handles.h"
#include "removal_calls.h"

#include <gtest/gtest.h>

#include <algorithm>

using halvard::TreeWalk;
using halvard_tests::CreateFolders;
using halvard_tests::ExpectFileSystemError;
using halvard_tests::Listing;
using halvard_tests::RemovalCalls;
using halvard_tests::ScratchFolder;
using halvard_tests::WriteFileAt;

namespace {

// Where a walk ends, as the errors name it.
constexpr char kBegins[] = "recursive_directory_iterator::recursive_directory_iterator";
constexpr char kGoesOn[] = "recursive_directory_iterator::operator++";

Lines Visit(const std::wstring& top) {
    Lines visited;
    for (TreeWalk walk(top); walk.Next();) {
        visited.push_back(walk.Path());
    }
    return visited;
}

Lines Sorted(Lines paths) {
    std::sort(paths.begin(), paths.end());
    return paths;
}

class TreeWalkTest : public testing::Test {
protected:
    TreeWalkTest() {
        CreateFolders(top + L"\\sub\\deep");
        CreateFolders(top + L"\\empty");
        WriteFileAt(top + L"\\sub\\b.txt");
        WriteFileAt(top + L"\\sub\\deep\\c.txt");
    }

    static void ExpectEndsOf(const std::wstring& walked, const char* operation,
                             const std::wstring& folder, int code) {
        ExpectFileSystemError([&] { Visit(walked); }, operation, folder, code);
    }

    ScratchFolder scratch;
    std::wstring top = scratch.File(L"tree");
};

} // namespace

TEST_F(TreeWalkTest, VisitsEveryEntryOnceAndAFolderBeforeWhatItHolds) {
    const Lines visited = Visit(top);
    EXPECT_EQ(Sorted(visited), Sorted({top + L"\\sub", top + L"\\empty", top + L"\\sub\\b.txt",
                                       top + L"\\sub\\deep", top + L"\\sub\\deep\\c.txt"}));
    const auto position = [&](const std::wstring& name) {
        return std::find(visited.begin(), visited.end(), top + name) - visited.begin();
    };
    // What a folder holds follows it at once.
    EXPECT_EQ(position(L"\\sub\\deep\\c.txt"), position(L"\\sub\\deep") + 1);
    EXPECT_LE(position(L"\\sub") + 1, position(L"\\sub\\b.txt"));
    EXPECT_LE(position(L"\\sub\\b.txt"), position(L"\\sub") + 3);
    EXPECT_LE(position(L"\\sub") + 1, position(L"\\sub\\deep"));
    EXPECT_LE(position(L"\\sub\\deep"), position(L"\\sub") + 2);
}

TEST_F(TreeWalkTest, SpellsPathsAsTheTopWasGiven) {
    for (const std::wstring& spelled :
         {std::wstring(L"t:/Scratch/tree/sub"), std::wstring(L"T:\\Scratch\\.\\tree\\sub")}) {
        EXPECT_EQ(Sorted(Visit(spelled)),
                  Sorted({spelled + L"\\b.txt", spelled + L"\\deep", spelled + L"\\deep\\c.txt"}));
    }
    for (const std::wstring& spelled :
         {std::wstring(L"T:\\Scratch\\tree\\sub\\"), std::wstring(L"T:/Scratch/tree/sub/")}) {
        EXPECT_EQ(Sorted(Visit(spelled)),
                  Sorted({spelled + L"b.txt", spelled + L"deep", spelled + L"deep\\c.txt"}));
    }
    const Lines root = Visit(L"\\\\?\\" + top + L"\\sub\\deep\\");
    EXPECT_EQ(root, Lines{L"\\\\?\\" + top + L"\\sub\\deep\\c.txt"});
}

TEST_F(TreeWalkTest, SpellsPathsBelowADriveAndItsCurrentDirectory) {
    const halvard_tests::CurrentDirectoryScope directory(top + L"\\sub\\deep");
    const Lines current = Visit(L"T:");
    const Lines relative = Visit(L"..\\deep");
    EXPECT_EQ(current, Lines{L"T:c.txt"});
    EXPECT_EQ(relative, Lines{L"..\\deep\\c.txt"});

    const Lines drive = Visit(L"T:\\");
    EXPECT_NE(std::find(drive.begin(), drive.end(), top + L"\\sub\\b.txt"), drive.end());
}

TEST_F(TreeWalkTest, VisitsALinkAndDoesNotEnterIt) {
    const halvard_tests::Link link(top + L"\\empty", L"link", L"../sub");
    EXPECT_EQ(Visit(top + L"\\empty"), Lines{top + L"\\empty\\link"});
    EXPECT_EQ(Visit(top + L"\\empty\\link"), Lines());
}

TEST_F(TreeWalkTest, EndsAtAnotherFolderThanTheOneListed) {
    RemovalCalls calls;
    calls.List(top, L"sub", [](FILE_ID_BOTH_DIR_INFO& entry) { entry.FileId.QuadPart ^= 1; });
    ExpectEndsOf(top, kGoesOn, top + L"\\sub", ERROR_DIR_NOT_EMPTY);
}

TEST_F(TreeWalkTest, DoesNotEnterWhatHasBecomeALinkSinceItWasListed) {
    RemovalCalls calls;
    calls.BecomeLink(top + L"\\sub");
    EXPECT_EQ(Sorted(Visit(top)), Sorted({top + L"\\sub", top + L"\\empty"}));
}

TEST_F(TreeWalkTest, TellsNoEntryOfAFolderThatHasBecomeALink) {
    WriteFileAt(top + L"\\sub\\c.txt");
    RemovalCalls calls;
    Lines visited;
    ExpectFileSystemError(
        [&] {
            for (TreeWalk walk(top); walk.Next();) {
                visited.push_back(walk.Path());
                if (visited.back() == top + L"\\sub\\b.txt") {
                    calls.BecomeLink(top + L"\\sub");
                }
            }
        },
        kGoesOn, top + L"\\sub", ERROR_DIR_NOT_EMPTY);
    EXPECT_EQ(visited.back(), top + L"\\sub\\b.txt");
}

TEST_F(TreeWalkTest, LooksUpNothingByAPathBelowTheTop) {
    const RemovalCalls calls;
    Visit(top);
    EXPECT_EQ(calls.Of({L"open file ", L"attributes of "}),
              (Lines{L"open file 0x81 \\\\?\\" + top,
                     L"open file 0x1 \\\\?\\" + scratch.Path() + L"\\"}));
    // Without a right that a tool could not share.
    const std::wstring access = L" 0x100081 shared 0x3 options 0x204021";
    EXPECT_EQ(Sorted(calls.Of({L"open entry "})),
              Sorted({L"open entry " + top + L"\\sub" + access,
                      L"open entry " + top + L"\\sub\\deep" + access,
                      L"open entry " + top + L"\\empty" + access}));
}

TEST_F(TreeWalkTest, AFolderThatHasGoneHoldsNothing) {
    Lines visited;
    for (TreeWalk walk(top); walk.Next();) {
        visited.push_back(walk.Path());
        halvard_tests::RemoveTree(top + L"\\sub");
    }
    EXPECT_EQ(Sorted(visited), Sorted({top + L"\\sub", top + L"\\empty"}));
}

TEST_F(TreeWalkTest, NamesTheFolderThatCannotBeListed) {
    ExpectEndsOf(scratch.File(L"missing"), kBegins, scratch.File(L"missing"), ERROR_FILE_NOT_FOUND);
    ExpectEndsOf(L"", kBegins, L"", ERROR_PATH_NOT_FOUND);
    const int before = halvard_tests::OpenHandleCount();
    {
        RemovalCalls calls;
        calls.Fail(L"open entry ", ERROR_ACCESS_DENIED);
        ExpectEndsOf(top + L"\\sub", kGoesOn, top + L"\\sub\\deep", ERROR_ACCESS_DENIED);
    }
    for (const std::wstring& folder : {top, top + L"\\sub", top + L"\\sub\\deep"}) {
        for (const std::size_t nth : {1U, 2U}) {
            RemovalCalls calls;
            calls.Fail(Listing(folder), ERROR_GEN_FAILURE, nth);
            ExpectEndsOf(top, folder == top && nth == 1 ? kBegins : kGoesOn, folder,
                         ERROR_GEN_FAILURE);
            EXPECT_EQ(calls.Of({Listing(folder)}).size(), nth);
        }
    }
    EXPECT_EQ(halvard_tests::OpenHandleCount(), before);
}

TEST_F(TreeWalkTest, HoldsTheFoldersOnTheWay) {
    for (TreeWalk walk(top); walk.Next();) {
        if (walk.Path() == top + L"\\sub\\deep\\c.txt") {
            for (const wchar_t* folder : {L"", L"\\sub", L"\\sub\\deep"}) {
                EXPECT_FALSE(MoveFileW((top + folder).c_str(), scratch.File(L"moved").c_str()));
                EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_SHARING_VIOLATION));
            }
            return;
        }
    }
    ADD_FAILURE() << "the file was not visited";
}
