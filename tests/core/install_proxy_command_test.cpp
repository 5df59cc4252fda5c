#include "launch/install_proxy_command.h"

#include <gtest/gtest.h>

using halvard::FrameworkToolPath;
using halvard::InstallProxyCommand;
using halvard::InstallProxyPath;

TEST(FrameworkToolPath, GetsOneSeparator) {
    EXPECT_EQ(FrameworkToolPath(L"C:\\F"), L"C:\\F\\CLI.exe");
    EXPECT_EQ(FrameworkToolPath(L"C:\\F\\"), L"C:\\F\\CLI.exe");
    EXPECT_EQ(FrameworkToolPath(L"C:/F/"), L"C:/F/CLI.exe");
}

TEST(InstallProxyPath, HasTheBackslashOfTheFolderBehindTheSeparator) {
    EXPECT_EQ(InstallProxyPath(L"C:\\P"),
              L"C:\\P\\\\Kiln-InstallProxy-Net4\\Kiln.InstallProxy.exe");
    EXPECT_EQ(InstallProxyPath(L"C:\\P\\"),
              L"C:\\P\\\\Kiln-InstallProxy-Net4\\Kiln.InstallProxy.exe");
    EXPECT_EQ(InstallProxyPath(L"C:/P/"), L"C:/P/\\Kiln-InstallProxy-Net4\\Kiln.InstallProxy.exe");
    EXPECT_EQ(InstallProxyPath(L""), L"\\\\Kiln-InstallProxy-Net4\\Kiln.InstallProxy.exe");
}

TEST(InstallProxyCommand, QuotesTheToolAndNotTheProxy) {
    EXPECT_EQ(InstallProxyCommand(L"C:\\F 1\\CLI.exe", L"C:\\P 1\\p.exe"),
              L"\"C:\\F 1\\CLI.exe\" Install C:\\P 1\\p.exe");
}

TEST(InstallProxyCommand, FitsUpTo518Characters) {
    const std::size_t room = 518 - InstallProxyCommand(L"", L"")->size();
    EXPECT_EQ(InstallProxyCommand(L"", std::wstring(room, L'x'))->size(), 518U);
    EXPECT_EQ(InstallProxyCommand(std::wstring(room, L'x'), L"")->size(), 518U);
    EXPECT_EQ(InstallProxyCommand(L"", std::wstring(room + 1, L'x')), std::nullopt);
    EXPECT_EQ(InstallProxyCommand(std::wstring(30000, L'x'), L""), std::nullopt);
}
