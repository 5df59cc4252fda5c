#include "launch/context_menu_commands.h"

#include <gtest/gtest.h>

TEST(ContextMenuFolder, LiesBelowTheRootOfTheSystemDrive) {
    EXPECT_EQ(halvard::ContextMenuFolder(L"C:\\"), L"C:\\Program Files\\ContextMenuDemo\\");
    EXPECT_EQ(halvard::ContextMenuFolder(L"D:\\"), L"D:\\Program Files\\ContextMenuDemo\\");
    EXPECT_EQ(halvard::ContextMenuFolder(L""), L"Program Files\\ContextMenuDemo\\");
}

TEST(ImportCertificateCommand, QuotesProgramScriptAndPath) {
    EXPECT_EQ(halvard::ImportCertificateCommand(L"D:\\A B\\MyKey.cer"),
              L"\"%SYSTEMROOT%\\System32\\WindowsPowerShell\\v1.0\\powershell.exe\" "
              L"\"Import-Certificate -FilePath 'D:\\A B\\MyKey.cer' "
              L"-CertStoreLocation Cert:\\LocalMachine\\Root\"");
}

TEST(AddPackageCommand, QuotesProgramScriptAndPath) {
    EXPECT_EQ(halvard::AddPackageCommand(L"D:\\A B\\x.msix"),
              L"\"%SYSTEMROOT%\\System32\\WindowsPowerShell\\v1.0\\powershell.exe\" "
              L"\"Add-AppxPackage -Path 'D:\\A B\\x.msix'\"");
}

TEST(ContextMenuCommands, PasteAPathInAsItIs) {
    const std::wstring path = L"it's \"%X%\"";
    EXPECT_NE(halvard::ImportCertificateCommand(path).find(L"'" + path + L"'"), std::wstring::npos);
    EXPECT_NE(halvard::AddPackageCommand(path).find(L"'" + path + L"'"), std::wstring::npos);
}
