#include "cleanup/tree_walk.h"

#include "file_system_error.h"
#include "files.h"
#include "import_hook.h"
#include "open_handles.h"
#include "removal_calls.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

using halvard::TreeWalk;
using halvard_tests::CreateFolders;
using halvard_tests::ExpectFileSystemError;
using halvard_tests::RemovalCalls;
using halvard_tests::ScratchFolder;
using halvard_tests::WriteFileAt;

namespace {

std::vector<std::wstring> Visit(const std::wstring& top) {
    std::vector<std::wstring> visited;
    for (TreeWalk walk(top); walk.Next();) {
        visited.push_back(walk.Path());
    }
    return visited;
}

std::vector<std::wstring> Sorted(std::vector<std::wstring> paths) {
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

    ScratchFolder scratch;
    std::wstring top = scratch.File(L"tree");
};

} // namespace

TEST_F(TreeWalkTest, VisitsEveryEntryOnceAndAFolderBeforeWhatItHolds) {
    const std::vector<std::wstring> visited = Visit(top);
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
    const std::vector<std::wstring> root = Visit(L"\\\\?\\" + top + L"\\sub\\deep\\");
    EXPECT_EQ(root, std::vector<std::wstring>{L"\\\\?\\" + top + L"\\sub\\deep\\c.txt"});
}

TEST_F(TreeWalkTest, SpellsPathsBelowADriveAndItsCurrentDirectory) {
    const halvard_tests::CurrentDirectoryScope directory(top + L"\\sub\\deep");
    const std::vector<std::wstring> current = Visit(L"T:");
    const std::vector<std::wstring> relative = Visit(L"..\\deep");
    EXPECT_EQ(current, std::vector<std::wstring>{L"T:c.txt"});
    EXPECT_EQ(relative, std::vector<std::wstring>{L"..\\deep\\c.txt"});

    const std::vector<std::wstring> drive = Visit(L"T:\\");
    EXPECT_NE(std::find(drive.begin(), drive.end(), top + L"\\sub\\b.txt"), drive.end());
}

TEST_F(TreeWalkTest, VisitsALinkAndDoesNotEnterIt) {
    const halvard_tests::Link link(top + L"\\empty", L"link", L"../sub");
    EXPECT_EQ(Visit(top + L"\\empty"), std::vector<std::wstring>{top + L"\\empty\\link"});
    EXPECT_EQ(Visit(top + L"\\empty\\link"), std::vector<std::wstring>());
}

TEST_F(TreeWalkTest, EndsAtAnotherFolderThanTheOneListed) {
    halvard_tests::RemovalCalls calls;
    calls.afterQuestion = [&](const std::wstring&, FILE_INFO_BY_HANDLE_CLASS type,
                              void* data) -> DWORD {
        if (type == FileIdBothDirectoryInfo) {
            halvard_tests::ForEachListed(data, [](const std::wstring& name, auto& info) {
                info.FileId.QuadPart ^= name == L"sub" ? 1 : 0;
            });
        }
        return ERROR_SUCCESS;
    };
    ExpectFileSystemError([&] { Visit(top); }, "recursive_directory_iterator::operator++",
                          top + L"\\sub", ERROR_DIR_NOT_EMPTY);
}

TEST_F(TreeWalkTest, DoesNotEnterWhatHasBecomeALinkSinceItWasListed) {
    RemovalCalls calls;
    calls.afterQuestion = [&](const std::wstring& path, FILE_INFO_BY_HANDLE_CLASS type,
                              void* data) -> DWORD {
        if (path == top + L"\\sub" && type == FileBasicInfo) {
            static_cast<FILE_BASIC_INFO*>(data)->FileAttributes |= FILE_ATTRIBUTE_REPARSE_POINT;
        } else if (path == top + L"\\sub" && type == FileAttributeTagInfo) {
            *static_cast<FILE_ATTRIBUTE_TAG_INFO*>(data) = {FILE_ATTRIBUTE_DIRECTORY |
                                                                FILE_ATTRIBUTE_REPARSE_POINT,
                                                            IO_REPARSE_TAG_MOUNT_POINT};
        }
        return ERROR_SUCCESS;
    };
    EXPECT_EQ(Sorted(Visit(top)), Sorted({top + L"\\sub", top + L"\\empty"}));
}

TEST_F(TreeWalkTest, TellsNoEntryOfAFolderThatHasBecomeALink) {
    WriteFileAt(top + L"\\sub\\c.txt");
    halvard_tests::RemovalCalls calls;
    bool isLink = false;
    calls.afterQuestion = [&](const std::wstring& path, FILE_INFO_BY_HANDLE_CLASS type,
                              void* data) -> DWORD {
        if (isLink && path == top + L"\\sub" && type == FileBasicInfo) {
            static_cast<FILE_BASIC_INFO*>(data)->FileAttributes |= FILE_ATTRIBUTE_REPARSE_POINT;
        } else if (path == top + L"\\sub" && type == FileAttributeTagInfo) {
            *static_cast<FILE_ATTRIBUTE_TAG_INFO*>(data) = {FILE_ATTRIBUTE_DIRECTORY |
                                                                FILE_ATTRIBUTE_REPARSE_POINT,
                                                            IO_REPARSE_TAG_MOUNT_POINT};
        }
        return ERROR_SUCCESS;
    };
    std::vector<std::wstring> visited;
    ExpectFileSystemError(
        [&] {
            for (TreeWalk walk(top); walk.Next();) {
                visited.push_back(walk.Path());
                isLink = visited.back() == top + L"\\sub\\b.txt";
            }
        },
        "recursive_directory_iterator::operator++", top + L"\\sub", ERROR_DIR_NOT_EMPTY);
    EXPECT_EQ(visited.back(), top + L"\\sub\\b.txt");
}

TEST_F(TreeWalkTest, LooksUpNothingByAPathBelowTheTop) {
    const halvard_tests::RemovalCalls calls;
    Visit(top);
    EXPECT_EQ(calls.openedByPath, (std::vector<std::wstring>{top, scratch.Path() + L"\\"}));
    // Without a right that a tool could not share.
    for (const halvard_tests::EntryOpening& opening : calls.openings) {
        EXPECT_EQ(opening.access,
                  ACCESS_MASK{FILE_LIST_DIRECTORY | FILE_READ_ATTRIBUTES | SYNCHRONIZE});
    }
    EXPECT_EQ(calls.openings.size(), 3U);
}

TEST_F(TreeWalkTest, AFolderThatHasGoneHoldsNothing) {
    std::vector<std::wstring> visited;
    for (TreeWalk walk(top); walk.Next();) {
        visited.push_back(walk.Path());
        halvard_tests::RemoveTree(top + L"\\sub");
    }
    EXPECT_EQ(Sorted(visited), Sorted({top + L"\\sub", top + L"\\empty"}));
}

TEST_F(TreeWalkTest, NamesTheFolderThatCannotBeListed) {
    ExpectFileSystemError([&] { Visit(scratch.File(L"missing")); },
                          "recursive_directory_iterator::recursive_directory_iterator",
                          scratch.File(L"missing"), ERROR_FILE_NOT_FOUND);
    ExpectFileSystemError([] { Visit(L""); },
                          "recursive_directory_iterator::recursive_directory_iterator", L"",
                          ERROR_PATH_NOT_FOUND);
    const int before = halvard_tests::OpenHandleCount();
    {
        FAIL_CALL(opening, NtOpenFile, 1, halvard_tests::kStatusAccessDenied, NO_ERROR);
        ExpectFileSystemError([&] { Visit(top + L"\\sub"); },
                              "recursive_directory_iterator::operator++", top + L"\\sub\\deep",
                              ERROR_ACCESS_DENIED);
    }
    const auto failingListing = [&](const std::wstring& folder, int nth, const char* operation) {
        halvard_tests::RemovalCalls calls;
        int listings = 0;
        calls.beforeListing = [&](const std::wstring& path) -> DWORD {
            return path == folder && ++listings == nth ? ERROR_GEN_FAILURE : ERROR_SUCCESS;
        };
        ExpectFileSystemError([&] { Visit(top); }, operation, folder, ERROR_GEN_FAILURE);
        EXPECT_EQ(listings, nth);
    };
    failingListing(top, 1, "recursive_directory_iterator::recursive_directory_iterator");
    failingListing(top, 2, "recursive_directory_iterator::operator++");
    for (int nth = 1; nth <= 2; ++nth) {
        failingListing(top + L"\\sub", nth, "recursive_directory_iterator::operator++");
        failingListing(top + L"\\sub\\deep", nth, "recursive_directory_iterator::operator++");
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
