#include "runtime/text.h"

#include <gtest/gtest.h>

using halvard::FindNoCase;

TEST(FindNoCase, GivesThePositionOfTheFirstOccurrence) {
    EXPECT_EQ(FindNoCase(L"abcabc", L"abc"), 0);
    EXPECT_EQ(FindNoCase(L"xxabcabc", L"abc"), 2);
    EXPECT_EQ(FindNoCase(L"abc", L"c"), 2);
}

TEST(FindNoCase, GivesMinusOneWhenThereIsNone) {
    EXPECT_EQ(FindNoCase(L"abc", L"d"), -1);
    EXPECT_EQ(FindNoCase(L"", L"d"), -1);
    EXPECT_EQ(FindNoCase(L"ab", L"abc"), -1);
}

TEST(FindNoCase, IgnoresTheCaseOfBasicLatinLettersInBoth) {
    EXPECT_EQ(FindNoCase(L"ABCXYZ", L"cxyz"), 2);
    EXPECT_EQ(FindNoCase(L"abcxyz", L"CXYZ"), 2);
    EXPECT_EQ(FindNoCase(L"aLl", L"AlL"), 0);
}

TEST(FindNoCase, TellsOtherCharactersApart) {
    EXPECT_EQ(FindNoCase(L"\u00c4", L"\u00e4"), -1);
    EXPECT_EQ(FindNoCase(L"\u0416", L"\u0436"), -1);
    EXPECT_EQ(FindNoCase(L"\u0130", L"i"), -1);
    // The neighbours of A and Z, and of a and z, in the character table.
    EXPECT_EQ(FindNoCase(L"@", L"`"), -1);
    EXPECT_EQ(FindNoCase(L"[", L"{"), -1);
    EXPECT_EQ(FindNoCase(L"`", L"@"), -1);
    EXPECT_EQ(FindNoCase(L"{", L"["), -1);
    EXPECT_EQ(FindNoCase(L"\u00c4", L"\u00c4"), 0);
}

TEST(FindNoCase, EmptyPatternIsFoundAtTheStart) {
    EXPECT_EQ(FindNoCase(L"abc", L""), 0);
    EXPECT_EQ(FindNoCase(L"", L""), 0);
}
