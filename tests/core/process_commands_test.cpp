#include "processes/process_commands.h"

#include <gtest/gtest.h>

using halvard::ExitCommand;
using halvard::TaskKillCommand;

TEST(ExitCommand, QuotesTheProgram) {
    EXPECT_EQ(ExitCommand(L"C:\\A B\\pvcmd.exe"), L"\"C:\\A B\\pvcmd.exe\" exit");
    EXPECT_EQ(ExitCommand(L""), L"\"\" exit");
}

TEST(ExitCommand, FitsUpTo518Characters) {
    const std::size_t room = 518 - ExitCommand(L"")->size();
    EXPECT_EQ(ExitCommand(std::wstring(room, L'x')), L"\"" + std::wstring(room, L'x') + L"\" exit");
    EXPECT_EQ(ExitCommand(std::wstring(room + 1, L'x')), std::nullopt);
    EXPECT_EQ(ExitCommand(std::wstring(30000, L'x')), std::nullopt);
}

TEST(TaskKillCommand, QuotesTheToolAndEndsAsItIsTold) {
    EXPECT_EQ(TaskKillCommand(L"C:\\windows\\system32", L"ZenvoVSServ.exe", L""),
              L"\"C:\\windows\\system32\\TaskKill.exe\" /IM ZenvoVSServ.exe /F");
    EXPECT_EQ(TaskKillCommand(L"C:\\windows\\system32", L"VireoSettings.exe", L"\""),
              L"\"C:\\windows\\system32\\TaskKill.exe\" /IM VireoSettings.exe /F\"");
}

TEST(TaskKillCommand, AlwaysPutsABackslashBehindTheFolder) {
    EXPECT_EQ(TaskKillCommand(L"C:\\", L"a.exe", L""), L"\"C:\\\\TaskKill.exe\" /IM a.exe /F");
    EXPECT_EQ(TaskKillCommand(L"C:/s/", L"a.exe", L""), L"\"C:/s/\\TaskKill.exe\" /IM a.exe /F");
    EXPECT_EQ(TaskKillCommand(L"", L"a.exe", L""), L"\"\\TaskKill.exe\" /IM a.exe /F");
}

TEST(TaskKillCommand, FitsUpTo518CharactersWithItsEnd) {
    for (const wchar_t* const end : {L"", L"\""}) {
        const std::size_t room = 518 - TaskKillCommand(L"", L"a.exe", end)->size();
        EXPECT_NE(TaskKillCommand(std::wstring(room, L'x'), L"a.exe", end), std::nullopt);
        EXPECT_EQ(TaskKillCommand(std::wstring(room + 1, L'x'), L"a.exe", end), std::nullopt);
        EXPECT_EQ(TaskKillCommand(std::wstring(30000, L'x'), L"a.exe", end), std::nullopt);
    }
}
