// Sets of jobs: as the library sends them to a real daemon, and as the tool plans and loads them from files.
#include <atomic>
#include <thread>

#include <gmock/gmock.h>

#include "tool_fixture.h"
#include <tests/unit/cli/made_up_job.h>
#include <veliaxdr/sched_sets.h>

using namespace velia::system_test;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

struct SchedulerSets : SchedulerTool {
    void TearDown() override {
        sched_free_jobs(handle, count, &jobs);
        SchedulerTool::TearDown();
    }

    tbs_status_t list() {
        sched_free_jobs(handle, count, &jobs);
        count = 0;
        return sched_set_get_jobs(handle, &state, &count, &jobs);
    }
    uint64_t state_now() {
        EXPECT_EQ(list(), TBS_ST_OK);
        return state;
    }
    std::vector<std::string> names() {
        EXPECT_EQ(list(), TBS_ST_OK);
        std::vector<std::string> all;
        for (uint32_t i = 0; i < count; ++i)
            all.emplace_back(jobs[i].rw.name);
        return all;
    }

    static sched_set_change_t creation(NewJob &job, uint32_t follows = 0) {
        sched_set_change_t change = {SCHED_SET_CREATE, 0, follows, *job.record()};
        if (follows != 0) {
            change.rw.schedule = {};
            change.rw.schedule.kind = SCHED_KIND_SEQUENTIAL;
        }
        return change;
    }
    static sched_set_change_t change_of(sched_job_id_t id, NewJob &job) {
        return {SCHED_SET_CHANGE, id, 0, *job.record()};
    }
    static sched_set_change_t deletion(sched_job_id_t id) { return {SCHED_SET_DELETE, id, 0, {}}; }

    tbs_status_t apply(std::vector<sched_set_change_t> &changes) {
        fault = {};
        return sched_set_apply(handle, state, static_cast<uint32_t>(changes.size()), changes.data(), &fault);
    }
    // Refused for the change at this place, and nothing is done.
    void expect_refused(std::vector<sched_set_change_t> changes, uint32_t place, tbs_status_t wanted,
                        uint32_t mask = 0) {
        const auto before = names();
        EXPECT_EQ(apply(changes), wanted);
        EXPECT_EQ(fault.place, place);
        EXPECT_EQ(fault.err_mask & mask, mask);
        EXPECT_EQ(names(), before);
    }

    std::string file(const std::string &name, const std::string &text) const {
        const std::string path = site.path(name);
        std::ofstream(path) << text;
        return path;
    }
    static std::string definition(const std::string &name, const std::string &lines = "") {
        return "Job.Begin\nJob.Name: " + name +
               "\nJob.Schedule.Daily.Frequency: 1\nJob.Schedule.StartDate: 2100-01-01\nJob.Task: script\n" + lines +
               "Job.End\n";
    }
    static std::string follower(const std::string &name, const std::string &followed) {
        return "Job.Begin\nJob.Name: " + name + "\nJob.Schedule.Sequential.FollowsJob: " + followed +
               "\nJob.Task: script\nJob.End\n";
    }

    uint64_t state = 0;
    uint32_t count = 0;
    sched_job_properties_t *jobs = nullptr;
    sched_set_fault_t fault = {};
};

} // namespace

TEST_F(SchedulerSets, AreMadeTogether) {
    NewJob old("old");
    NewJob other("other");
    const auto id = create(old);
    const auto gone = create(other);
    ASSERT_EQ(list(), TBS_ST_OK);
    NewJob first("first");
    NewJob renamed("renamed");
    NewJob second("other");
    std::vector<sched_set_change_t> changes = {change_of(id, renamed), creation(second, 3), creation(first),
                                               deletion(gone)};
    ASSERT_EQ(apply(changes), TBS_ST_OK) << fault.place;
    EXPECT_THAT(names(), ElementsAre("renamed", "other", "first"));
    EXPECT_EQ(changes[1].job_id, jobs[1].ro.job_id);
    EXPECT_EQ(changes[2].job_id, jobs[2].ro.job_id);
    EXPECT_EQ(jobs[1].rw.schedule.u.sequential.follows_job, jobs[2].ro.job_id);
    EXPECT_GT(jobs[1].ro.job_id, gone);
    kill_daemon();
    restart();
    EXPECT_THAT(names(), ElementsAre("renamed", "other", "first"));
}

TEST_F(SchedulerSets, AreRefusedWhenTheJobsHaveChanged) {
    NewJob job("job");
    ASSERT_EQ(list(), TBS_ST_OK);
    std::vector<sched_set_change_t> changes = {creation(job)};
    create(NewJob("meanwhile"));
    EXPECT_EQ(apply(changes), TBS_ST_STALE_ID);
    EXPECT_THAT(names(), ElementsAre("meanwhile"));
}

TEST_F(SchedulerSets, HaveAStateThatRunsLeaveAsItIs) {
    const auto id = create(NewJob("job"));
    const auto before = state_now();
    run(id);
    ran(id);
    EXPECT_EQ(state_now(), before);
    create(NewJob("another"));
    EXPECT_NE(state_now(), before);
}

TEST_F(SchedulerSets, AreRefusedForAnyOfTheirJobs) {
    NewJob good("good");
    NewJob same("good");
    NewJob bad("bad");
    bad.rw.schedule.u.daily.frequency = 0;
    NewJob there("there");
    const auto id = create(there);
    expect_refused({creation(good), creation(bad)}, 2, TBS_ST_INVALID_ARG, SCHED_ERR_DAILY_OR_TIME_ORDER);
    expect_refused({creation(good), creation(same)}, 2, TBS_ST_INVALID_ARG, SCHED_ERR_NAME_DUPLICATE);
    expect_refused({creation(there)}, 1, TBS_ST_INVALID_ARG, SCHED_ERR_NAME_DUPLICATE);
    expect_refused({creation(good), deletion(99)}, 2, TBS_ST_NOT_FOUND);
    expect_refused({deletion(id), change_of(id, good)}, 2, TBS_ST_INVALID_ARG);
    auto following_place = creation(good);
    following_place.follows = 1;
    expect_refused({following_place}, 1, TBS_ST_INVALID_ARG, SCHED_ERR_FOLLOWS);
}

TEST_F(SchedulerSets, AreRefusedWhereJobsFollowNoneOrOneAnother) {
    NewJob first("first");
    NewJob second("second");
    NewJob third("third");
    const auto id = create(third);
    expect_refused({creation(first, 2), creation(second, 1)}, 1, TBS_ST_INVALID_ARG, SCHED_ERR_FOLLOWS);
    expect_refused({creation(first, 1)}, 1, TBS_ST_INVALID_ARG, SCHED_ERR_FOLLOWS);
    expect_refused({creation(first, 7)}, 1, TBS_ST_INVALID_ARG, SCHED_ERR_FOLLOWS);
    expect_refused({creation(first.after(99))}, 1, TBS_ST_INVALID_ARG, SCHED_ERR_FOLLOWS);
    expect_refused({creation(first.after(0))}, 1, TBS_ST_INVALID_ARG, SCHED_ERR_FOLLOWS);
    expect_refused({creation(first.after(id)), deletion(id)}, 1, TBS_ST_INVALID_ARG, SCHED_ERR_FOLLOWS);
    create(first.after(id));
    expect_refused({change_of(id, third.after(id + 1))}, 1, TBS_ST_INVALID_ARG, SCHED_ERR_FOLLOWS);
}

TEST_F(SchedulerSets, LongerThanARequestComeInPieces) {
    std::vector<std::unique_ptr<NewJob>> made;
    std::vector<sched_set_change_t> changes;
    ASSERT_EQ(list(), TBS_ST_OK);
    for (int i = 0; i < 1500; ++i) {
        made.push_back(std::make_unique<NewJob>("job " + std::to_string(i), std::vector{std::string(700, 'x')}));
        changes.push_back(creation(*made.back()));
    }
    ASSERT_EQ(apply(changes), TBS_ST_OK);
    EXPECT_EQ(names().size(), 1500U); // more than one list, too
    EXPECT_EQ(changes.back().job_id, jobs[1499].ro.job_id);
    NewJob large("large", {std::string(61000, 'x')});
    changes = {deletion(1), creation(large)};
    EXPECT_EQ(apply(changes), TBS_ST_INVALID_ARG);
    EXPECT_EQ(fault.place, 2U);
}

TEST_F(SchedulerSets, OfNothingDoNothing) {
    ASSERT_EQ(list(), TBS_ST_OK);
    std::vector<sched_set_change_t> none;
    EXPECT_EQ(apply(none), TBS_ST_OK);
}

TEST_F(SchedulerSets, ArePlannedAndLoadedAsPlanned) {
    create(NewJob("stays"));
    create(NewJob("goes"));
    const auto path = file("a.jobs", follower("third", "second") + definition("second", "Job.Args: 'a b'\n") +
                                         definition("stays", "Job.Description.Begin:\nnew\nJob.Description.End:\n"));
    const Told plan = tool("job plan alpha " + path + " --prune --output jsonl");
    EXPECT_EQ(plan.status, 4) << plan.text;
    for (const char *part :
         {R"("action":"create","id":null,"name":"third")", R"("action":"delete","id":2,"name":"goes")",
          R"("field":"Job.Description","before":null,"after":"new\n")"})
        EXPECT_THAT(plan.text, HasSubstr(part));
    EXPECT_EQ(tool("job load alpha " + path + " --prune --dry-run").status, 0);
    EXPECT_THAT(names(), ElementsAre("stays", "goes"));
    const Told loaded = tool("job load alpha " + path + " --prune");
    EXPECT_EQ(loaded.status, 0) << loaded.text;
    EXPECT_THAT(names(), ElementsAre("stays", "third", "second"));
    EXPECT_EQ(jobs[1].rw.schedule.u.sequential.follows_job, jobs[2].ro.job_id);
    EXPECT_STREQ(jobs[0].rw.description, "new\n");
    const Told again = tool("job plan alpha " + path + " --prune --output jsonl");
    EXPECT_EQ(again.status, 0) << again.text;
    EXPECT_THAT(again.text, HasSubstr("\"action\":\"unchanged\""));
    EXPECT_EQ(tool("job load alpha " + path + " --prune").status, 0);
}

TEST_F(SchedulerSets, WithoutPruneLeaveOtherJobsAlone) {
    create(NewJob("other"));
    EXPECT_EQ(tool("job load alpha " + file("a.jobs", definition("mine") + follower("behind", "other"))).status, 0);
    EXPECT_THAT(names(), ElementsAre("other", "mine", "behind"));
}

TEST_F(SchedulerSets, AreNotLoadedOnceTheJobsAreNotWhatWasPlannedFor) {
    const auto path = file("a.jobs", definition("mine"));
    const auto written = site.path("state");
    EXPECT_EQ(tool("job plan alpha " + path + " --state " + written).status, 4);
    create(NewJob("meanwhile"));
    const Told refused = tool("job load alpha " + path + " --state " + written);
    EXPECT_EQ(refused.status, 1);
    EXPECT_THAT(refused.text, HasSubstr("Nothing is done"));
    EXPECT_THAT(names(), ElementsAre("meanwhile"));
    EXPECT_EQ(tool("job plan alpha " + path + " --state " + written).status, 4);
    EXPECT_EQ(tool("job load alpha " + path + " --state " + written).status, 0);
    EXPECT_EQ(tool("job load alpha " + path + " --state /no/such/file").status, 1);
    EXPECT_EQ(tool("job plan alpha " + path + " --state /no/such/file").status, 1);
}

TEST_F(SchedulerSets, WithSomethingWrongAreToldWithItsPlace) {
    const auto expect_finding = [&](const std::string &text, const std::string &finding) {
        const auto path = file("a.jobs", text);
        for (const char *command : {"job plan alpha ", "job load alpha "}) {
            const Told told = tool(command + path + " --prune");
            EXPECT_EQ(told.status, 1);
            EXPECT_THAT(told.text, HasSubstr(path + finding));
        }
        EXPECT_THAT(names(), ElementsAre("there"));
    };
    create(NewJob("there"));
    expect_finding(definition("a") + "Job.Colour:\n", ":7:1: Expected tag");
    expect_finding(follower("a", "none"), ":3:37: There is no such job");
    expect_finding(follower("a", "99"), ":3:37: There is no such job");
    expect_finding(follower("a", "there"), ":3:37: The job that it follows is to be deleted");
    expect_finding(follower("a", "b") + follower("b", "a"), ":3:37: The jobs that follow one another make a circle");
    expect_finding("Job.Begin\nJob.Name: a\nJob.Schedule.Daily.Frequency: 1\nJob.Task: none\nJob.End\n",
                   ":4:11: Unable to lookup task");
    const auto twice = file("b.jobs", definition("a"));
    EXPECT_THAT(tool("job load alpha " + twice + " " + twice).text, HasSubstr("is defined in"));
    EXPECT_EQ(tool("job load alpha " + twice + " --no-such-option").status, 2);
    EXPECT_EQ(tool("job plan beta.invalid " + twice).status, 3);
}

// Dumped from one scheduler, deleted, and loaded: what comes is what there was, whatever the jobs hold.
TEST_F(SchedulerSets, DumpedAreLoadedAsTheyWere) {
    std::mt19937 random(5);
    std::vector<std::unique_ptr<velia::cli_tests::MadeUpJob>> made;
    std::vector<std::string> texts;
    std::vector<sched_set_change_t> changes;
    for (int i = 0; i < 60; ++i)
        texts.push_back("job\t" + std::to_string(i));
    for (auto &text : texts) {
        made.push_back(std::make_unique<velia::cli_tests::MadeUpJob>(random));
        auto &rw = made.back()->rw;
        rw.name = text.data();
        if (rw.schedule.kind == SCHED_KIND_SEQUENTIAL)
            rw.schedule.u.sequential.follows_job = 0;
        changes.push_back({SCHED_SET_CREATE, 0, rw.schedule.kind == SCHED_KIND_SEQUENTIAL ? 1U : 0U, rw});
    }
    made[0]->rw.schedule = NewJob("").rw.schedule;
    changes[0] = {SCHED_SET_CREATE, 0, 0, made[0]->rw};
    ASSERT_EQ(list(), TBS_ST_OK);
    ASSERT_EQ(apply(changes), TBS_ST_OK) << fault.place << " " << fault.err_mask;
    const auto dumped = file("all.jobs", tool("job dump alpha").text);
    const Told same = tool("job plan alpha --prune " + dumped);
    EXPECT_EQ(same.status, 0) << same.text;
    EXPECT_EQ(tool("job load alpha --prune " + file("none.jobs", "")).status, 0);
    EXPECT_EQ(names().size(), 0U);
    EXPECT_EQ(tool("job load alpha " + dumped).status, 0);
    EXPECT_EQ(file("again.jobs", tool("job dump alpha").text).empty(), false);
    EXPECT_EQ(read("again.jobs"), read("all.jobs"));
    EXPECT_THAT(json("job dump alpha 'job\t0'"), HasSubstr("\"definition\":\"Job.Begin\\n"));
    EXPECT_EQ(tool("job dump alpha none").status, 1);
}
