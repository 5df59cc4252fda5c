#include "runtime/file_paths.h"

#include <gtest/gtest.h>

using halvard::ParentFolder;

TEST(ParentFolder, DropsTheLastComponentAndTheSlashesBeforeIt) {
    EXPECT_EQ(ParentFolder(L"C:\\Apps\\Svc\\svc.exe"), L"C:\\Apps\\Svc");
    EXPECT_EQ(ParentFolder(L"C:/Apps/Svc/svc.exe"), L"C:/Apps/Svc");
    EXPECT_EQ(ParentFolder(L"C:\\Apps\\Svc\\\\\\svc.exe"), L"C:\\Apps\\Svc");
    EXPECT_EQ(ParentFolder(L"C:\\Apps\\Svc/\\/svc.exe"), L"C:\\Apps\\Svc");
    EXPECT_EQ(ParentFolder(L"Svc\\svc.exe"), L"Svc");
}

TEST(ParentFolder, KeepsTheSlashesOfTheRestAsTheyAre) {
    EXPECT_EQ(ParentFolder(L"C:\\\\Apps//Svc\\svc.exe"), L"C:\\\\Apps//Svc");
    EXPECT_EQ(ParentFolder(L"C:\\Apps\\..\\Svc\\svc.exe"), L"C:\\Apps\\..\\Svc");
}

TEST(ParentFolder, APathThatEndsInSlashesHasAnEmptyLastComponent) {
    EXPECT_EQ(ParentFolder(L"C:\\Apps\\Svc\\"), L"C:\\Apps\\Svc");
    EXPECT_EQ(ParentFolder(L"C:\\Apps\\Svc\\/\\"), L"C:\\Apps\\Svc");
}

TEST(ParentFolder, ALoneNameHasAnEmptyFolder) {
    EXPECT_EQ(ParentFolder(L"svc.exe"), L"");
    EXPECT_EQ(ParentFolder(L"?"), L"");
    EXPECT_EQ(ParentFolder(L""), L"");
}

TEST(ParentFolder, TheRootOfADriveKeepsItsSlash) {
    EXPECT_EQ(ParentFolder(L"C:\\svc.exe"), L"C:\\");
    EXPECT_EQ(ParentFolder(L"C:/svc.exe"), L"C:/");
    EXPECT_EQ(ParentFolder(L"C:\\"), L"C:\\");
    EXPECT_EQ(ParentFolder(L"\\svc.exe"), L"\\");
    EXPECT_EQ(ParentFolder(L"\\Svc\\svc.exe"), L"\\Svc");
    EXPECT_EQ(ParentFolder(L"\\:\\svc.exe"), L"\\:");
}

TEST(ParentFolder, ADriveWithoutASlashMeansItsCurrentFolder) {
    EXPECT_EQ(ParentFolder(L"C:svc.exe"), L"C:");
    EXPECT_EQ(ParentFolder(L"C:Svc\\svc.exe"), L"C:Svc");
    EXPECT_EQ(ParentFolder(L"C:"), L"C:");
}

TEST(ParentFolder, AServerIsARoot) {
    EXPECT_EQ(ParentFolder(L"\\\\server\\share\\svc.exe"), L"\\\\server\\share");
    EXPECT_EQ(ParentFolder(L"//server/share/svc.exe"), L"//server/share");
    EXPECT_EQ(ParentFolder(L"\\\\server\\share"), L"\\\\server\\");
    EXPECT_EQ(ParentFolder(L"\\\\server"), L"\\\\server");
    EXPECT_EQ(ParentFolder(L"\\\\s"), L"\\\\s");
    EXPECT_EQ(ParentFolder(L"\\\\?s\\share\\svc.exe"), L"\\\\?s\\share");
}

TEST(ParentFolder, TheFormsOfTheSystemKeepTheRootOfTheirDrive) {
    EXPECT_EQ(ParentFolder(L"\\\\?\\C:\\svc.exe"), L"\\\\?\\C:\\");
    EXPECT_EQ(ParentFolder(L"\\\\.\\C:\\svc.exe"), L"\\\\.\\C:\\");
    EXPECT_EQ(ParentFolder(L"\\??\\C:\\svc.exe"), L"\\??\\C:\\");
    EXPECT_EQ(ParentFolder(L"\\??\\C:\\Svc\\svc.exe"), L"\\??\\C:\\Svc");
    EXPECT_EQ(ParentFolder(L"\\??\\svc.exe"), L"\\??");
    EXPECT_EQ(ParentFolder(L"\\\\?\\C:\\Svc\\svc.exe"), L"\\\\?\\C:\\Svc");
    EXPECT_EQ(ParentFolder(L"\\\\?\\UNC\\server\\share\\svc.exe"), L"\\\\?\\UNC\\server\\share");
    EXPECT_EQ(ParentFolder(L"\\\\?"), L"\\\\?");
    EXPECT_EQ(ParentFolder(L"\\\\?\\"), L"\\\\?\\");
    EXPECT_EQ(ParentFolder(L"\\\\?\\C"), L"\\\\?\\");
    EXPECT_EQ(ParentFolder(L"\\\\?\\C:"), L"\\\\?\\C:");
}

TEST(ParentFolder, SlashesAloneAreARoot) {
    EXPECT_EQ(ParentFolder(L"\\"), L"\\");
    EXPECT_EQ(ParentFolder(L"//"), L"//");
    EXPECT_EQ(ParentFolder(L"\\/\\"), L"\\/\\");
    EXPECT_EQ(ParentFolder(L"\\\\\\Svc\\svc.exe"), L"\\\\\\Svc");
}

TEST(ParentFolder, QuotesAndArgumentsAreNothingSpecial) {
    EXPECT_EQ(ParentFolder(L"\"C:\\Apps\\Svc\\svc.exe\""), L"\"C:\\Apps\\Svc");
    EXPECT_EQ(ParentFolder(L"\"C:\\svc.exe\""), L"\"C:");
    EXPECT_EQ(ParentFolder(L"C:\\Apps\\Svc\\svc.exe -k group"), L"C:\\Apps\\Svc");
    EXPECT_EQ(ParentFolder(L"C:\\Apps\\Svc\\svc.exe /run"), L"C:\\Apps\\Svc\\svc.exe ");
    EXPECT_EQ(ParentFolder(L"C:\\Apps\\Svc\\svc.exe -f D:\\x.ini"),
              L"C:\\Apps\\Svc\\svc.exe -f D:");
}
