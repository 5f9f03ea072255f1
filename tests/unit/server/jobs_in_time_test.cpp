// What is told of the runs to come is what then happens: jobs under a clock of the test, which goes through more than a
// year from start to start, with new daemons in between, and is set a day forward and back.
#include <server/scheduler/jobs.h>

#include <map>
#include <random>

#include <gtest/gtest.h>

#include <schedule/next_start.h>

using namespace velia::server;
using velia::schedule::next_start;

namespace {

constexpr int64_t hour = 3600;
constexpr int64_t day = 24 * hour;
constexpr int64_t in_january = 1767614400; // 2026-01-05 12:00 UTC
constexpr size_t told_runs = 500;

struct JobsInTime : testing::Test {
    using Starts = std::vector<int64_t>;

    // A daemon that has what is on disk.
    void begin_daemon(const std::string &zone) {
        jobs = Jobs();
        const auto read = velia::schedule::read_zone(zone);
        ASSERT_TRUE(read) << zone;
        jobs.set_zone(*read);
        for (const auto &[id, row] : disk)
            ASSERT_TRUE(jobs.add(row));
    }

    sched_job_id_t add(const sched_schedule_t &schedule) {
        sched_job_utc_rw_props_t props = {};
        std::string name = "job " + std::to_string(disk.size());
        props.rw.name = name.data();
        props.rw.schedule = schedule;
        JobRow row;
        row.id = static_cast<sched_job_id_t>(disk.size() + 1);
        row.body = xdr_bytes(xdr_sched_job_utc_rw_props_t, props);
        row.created.when = row.changed.when = row.changed_start = now;
        row.considered = now - 1;
        disk[row.id] = row;
        return row.id;
    }

    // What a caller is told now.
    Starts told(sched_job_id_t id, size_t count = told_runs) {
        const Job &job = *jobs.find(id);
        const auto spec = jobs.spec_of(job);
        Starts starts;
        for (auto start = next_start(spec, Jobs::to_come_behind(job, now)); start && starts.size() < count;
             start = next_start(spec, start->at))
            starts.push_back(start->at);
        return starts;
    }

    // What falls due now: starts that are made go to disk, as do those that are passed over.
    void look() {
        for (const auto &due : jobs.take_due(now)) {
            disk.at(due.job).considered = jobs.find(due.job)->row.considered;
            if (due.fate == Jobs::Fate::to_start)
                made[due.job].push_back(due.start);
            else
                ++passed_over;
        }
    }
    void go_on_until(int64_t end) {
        while (jobs.next_due() && *jobs.next_due() <= end) {
            now = std::max(now, *jobs.next_due());
            look();
        }
        now = end;
    }

    int64_t now = in_january;
    Jobs jobs;
    std::map<sched_job_id_t, JobRow> disk;
    std::map<sched_job_id_t, Starts> made;
    size_t passed_over = 0;
};

sched_schedule_t daily(int32_t every, uint32_t first, uint32_t last = 0, uint32_t again = 0) {
    sched_schedule_t schedule = {};
    schedule.kind = SCHED_KIND_DAILY;
    schedule.u.daily.frequency = every;
    schedule.u.daily.common.start_times = {first, last, again};
    return schedule;
}

sched_schedule_t weekly(uint32_t days, uint32_t first) {
    sched_schedule_t schedule = {};
    schedule.kind = SCHED_KIND_WEEKLY;
    schedule.u.weekly.frequency = 1;
    schedule.u.weekly.days = days;
    schedule.u.weekly.common.start_times.first_start_time = first;
    return schedule;
}

sched_schedule_t monthly(uint32_t number, uint32_t first) {
    sched_schedule_t schedule = {};
    schedule.kind = SCHED_KIND_MONTHLY;
    schedule.u.monthly.frequency = 1;
    schedule.u.monthly.day.number = number;
    schedule.u.monthly.common.start_times.first_start_time = first;
    return schedule;
}

std::vector<sched_schedule_t> all_kinds() {
    auto ends = daily(2, 3 * hour);
    ends.u.daily.common.lifetime.last_date = in_january + 90 * day;
    return {daily(1, 2 * hour + 1800),
            daily(1, hour + 3000, 4 * hour, 1200),
            daily(3, SCHED_TIME_NOT_GIVEN),
            daily(1, 0, 86400, 6 * hour),
            weekly(0x41, 2 * hour),
            monthly(31, 2 * hour + 900),
            ends};
}

} // namespace

TEST_F(JobsInTime, WhatIsToldHappensThroughAllDaysOnWhichTheClocksChangeWhateverDaemonIsThere) {
    std::mt19937 random(20261122);
    for (const char *zone : {"Europe/Berlin", "America/New_York", "Africa/Cairo", "Australia/Lord_Howe", "UTC"}) {
        SCOPED_TRACE(zone);
        now = in_january;
        disk.clear();
        made.clear();
        for (const auto &schedule : all_kinds())
            add(schedule);
        begin_daemon(zone);
        std::map<sched_job_id_t, Starts> expected;
        for (const auto &[id, row] : disk)
            expected[id] = told(id, 4000); // more than there are in that time
        for (auto &[id, starts] : expected)
            std::erase_if(starts, [](int64_t start) { return start > in_january + 430 * day; });
        while (now < in_january + 430 * day) {
            go_on_until(std::min<int64_t>(now + static_cast<int64_t>(random() % (9 * day)), in_january + 430 * day));
            begin_daemon(zone);
        }
        EXPECT_EQ(made.size(), disk.size());
        EXPECT_TRUE(made == expected);
        EXPECT_EQ(passed_over, 0U);
        EXPECT_GT(made[2].size(), 2000U);
    }
}

TEST_F(JobsInTime, WhatIsToldInBetweenIsTheRestOfWhatHappens) {
    const auto id = add(daily(1, hour + 3000, 4 * hour, 1200));
    begin_daemon("Europe/Berlin");
    Starts all = told(id);
    for (int month = 1; month < 12; ++month) {
        go_on_until(in_january + month * 30 * day);
        std::erase_if(all, [&](int64_t start) { return start <= now; });
        const auto rest = told(id, all.size());
        ASSERT_TRUE(rest == all) << month;
        all = told(id);
    }
}

// A start is told until it is made, also in its own second.
TEST_F(JobsInTime, AStartInThisSecondIsToldUntilItIsMade) {
    const auto id = add(daily(1, 6 * hour));
    begin_daemon("UTC");
    now = told(id, 1)[0];
    EXPECT_EQ(told(id, 1)[0], now);
    look();
    EXPECT_EQ(told(id, 1)[0], now + day);
}

TEST_F(JobsInTime, AClockThatIsSetADayForwardMissesWhatItJumpsOverButForTheLastHour) {
    const auto nightly = add(daily(1, 6 * hour));
    const auto often = add(daily(1, 0, 86400, 600));
    begin_daemon("UTC");
    go_on_until(in_january + 17 * hour); // 05:00
    made.clear();
    now += day + 5;
    look();
    EXPECT_EQ(passed_over, 1U);
    EXPECT_TRUE(made[nightly].empty());
    EXPECT_EQ(made[often], Starts({now - 5}));
    const auto shown = told(nightly, 5);
    EXPECT_EQ(shown[0], now - 5 + hour);
    go_on_until(now + 5 * day);
    EXPECT_EQ(made[nightly], shown);
    EXPECT_EQ(passed_over, 1U);
}

TEST_F(JobsInTime, AClockThatIsSetADayBackMakesNoStartTwiceAndTellsTheFirstThatIsLeft) {
    const auto nightly = add(daily(1, 6 * hour));
    begin_daemon("UTC");
    go_on_until(in_january + 19 * hour); // 07:00
    ASSERT_EQ(made[nightly].size(), 1U);
    const int64_t last = made[nightly].back();
    now -= day;
    look();
    const auto shown = told(nightly, 3);
    EXPECT_EQ(shown, Starts({last + day, last + 2 * day, last + 3 * day}));
    begin_daemon("UTC");
    EXPECT_EQ(told(nightly, 3), shown);
    go_on_until(last + 3 * day);
    EXPECT_EQ(made[nightly], Starts({last, last + day, last + 2 * day, last + 3 * day}));
    EXPECT_EQ(passed_over, 0U);
}

TEST_F(JobsInTime, WhatFellDueWhileThereWasNoDaemonIsMadeOnceIfItIsYoungEnough) {
    const auto often = add(daily(1, 0, 86400, 600));
    const auto nightly = add(daily(1, 6 * hour));
    begin_daemon("UTC");
    go_on_until(in_january + 17 * hour);
    made.clear();
    now += 2 * hour + 30; // 07:00:30, with a start of an hour and half a minute ago
    begin_daemon("UTC");
    look();
    EXPECT_EQ(made[often], Starts({now - 30}));
    EXPECT_TRUE(made[nightly].empty());
    EXPECT_EQ(passed_over, 1U);
    EXPECT_EQ(told(nightly, 1)[0], now - 30 - hour + day);
}
