#include "fuzz_input.h"

#include "tasks/start_boundary.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>

namespace {

using halvard_tests::Require;

constexpr std::int64_t kDay = 86400;
constexpr std::int64_t kHour = 3600;

// The days since 1970 of a date in the Gregorian calendar.
std::int64_t DaysUpTo(std::int64_t year, int month, int day) {
    // March is the first month of such a year, so that a leap day comes last.
    const std::int64_t shifted = month > 2 ? year : year - 1;
    const std::int64_t dayOfYear = (153 * (month > 2 ? month - 3 : month + 9) + 2) / 5 + day - 1;
    return 365 * shifted + shifted / 4 - shifted / 100 + shifted / 400 + dayOfYear - 719468;
}

struct Date {
    std::int64_t year;
    int month;
    int day;
};

// By trying: the year, the month and the day that begin last up to this one.
Date DateOf(std::int64_t days) {
    Date date = {1970 + days / 366, 1, 1};
    while (DaysUpTo(date.year + 1, 1, 1) <= days) {
        ++date.year;
    }
    while (date.month < 12 && DaysUpTo(date.year, date.month + 1, 1) <= days) {
        ++date.month;
    }
    date.day = static_cast<int>(days - DaysUpTo(date.year, date.month, 1)) + 1;
    return date;
}

// Where daylight-saving time begins or ends: at an hour of the nth (5: the last) Sunday of a month.
struct Switch {
    int month;
    int week;
    int hour;
};

struct Zone {
    const char* name;
    // Seconds that local standard time is ahead of universal time.
    std::int64_t ahead;
    bool saves;
    Switch begin;
    Switch end;
};

constexpr std::array<Zone, 6> kZones = {{
    {"UTC0", 0, false, {}, {}},
    {"NPT-5:45", 5 * kHour + 2700, false, {}, {}},
    {"XST12", -12 * kHour, false, {}, {}},
    {"CET-1CEST,M3.5.0,M10.5.0/3", kHour, true, {3, 5, 2}, {10, 5, 3}},
    {"PST8PDT,M3.2.0,M11.1.0", -8 * kHour, true, {3, 2, 2}, {11, 1, 2}},
    {"AST-10ADT,M10.1.0,M4.1.0/3", 10 * kHour, true, {10, 1, 2}, {4, 1, 3}},
}};

// The local wall time of a switch, in seconds since 1970.
std::int64_t WallTimeOf(const Switch& at, std::int64_t year) {
    const std::int64_t first = DaysUpTo(year, at.month, 1);
    // 1970 began on a Thursday.
    std::int64_t sunday = first + (10 - first % 7) % 7;
    const std::int64_t next =
        at.month == 12 ? DaysUpTo(year + 1, 1, 1) : DaysUpTo(year, at.month + 1, 1);
    for (int week = 1; week < at.week && sunday + 7 < next; ++week) {
        sunday += 7;
    }
    return sunday * kDay + at.hour * kHour;
}

bool IsDaylightSaving(const Zone& zone, std::int64_t now) {
    if (!zone.saves) {
        return false;
    }
    const std::int64_t year = DateOf((now + zone.ahead) / kDay).year;
    const std::int64_t begin = WallTimeOf(zone.begin, year) - zone.ahead;
    const std::int64_t end = WallTimeOf(zone.end, year) - zone.ahead - kHour;
    return begin < end ? now >= begin && now < end : now >= begin || now < end;
}

std::int64_t WallTime(const Zone& zone, std::int64_t now) {
    return now + zone.ahead + (IsDaylightSaving(zone, now) ? kHour : 0);
}

} // namespace

// One byte for the zone, then the seconds since 1970.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    if (size == 0) {
        return 0;
    }
    std::uint64_t number = 0;
    std::memcpy(&number, bytes + 1, std::min<std::size_t>(size - 1, sizeof(number)));
    const Zone& zone = kZones[bytes[0] % kZones.size()];
    // From the second day of 1970 to the year 3000.
    const auto now = static_cast<std::int64_t>(number % (1030 * 365 * kDay)) + kDay;

    static const Zone* current = nullptr;
    if (current != &zone) {
        current = &zone;
        setenv("TZ", zone.name, 1);
        tzset();
    }
    // Today's midnight in standard time, and a day later whatever the clock says then.
    const std::int64_t today = WallTime(zone, now) / kDay;
    const std::int64_t next = (today + 1) * kDay - zone.ahead;
    const std::int64_t wall = WallTime(zone, next);
    const Date date = DateOf(wall / kDay);
    const auto hour = static_cast<int>(wall % kDay / kHour);
    Require(wall % kHour == 0 && (hour == 0 || (hour == 1 && zone.saves)));
    std::array<wchar_t, 40> expected = {};
    std::swprintf(expected.data(), expected.size(), L"%04d-%02d-%02dT%02d:00:00",
                  static_cast<int>(date.year), date.month, date.day, hour);
    Require(halvard::NextMidnightText(now) == expected.data());
    return 0;
}
