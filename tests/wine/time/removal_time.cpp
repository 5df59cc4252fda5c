#include "cleanup/directory_tree.h"

#include "allocation_failure.h"
#include "files.h"
#include "import_hook.h"
#include "many_files.h"
#include "time_of.h"

#include <windows.h>
#include <winternl.h>

#include <gtest/gtest.h>

using halvard::RemoveAll;
using halvard_tests::CreateFolders;
using halvard_tests::Duration;
using halvard_tests::ExpectLinear;
using halvard_tests::Growth;
using halvard_tests::IsThere;
using halvard_tests::LiveBytes;
using halvard_tests::MakeManyFiles;
using halvard_tests::Numbered;
using halvard_tests::OneOfTen;
using halvard_tests::RemoveBare;
using halvard_tests::ScratchFolder;
using halvard_tests::TimeOf;
using halvard_tests::WriteFileAt;

namespace {

// The bench measures up to 100,000; a test has to be short.
constexpr int kFew = 200;
constexpr int kMany = 10 * kFew;

std::wstring MakeFolder(const ScratchFolder& scratch, int files) {
    const std::wstring folder = scratch.File(L"folder");
    CreateFolders(folder);
    MakeManyFiles(folder, files);
    return folder;
}

// 100 files in each folder.
std::wstring MakeTree(const ScratchFolder& scratch, int files) {
    const std::wstring tree = scratch.File(L"tree");
    for (int folder = 0; folder < files / 100; ++folder) {
        const std::wstring path = Numbered(tree + L"\\folder ", folder);
        CreateFolders(path);
        MakeManyFiles(path, 100);
    }
    return tree;
}

std::wstring MakeChain(const ScratchFolder& scratch, int levels) {
    const std::wstring top = scratch.File(L"chain");
    std::wstring folder = L"\\\\?\\" + top;
    for (int level = 0; level < levels; ++level) {
        EXPECT_NE(CreateDirectoryW(folder.c_str(), nullptr), FALSE);
        folder += L"\\in";
    }
    return top;
}

void RemoveAllOf(const std::wstring& folder, std::uintmax_t entries) {
    DWORD code = ERROR_SUCCESS;
    EXPECT_EQ(RemoveAll(folder, code), entries);
    EXPECT_EQ(code, DWORD{ERROR_SUCCESS});
}

// Ten removals of the smaller number of files are taken together, so that what disturbs the machine
// disturbs both alike.
template <class Make, class Entries>
void ExpectLinearRemoval(Make make, Entries entries) {
    const auto timeOf = [&](int files) {
        const std::wstring folder = make(files);
        return TimeOf([&] { RemoveAllOf(folder, static_cast<std::uintmax_t>(entries(files))); });
    };
    const auto few = [&] {
        return OneOfTen([&] { return timeOf(kFew); });
    };
    const auto many = [&] {
        return timeOf(kMany);
    };
    const auto bare = [&] {
        const std::wstring folder = make(kMany);
        return TimeOf([&] { RemoveBare(folder); });
    };
    ExpectLinear(few, many, bare);
}

std::size_t PeakOfRemoval(const ScratchFolder& scratch, int files) {
    const std::wstring folder = MakeFolder(scratch, files);
    DWORD code = ERROR_SUCCESS;
    const LiveBytes heap;
    EXPECT_EQ(RemoveAll(folder, code), static_cast<std::uintmax_t>(files) + 1);
    return heap.Peak();
}

} // namespace

TEST(RemovalTime, GrowsLinearlyWithTheEntriesOfATree) {
    const ScratchFolder scratch;
    ExpectLinearRemoval([&](int files) { return MakeTree(scratch, files); },
                        [](int files) { return files + files / 100 + 1; });
}

TEST(RemovalTime, GrowsLinearlyWithTheEntriesOfAFolder) {
    const ScratchFolder scratch;
    ExpectLinearRemoval([&](int files) { return MakeFolder(scratch, files); },
                        [](int files) { return files + 1; });
}

// The system looks up every part of a path anew, for the bare loop; the library holds the way down.
TEST(RemovalTime, OfADeepTreeStaysWithinFourTimesABareLoop) {
    const ScratchFolder scratch;
    const auto bare = [&] {
        const std::wstring chain = L"\\\\?\\" + MakeChain(scratch, 200);
        const Duration time = TimeOf([&] { RemoveBare(chain); });
        EXPECT_FALSE(IsThere(chain));
        return time;
    };
    const auto removal = [&] {
        const std::wstring chain = MakeChain(scratch, 200);
        return TimeOf([&] { RemoveAllOf(chain, 200); });
    };
    EXPECT_LE(Growth(bare, removal, 4), 4);
}

TEST(RemovalTime, ATreeOf500LevelsIsRemoved) {
    const ScratchFolder scratch;
    const std::wstring chain = MakeChain(scratch, 500);
    RemoveAllOf(chain, 500);
    EXPECT_FALSE(IsThere(chain));
}

TEST(RemovalMemory, DoesNotGrowWithTheEntriesOfAFolder) {
    const ScratchFolder scratch;
    const std::size_t few = PeakOfRemoval(scratch, 100);
    const std::size_t many = PeakOfRemoval(scratch, 10000);
    EXPECT_GT(few, 0U);
    EXPECT_EQ(many, few);
}

TEST(LiveBytes, CountsWhatIsOutAtATime) {
    const LiveBytes heap;
    for (int round = 0; round < 3; ++round) {
        const std::string first(1000, 'x');
        const std::string second(2000, 'x');
    }
    EXPECT_GE(heap.Peak(), 3000U);
    EXPECT_LT(heap.Peak(), 3500U);
}

// The calls are stand-ins: what counts is that the listing and the count have no limit.
TEST(RemovalTime, Counts100000Entries) {
    const ScratchFolder scratch;
    WriteFileAt(scratch.File(L"first"));
    int listed = 0;
    HOOK(listing, GetFileInformationByHandleEx,
         [&](HANDLE file, FILE_INFO_BY_HANDLE_CLASS type, LPVOID data, DWORD size) -> BOOL {
             if (type != FileIdBothDirectoryInfo) {
                 return listing.Original(file, type, data, size);
             }
             if (listed == 100000) {
                 SetLastError(ERROR_NO_MORE_FILES);
                 return FALSE;
             }
             const std::wstring name = L"file " + std::to_wstring(++listed);
             auto& info = *static_cast<FILE_ID_BOTH_DIR_INFO*>(data);
             info = {};
             info.FileNameLength = static_cast<DWORD>(name.size() * sizeof(wchar_t));
             name.copy(info.FileName, name.size());
             return TRUE;
         });
    // Without an identity the folder above is not listed, which would use up what is listed here.
    constexpr NTSTATUS notImplemented = static_cast<NTSTATUS>(0xC0000002);
    FAIL_CALL(identifying, NtQueryInformationFile, 0, notImplemented, NO_ERROR);
    HOOK(opening, NtOpenFile,
         [](PHANDLE opened, ACCESS_MASK, POBJECT_ATTRIBUTES, PIO_STATUS_BLOCK, ULONG,
            ULONG) -> NTSTATUS {
             *opened = CreateEventW(nullptr, FALSE, FALSE, nullptr);
             return 0;
         });
    HOOK(deleting, SetFileInformationByHandle,
         [](HANDLE, FILE_INFO_BY_HANDLE_CLASS, LPVOID, DWORD) -> BOOL { return TRUE; });
    DWORD code = 1;
    EXPECT_EQ(RemoveAll(scratch.Path(), code), 100001U);
    EXPECT_EQ(code, static_cast<DWORD>(ERROR_SUCCESS));
    EXPECT_EQ(deleting.Calls(), 100001);
}
