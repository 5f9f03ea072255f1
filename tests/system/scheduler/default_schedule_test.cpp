// Tasks and jobs that the configuration has in files, read by the parser of definitions.
#include "scheduler_fixture.h"

using namespace velia::system_test;

namespace {

constexpr const char *tasks_text = R"(# what this host may run
Task.Begin
    Task.Id: 1
    Task.Name: script
    Task.Pathname: /bin/sh
Task.End
)";

constexpr const char *schedule_text = R"(Job.Begin
    Job.Name: behind
    Job.Schedule.Sequential.FollowsJob: nightly
    Job.Task: 1
    Job.Args: "-c" "echo behind"
Job.End
Job.Begin
    Job.Name: nightly
    Job.Schedule.Daily.Frequency: 1
    Job.Schedule.StartDate: 2100-01-01
    Job.Task: 1
    Job.Args: "-c" "echo nightly"
Job.End
)";

struct DefaultSchedule : SchedulerFixture {
    void SetUp() override {
        site.write("tasks.def", tasks_text);
        site.write("schedule.def", schedule_text);
    }
    std::string lines() const {
        return "option tasks " + site.path("tasks.def") + "\noption schedule " + site.path("schedule.def") + "\n";
    }
    sched_job_id_t id_of(const char *name) const {
        sched_job_h_t job = nullptr;
        sched_job_id_t id = 0;
        if (sched_job_lookup_by_name(handle, name, &job) == TBS_ST_OK)
            sched_job_get_id(handle, job, &id);
        sched_job_free_handle(handle, &job);
        return id;
    }
    bool is_predefined(sched_job_id_t id) {
        return with_job(id, [&](sched_job_h_t job) {
            sched_job_properties_t properties = {};
            sched_job_get_properties(handle, job, &properties);
            const bool is_predefined = properties.ro.predefined != 0;
            sched_free_job_properties(handle, &properties);
            return is_predefined;
        });
    }
    // The jobs are made behind the daemon's first words.
    void expect_jobs() {
        ASSERT_TRUE(eventually([&] { return id_of("nightly") != 0 && id_of("behind") != 0; }, 30)) << daemon->output();
    }
    tbs_status_t set(sched_job_id_t id, NewJob job) {
        return with_job(
            id, [&](sched_job_h_t given) { return sched_job_set_properties(handle, given, job.record(), &err_mask); });
    }
    bool has_task(const char *name) const {
        sched_task_id_t id = 0;
        return sched_task_name_to_id(handle, name, &id) == TBS_ST_OK;
    }
    // One more job, by which it is seen that a file was read.
    static std::string more(int number) {
        return "Job.Begin\nJob.Name: more " + std::to_string(number) +
               "\nJob.Schedule.Daily.Frequency: 1\nJob.Schedule.StartDate: 2100-01-01\nJob.Task: 1\nJob.End\n";
    }
    // The daemon does not start with it.
    std::string refusal(const std::string &configuration) {
        site.configure(configuration);
        daemon = std::make_unique<Daemon>(site);
        EXPECT_FALSE(daemon->is_ready());
        return daemon->output();
    }

    int files = 0;
};

} // namespace

TEST_F(DefaultSchedule, ItsJobsAreMadeOnceAndRunAsAnyOther) {
    start(lines());
    expect_jobs();
    const auto nightly = id_of("nightly");
    const auto behind = id_of("behind");
    EXPECT_TRUE(is_predefined(nightly));
    EXPECT_TRUE(is_predefined(behind));
    ASSERT_EQ(run(nightly), TBS_ST_OK);
    EXPECT_EQ(ran(nightly).messages, "nightly\n");
    EXPECT_EQ(ran(behind).messages, "behind\n");
    kill_daemon();
    restart(lines());
    EXPECT_EQ(id_of("nightly"), nightly);
    EXPECT_EQ(id_of("behind"), behind);
    EXPECT_TRUE(is_predefined(nightly));
    EXPECT_FALSE(is_predefined(create(NewJob("other"))));
}

TEST_F(DefaultSchedule, APredefinedJobKeepsItsNameAndWhatPeopleMadeOfIt) {
    start(lines());
    expect_jobs();
    const auto id = id_of("nightly");
    EXPECT_EQ(set(id, NewJob("renamed")), TBS_ST_INVALID_ARG);
    EXPECT_EQ(err_mask, uint32_t{SCHED_ERR_PREDEF_NAME});
    EXPECT_EQ(set(id, NewJob("nightly", {"-c", "echo mine"})), TBS_ST_OK);
    kill_daemon();
    restart(lines());
    ASSERT_EQ(run(id), TBS_ST_OK);
    EXPECT_EQ(ran(id).messages, "mine\n");
}

// Until its definition is another one, or has been away.
TEST_F(DefaultSchedule, AJobThatWasDeletedDoesNotComeAgainBeforeTheFileSaysOtherwise) {
    start(lines());
    expect_jobs();
    const auto expect_only_behind = [&] {
        site.write("schedule.def", std::string(schedule_text) + more(++files));
        daemon->signal(SIGHUP);
        EXPECT_TRUE(eventually([&] { return id_of(("more " + std::to_string(files)).c_str()) != 0; }, 30));
        EXPECT_EQ(id_of("nightly"), 0U);
        EXPECT_NE(id_of("behind"), 0U);
    };
    EXPECT_EQ(remove(id_of("nightly"), 1), TBS_ST_OK);
    expect_only_behind();
    kill_daemon();
    restart(lines());
    expect_only_behind();

    std::string other = schedule_text;
    other.replace(other.find("echo nightly"), 12, "echo changed");
    site.write("schedule.def", other);
    daemon->signal(SIGHUP);
    EXPECT_TRUE(eventually([&] { return id_of("nightly") != 0; }, 30)) << daemon->output();
    EXPECT_EQ(remove(id_of("nightly"), 1), TBS_ST_OK);
    site.write("schedule.def", more(++files));
    daemon->signal(SIGHUP);
    EXPECT_TRUE(eventually([&] { return id_of(("more " + std::to_string(files)).c_str()) != 0; }, 30));
    kill_daemon();
    site.write("schedule.def", other);
    restart(lines());
    EXPECT_TRUE(eventually([&] { return id_of("nightly") != 0; }, 30)) << daemon->output();
}

TEST_F(DefaultSchedule, WhatIsNewInTheFilesIsTakenOnAHangup) {
    start(lines());
    expect_jobs();
    EXPECT_FALSE(has_task("more"));
    site.write("tasks.def", std::string(tasks_text) + "Task.Begin\nTask.Id: 2\nTask.Name: more\n"
                                                      "Task.Pathname: /bin/true\nTask.End\n");
    site.write("schedule.def", std::string(schedule_text) +
                                   "Job.Begin\nJob.Name: new\nJob.Schedule.Daily.Frequency: 1\n"
                                   "Job.Schedule.StartDate: 2100-01-01\nJob.Task: 2\nJob.End\n");
    daemon->signal(SIGHUP);
    EXPECT_TRUE(eventually([&] { return has_task("more") && id_of("new") != 0; }, 30)) << daemon->output();
}

TEST_F(DefaultSchedule, AFileThatIsMalformedIsRefusedWholeWithItsLine) {
    start(lines());
    expect_jobs();
    site.write("tasks.def", std::string(tasks_text) + "Task.Begin\nTask.Id: 2\nTask.Colour: red\nTask.End\n");
    daemon->signal(SIGHUP);
    EXPECT_TRUE(
        eventually([&] { return daemon->output().find("tasks.def\" cannot be read") != std::string::npos; }, 30))
        << daemon->output();
    EXPECT_NE(daemon->output().find("line 9"), std::string::npos) << daemon->output();
    EXPECT_TRUE(has_task("script"));
    daemon.reset();
    EXPECT_NE(refusal(lines()).find("tasks.def"), std::string::npos);
    site.write("tasks.def", tasks_text);
    site.write("schedule.def", "Job.Begin\nJob.Name: cut\n");
    EXPECT_NE(refusal(lines()).find("schedule.def"), std::string::npos);
    EXPECT_NE(refusal("option tasks tasks.def\n").find("not absolute"), std::string::npos);
    EXPECT_NE(refusal("task 1 other /bin/true\noption tasks " + site.path("tasks.def") + "\n").find("stands already"),
              std::string::npos);
    EXPECT_NE(refusal("option tasks " + site.path("nothing.def") + "\n").find("nothing.def"), std::string::npos);
}

TEST_F(DefaultSchedule, AJobOfThatNameOrWithoutTheOneThatItFollowsIsTold) {
    start(tasks);
    const auto mine = create(NewJob("nightly"));
    kill_daemon();
    site.write("schedule.def",
               std::string(schedule_text) +
                   "Job.Begin\nJob.Name: lost\nJob.Schedule.Sequential.FollowsJob: nobody\nJob.Task: 1\n"
                   "Job.End\n");
    restart(lines());
    EXPECT_TRUE(eventually([&] { return id_of("behind") != 0; }, 30));
    EXPECT_EQ(id_of("nightly"), mine);
    EXPECT_FALSE(is_predefined(mine));
    EXPECT_TRUE(eventually([&] { return daemon->output().find("no job \"nobody\"") != std::string::npos; }, 30))
        << daemon->output();
    EXPECT_NE(daemon->output().find("\"nightly\" of the default schedule is not made: there is another one"),
              std::string::npos)
        << daemon->output();
    EXPECT_EQ(id_of("lost"), 0U);
}
