// Another way to the same runs: every minute of ten years in which one may begin is looked at, as the C library shows
// it on the wall, and whether one begins at it. It has nothing of the product's but the record of a schedule.
#pragma once

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include <veliaxdr/sched_wire.h>

namespace schedule_test {

// Of the system's database, without those that count leap seconds and those that stand there twice.
std::vector<std::string> zone_names();

// What the wall shows at each minute from `begin` on, in minutes since 1 January 1970.
struct Wall {
    int64_t begin; // in minutes
    std::vector<int32_t> minutes;
};
Wall wall_of(const std::string &zone, int first_year, int years);

struct Question {
    sched_schedule_t schedule;
    int64_t created; // on a minute
    int64_t after;
};
Question made_up(std::mt19937_64 &random, const Wall &wall);

// The first runs later than `after`, `count` at most, up to the end of the wall.
std::vector<int64_t> searched_runs(const Question &question, const Wall &wall, size_t count);

// The schedule in words, for whoever has to find out.
std::string words_of(const Question &question);

// How many of `count` schedules come out otherwise; each is told.
int64_t count_differences(const std::string &zone, int64_t count, uint64_t seed, int64_t &runs);

} // namespace schedule_test
