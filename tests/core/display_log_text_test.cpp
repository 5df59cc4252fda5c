#include "registry_actions/display_log_text.h"

#include <gtest/gtest.h>

using halvard::DisplayLogPathsIn;
using halvard::DriverClassKey;
using halvard::IsMadeByTheMaker;

TEST(DisplayLogPathsIn, AddsFolderAndFileToTheTemporaryFolder) {
    const auto paths = DisplayLogPathsIn(L"C:\\T \u0416\\");
    ASSERT_TRUE(paths.has_value());
    EXPECT_EQ(paths->folder, L"C:\\T \u0416\\Zenvo\\PV\\Analytics");
    EXPECT_EQ(paths->file, L"C:\\T \u0416\\Zenvo\\PV\\Analytics\\qtkmd_dce.log");
}

TEST(DisplayLogPathsIn, NoTemporaryFolderHasNoLog) {
    EXPECT_FALSE(DisplayLogPathsIn(L"").has_value());
}

TEST(DisplayLogPathsIn, FitsUpTo1023Characters) {
    const std::wstring end = L"Zenvo\\PV\\Analytics\\qtkmd_dce.log";
    const auto longest = DisplayLogPathsIn(std::wstring(1023 - end.size(), L'x'));
    ASSERT_TRUE(longest.has_value());
    EXPECT_EQ(longest->file.size(), 1023U);
    EXPECT_FALSE(DisplayLogPathsIn(std::wstring(1024 - end.size(), L'x')).has_value());
    EXPECT_FALSE(DisplayLogPathsIn(std::wstring(1023, L'x')).has_value());
}

TEST(IsMadeByTheMaker, KnowsTheFullNameAnywhere) {
    EXPECT_TRUE(IsMadeByTheMaker(L"Zenvo Corporation"));
    EXPECT_TRUE(IsMadeByTheMaker(L"Sold by Zenvo Corporation Ltd."));
    EXPECT_TRUE(IsMadeByTheMaker(L"(c) Zenvo Corporation"));
}

TEST(IsMadeByTheMaker, KnowsTheShortNamesAtTheStart) {
    EXPECT_TRUE(IsMadeByTheMaker(L"Zenvo"));
    EXPECT_TRUE(IsMadeByTheMaker(L"Zenvotech"));
    EXPECT_TRUE(IsMadeByTheMaker(L"Qorta"));
    EXPECT_TRUE(IsMadeByTheMaker(L"Qorta Technologies Inc."));
    EXPECT_FALSE(IsMadeByTheMaker(L"The Zenvo Company"));
    EXPECT_FALSE(IsMadeByTheMaker(L" Zenvo"));
    EXPECT_FALSE(IsMadeByTheMaker(L"New Qorta"));
    EXPECT_FALSE(IsMadeByTheMaker(L"Qort"));
}

TEST(IsMadeByTheMaker, TellsUpperFromLowerCase) {
    EXPECT_FALSE(IsMadeByTheMaker(L"ZENVO"));
    EXPECT_FALSE(IsMadeByTheMaker(L"zenvo"));
    EXPECT_FALSE(IsMadeByTheMaker(L"QORTA"));
    EXPECT_FALSE(IsMadeByTheMaker(L"Made by zenvo corporation"));
}

TEST(IsMadeByTheMaker, KnowsNobodyElse) {
    EXPECT_FALSE(IsMadeByTheMaker(L""));
    EXPECT_FALSE(IsMadeByTheMaker(L"Another Corporation"));
}

TEST(DriverClassKey, StandsBelowTheClasses) {
    EXPECT_EQ(DriverClassKey(L"{4d36e968}\\0000"),
              L"SYSTEM\\CurrentControlSet\\Control\\Class\\{4d36e968}\\0000");
}

TEST(DriverClassKey, AnEmptyNameIsNotTheKeyOfAllClasses) {
    EXPECT_EQ(DriverClassKey(L""), std::nullopt);
}

TEST(DriverClassKey, FitsUpTo255Characters) {
    const std::size_t room = 255 - (DriverClassKey(L"x")->size() - 1);
    EXPECT_EQ(DriverClassKey(std::wstring(room, L'x'))->size(), 255U);
    EXPECT_EQ(DriverClassKey(std::wstring(room + 1, L'x')), std::nullopt);
    EXPECT_EQ(DriverClassKey(std::wstring(2048, L'x')), std::nullopt);
}
