#include "tasks/start_boundary.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

using halvard::NextMidnightText;

namespace {

constexpr std::time_t kMinute = 60;
constexpr std::time_t kHour = 60 * kMinute;
constexpr std::time_t kDay = 24 * kHour;

// Zones in the form that both C run-times read. Without a rule of its own every zone switches as
// the United States do: on the second Sunday of March and the first of November, at 2 o'clock.
constexpr char kWestern[] = "EST5EDT";
constexpr char kEastern[] = "CET-1CEST";
constexpr char kUniversal[] = "UTC0";

void SetTimeZone(const char* zone) {
#ifdef _WIN32
    _putenv_s("TZ", zone);
    _tzset();
#else
    setenv("TZ", zone, 1);
    tzset();
#endif
}

/// Puts this process into a time zone for the length of a scope, and into universal time then.
class TimeZone {
public:
    explicit TimeZone(const char* zone) { SetTimeZone(zone); }
    ~TimeZone() { SetTimeZone(kUniversal); }
    TimeZone(const TimeZone&) = delete;
    TimeZone& operator=(const TimeZone&) = delete;
};

#ifdef _WIN32
// Wine's C run-time asks the machine whether there is daylight-saving time at all when it first
// looks at the zone and finds no TZ, and never again. So TZ is set before anything looks, and stays
// set.
const bool kDaylightSavingTimeExists = [] {
    const TimeZone scope(kWestern);
    const std::time_t summer = 1719792000;
    std::tm local = {};
    return localtime_s(&local, &summer) == 0 && local.tm_isdst > 0;
}();
#endif

// Seconds from 1970 to midnight of a day by universal time.
std::time_t Day(int year, int month, int day) {
    // Counted from March on, a leap day is the last of its year.
    const int marchYear = month > 2 ? year : year - 1;
    const int monthsFromMarch = (month + 9) % 12;
    const int daysBeforeYear =
        365 * marchYear + marchYear / 4 - marchYear / 100 + marchYear / 400 - 719468;
    const int dayOfYear = (153 * monthsFromMarch + 2) / 5 + day - 1;
    return (daysBeforeYear + dayOfYear) * kDay;
}

std::wstring TextIn(const char* zone, std::time_t now) {
    const TimeZone scope(zone);
    return NextMidnightText(now);
}

} // namespace

TEST(NextMidnightText, TheDaysOfTheTestsAreCountedRight) {
    EXPECT_EQ(Day(1970, 1, 1), 0);
    EXPECT_EQ(Day(2000, 2, 29), 951782400);
    EXPECT_EQ(Day(2024, 3, 14), 1710374400);
    EXPECT_EQ(Day(2038, 1, 19) + 3 * kHour + 14 * kMinute + 8, 2147483648);
}

#ifdef _WIN32
TEST(NextMidnightText, IsTestedWithDaylightSavingTime) {
    EXPECT_TRUE(kDaylightSavingTimeExists);
}
#endif

TEST(NextMidnightText, IsMidnightOfTheNextDayInWinter) {
    EXPECT_EQ(TextIn(kUniversal, Day(2024, 3, 14) + 13 * kHour), L"2024-03-15T00:00:00");
    EXPECT_EQ(TextIn(kWestern, Day(2024, 1, 9) + 17 * kHour), L"2024-01-10T00:00:00");
    EXPECT_EQ(TextIn(kEastern, Day(2024, 1, 9) + 17 * kHour), L"2024-01-10T00:00:00");
}

TEST(NextMidnightText, IsOneOClockInSummer) {
    EXPECT_EQ(TextIn(kWestern, Day(2024, 7, 1) + 17 * kHour), L"2024-07-02T01:00:00");
    EXPECT_EQ(TextIn(kEastern, Day(2024, 7, 1) + 17 * kHour), L"2024-07-02T01:00:00");
    EXPECT_EQ(TextIn(kUniversal, Day(2024, 7, 1) + 17 * kHour), L"2024-07-02T00:00:00");
}

TEST(NextMidnightText, CountsFromTheLocalDay) {
    // The first and the last second of January 9 in each zone.
    EXPECT_EQ(TextIn(kWestern, Day(2024, 1, 9) + 5 * kHour - 1), L"2024-01-09T00:00:00");
    EXPECT_EQ(TextIn(kWestern, Day(2024, 1, 9) + 5 * kHour), L"2024-01-10T00:00:00");
    EXPECT_EQ(TextIn(kWestern, Day(2024, 1, 10) + 5 * kHour - 1), L"2024-01-10T00:00:00");
    EXPECT_EQ(TextIn(kEastern, Day(2024, 1, 8) + 23 * kHour - 1), L"2024-01-09T00:00:00");
    EXPECT_EQ(TextIn(kEastern, Day(2024, 1, 8) + 23 * kHour), L"2024-01-10T00:00:00");
    EXPECT_EQ(TextIn(kEastern, Day(2024, 1, 9) + 23 * kHour - 1), L"2024-01-10T00:00:00");
    // And of July 1, which daylight-saving time begins an hour earlier.
    EXPECT_EQ(TextIn(kWestern, Day(2024, 7, 1) + 4 * kHour - 1), L"2024-07-01T01:00:00");
    EXPECT_EQ(TextIn(kWestern, Day(2024, 7, 1) + 4 * kHour), L"2024-07-02T01:00:00");
    EXPECT_EQ(TextIn(kEastern, Day(2024, 6, 30) + 22 * kHour - 1), L"2024-07-01T01:00:00");
    EXPECT_EQ(TextIn(kEastern, Day(2024, 6, 30) + 22 * kHour), L"2024-07-02T01:00:00");
}

TEST(NextMidnightText, GoesOnWithTheNextMonthAndYear) {
    for (const char* const zone : {kWestern, kEastern, kUniversal}) {
        EXPECT_EQ(TextIn(zone, Day(2024, 1, 31) + 12 * kHour), L"2024-02-01T00:00:00");
        EXPECT_EQ(TextIn(zone, Day(2024, 11, 30) + 12 * kHour), L"2024-12-01T00:00:00");
        EXPECT_EQ(TextIn(zone, Day(2024, 12, 31) + 12 * kHour), L"2025-01-01T00:00:00");
    }
    EXPECT_EQ(TextIn(kWestern, Day(2024, 6, 30) + 12 * kHour), L"2024-07-01T01:00:00");
}

TEST(NextMidnightText, KnowsLeapYears) {
    for (const char* const zone : {kWestern, kEastern, kUniversal}) {
        EXPECT_EQ(TextIn(zone, Day(2023, 2, 28) + 12 * kHour), L"2023-03-01T00:00:00");
        EXPECT_EQ(TextIn(zone, Day(2024, 2, 28) + 12 * kHour), L"2024-02-29T00:00:00");
        EXPECT_EQ(TextIn(zone, Day(2024, 2, 29) + 12 * kHour), L"2024-03-01T00:00:00");
        EXPECT_EQ(TextIn(zone, Day(2000, 2, 28) + 12 * kHour), L"2000-02-29T00:00:00");
    }
}

TEST(NextMidnightText, TheDayBeforeDaylightSavingTimeBeginsGivesMidnight) {
    for (const char* const zone : {kWestern, kEastern}) {
        EXPECT_EQ(TextIn(zone, Day(2024, 3, 9) + 12 * kHour), L"2024-03-10T00:00:00");
    }
}

TEST(NextMidnightText, TheDayOnWhichDaylightSavingTimeBeginsGivesOneOClock) {
    // Before the switch and behind it.
    EXPECT_EQ(TextIn(kWestern, Day(2024, 3, 10) + 6 * kHour), L"2024-03-11T01:00:00");
    EXPECT_EQ(TextIn(kWestern, Day(2024, 3, 10) + 18 * kHour), L"2024-03-11T01:00:00");
    EXPECT_EQ(TextIn(kEastern, Day(2024, 3, 10)), L"2024-03-11T01:00:00");
    EXPECT_EQ(TextIn(kEastern, Day(2024, 3, 10) + 18 * kHour), L"2024-03-11T01:00:00");
}

TEST(NextMidnightText, TheDayBeforeDaylightSavingTimeEndsGivesOneOClock) {
    for (const char* const zone : {kWestern, kEastern}) {
        EXPECT_EQ(TextIn(zone, Day(2024, 11, 2) + 12 * kHour), L"2024-11-03T01:00:00");
    }
}

TEST(NextMidnightText, TheDayOnWhichDaylightSavingTimeEndsGivesMidnight) {
    EXPECT_EQ(TextIn(kWestern, Day(2024, 11, 3) + 5 * kHour), L"2024-11-04T00:00:00");
    EXPECT_EQ(TextIn(kWestern, Day(2024, 11, 3) + 18 * kHour), L"2024-11-04T00:00:00");
    EXPECT_EQ(TextIn(kEastern, Day(2024, 11, 2) + 23 * kHour), L"2024-11-04T00:00:00");
    EXPECT_EQ(TextIn(kEastern, Day(2024, 11, 3) + 18 * kHour), L"2024-11-04T00:00:00");
}

TEST(NextMidnightText, WorksBehindTheYear2037) {
    EXPECT_EQ(TextIn(kUniversal, Day(2038, 1, 19) + 12 * kHour), L"2038-01-20T00:00:00");
    EXPECT_EQ(TextIn(kWestern, Day(2100, 2, 28) + 12 * kHour), L"2100-03-01T00:00:00");
}

#ifndef _WIN32
// Rules of other countries, which only this C run-time can be told.
TEST(NextMidnightText, FollowsTheRulesOfTheZone) {
    const char* const berlin = "CET-1CEST,M3.5.0,M10.5.0/3";
    EXPECT_EQ(TextIn(berlin, Day(2024, 3, 20) + 12 * kHour), L"2024-03-21T00:00:00");
    EXPECT_EQ(TextIn(berlin, Day(2024, 3, 30) + 12 * kHour), L"2024-03-31T00:00:00");
    EXPECT_EQ(TextIn(berlin, Day(2024, 3, 31) + 12 * kHour), L"2024-04-01T01:00:00");
    EXPECT_EQ(TextIn(berlin, Day(2024, 10, 26) + 12 * kHour), L"2024-10-27T01:00:00");
    EXPECT_EQ(TextIn(berlin, Day(2024, 10, 27) + 12 * kHour), L"2024-10-28T00:00:00");

    // Summer is at the turn of the year here.
    const char* const auckland = "NZST-12NZDT,M9.5.0,M4.1.0/3";
    EXPECT_EQ(TextIn(auckland, Day(2024, 12, 30) + 12 * kHour), L"2025-01-01T01:00:00");
    EXPECT_EQ(TextIn(auckland, Day(2024, 6, 29) + 12 * kHour), L"2024-07-01T00:00:00");

    const char* const kolkata = "IST-5:30";
    EXPECT_EQ(TextIn(kolkata, Day(2024, 7, 1) + 18 * kHour), L"2024-07-02T00:00:00");
    EXPECT_EQ(TextIn(kolkata, Day(2024, 7, 1) + 18 * kHour + 30 * kMinute), L"2024-07-03T00:00:00");
}
#endif
