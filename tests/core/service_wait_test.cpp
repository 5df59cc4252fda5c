#include "agent/service_wait.h"

#include <gtest/gtest.h>

#include <limits>

using halvard::HasPassed;
using halvard::PollMilliseconds;

namespace {
constexpr std::uint32_t kLast = std::numeric_limits<std::uint32_t>::max();
}

TEST(PollMilliseconds, IsATenthOfTheHintWithinItsLimits) {
    const std::pair<std::uint32_t, std::uint32_t> hintsAndSleeps[] = {
        {0, 1000},       {1, 1000},       {2000, 1000},   {9999, 1000},  {10000, 1000},
        {10009, 1000},   {10010, 1001},   {50000, 5000},  {50009, 5000}, {99999, 9999},
        {100000, 10000}, {100010, 10000}, {kLast, 10000},
    };
    for (const auto& [hint, sleep] : hintsAndSleeps) {
        EXPECT_EQ(PollMilliseconds(hint), sleep) << hint;
    }
}

TEST(HasPassed, OnlyOnceMoreThanTheLimitLiesBetweenTheTicks) {
    EXPECT_FALSE(HasPassed(5, 5, 0));
    EXPECT_TRUE(HasPassed(5, 6, 0));
    EXPECT_FALSE(HasPassed(1000, 31000, 30000));
    EXPECT_TRUE(HasPassed(1000, 31001, 30000));
    EXPECT_FALSE(HasPassed(0, kLast, kLast));
}

TEST(HasPassed, CountsOnWhereTheTicksStartAgain) {
    EXPECT_FALSE(HasPassed(kLast, kLast, 0));
    EXPECT_TRUE(HasPassed(kLast, 0, 0));
    EXPECT_FALSE(HasPassed(kLast, 0, 1));
    EXPECT_FALSE(HasPassed(kLast - 999, 29000, 30000));
    EXPECT_TRUE(HasPassed(kLast - 999, 29001, 30000));
    EXPECT_FALSE(HasPassed(0x80000000, 0x7FFFFFFF, kLast));
    EXPECT_TRUE(HasPassed(0x80000000, 0x7FFFFFFF, kLast - 1));
}
