#include "runtime/launch.h"

#include "allocation_failure.h"
#include "import_hook.h"

#include <shlobj.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cwctype>
#include <new>

using halvard::GetShellFolderPath;
using halvard::GetSystemDriveRoot;
using halvard_tests::AllocationFailure;

namespace {

std::wstring LowerCase(std::wstring text) {
    for (wchar_t& character : text) {
        character = static_cast<wchar_t>(std::towlower(character));
    }
    return text;
}

// Passes through to the shell's allocator and counts what is freed.
class CountingAllocator final : public IMalloc {
public:
    int freed = 0;
    int released = 0;

    STDMETHODIMP QueryInterface(REFIID, void**) override { return E_NOINTERFACE; }
    STDMETHODIMP_(ULONG) AddRef() override { return 1; }
    STDMETHODIMP_(ULONG) Release() override {
        ++released;
        return 0;
    }
    STDMETHODIMP_(void*) Alloc(SIZE_T) override { return nullptr; }
    STDMETHODIMP_(void*) Realloc(void*, SIZE_T) override { return nullptr; }
    STDMETHODIMP_(void) Free(void* memory) override {
        ++freed;
        CoTaskMemFree(memory);
    }
    STDMETHODIMP_(SIZE_T) GetSize(void*) override { return 0; }
    STDMETHODIMP_(int) DidAlloc(void*) override { return -1; }
    STDMETHODIMP_(void) HeapMinimize() override {}
};

} // namespace

TEST(GetShellFolderPath, FindsTheFoldersThatActionsAskFor) {
    const std::pair<int, std::wstring> folders[] = {
        {35, L"c:\\programdata"}, {37, L"c:\\windows\\system32"}, {38, L"c:\\program files"}};
    for (const auto& [csidl, folder] : folders) {
        std::wstring path = L"former";
        EXPECT_TRUE(GetShellFolderPath(csidl, path));
        EXPECT_EQ(LowerCase(path), folder) << csidl;
    }
}

TEST(GetShellFolderPath, AnUnknownFolderIsFalseAndKeepsThePath) {
    std::wstring path = L"former";
    EXPECT_FALSE(GetShellFolderPath(0x7F, path));
    EXPECT_EQ(path, L"former");
}

TEST(GetShellFolderPath, AFolderWithoutAPathIsTrueAndKeepsThePath) {
    std::wstring path = L"former";
    EXPECT_TRUE(GetShellFolderPath(CSIDL_DRIVES, path));
    EXPECT_EQ(path, L"former");
}

TEST(GetShellFolderPath, PassesThisToTheShell) {
    HOOK(locating, SHGetFolderLocation,
         [&](HWND window, int csidl, HANDLE token, DWORD reserved, PIDLIST_ABSOLUTE* location) {
             EXPECT_EQ(window, nullptr);
             EXPECT_EQ(csidl, 37);
             EXPECT_EQ(token, nullptr);
             EXPECT_EQ(reserved, 0U);
             EXPECT_EQ(*location, nullptr);
             return locating.Original(window, csidl, token, reserved, location);
         });
    std::wstring path;
    EXPECT_TRUE(GetShellFolderPath(37, path));
    EXPECT_EQ(locating.Calls(), 1);
}

TEST(GetShellFolderPath, OnlySuccessWithoutQualificationIsTrue) {
    HOOK(locating, SHGetFolderLocation,
         [&](HWND window, int csidl, HANDLE token, DWORD reserved, PIDLIST_ABSOLUTE* location) {
             locating.Original(window, csidl, token, reserved, location);
             return locating.Calls() == 1 ? S_FALSE : E_FAIL;
         });
    // A list that came along is converted all the same.
    for (int call = 0; call < 2; ++call) {
        std::wstring path = L"former";
        EXPECT_FALSE(GetShellFolderPath(37, path));
        EXPECT_EQ(LowerCase(path), L"c:\\windows\\system32");
    }
}

TEST(GetShellFolderPath, KeepsThePathWhenTheConversionFails) {
    FAIL_CALL(converting, SHGetPathFromIDListW, 0, FALSE, ERROR_SUCCESS);
    std::wstring path = L"former";
    EXPECT_TRUE(GetShellFolderPath(37, path));
    EXPECT_EQ(path, L"former");
}

TEST(GetShellFolderPath, FreesTheListThroughTheShellAllocatorOnEveryPath) {
    CountingAllocator allocator;
    HOOK(asking, SHGetMalloc, [&](LPMALLOC* result) {
        *result = &allocator;
        return S_OK;
    });
    std::wstring path;
    GetShellFolderPath(37, path);
    EXPECT_EQ(allocator.freed, 1);
    EXPECT_EQ(allocator.released, 1);

    GetShellFolderPath(CSIDL_DRIVES, path);
    EXPECT_EQ(allocator.freed, 2);

    GetShellFolderPath(0x7F, path);
    EXPECT_EQ(allocator.freed, 2);

    std::wstring empty;
    bool happened = false;
    for (int nth = 1; nth == 1 || happened; ++nth) {
        const int freedBefore = allocator.freed;
        const AllocationFailure failure(nth);
        try {
            std::wstring().swap(empty);
            GetShellFolderPath(37, empty);
        } catch (const std::bad_alloc&) {
            EXPECT_TRUE(failure.Happened());
        }
        happened = failure.Happened();
        EXPECT_EQ(allocator.freed, freedBefore + 1);
    }
    EXPECT_EQ(allocator.freed, allocator.released);
}

TEST(GetShellFolderPath, SurvivesAShellWithoutAnAllocator) {
    FAIL_CALL(asking, SHGetMalloc, 0, E_FAIL, ERROR_SUCCESS);
    std::wstring path;
    EXPECT_TRUE(GetShellFolderPath(37, path));
    EXPECT_EQ(LowerCase(path), L"c:\\windows\\system32");
}

TEST(GetSystemDriveRoot, CutsTheWindowsFolderBehindItsFirstBackslash) {
    EXPECT_EQ(LowerCase(GetSystemDriveRoot()), L"c:\\");
    std::wstring folder;
    HOOK(asking, GetWindowsDirectoryW, [&](LPWSTR buffer, UINT size) {
        EXPECT_EQ(size, 260U);
        std::copy_n(folder.c_str(), folder.size() + 1, buffer);
        return static_cast<UINT>(folder.size());
    });
    folder = L"D:\\Windows";
    EXPECT_EQ(GetSystemDriveRoot(), L"D:\\");
    folder = L"Windows";
    EXPECT_EQ(GetSystemDriveRoot(), L"Windows");
}

TEST(GetSystemDriveRoot, IsEmptyWhenWindowsDoesNotTell) {
    {
        FAIL_CALL(asking, GetWindowsDirectoryW, 0, 0, ERROR_ACCESS_DENIED);
        EXPECT_EQ(GetSystemDriveRoot(), L"");
    }
    // A folder that does not fit leaves the buffer as it was.
    FAIL_CALL(asking, GetWindowsDirectoryW, 0, 300, ERROR_SUCCESS);
    EXPECT_EQ(GetSystemDriveRoot(), L"");
}
