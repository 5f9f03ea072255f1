// On which days of the calendar a schedule runs.
#pragma once

#include <optional>

#include <schedule/calendar.h>
#include <veliaxdr/sched_wire.h>

namespace velia::schedule {

// Both belong to the schedule.
struct Lifetime {
    Day first;
    Day last;
};

// The days beyond which nothing runs: from year 0 to the end of 9999.
constexpr Day day_min = first_of_month(0, 1);
constexpr Day day_max = first_of_month(10000, 1) - 1;

// The first run day that is not before `day`.
std::optional<Day> next_run_day(const sched_schedule_t &schedule, const Lifetime &lifetime, Day day);

} // namespace velia::schedule
