#include "runtime/file_paths.h"

#include <gtest/gtest.h>

using halvard::ExtendedLengthPath;
using halvard::WithoutLoneSurrogates;

TEST(FileInFolder, AddsABackslashWhereThereIsNoSlash) {
    EXPECT_EQ(halvard::FileInFolder(L"C:\\A", L"x.xml"), L"C:\\A\\x.xml");
    EXPECT_EQ(halvard::FileInFolder(L"C:\\A\\", L"x.xml"), L"C:\\A\\x.xml");
    EXPECT_EQ(halvard::FileInFolder(L"C:/A/", L"x.xml"), L"C:/A/x.xml");
    EXPECT_EQ(halvard::FileInFolder(L"", L"x.xml"), L"\\x.xml");
}

TEST(ProgramInFolder, AlwaysAddsABackslash) {
    EXPECT_EQ(halvard::ProgramInFolder(L"C:\\A", L"x.exe"), L"C:\\A\\x.exe");
    EXPECT_EQ(halvard::ProgramInFolder(L"C:\\A\\", L"x.exe"), L"C:\\A\\\\x.exe");
    EXPECT_EQ(halvard::ProgramInFolder(L"C:/A/", L"x.exe"), L"C:/A/\\x.exe");
}

TEST(ExtendedLengthPath, PutsThePrefixBeforeADriveLetter) {
    EXPECT_EQ(ExtendedLengthPath(L"C:\\Apps\\Pivot"), L"\\\\?\\C:\\Apps\\Pivot");
}

TEST(ExtendedLengthPath, TurnsAShareIntoItsUncForm) {
    EXPECT_EQ(ExtendedLengthPath(L"\\\\server\\share\\folder"),
              L"\\\\?\\UNC\\server\\share\\folder");
}

TEST(ExtendedLengthPath, DropsBackslashesAtTheEndButTheOneOfARoot) {
    EXPECT_EQ(ExtendedLengthPath(L"C:\\Apps\\"), L"\\\\?\\C:\\Apps");
    EXPECT_EQ(ExtendedLengthPath(L"C:\\Apps\\\\"), L"\\\\?\\C:\\Apps");
    EXPECT_EQ(ExtendedLengthPath(L"\\\\server\\share\\"), L"\\\\?\\UNC\\server\\share");
    EXPECT_EQ(ExtendedLengthPath(L"C:\\"), L"\\\\?\\C:\\");
}

TEST(ExtendedLengthPath, LeavesOtherFormsOfTheSystemAlone) {
    for (const wchar_t* path : {L"\\\\?\\C:\\Apps\\", L"\\\\?\\UNC\\server\\share\\", L"\\\\.\\NUL",
                                L"\\??\\C:\\Apps\\"}) {
        EXPECT_EQ(ExtendedLengthPath(path), path);
    }
}

TEST(ExtendedLengthPath, APathOfOneCharacterIsKeptWhole) {
    EXPECT_EQ(ExtendedLengthPath(L"\\"), L"\\\\?\\\\");
}

TEST(ExtendedLengthPath, KeepsDotsAndBlanksAtTheEnd) {
    EXPECT_EQ(ExtendedLengthPath(L"C:\\Apps\\dots.. "), L"\\\\?\\C:\\Apps\\dots.. ");
}

TEST(WithoutLoneSurrogates, LeavesTextAndPairsAlone) {
    const std::wstring pair = {L'a', static_cast<wchar_t>(0xD83D), static_cast<wchar_t>(0xDE00),
                               L'b'};
    EXPECT_EQ(WithoutLoneSurrogates(pair), pair);
    EXPECT_EQ(WithoutLoneSurrogates(L""), L"");
    EXPECT_EQ(WithoutLoneSurrogates(L"a\xE000"), L"a\xE000");
    EXPECT_EQ(WithoutLoneSurrogates(L"C:\\Apps"), L"C:\\Apps");
}

TEST(WithoutLoneSurrogates, ReplacesEachHalfWithoutAPartner) {
    const auto high = static_cast<wchar_t>(0xD83D);
    const auto low = static_cast<wchar_t>(0xDE00);
    const wchar_t mark = 0xFFFD;
    EXPECT_EQ(WithoutLoneSurrogates({high}), std::wstring({mark}));
    EXPECT_EQ(WithoutLoneSurrogates({low, L'a'}), std::wstring({mark, L'a'}));
    EXPECT_EQ(WithoutLoneSurrogates({L'a', high, L'b'}), std::wstring({L'a', mark, L'b'}));
    EXPECT_EQ(WithoutLoneSurrogates({high, high, low}), std::wstring({mark, high, low}));
    EXPECT_EQ(WithoutLoneSurrogates({low, high, low}), std::wstring({mark, high, low}));
}

TEST(ThroughFirstBackslash, CutsBehindIt) {
    EXPECT_EQ(halvard::ThroughFirstBackslash(L"C:\\Windows"), L"C:\\");
    EXPECT_EQ(halvard::ThroughFirstBackslash(L"D:\\Windows\\x"), L"D:\\");
    EXPECT_EQ(halvard::ThroughFirstBackslash(L"\\\\server\\share"), L"\\");
}

TEST(ThroughFirstBackslash, KeepsATextWithoutOne) {
    EXPECT_EQ(halvard::ThroughFirstBackslash(L"C:/Windows"), L"C:/Windows");
    EXPECT_EQ(halvard::ThroughFirstBackslash(L""), L"");
}
