// Jobs in memory: what is due when, and what becomes of starts whose time has come.
#include <server/scheduler/jobs.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace velia::server;
using testing::ElementsAre;
using testing::IsEmpty;

namespace velia::server {

bool operator==(const Jobs::Due &left, const Jobs::Due &right) {
    return left.job == right.job && left.start == right.start && left.fate == right.fate;
}
void PrintTo(const Jobs::Due &due, std::ostream *out) {
    *out << due.job << " at " << due.start << " fate " << static_cast<int>(due.fate);
}

} // namespace velia::server

namespace {

constexpr int64_t day = 86400;
constexpr int64_t midnight = 20000 * day;

struct JobsInMemory : testing::Test {
    static JobRow row(sched_job_id_t id, std::string name, const sched_schedule_t &schedule, int64_t created) {
        sched_job_utc_rw_props_t props = {};
        char nothing[] = "";
        props.rw.name = name.data();
        props.rw.description = nothing;
        props.rw.schedule = schedule;
        JobRow made;
        made.id = id;
        made.body = xdr_bytes(xdr_sched_job_utc_rw_props_t, props);
        made.created.when = made.changed_start = created;
        made.considered = created - 1;
        return made;
    }
    // At this second of each day, and again after each step.
    static sched_schedule_t daily(uint32_t first, uint32_t step = 0) {
        sched_schedule_t schedule = {};
        schedule.kind = SCHED_KIND_DAILY;
        schedule.u.daily.frequency = 1;
        schedule.u.daily.common.start_times = {first, 86400, step};
        return schedule;
    }
    static sched_schedule_t behind(sched_job_id_t followed) {
        sched_schedule_t schedule = {};
        schedule.kind = SCHED_KIND_SEQUENTIAL;
        schedule.u.sequential.follows_job = followed;
        return schedule;
    }

    Jobs jobs;
};

} // namespace

TEST_F(JobsInMemory, AreDueAtTheirNextStart) {
    jobs.add(row(1, "late", daily(7200), midnight));
    jobs.add(row(2, "early", daily(3600), midnight));
    EXPECT_EQ(jobs.next_due(), midnight + 3600);
    EXPECT_THAT(jobs.take_due(midnight + 3599), IsEmpty());
    EXPECT_THAT(jobs.take_due(midnight + 3600), ElementsAre(Jobs::Due{2, midnight + 3600, Jobs::Fate::to_start}));
    EXPECT_EQ(jobs.next_due(), midnight + 7200);
    EXPECT_EQ(jobs.find(2)->next_run, midnight + day + 3600);
}

TEST_F(JobsInMemory, OfSeveralMissedStartsTheLastIsMadeOnce) {
    jobs.add(row(1, "often", daily(0, 60), midnight));
    EXPECT_THAT(jobs.take_due(midnight + 630), ElementsAre(Jobs::Due{1, midnight + 600, Jobs::Fate::to_start}));
    EXPECT_THAT(jobs.take_due(midnight + 630), IsEmpty());
    EXPECT_EQ(jobs.next_due(), midnight + 660);
}

TEST_F(JobsInMemory, AStartAsOldAsCatchUpIsMadeAndAnOlderOneIsNot) {
    jobs.set_catch_up(1000);
    jobs.add(row(1, "missed", daily(3600), midnight));
    jobs.add(row(2, "just", daily(3601), midnight));
    EXPECT_THAT(jobs.take_due(midnight + 4601), ElementsAre(Jobs::Due{1, midnight + 3600, Jobs::Fate::too_old},
                                                            Jobs::Due{2, midnight + 3601, Jobs::Fate::to_start}));
    EXPECT_EQ(jobs.next_due(), midnight + day + 3600);
}

TEST_F(JobsInMemory, AClockThatIsPutBackMakesNoStartAgain) {
    jobs.add(row(1, "daily", daily(3600), midnight));
    ASSERT_EQ(jobs.take_due(midnight + 3600).size(), 1U);
    EXPECT_THAT(jobs.take_due(midnight), IsEmpty());
    EXPECT_THAT(jobs.take_due(midnight + 3600), IsEmpty());
    EXPECT_EQ(jobs.next_due(), midnight + day + 3600);
}

TEST_F(JobsInMemory, AClockThatJumpsADayMakesTheLastStartIfItIsYoung) {
    jobs.add(row(1, "daily", daily(3600), midnight));
    EXPECT_THAT(jobs.take_due(midnight + day + 3700),
                ElementsAre(Jobs::Due{1, midnight + day + 3600, Jobs::Fate::to_start}));
    EXPECT_EQ(jobs.next_due(), midnight + 2 * day + 3600);
}

TEST_F(JobsInMemory, OneThatIsNotIdleIsPassedOver) {
    jobs.add(row(1, "slow", daily(0, 60), midnight));
    jobs.find(1)->phase = Job::Phase::running;
    EXPECT_THAT(jobs.take_due(midnight + 60), ElementsAre(Jobs::Due{1, midnight + 60, Jobs::Fate::still_running}));
    EXPECT_EQ(jobs.next_due(), midnight + 120);
}

TEST_F(JobsInMemory, WithoutAStartLeftHaveCompleted) {
    sched_schedule_t once = daily(3600);
    once.u.daily.common.lifetime = {SCHED_DATE_NOW, SCHED_DATE_NOW};
    jobs.add(row(1, "once", once, midnight));
    EXPECT_FALSE(jobs.find(1)->has_completed());
    jobs.take_due(midnight + 3600);
    EXPECT_TRUE(jobs.find(1)->has_completed());
    EXPECT_EQ(jobs.next_due(), std::nullopt);
}

TEST_F(JobsInMemory, AChangeKeepsTheRunAndWhatHasBeenMade) {
    jobs.add(row(1, "before", daily(3600), midnight));
    const JobRow taken = row(1, "after", daily(3600), midnight);
    jobs.take_due(midnight + 3600);
    jobs.find(1)->phase = Job::Phase::running;
    ASSERT_TRUE(jobs.change(taken));
    EXPECT_EQ(jobs.find("before"), nullptr);
    ASSERT_NE(jobs.find("after"), nullptr);
    EXPECT_EQ(jobs.find("after")->phase, Job::Phase::running);
    EXPECT_EQ(jobs.next_due(), midnight + day + 3600);
    EXPECT_FALSE(jobs.change(row(9, "none", daily(0), midnight)));
}

TEST_F(JobsInMemory, TwoThatChangeNamesAreBothFound) {
    jobs.add(row(1, "one", daily(0), midnight));
    jobs.add(row(2, "two", daily(0), midnight));
    ASSERT_TRUE(jobs.change(row(1, "two", daily(0), midnight)));
    ASSERT_TRUE(jobs.change(row(2, "one", daily(0), midnight)));
    ASSERT_NE(jobs.find("one"), nullptr);
    ASSERT_NE(jobs.find("two"), nullptr);
    EXPECT_EQ(jobs.find("one")->row.id, 2U);
    EXPECT_EQ(jobs.find("two")->row.id, 1U);
}

TEST_F(JobsInMemory, WhatAnotherDaemonConsideredCountsUnlessTheRunIsOurs) {
    ASSERT_TRUE(jobs.take(row(1, "job", daily(3600), midnight)));
    jobs.take_due(midnight + 3600);
    ASSERT_EQ(jobs.next_due(), midnight + day + 3600);
    ASSERT_TRUE(jobs.take(row(1, "job", daily(3600), midnight)));
    EXPECT_EQ(jobs.next_due(), midnight + 3600) << "nobody has made it";
    jobs.take_due(midnight + 3600);
    jobs.find(1)->is_ours = true;
    ASSERT_TRUE(jobs.take(row(1, "job", daily(3600), midnight)));
    EXPECT_EQ(jobs.next_due(), midnight + day + 3600);
    EXPECT_TRUE(jobs.find(1)->is_ours);
    EXPECT_EQ(jobs.find(1)->considered_by_all, midnight - 1);
}

TEST_F(JobsInMemory, OfAnotherHostAreNotDueHereAndTellTheirNextRun) {
    jobs.set_host("alpha");
    JobRow of_beta = row(1, "job", daily(3600), midnight);
    of_beta.host = "beta";
    jobs.add(of_beta);
    EXPECT_EQ(jobs.next_due(), std::nullopt);
    EXPECT_EQ(jobs.find(1)->next_run, midnight + 3600);
    of_beta.host = "alpha";
    ASSERT_TRUE(jobs.take(of_beta));
    EXPECT_EQ(jobs.next_due(), midnight + 3600);
}

TEST_F(JobsInMemory, RunsAreInTheOrderInWhichTheyBeganAndEachIsThereOnce) {
    Job job;
    for (const int64_t started : {20, 10, 30, 20}) {
        RunRow run;
        run.started = started;
        run.exit_status = static_cast<uint32_t>(job.runs.size());
        Jobs::put_run(job, run);
    }
    ASSERT_EQ(job.runs.size(), 3U);
    EXPECT_EQ(job.runs[0].started, 10);
    EXPECT_EQ(job.runs[1].started, 20);
    EXPECT_EQ(job.runs[1].exit_status, 3U) << "the later word of it";
    EXPECT_EQ(job.runs[2].started, 30);
}

TEST_F(JobsInMemory, FollowersAreThoseOfTheMoment) {
    jobs.add(row(1, "first", daily(0), midnight));
    jobs.add(row(2, "second", behind(1), midnight));
    jobs.add(row(3, "third", behind(2), midnight));
    EXPECT_THAT(jobs.followers_of(1), ElementsAre(2U));
    EXPECT_EQ(jobs.find(2)->next_run, velia::schedule::next_run_unknown);
    EXPECT_TRUE(jobs.would_go_round(1, 3));
    EXPECT_FALSE(jobs.would_go_round(3, 1));
    jobs.remove(2);
    EXPECT_THAT(jobs.followers_of(1), IsEmpty());
    EXPECT_FALSE(jobs.would_go_round(1, 3));
    jobs.remove(2);
}

TEST_F(JobsInMemory, NamesMayBeSwapped) {
    jobs.add(row(1, "a", daily(0), midnight));
    jobs.add(row(2, "b", daily(0), midnight));
    jobs.change(row(1, "b", daily(0), midnight));
    jobs.change(row(2, "a", daily(0), midnight));
    EXPECT_EQ(jobs.find("a"), jobs.find(2));
    EXPECT_EQ(jobs.find("b"), jobs.find(1));
}

TEST_F(JobsInMemory, ABodyThatCannotBeReadIsCounted) {
    JobContents contents;
    contents.jobs = {row(1, "good", daily(0), midnight), row(2, "bad", daily(0), midnight)};
    contents.jobs[1].body.resize(10);
    RunRow run;
    run.job = 1;
    run.started = run.ended = midnight;
    contents.runs = {run};
    EXPECT_EQ(jobs.load(contents), 1U);
    EXPECT_EQ(jobs.find(2), nullptr);
    EXPECT_EQ(jobs.find(1)->runs.size(), 1U);
    EXPECT_FALSE(jobs.change(contents.jobs[1]));
}

TEST_F(JobsInMemory, TheZoneMovesThemAll) {
    jobs.add(row(1, "noon", daily(43200), midnight));
    jobs.set_zone(velia::schedule::Zone(3600, {}, std::nullopt));
    EXPECT_EQ(jobs.next_due(), midnight + 43200 - 3600);
}

TEST_F(JobsInMemory, EachChangeIsAnotherVersion) {
    const auto before = jobs.version();
    jobs.add(row(1, "job", daily(0), midnight));
    const auto added = jobs.version();
    EXPECT_GT(added, before);
    EXPECT_EQ(jobs.find(1)->version, added);
    jobs.remove(1);
    EXPECT_GT(jobs.version(), added);
}
