// A run day is found by arithmetic, however many days, weeks or months lie between two of them.
#include <schedule/run_days.h>

#include <algorithm>

namespace velia::schedule {

namespace {

// The first of `first`, `first` + `step`, ... that is not before `least`.
int64_t first_step_from(int64_t first, int64_t step, int64_t least) {
    return least <= first ? first : first + floor_divide(least - first + step - 1, step) * step;
}

Day monday_of(Day day) {
    return day - weekday_of(day);
}

std::optional<Day> next_daily(const sched_daily_sched_t &daily, Day start, Day day) {
    return first_step_from(start, daily.frequency, day);
}

// In the week of `day`, or on the first of its days in the next week that counts.
std::optional<Day> next_weekly(const sched_weekly_sched_t &weekly, Day start, Day day) {
    const int64_t step = int64_t{weekly.frequency} * days_of_week;
    const Day week = first_step_from(monday_of(start), step, monday_of(day));
    for (const Day monday : {week, week + step})
        for (int weekday = 0; weekday < days_of_week; ++weekday)
            if ((weekly.days >> weekday & 1U) != 0 && monday + weekday >= day)
                return monday + weekday;
    return std::nullopt;
}

bool is_of_kind(int weekday, sched_sched_mds_kind_t kind) {
    enum { MONDAY = 1, SUNDAY = 7, WEEKDAY = 8, WEEKEND_DAY = 9, DAY = 10 }; // rows of mds_kind_str_map
    constexpr int saturday = 5;
    switch (kind) {
    case WEEKDAY:
        return weekday < saturday;
    case WEEKEND_DAY:
        return weekday >= saturday;
    case DAY:
        return true;
    default:
        return weekday == kind - MONDAY;
    }
}

// The n-th day of its kind; nothing for an ordinal or a kind that there is not.
std::optional<Day> day_of_kind(const sched_sched_monthly_day_kind_t &wanted, Day first, int length) {
    constexpr int last_ordinal = 5; // row of mds_ordinal_str_map
    std::optional<Day> last;
    int count = 0;
    for (Day day = first; day < first + length; ++day) {
        if (!is_of_kind(weekday_of(day), wanted.kind))
            continue;
        last = day;
        if (++count == wanted.ordinal && wanted.ordinal < last_ordinal)
            return day;
    }
    return wanted.ordinal == last_ordinal ? last : std::nullopt;
}

std::optional<Day> day_in_month(const sched_monthly_sched_t &monthly, int64_t month_number) {
    const int64_t year = floor_divide(month_number, months_of_year);
    const int month = static_cast<int>(floor_rest(month_number, months_of_year)) + 1;
    const int length = length_of_month(year, month);
    const Day first = first_of_month(year, month);
    if (monthly.day_spec_kind == SCHED_MONTHLY_DAY_KIND)
        return day_of_kind(monthly.day.kind, first, length);
    return monthly.day.number <= static_cast<uint32_t>(length) ? std::optional(first + monthly.day.number - 1)
                                                               : std::nullopt;
}

int64_t month_number_of(Day day) {
    const Date date = date_of(day);
    return date.year * months_of_year + date.month - 1;
}

// The calendar comes again after 4800 months: a day that none of so many has is in no month.
std::optional<Day> next_monthly(const sched_monthly_sched_t &monthly, Day start, Day day) {
    constexpr int months_of_period = 4800;
    int64_t month = first_step_from(month_number_of(start), monthly.frequency, month_number_of(day));
    const int64_t last_month = month_number_of(day_max);
    for (int i = 0; i <= months_of_period && month <= last_month; ++i, month += monthly.frequency)
        if (const auto found = day_in_month(monthly, month); found && *found >= day)
            return found;
    return std::nullopt;
}

std::optional<Day> next_of_kind(const sched_schedule_t &schedule, Day start, Day day) {
    switch (schedule.kind) {
    case SCHED_KIND_MONTHLY:
        return next_monthly(schedule.u.monthly, start, day);
    case SCHED_KIND_WEEKLY:
        return next_weekly(schedule.u.weekly, start, day);
    case SCHED_KIND_DAILY:
        return next_daily(schedule.u.daily, start, day);
    default:
        return std::nullopt;
    }
}

} // namespace

std::optional<Day> next_run_day(const sched_schedule_t &schedule, const Lifetime &lifetime, Day day) {
    const auto found = next_of_kind(schedule, lifetime.first, std::max(day, lifetime.first));
    return found && *found <= std::min(lifetime.last, day_max) ? found : std::nullopt;
}

} // namespace velia::schedule
