// What a schedule means, rule by rule.
#include <gtest/gtest.h>

#include <climits>

#include <schedule/calendar.h>
#include <schedule/run_days.h>

#include "words.h"

using namespace velia::schedule;
using namespace schedule_test;

namespace {

const std::string berlin = "zone Europe/Berlin\nmade 2026-03-20 10:30\n";
const std::string utc = "zone UTC\nmade 2026-01-01 00:00\n";

std::string runs(const std::string &lines, int count = 3) {
    return first_runs(lines, count);
}

sched_schedule_t daily(uint32_t first) {
    sched_schedule_t schedule = {};
    schedule.kind = SCHED_KIND_DAILY;
    schedule.u.daily.frequency = 1;
    schedule.u.daily.common.start_times.first_start_time = first;
    return schedule;
}

} // namespace

TEST(NextStart, TimesOfDayAreThoseOfTheZone) {
    EXPECT_EQ(runs("zone Asia/Kolkata\nmade 2026-01-01 00:00\nevery 1 days, first 08:00", 1),
              "runs 2026-01-01 08:00 +0530\n");
}

TEST(NextStart, DatesNameLocalDaysAndBothBelongToTheSchedule) {
    EXPECT_EQ(runs("zone Pacific/Auckland\nmade 2026-05-01 00:00\n"
                   "every 1 days, first 23:30, from 2026-06-01, to 2026-06-02"),
              "runs 2026-06-01 23:30 +1200\nruns 2026-06-02 23:30 +1200\nends\n");
}

TEST(NextStart, NowIsTheDayOfTheCreation) {
    EXPECT_EQ(runs(berlin + "every 1 days, first 12:00, from now, to now"), "runs 2026-03-20 12:00 +0100\nends\n");
}

TEST(NextStart, NowIsTheDayOfTheChangeOnceThereWasOne) {
    EXPECT_EQ(runs(berlin + "changed 2026-03-24 11:00\nevery 7 days, first 12:00, from now"),
              "runs 2026-03-24 12:00 +0100\nruns 2026-03-31 12:00 +0200\nruns 2026-04-07 12:00 +0200\n");
}

TEST(NextStart, NowIsFixedThen) {
    EXPECT_EQ(runs(berlin + "every 7 days, first 12:00, from now\nafter 2026-03-25 00:00", 1),
              "runs 2026-03-27 12:00 +0100\n");
}

TEST(NextStart, AStartDateOfZeroIsTheFirstDayOf1970Everywhere) {
    // 20459 days later, an odd number, it is 2026-01-06.
    EXPECT_EQ(runs("zone America/New_York\nmade 2026-01-05 00:00\nevery 2 days, first 06:00", 1),
              "runs 2026-01-05 06:00 -0500\n");
    EXPECT_EQ(runs("zone Asia/Tokyo\nmade 2026-01-05 00:00\nevery 2 days, first 06:00", 1),
              "runs 2026-01-05 06:00 +0900\n");
}

TEST(NextStart, WithoutAFirstStartItRunsAtMidnightAndAtOnceOnTheDayOfItsCreation) {
    EXPECT_EQ(runs(berlin + "every 1 days"),
              "runs 2026-03-20 10:30 +0100\nruns 2026-03-21 00:00 +0100\nruns 2026-03-22 00:00 +0100\n");
}

TEST(NextStart, WithoutAFirstStartItWaitsForMidnightIfTheDayOfItsCreationIsNoRunDay) {
    EXPECT_EQ(runs(berlin + "every 1 weeks on Sat", 1), "runs 2026-03-21 00:00 +0100\n");
}

TEST(NextStart, AChangeDoesNotRunItAtOnce) {
    EXPECT_EQ(runs(berlin + "changed 2026-03-24 11:00\nevery 1 days", 1), "runs 2026-03-25 00:00 +0100\n");
}

TEST(NextStart, ARunNowComesOnce) {
    EXPECT_EQ(runs(berlin + "every 1 days, from now, to now"), "runs 2026-03-20 10:30 +0100\nends\n");
}

TEST(NextStart, RestartsOfAStartAtOnceCountFromIt) {
    EXPECT_EQ(runs(berlin + "every 1 days, again 05:00, until 24:00", 4),
              "runs 2026-03-20 10:30 +0100\nruns 2026-03-20 15:30 +0100\nruns 2026-03-20 20:30 +0100\n"
              "runs 2026-03-21 00:00 +0100\n");
}

TEST(NextStart, NoRestartIsBeforeAStartAtOnceInTheSecondOfTwoHours) {
    const Zone zone = read_zone("Europe/Berlin").value();
    auto schedule = daily(SCHED_TIME_NOT_GIVEN);
    schedule.u.daily.common.start_times = {SCHED_TIME_NOT_GIVEN, 86400, 900};
    constexpr int64_t created = 1792891800; // 2026-10-25 02:30 +0100, for the second time
    ASSERT_EQ(zone.offset_at(created - 3600), 7200);
    ASSERT_EQ(zone.offset_at(created), 3600);
    EXPECT_EQ(next_start({&schedule, &zone, created, created}, created - 7200), (Start{created, Shift::none}));
}

TEST(NextStart, AFirstStartThatHadGoneByIsNotMadeUpFor) {
    EXPECT_EQ(runs(berlin + "every 1 days, first 10:29", 1), "runs 2026-03-21 10:29 +0100\n");
    EXPECT_EQ(runs(berlin + "every 1 days, first 10:30", 1), "runs 2026-03-20 10:30 +0100\n");
}

TEST(NextStart, RestartsOfAFirstStartThatHadGoneByGoOn) {
    EXPECT_EQ(runs(berlin + "every 1 days, first 08:00, again 01:00, until 12:00", 3),
              "runs 2026-03-20 11:00 +0100\nruns 2026-03-20 12:00 +0100\nruns 2026-03-21 08:00 +0100\n");
}

TEST(NextStart, TheLastStartTimeBoundsRestartsInclusively) {
    EXPECT_EQ(runs(utc + "every 1 days, first 22:00, again 01:00, until 23:00"),
              "runs 2026-01-01 22:00 +0000\nruns 2026-01-01 23:00 +0000\nruns 2026-01-02 22:00 +0000\n");
}

TEST(NextStart, TheLastStartTimeDoesNotBoundTheFirstStart) {
    EXPECT_EQ(runs("zone UTC\nmade 2026-01-01 12:00\nevery 1 days, until 06:00", 2),
              "runs 2026-01-01 12:00 +0000\nruns 2026-01-02 00:00 +0000\n");
}

TEST(NextStart, RestartsDoNotCrossMidnight) {
    EXPECT_EQ(runs(utc + "every 2 days, first 22:00, again 01:30, until 24:00"),
              "runs 2026-01-01 22:00 +0000\nruns 2026-01-01 23:30 +0000\nruns 2026-01-03 22:00 +0000\n");
}

TEST(NextStart, SecondsOfAWholeDayAreTheMidnightThatEndsIt) {
    EXPECT_EQ(runs(utc + "every 7 days, first 24:00, from 2026-01-01", 2),
              "runs 2026-01-02 00:00 +0000\nruns 2026-01-09 00:00 +0000\n");
    EXPECT_EQ(runs(utc + "every 2 days, first 22:00, again 02:00, until 24:00, from 2026-01-01", 2),
              "runs 2026-01-01 22:00 +0000\nruns 2026-01-02 00:00 +0000\n");
}

TEST(NextStart, TheMidnightBetweenTwoRunDaysIsOneStart) {
    EXPECT_EQ(runs(utc + "every 1 days, first 00:00, again 12:00, until 24:00", 4),
              "runs 2026-01-01 00:00 +0000\nruns 2026-01-01 12:00 +0000\nruns 2026-01-02 00:00 +0000\n"
              "runs 2026-01-02 12:00 +0000\n");
}

TEST(NextStart, DaysCountFromTheStartDateByTheCalendar) {
    EXPECT_EQ(runs(utc + "every 3 days, first 06:00, from 2026-02-27"),
              "runs 2026-02-27 06:00 +0000\nruns 2026-03-02 06:00 +0000\nruns 2026-03-05 06:00 +0000\n");
}

TEST(NextStart, WeeksCountFromTheMondayOfTheStartDate) {
    // A Sunday: the week that counts is nearly over.
    EXPECT_EQ(runs(utc + "every 2 weeks on Mon Sun, first 06:00, from 2026-01-11", 4),
              "runs 2026-01-11 06:00 +0000\nruns 2026-01-19 06:00 +0000\nruns 2026-01-25 06:00 +0000\n"
              "runs 2026-02-02 06:00 +0000\n");
}

TEST(NextStart, MonthsCountFromTheMonthOfTheStartDate) {
    EXPECT_EQ(runs(utc + "every 5 months on 10, first 06:00, from 2025-11-15"),
              "runs 2026-04-10 06:00 +0000\nruns 2026-09-10 06:00 +0000\nruns 2027-02-10 06:00 +0000\n");
}

TEST(NextStart, ADayThatAMonthLacksIsNoRunInIt) {
    EXPECT_EQ(runs(utc + "every 1 months on 31, first 06:00", 4),
              "runs 2026-01-31 06:00 +0000\nruns 2026-03-31 06:00 +0000\nruns 2026-05-31 06:00 +0000\n"
              "runs 2026-07-31 06:00 +0000\n");
    EXPECT_EQ(runs(utc + "every 12 months on 29, first 06:00, from 2026-02-01", 2),
              "runs 2028-02-29 06:00 +0000\nruns 2032-02-29 06:00 +0000\n");
}

TEST(NextStart, ADayThatNoMonthHasNeverComes) {
    EXPECT_EQ(runs(utc + "every 12 months on 30, first 06:00, from 2026-02-01", 2), "ends\n");
}

TEST(NextStart, TheOrdinalCountsDaysOfItsKind) {
    const std::string from = "zone UTC\nmade 2026-08-01 00:00\nevery 1 months on ";
    const std::pair<const char *, const char *> days[] = {
        {"First Mon", "2026-08-03"},        {"Second Tue", "2026-08-11"},       {"Third Wed", "2026-08-19"},
        {"Fourth Thu", "2026-08-27"},       {"Last Fri", "2026-08-28"},         {"First Sat", "2026-08-01"},
        {"Last Sun", "2026-08-30"},         {"First Weekday", "2026-08-03"},    {"Last Weekday", "2026-08-31"},
        {"First Weekendday", "2026-08-01"}, {"Third Weekendday", "2026-08-08"}, {"Last Weekendday", "2026-08-30"},
        {"First Day", "2026-08-01"},        {"Fourth Day", "2026-08-04"},       {"Last Day", "2026-08-31"},
    };
    for (const auto &[words, day] : days)
        EXPECT_EQ(runs(from + words + ", first 06:00", 1), std::string("runs ") + day + " 06:00 +0000\n") << words;
}

TEST(NextStart, AnOrdinalOrAKindThatThereIsNotNeverComes) {
    EXPECT_EQ(runs(utc + "every 1 months on Fifth Mon", 1), "ends\n");
    EXPECT_EQ(runs(utc + "every 1 months on First Holiday", 1), "ends\n");
}

TEST(NextStart, ASkippedTimeOfDayRunsAtTheFirstInstantAfterTheGap) {
    EXPECT_EQ(runs(berlin + "after 2026-03-29 00:00\nevery 1 days, first 02:30", 2),
              "runs 2026-03-29 03:00 +0200 moved\nruns 2026-03-30 02:30 +0200\n");
}

TEST(NextStart, SeveralSkippedTimesRunOnce) {
    EXPECT_EQ(runs(berlin + "after 2026-03-29 00:00\nevery 1 days, first 01:50, again 00:20, until 04:00", 4),
              "runs 2026-03-29 01:50 +0100\nruns 2026-03-29 03:00 +0200 moved\nruns 2026-03-29 03:10 +0200\n"
              "runs 2026-03-29 03:30 +0200\n");
}

TEST(NextStart, ASkippedMidnightRunsAtTheFirstInstantOfTheDay) {
    EXPECT_EQ(runs("zone Africa/Cairo\nmade 2026-04-23 12:00\nafter 2026-04-23 12:01\nevery 1 days", 2),
              "runs 2026-04-24 01:00 +0300 moved\nruns 2026-04-25 00:00 +0300\n");
}

TEST(NextStart, ASkippedDayRunsAtTheFirstInstantBehindIt) {
    EXPECT_EQ(runs("zone Pacific/Apia\nmade 2011-12-28 12:00\nevery 1 days, first 08:00", 4),
              "runs 2011-12-29 08:00 -1000\nruns 2011-12-31 00:00 +1400 moved\nruns 2011-12-31 08:00 +1400\n"
              "runs 2012-01-01 08:00 +1400\n");
}

TEST(NextStart, AFirstStartThatComesTwiceRunsTheFirstTimeOnly) {
    EXPECT_EQ(runs(berlin + "after 2026-10-25 00:00\nevery 1 days, first 02:30", 2),
              "runs 2026-10-25 02:30 +0200 first of two\nruns 2026-10-26 02:30 +0100\n");
}

TEST(NextStart, RestartsGoOnThroughBothHours) {
    EXPECT_EQ(runs(berlin + "after 2026-10-25 00:00\nevery 1 days, first 02:00, again 00:30, until 03:00", 4),
              "runs 2026-10-25 02:00 +0200 first of two\nruns 2026-10-25 02:30 +0200 first of two\n"
              "runs 2026-10-25 02:30 +0100 second of two\nruns 2026-10-25 03:00 +0100\n");
}

TEST(NextStart, ClocksThatArePutBackOverMidnightGiveStartsInTheOrderOfTheirMoments) {
    // At 24:00 it is 23:00 once more.
    EXPECT_EQ(runs("zone America/Sao_Paulo\nmade 2018-01-01 00:00\nafter 2018-02-17 22:00\n"
                   "every 1 days, first 00:00, again 00:30, until 24:00",
                   7),
              "runs 2018-02-17 22:30 -0200\nruns 2018-02-17 23:00 -0200 first of two\n"
              "runs 2018-02-17 23:30 -0200 first of two\nruns 2018-02-17 23:00 -0300 second of two\n"
              "runs 2018-02-17 23:30 -0300 second of two\nruns 2018-02-18 00:00 -0300\nruns 2018-02-18 00:30 -0300\n");
}

TEST(NextStart, ASequentialJobHasNoTimeOfItsOwn) {
    sched_schedule_t schedule = {};
    schedule.kind = SCHED_KIND_SEQUENTIAL;
    const Zone zone;
    EXPECT_EQ(next_start({&schedule, &zone, 1, 1}, 0), std::nullopt);
}

TEST(NextStart, NoMomentIsTooEarlyOrTooLate) {
    auto schedule = daily(SCHED_TIME_NOT_GIVEN);
    const Zone zone;
    const Spec spec = {&schedule, &zone, 1, 1};
    EXPECT_EQ(next_start(spec, INT64_MAX), std::nullopt);
    EXPECT_EQ(next_start(spec, INT64_MIN), (Start{1, Shift::none}));
    schedule.u.daily.common.lifetime.start_date = INT64_MAX;
    EXPECT_EQ(next_start(spec, 0), std::nullopt);
    schedule.u.daily.common.lifetime.start_date = INT64_MIN;
    schedule.u.daily.frequency = INT32_MAX;
    EXPECT_EQ(next_start(spec, 0), std::nullopt);
}

TEST(NextStart, EveryFieldAtItsLimitComesToAnEnd) {
    const Zone zone = read_zone("Europe/Berlin").value();
    for (const int32_t frequency : {1, 4799, 4800, INT32_MAX})
        for (const int kind : {SCHED_KIND_MONTHLY, SCHED_KIND_WEEKLY, SCHED_KIND_DAILY}) {
            sched_schedule_t schedule = {};
            schedule.kind = kind;
            schedule.u.monthly.frequency = frequency; // stands at one place in all three
            schedule.u.monthly.day.number = 31;
            if (kind == SCHED_KIND_WEEKLY)
                schedule.u.weekly.days = 0x40;
            schedule.u.monthly.common.start_times = {86400, 86400, 1};
            int64_t after = 0;
            int count = 0;
            for (auto start = next_start({&schedule, &zone, 0, 0}, after); start && count < 100; ++count) {
                EXPECT_GT(start->at, after);
                after = start->at;
                start = next_start({&schedule, &zone, 0, 0}, after);
            }
            EXPECT_TRUE(count > 0 || frequency == INT32_MAX);
        }
}
