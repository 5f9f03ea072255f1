// Definitions as those read them who keep sets of them: with tasks found by themselves, lines known, and lines that
// hold exactly what no other can.
#include <tests/sim/sweeps.h>
#include <tests/unit/sched_parse/fixture.h>

namespace {

class ExactDefinitions : public DefinitionTest {
protected:
    ExactDefinitions() {
        reading.context = this;
        reading.find_task = [](void *context, const char *name, sched_task_id_t *id) {
            *id = 7;
            static_cast<ExactDefinitions *>(context)->asked += name;
            return *name == '?' ? tbs_status_t{TBS_ST_NOT_FOUND} : tbs_status_t{TBS_ST_OK};
        };
        reading.took = [](void *context, uint32_t first_line, uint32_t last_line) {
            static_cast<ExactDefinitions *>(context)->taken.emplace_back(first_line, last_line);
        };
    }

    tbs_status_t read() {
        sched_free_jobs(scheduler, job_count, &jobs);
        sched_utl_free_extra_job_infos(scheduler, job_count, &followed);
        job_count = 0;
        taken.clear();
        return sched_utl_read_job_definitions(scheduler, path.c_str(), &reading, &job_count, &jobs, &followed);
    }
    tbs_status_t read(const std::string &text) {
        write(text);
        return read();
    }

    sched_reading_t reading = {};
    std::string asked;
    std::vector<std::pair<uint32_t, uint32_t>> taken;
};

const std::string with_all = "Job.RunCntl.Name: \"a\\nb\"\nJob.RunCntl.More: \"c\"\nJob.RunCntl.Description: \"d\"\n"
                             "Job.RunCntl.Arg: \"e\"\nJob.RunCntl.Arg: \"f\"\nJob.RunCntl.More: \"g\"\n"
                             "Job.RunCntl.MaxRunTime: 60\nJob.RunCntl.LastStartTime: 86400\n"
                             "Job.RunCntl.StartTimeRestartFrequency: 86400\nJob.RunCntl.FirstStartTime: 86400\n"
                             "Job.NotifyInfo.OnEvents: JobEndFail\nJob.NotifyInfo.Using: email\n"
                             "Job.NotifyInfo.Recipients: anna\nJob.RunCntl.Recipient: \"b,n\"\n";

TEST_F(ExactDefinitions, HoldWhatNoOtherLineCan) {
    ASSERT_EQ(read(job(with_all)), TBS_ST_OK) << told();
    ASSERT_EQ(job_count, 1U);
    const auto &rw = jobs[0].rw;
    EXPECT_STREQ(rw.name, "a\nbc");
    EXPECT_STREQ(rw.description, "d");
    ASSERT_EQ(rw.arg_count, 2U);
    EXPECT_STREQ(rw.args[1], "fg");
    EXPECT_EQ(rw.run_control.max_run_time, 60U);
    EXPECT_EQ(rw.schedule.u.daily.common.start_times.last_start_time, 86400U);
    EXPECT_EQ(rw.schedule.u.daily.common.start_times.restart_frequency, 86400U);
    EXPECT_EQ(rw.schedule.u.daily.common.start_times.first_start_time, 86400U);
    ASSERT_EQ(rw.notify[0].recipient_count, 2);
    EXPECT_STREQ(rw.notify[0].recipients[1], "b,n");
}

TEST_F(ExactDefinitions, ArePassedOverByTheDescribedReader) {
    ASSERT_EQ(read_jobs(job(with_all)), TBS_ST_OK);
    EXPECT_STREQ(jobs[0].rw.name, "nightly");
    EXPECT_EQ(jobs[0].rw.arg_count, 0U);
    EXPECT_EQ(jobs[0].rw.run_control.max_run_time, 0U);
}

TEST_F(ExactDefinitions, TellTheirLinesAndAskForTheirTasks) {
    ASSERT_EQ(
        read("\n#\n" + job() + "\nJob.Begin\nJob.Name: b\nJob.Task: t\nJob.Schedule.Daily.Frequency: 1\nJob.End\n"),
        TBS_ST_OK);
    EXPECT_EQ(asked, "t");
    EXPECT_EQ(jobs[1].rw.task, 7U);
    EXPECT_EQ(taken, (std::vector<std::pair<uint32_t, uint32_t>>{{3, 7}, {9, 13}}));
    EXPECT_EQ(reading.line, 13U);
    EXPECT_EQ(world.peer.calls.size(), 0U);
}

TEST_F(ExactDefinitions, RefuseTheWholeFileForAnUnknownTaskAndForASecondOfOneName) {
    EXPECT_EQ(read(job() + "Job.Begin\nJob.Name: b\nJob.Task: ?\nJob.Schedule.Daily.Frequency: 1\nJob.End\n"),
              TBS_ST_INVALID_ARG);
    EXPECT_EQ(jobs, nullptr);
    EXPECT_EQ(read(job() + job()), TBS_ST_ALREADY_EXISTS);
    EXPECT_EQ(jobs, nullptr);
    EXPECT_EQ(reading.first_line, 6U);
    told();
}

TEST_F(ExactDefinitions, UndoThemselvesWhenAnyAllocationFails) {
    write(job(with_all));
    tbs_status_t status = TBS_ST_OK;
    const auto operation = [&] { status = read(); };
    sim::sweep_allocations(world, operation, [&](int number) {
        world.take_messages();
        if (status == TBS_ST_OK) { // what is released may be released without storage, too
            EXPECT_EQ(job_count, 1U) << number;
            return;
        }
        EXPECT_EQ(jobs, nullptr);
        EXPECT_EQ(sim::Holdings::now(world), before) << number;
    });
    EXPECT_EQ(status, TBS_ST_OK);
}

TEST_F(ExactDefinitions, HoldNothingWhenARaiseLandsAnywhere) {
    write(job(with_all));
    reading.took = nullptr;
    const auto operation = [&] { read(); };
    sim::sweep_raises(world, operation, [&](int number) {
        sched_free_jobs(scheduler, job_count, &jobs);
        sched_utl_free_extra_job_infos(scheduler, job_count, &followed);
        job_count = 0;
        EXPECT_EQ(sim::Holdings::now(world), before) << number;
        world.take_messages();
    });
}

TEST_F(ExactDefinitions, OfTasksTellTheirLines) {
    const std::string task = "Task.Begin\nTask.Id: 1\nTask.Name: a\nTask.Pathname: /b\nTask.End\n";
    write("\n" + task);
    EXPECT_EQ(sched_utl_read_task_definitions(scheduler, path.c_str(), &reading, &task_count, &tasks), TBS_ST_OK);
    EXPECT_EQ(taken, (std::vector<std::pair<uint32_t, uint32_t>>{{2, 6}}));
    sched_free_tasks(scheduler, task_count, &tasks);
    write(task + task);
    EXPECT_EQ(sched_utl_read_task_definitions(scheduler, path.c_str(), &reading, &task_count, &tasks),
              TBS_ST_ALREADY_EXISTS);
    told();
}

} // namespace
