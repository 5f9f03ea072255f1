// A thousand made-up schedules of ten years against the search minute by minute; a million are a matter of
// `schedule_oracle 1000000`.
#include <gtest/gtest.h>

#include "oracle.h"

using namespace schedule_test;

namespace {

void expect_same(const char *zone, int64_t count, uint64_t seed) {
    int64_t runs = 0;
    EXPECT_EQ(count_differences(zone, count, seed, runs), 0) << zone;
    EXPECT_GT(runs, count * 10);
}

} // namespace

TEST(ScheduleOracle, AThousandSchedulesRunAsTheSearchFindsThem) {
    expect_same("Europe/Berlin", 400, 1);
    expect_same("Africa/Cairo", 200, 2);        // skips midnight
    expect_same("America/Havana", 200, 3);      // has an hour at midnight twice
    expect_same("Australia/Lord_Howe", 200, 4); // half an hour
}
