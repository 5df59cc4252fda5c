#include "runtime/path_list.h"

#include <gtest/gtest.h>

using halvard::PathList;

TEST(PathList, KnowsWhatTheVectorHeldBefore) {
    std::vector<std::wstring> paths = {L"a\\b", L"a\\c"};
    const PathList list(paths);
    EXPECT_TRUE(list.Contains(L"a\\b"));
    EXPECT_TRUE(list.Contains(L"a\\c"));
    EXPECT_FALSE(list.Contains(L"a"));
}

TEST(PathList, AppendsInOrderAndKnowsWhatItAppended) {
    std::vector<std::wstring> paths = {L"z"};
    PathList list(paths);
    list.Append(L"y");
    list.Append(L"x");
    EXPECT_EQ(paths, (std::vector<std::wstring>{L"z", L"y", L"x"}));
    EXPECT_TRUE(list.Contains(L"y"));
}

TEST(PathList, AppendsTwiceWhenAsked) {
    std::vector<std::wstring> paths;
    PathList list(paths);
    list.Append(L"same");
    list.Append(L"same");
    EXPECT_EQ(paths.size(), 2U);
}

TEST(PathList, ComparesExactly) {
    std::vector<std::wstring> paths = {L"Key"};
    EXPECT_FALSE(PathList(paths).Contains(L"KEY"));
}
