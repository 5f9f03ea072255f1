// The calendar, in whole numbers: days are counted from 1 January 1970.
#pragma once

#include <chrono>
#include <cstdint>

namespace velia::schedule {

using Day = int64_t;

constexpr int64_t seconds_of_day = 86400;
constexpr int days_of_week = 7;
constexpr int months_of_year = 12;

struct Date {
    int64_t year;
    int month; // from 1
    int day;   // from 1
};

constexpr int64_t floor_divide(int64_t number, int64_t by) {
    return number / by - (number % by < 0 ? 1 : 0);
}

constexpr int64_t floor_rest(int64_t number, int64_t by) {
    return number - floor_divide(number, by) * by;
}

// Monday is 0.
constexpr int weekday_of(Day day) {
    constexpr int weekday_of_day_0 = 3;
    return static_cast<int>(floor_rest(day + weekday_of_day_0, days_of_week));
}

constexpr bool is_leap_year(int64_t year) {
    return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
}

constexpr int length_of_month(int64_t year, int month) {
    constexpr int lengths[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return lengths[month - 1] + (month == 2 && is_leap_year(year) ? 1 : 0);
}

// Of any year; whole periods of 400 years have whole days.
constexpr Day first_of_month(int64_t year, int month) {
    constexpr int64_t period_years = 400;
    constexpr int64_t period_days = 146097;
    const std::chrono::sys_days days =
        std::chrono::year_month_day(std::chrono::year(static_cast<int>(floor_rest(year, period_years))),
                                    std::chrono::month(static_cast<unsigned>(month)), std::chrono::day(1));
    return days.time_since_epoch().count() + floor_divide(year, period_years) * period_days;
}

constexpr Date date_of(Day day) {
    constexpr int64_t period_years = 400;
    constexpr int64_t period_days = 146097;
    const auto of_period = static_cast<int>(floor_rest(day, period_days));
    const std::chrono::year_month_day date{std::chrono::sys_days(std::chrono::days(of_period))};
    return {int{date.year()} + floor_divide(day, period_days) * period_years, static_cast<int>(unsigned{date.month()}),
            static_cast<int>(unsigned{date.day()})};
}

} // namespace velia::schedule
