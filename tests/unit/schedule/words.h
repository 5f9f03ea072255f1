// Schedules and their runs in words, as doc/schedules.md has them:
//
//     zone Europe/Berlin
//     made 2026-03-28 12:00
//     every 1 days, first 02:30
//     runs 2026-03-29 03:00 +0200 moved
//     runs 2026-03-30 02:30 +0200
//
// "after" is the moment from which runs are told, else that of the making; "changed" one at which the job was changed.
// "ends" stands behind the last run of a schedule that comes to its end.
#pragma once

#include <string>
#include <vector>

#include <schedule/next_start.h>

namespace schedule_test {

struct Example {
    velia::schedule::Zone zone;
    sched_schedule_t schedule = {};
    int64_t created = 0;
    int64_t changed = 0;
    int64_t after = 0;
    std::vector<std::string> told; // "runs ..." and "ends", as they stand
    std::string fault;             // what of it is no word of an example
};

Example read_example(const std::string &text);

// As many runs as are told, in the same words.
std::vector<std::string> runs_of(const Example &example);

// Of an example without any told: its first runs, one a line.
std::string first_runs(const std::string &text, int count);

} // namespace schedule_test
