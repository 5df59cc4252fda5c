#include "text.h"

#include <gtest/gtest.h>

using halvard_runner::Described;
using halvard_runner::HexadecimalDigits;
using halvard_runner::Joined;
using halvard_runner::Wrapped;
using Lines = std::vector<std::wstring>;

TEST(Wrapped, BreaksAtBlanksAndKeepsLongWordsWhole) {
    EXPECT_EQ(Wrapped(L"one two three", 7), (Lines{L"one two", L"three"}));
    EXPECT_EQ(Wrapped(L"one two three", 6), (Lines{L"one", L"two", L"three"}));
    EXPECT_EQ(Wrapped(L"longer one", 3), (Lines{L"longer", L"one"}));
    EXPECT_EQ(Wrapped(L" one   two ", 20), Lines{L"one   two"});
    EXPECT_EQ(Wrapped(L"", 5), Lines{});
    EXPECT_EQ(Wrapped(L"12345", 5), Lines{L"12345"});
}

TEST(Described, IndentsWhatFollows) {
    const std::wstring word(60, L'x');
    EXPECT_EQ(Described(L"label", word + L" " + word),
              L"label       " + word + L"\n            " + word + L"\n");
    EXPECT_EQ(Described(L"a long label", L"text"), L"a long label  text\n");
}

TEST(Joined, PutsTheSeparatorBetween) {
    EXPECT_EQ(Joined({L"a", L"b"}, L", "), L"a, b");
    EXPECT_EQ(Joined({L"a"}, L", "), L"a");
    EXPECT_EQ(Joined({}, L", "), L"");
}

TEST(HexadecimalDigits, HasAtLeastSoMany) {
    EXPECT_EQ(HexadecimalDigits(0, 1), L"0");
    EXPECT_EQ(HexadecimalDigits(0xC0000005, 1), L"C0000005");
    EXPECT_EQ(HexadecimalDigits(0x1F, 4), L"001F");
}
