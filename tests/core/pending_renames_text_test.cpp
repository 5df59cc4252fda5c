#include "agent/pending_renames_text.h"

#include <gtest/gtest.h>

using halvard::RenamesToKeep;
using Renames = std::list<std::wstring>;

TEST(RenamesToKeep, DropsWhatLiesInTheAgentsFolderAndKeepsTheOrder) {
    EXPECT_EQ(RenamesToKeep({L"\\??\\C:\\b", L"\\??\\C:\\P\\Zenvo\\Usage Profile Agent\\a.dll",
                             L"!\\??\\C:\\a", L"\\??\\C:\\P\\Usage Profile Agent"}),
              (Renames{L"\\??\\C:\\b", L"!\\??\\C:\\a"}));
}

TEST(RenamesToKeep, DropsEveryEmptyStringAndTellsNoPairsApart) {
    // A deletion of the agent's, one of another product's, a move, and the end of the value.
    EXPECT_EQ(RenamesToKeep({L"C:\\Usage Profile Agent\\a", L"", L"C:\\other", L"", L"C:\\from",
                             L"C:\\to", L""}),
              (Renames{L"C:\\other", L"C:\\from", L"C:\\to"}));
    EXPECT_EQ(RenamesToKeep({L"", L"", L""}), Renames{});
    EXPECT_EQ(RenamesToKeep({}), Renames{});
}

TEST(RenamesToKeep, DropsOnlyHalfOfAMoveIntoOrOutOfTheFolder) {
    EXPECT_EQ(RenamesToKeep({L"C:\\new", L"!C:\\Usage Profile Agent\\a"}), (Renames{L"C:\\new"}));
    EXPECT_EQ(RenamesToKeep({L"C:\\Usage Profile Agent\\a", L"C:\\old"}), (Renames{L"C:\\old"}));
}

TEST(RenamesToKeep, TheTextCountsInItsCaseAndWithItsBackslash) {
    const Renames others = {L"C:\\usage profile agent\\a", L"C:\\USAGE PROFILE AGENT",
                            L"C:/Usage Profile Agent/a",   L"C:\\My Usage Profile Agent",
                            L"C:\\Usage Profile",          L"Usage Profile Agent",
                            L"C:\\Usage  Profile Agent",   L" "};
    EXPECT_EQ(RenamesToKeep(others), others);
    // Anywhere, as the beginning of a longer name too.
    EXPECT_EQ(RenamesToKeep({L"C:\\Usage Profile Agents\\a", L"C:\\x\\Usage Profile Agent.old",
                             L"\\Usage Profile Agent"}),
              Renames{});
}
