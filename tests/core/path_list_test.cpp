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

TEST(PathList, AppendsOnceWhatIsNew) {
    std::vector<std::wstring> paths = {L"held"};
    PathList list(paths);
    EXPECT_FALSE(list.AppendNew(L"held"));
    EXPECT_TRUE(list.AppendNew(L"new"));
    EXPECT_FALSE(list.AppendNew(L"new"));
    EXPECT_EQ(paths, (std::vector<std::wstring>{L"held", L"new"}));
}

TEST(PathList, KnowsThousandsOfPathsHowEverTheyCame) {
    const auto path = [](int number) {
        return L"path " + std::to_wstring(number);
    };
    std::vector<std::wstring> paths;
    for (int number = 0; number < 1000; ++number) {
        paths.push_back(path(number));
    }
    PathList list(paths);
    for (int number = 1000; number < 3000; ++number) {
        EXPECT_TRUE(list.AppendNew(path(number)));
    }
    for (int number = 0; number < 3000; ++number) {
        EXPECT_TRUE(list.Contains(path(number)));
        EXPECT_FALSE(list.Contains(path(3000 + number)));
    }
    EXPECT_EQ(paths.size(), 3000U);
}

TEST(PathList, ComparesExactly) {
    std::vector<std::wstring> paths = {L"Key"};
    EXPECT_FALSE(PathList(paths).Contains(L"KEY"));
}
