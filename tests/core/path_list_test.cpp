#include "runtime/path_list.h"

#include <gtest/gtest.h>

using halvard::PathList;

namespace {

std::wstring Path(int number) {
    return L"path " + std::to_wstring(number);
}

} // namespace

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

TEST(PathList, KnowsThousandsOfPathsHoweverTheyCame) {
    for (const int before : {0, 1000}) {
        std::vector<std::wstring> paths;
        for (int number = 0; number < before; ++number) {
            paths.push_back(Path(number));
        }
        PathList list(paths);
        for (int number = before; number < 3000; ++number) {
            EXPECT_TRUE(list.AppendNew(Path(number)));
        }
        for (int number = 0; number < 3000; ++number) {
            EXPECT_TRUE(list.Contains(Path(number)));
            EXPECT_FALSE(list.Contains(Path(3000 + number)));
        }
        EXPECT_EQ(paths.size(), 3000U);
    }
}

// One of 64 names has the last place of the table, and stands there and in the first.
TEST(PathList, KnowsWhatHasTheLastPlaceTwice) {
    for (int number = 0; number < 1000; ++number) {
        std::vector<std::wstring> paths;
        PathList list(paths);
        list.Append(Path(number));
        list.Append(Path(number));
        EXPECT_TRUE(list.Contains(Path(number)));
        EXPECT_FALSE(list.AppendNew(Path(number)));
        EXPECT_TRUE(list.AppendNew(Path(number + 1)));
        EXPECT_EQ(paths, (std::vector<std::wstring>{Path(number), Path(number), Path(number + 1)}));
    }
}

TEST(PathList, ComparesExactly) {
    std::vector<std::wstring> paths = {L"Key"};
    EXPECT_FALSE(PathList(paths).Contains(L"KEY"));
}
