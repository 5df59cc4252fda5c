#include "com_server/registration_commands.h"

#include <gtest/gtest.h>

#include <utility>

using halvard::GrantCommand;
using halvard::OwnerCommand;
using halvard::RegisterCommand;
using halvard::UnregisterCommand;

TEST(DropTrailingSlash, TakesOneCharacterOfEitherKindAndOnlyOne) {
    const std::pair<const wchar_t*, const wchar_t*> paths[] = {
        {L"C:\\Apps\\Dir", L"C:\\Apps\\Dir"},
        {L"C:\\Apps\\Dir\\", L"C:\\Apps\\Dir"},
        {L"C:\\Apps\\Dir/", L"C:\\Apps\\Dir"},
        {L"C:\\Apps\\Dir\\\\", L"C:\\Apps\\Dir\\"},
        {L"C:\\Apps\\Dir/\\", L"C:\\Apps\\Dir/"},
        {L"C:\\Apps\\Dir\\/", L"C:\\Apps\\Dir\\"},
        {L"C:\\Apps\\Dir\\.", L"C:\\Apps\\Dir\\."},
        {L"C:\\Apps\\Dir ", L"C:\\Apps\\Dir "},
        {L"C:\\", L"C:"},
        {L"\\", L""},
        {L"/", L""},
        {L"", L""},
    };
    for (const auto& [given, expected] : paths) {
        std::wstring path = given;
        halvard::DropTrailingSlash(path);
        EXPECT_EQ(path, expected);
    }
}

TEST(OwnerCommand, QuotesThePathAndNotTheUser) {
    EXPECT_EQ(OwnerCommand(L"C:\\A B\\x.dll", L"DOMAIN\\A user"),
              L"icacls \"C:\\A B\\x.dll\" /setowner DOMAIN\\A user");
    EXPECT_EQ(OwnerCommand(L"", L""), L"icacls \"\" /setowner ");
}

TEST(GrantCommand, GrantsFullControlToTheUsersGroup) {
    EXPECT_EQ(GrantCommand(L"C:\\A B\\x.dll"), L"icacls \"C:\\A B\\x.dll\" /grant Users:F");
    EXPECT_EQ(GrantCommand(L""), L"icacls \"\" /grant Users:F");
}

TEST(UnregisterCommand, PutsNothingBetweenFolderAndName) {
    EXPECT_EQ(UnregisterCommand(L"C:\\Apps\\Dir\\", L"x.dll"),
              L"regsvr32.exe /u /s \"C:\\Apps\\Dir\\x.dll\"");
    EXPECT_EQ(UnregisterCommand(L"C:\\Apps\\Dir", L"x.dll"),
              L"regsvr32.exe /u /s \"C:\\Apps\\Dirx.dll\"");
    EXPECT_EQ(UnregisterCommand(L"", L""), L"regsvr32.exe /u /s \"\"");
}

TEST(RegisterCommand, PutsABackslashBetweenThemWhateverTheFolderEndsIn) {
    EXPECT_EQ(RegisterCommand(L"C:\\Apps\\Dir\\", L"x.dll"),
              L"regsvr32.exe /s \"C:\\Apps\\Dir\\\\x.dll\"");
    EXPECT_EQ(RegisterCommand(L"C:\\Apps\\Dir", L"x.dll"),
              L"regsvr32.exe /s \"C:\\Apps\\Dir\\x.dll\"");
    EXPECT_EQ(RegisterCommand(L"C:/Apps/", L"x.dll"), L"regsvr32.exe /s \"C:/Apps/\\x.dll\"");
    EXPECT_EQ(RegisterCommand(L"", L""), L"regsvr32.exe /s \"\\\"");
}

TEST(PermissionCommands, TakeTheirValuesAsTheyAre) {
    const std::wstring odd = L" a&b^c%PATH%(d)'!~,;=\"\u00e4\u0416\u6f22";
    EXPECT_EQ(OwnerCommand(odd, odd), L"icacls \"" + odd + L"\" /setowner " + odd);
    EXPECT_EQ(GrantCommand(odd), L"icacls \"" + odd + L"\" /grant Users:F");
    EXPECT_EQ(UnregisterCommand(odd, odd), L"regsvr32.exe /u /s \"" + odd + odd + L"\"");
    EXPECT_EQ(RegisterCommand(odd, odd), L"regsvr32.exe /s \"" + odd + L"\\" + odd + L"\"");
}
