#include "runtime/launch_text.h"

#include <gtest/gtest.h>

#include <set>

TEST(CmdCommandLine, EnclosesTheCommandInOnePairOfQuotes) {
    EXPECT_EQ(halvard::CmdCommandLine(L"icacls \"C:\\A B\" /reset"),
              L"cmd.exe /C \"icacls \"C:\\A B\" /reset\"");
    EXPECT_EQ(halvard::CmdCommandLine(L""), L"cmd.exe /C \"\"");
}

TEST(FailedLaunchText, NamesTheCommandAndTheCodeInDecimal) {
    EXPECT_EQ(halvard::FailedLaunchText(L"a.exe /b", 267),
              L"\nFailed to lauch >a.exe /b<\n Last error return: 267\n");
    EXPECT_EQ(halvard::FailedLaunchText(L"", 0xFFFFFFFF),
              L"\nFailed to lauch ><\n Last error return: 4294967295\n");
}

TEST(ShellExecuteErrorText, KnowsTheTable) {
    const std::pair<int, const wchar_t*> table[] = {
        {0, L"The operating system is out of memory or resources"},
        {2, L"File not found."},
        {3, L"Path not found."},
        {5, L"Access denied."},
        {8, L"Out of memory."},
        {26, L"Cannot share an open file."},
        {27, L"File association information not complete."},
        {28, L" The DDE transaction could not be completed because the request timed out"},
        {29, L"DDE operation failed."},
        {30, L"DDE operation is busy."},
        {31, L"File association not available."},
        {32, L"Dynamic-link library not found."},
    };
    std::set<int> known;
    for (const auto& [code, text] : table) {
        EXPECT_STREQ(halvard::ShellExecuteErrorText(code), text) << code;
        known.insert(code);
    }
    for (int code = -1; code <= 64; ++code) {
        if (known.count(code) == 0) {
            EXPECT_STREQ(halvard::ShellExecuteErrorText(code),
                         L"Unknown error, could be SE_ERR_FNF, or SE_ERR_PNF")
                << code;
        }
    }
}
