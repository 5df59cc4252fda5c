#include "tasks/start_boundary.h"

namespace halvard {

namespace {

static_assert(sizeof(std::time_t) == 8, "times behind the year 2037 have to work");

constexpr std::time_t kSecondsOfADay = 86400;

std::tm LocalTime(std::time_t time) {
    std::tm local = {};
#ifdef _WIN32
    static_cast<void>(localtime_s(&local, &time));
#else
    localtime_r(&time, &local);
#endif
    return local;
}

std::wstring AtLeastTwoDigits(int number) {
    const std::wstring digits = std::to_wstring(number);
    return digits.size() < 2 ? L"0" + digits : digits;
}

} // namespace

std::wstring NextMidnightText(std::time_t now) {
    const std::tm today = LocalTime(now);
    // The daylight-saving flag stays 0 (standard time) whatever the season.
    std::tm midnight = {};
    midnight.tm_mday = today.tm_mday;
    midnight.tm_mon = today.tm_mon;
    midnight.tm_year = today.tm_year;
    const std::tm next = LocalTime(std::mktime(&midnight) + kSecondsOfADay);

    return AtLeastTwoDigits(next.tm_year + 1900) + L"-" + AtLeastTwoDigits(next.tm_mon + 1) + L"-" +
           AtLeastTwoDigits(next.tm_mday) + L"T" + AtLeastTwoDigits(next.tm_hour) + L":" +
           AtLeastTwoDigits(next.tm_min) + L":" + AtLeastTwoDigits(next.tm_sec);
}

} // namespace halvard
