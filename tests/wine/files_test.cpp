#include "files.h"

#include <windows.h>

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

using halvard_tests::ScratchFolder;

TEST(RemoveForGood, WaitsForWhoeverHoldsSomethingInTheFolder) {
    const ScratchFolder scratch;
    const std::wstring folder = scratch.File(L"held");
    halvard_tests::CreateFolders(folder);
    const HANDLE file = CreateFileW((folder + L"\\file").c_str(), GENERIC_WRITE, 0, nullptr,
                                    CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    ASSERT_NE(file, INVALID_HANDLE_VALUE);
    // It lets go when somebody has tried in vain.
    halvard_tests::RemoveTree(folder);
    EXPECT_TRUE(halvard_tests::IsThere(folder));
    std::atomic<bool> letGo = false;
    std::thread holder([&] {
        Sleep(300);
        letGo = true;
        CloseHandle(file);
    });
    halvard_tests::RemoveForGood(folder);
    EXPECT_TRUE(letGo);
    EXPECT_FALSE(halvard_tests::IsThere(folder));
    holder.join();
}
