// What the tests of definitions share: a file that is written and read, what came of it, and what was told.
#pragma once

#include <filesystem>
#include <fstream>

#include <tests/unit/sched/fixture.h>
#include <veliaxdr/sched_definitions.h>

namespace {

class DefinitionTest : public SchedulerTest {
protected:
    DefinitionTest() {
        setenv("TZ", "UTC", 1);
        tzset();
        std::string name = testing::TempDir() + "velia-definitions-XXXXXX";
        directory = mkdtemp(name.data());
        path = directory + "/definitions";
        before = sim::Holdings::now(world);
    }
    ~DefinitionTest() override {
        sched_free_jobs(scheduler, job_count, &jobs);
        sched_utl_free_extra_job_infos(scheduler, job_count, &followed);
        sched_free_tasks(scheduler, task_count, &tasks);
        std::filesystem::remove_all(directory);
    }

    void write(const std::string &text) const {
        std::ofstream(path, std::ios::binary | std::ios::trunc)
            .write(text.data(), static_cast<std::streamsize>(text.size()));
    }

    // What an earlier reading gave is released.
    tbs_status_t read_jobs() {
        sched_free_jobs(scheduler, job_count, &jobs);
        sched_utl_free_extra_job_infos(scheduler, job_count, &followed);
        job_count = 0;
        return sched_utl_parse_job_properties(scheduler, path.c_str(), &job_count, &jobs, &followed);
    }
    tbs_status_t read_jobs(const std::string &text) {
        write(text);
        return read_jobs();
    }
    tbs_status_t read_tasks(const std::string &text) {
        write(text);
        sched_free_tasks(scheduler, task_count, &tasks);
        task_count = 0;
        return sched_utl_parse_task_properties(scheduler, path.c_str(), &task_count, &tasks);
    }

    // All that was told since the last time, as one text; lines of severity 6 as they are, others with theirs in front.
    std::string told() {
        std::string text;
        for (const auto &each : world.take_messages())
            text += each.severity == IMSG_ERROR ? each.text : "[" + std::to_string(each.severity) + "]" + each.text;
        return text;
    }

    static std::string syntax_error(int line, const std::string &problem) {
        return "Syntax error on line " + std::to_string(line) + ".\n" + problem + "\n";
    }
    static inline const std::string bad_jobs = "Problem in Job Definitions.\n";
    static inline const std::string bad_tasks = "Problem parsing task definitions.\n";

    // A definition with what a job has to have, and `lines` in front of its end.
    static std::string job(const std::string &lines = "", const std::string &name = "nightly") {
        return "Job.Begin\nJob.Name: " + name + "\nJob.Schedule.Daily.Frequency: 1\nJob.Task: 7\n" + lines +
               "Job.End\n";
    }
    static constexpr int first_own_line = 5; // of job()

    static std::string job_with_schedule(const std::string &schedule) {
        return "Job.Begin\nJob.Name: nightly\nJob.Task: 7\n" + schedule + "Job.End\n";
    }
    static constexpr int first_schedule_line = 4;

    // The file is refused whole with these words.
    void expect_refused(const std::string &text, const std::string &words, tbs_status_t status = TBS_ST_ERROR) {
        EXPECT_EQ(read_jobs(text), status) << text;
        EXPECT_EQ(told(), words + bad_jobs) << text;
        EXPECT_EQ(jobs, nullptr);
        EXPECT_EQ(sim::Holdings::now(world), before) << text;
    }
    void expect_tasks_refused(const std::string &text, const std::string &words) {
        EXPECT_EQ(read_tasks(text), TBS_ST_ERROR) << text;
        EXPECT_EQ(told(), words + bad_tasks) << text;
        EXPECT_EQ(tasks, nullptr);
        EXPECT_EQ(sim::Holdings::now(world), before) << text;
    }
    void expect_read(const std::string &text, uint32_t count = 1) {
        EXPECT_EQ(read_jobs(text), TBS_ST_OK) << text;
        EXPECT_EQ(told(), "") << text;
        ASSERT_EQ(job_count, count) << text;
    }

    std::string directory;
    std::string path;
    uint32_t job_count = 0;
    sched_job_properties_t *jobs = nullptr;
    char **followed = nullptr;
    uint32_t task_count = 0;
    sched_task_properties_t *tasks = nullptr;
};

} // namespace
