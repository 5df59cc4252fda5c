#include "runtime/text.h"

#include <gtest/gtest.h>

#include <stdexcept>

using halvard::FindNoCase;
using halvard::SplitString;
using Pieces = std::list<std::wstring>;
using namespace std::string_literals;

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

TEST(SplitString, GivesOnePieceMoreThanThereAreDelimiters) {
    EXPECT_EQ(SplitString(L"1.2.3", L'.'), (Pieces{L"1", L"2", L"3"}));
    EXPECT_EQ(SplitString(L"text", L'.'), Pieces{L"text"});
    EXPECT_EQ(SplitString(L"1,2.3", L','), (Pieces{L"1", L"2.3"}));
}

TEST(SplitString, KeepsEmptyPiecesAnywhere) {
    EXPECT_EQ(SplitString(L"", L'.'), Pieces{L""});
    EXPECT_EQ(SplitString(L".", L'.'), (Pieces{L"", L""}));
    EXPECT_EQ(SplitString(L".1..2.", L'.'), (Pieces{L"", L"1", L"", L"2", L""}));
    EXPECT_EQ(SplitString(L"a\0.\0"s, L'.'), (Pieces{L"a\0"s, L"\0"s}));
}

TEST(SplitString, RefusesAListThatIsTooLong) {
    EXPECT_EQ(SplitString(L"1.2", L'.', 2), (Pieces{L"1", L"2"}));
    EXPECT_EQ(SplitString(L"", L'.', 1), Pieces{L""});
    for (const auto& [text, largestList] :
         {std::pair(L"1.2.3", 2U), std::pair(L"1.2.", 2U), std::pair(L"", 0U)}) {
        try {
            SplitString(text, L'.', largestList);
            FAIL() << "no exception";
        } catch (const std::length_error& error) {
            EXPECT_STREQ(error.what(), "list too long");
        }
    }
}
