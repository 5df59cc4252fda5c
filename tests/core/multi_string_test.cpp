#include "runtime/multi_string.h"

#include <gtest/gtest.h>

#include <stdexcept>

using halvard::JoinMultiString;
using halvard::SplitMultiString;
using Strings = std::list<std::wstring>;
using namespace std::string_literals;

TEST(SplitMultiString, EveryNullCharacterEndsAnElement) {
    EXPECT_EQ(SplitMultiString(L"a\0b\0\0"s), (Strings{L"a", L"b", L""}));
    EXPECT_EQ(SplitMultiString(L"x\0\0"s), (Strings{L"x", L""}));
}

TEST(SplitMultiString, KeepsEmptyElementsAnywhere) {
    EXPECT_EQ(SplitMultiString(L"\0a\0\0b\0\0"s), (Strings{L"", L"a", L"", L"b", L""}));
    EXPECT_EQ(SplitMultiString(L"\0"s), (Strings{L""}));
}

TEST(SplitMultiString, DropsWhatNoNullCharacterEnds) {
    EXPECT_EQ(SplitMultiString(L"a\0tail"s), (Strings{L"a"}));
    EXPECT_EQ(SplitMultiString(L"tail"), Strings{});
    EXPECT_EQ(SplitMultiString(L""), Strings{});
}

TEST(SplitMultiString, RefusesAListThatIsTooLong) {
    EXPECT_EQ(SplitMultiString(L"a\0b\0"s, 2), (Strings{L"a", L"b"}));
    try {
        SplitMultiString(L"a\0b\0c\0"s, 2);
        FAIL() << "no exception";
    } catch (const std::length_error& error) {
        EXPECT_STREQ(error.what(), "list too long");
    }
}

TEST(JoinMultiString, EndsEveryElementAndTheList) {
    EXPECT_EQ(JoinMultiString({L"a", L"b"}), L"a\0b\0\0"s);
    EXPECT_EQ(JoinMultiString({L"a", L"", L"b"}), L"a\0\0b\0\0"s);
}

TEST(JoinMultiString, EmptyListIsOneNullCharacter) {
    EXPECT_EQ(JoinMultiString({}), L"\0"s);
}

TEST(JoinMultiString, ASplitValueGainsOneNullCharacter) {
    EXPECT_EQ(JoinMultiString(SplitMultiString(L"x\0\0"s)), L"x\0\0\0"s);
}
