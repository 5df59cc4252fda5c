#include "time_of.h"

#include <vector>

using halvard_tests::Duration;
using halvard_tests::Growth;

namespace {

struct Script {
    std::vector<double> seconds;
    std::size_t runs = 0;

    // The last time is that of every further run.
    Duration Next() { return Duration(seconds[std::min(runs++, seconds.size() - 1)]); }
};

} // namespace

TEST(GrowthOfTime, ComparesTheShortestRuns) {
    Script few{{1.5, 1, 2}};
    Script many{{40, 30, 10, 50}};
    const double growth = Growth([&] { return few.Next(); }, [&] { return many.Next(); }, 12);
    EXPECT_EQ(growth, 10);
    EXPECT_EQ(few.runs, 3U);
    EXPECT_EQ(many.runs, 3U);
}

TEST(GrowthOfTime, EndsWithTheSecondRunWithinTheLimit) {
    Script few{{1}};
    Script many{{10}};
    EXPECT_EQ(Growth([&] { return few.Next(); }, [&] { return many.Next(); }, 10), 10);
    EXPECT_EQ(many.runs, 2U);
}

TEST(GrowthOfTime, StaysBeyondTheLimitWhateverTheNumberOfRuns) {
    Script few{{1}};
    Script many{{20}};
    EXPECT_EQ(Growth([&] { return few.Next(); }, [&] { return many.Next(); }, 12), 20);
    EXPECT_EQ(few.runs, 9U);
    EXPECT_EQ(many.runs, 9U);
}
