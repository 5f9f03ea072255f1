// A daemon with tasks, and jobs of it.
#pragma once

#include <csignal>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <tests/system/support/daemon.h>
#include <tests/system/support/site.h>
#include <veliaxdr/sched_access.h>
#include <veliaxdr/sched_check.h>
#include <veliaxdr/sched_handle.h>
#include <veliaxdr/sched_jobs.h>
#include <veliaxdr/sched_run.h>
#include <veliaxdr/sched_runs.h>
#include <veliaxdr/sched_tasks.h>

namespace velia::system_test {

// A job as a client makes it: daily, and due in no test by itself.
struct NewJob {
    explicit NewJob(std::string of_name, std::vector<std::string> of_arguments = {}, sched_task_id_t task = 1)
        : name(std::move(of_name)), arguments(std::move(of_arguments)) {
        rw.schedule.kind = SCHED_KIND_DAILY;
        rw.schedule.u.daily.frequency = 1;
        rw.schedule.u.daily.common.lifetime.start_date = 4102444800; // in the year 2100
        rw.schedule.u.daily.common.start_times.first_start_time = SCHED_TIME_NOT_GIVEN;
        rw.task = task;
    }
    NewJob &now() {
        rw.schedule.u.daily.common.lifetime = {SCHED_DATE_NOW, SCHED_DATE_NOW};
        return *this;
    }
    NewJob &after(sched_job_id_t followed) {
        rw.schedule = {};
        rw.schedule.kind = SCHED_KIND_SEQUENTIAL;
        rw.schedule.u.sequential.follows_job = followed;
        return *this;
    }
    NewJob &every_second() {
        rw.schedule.u.daily.common.lifetime = {0, 0};
        rw.schedule.u.daily.common.start_times = {0, 86400, 1};
        return *this;
    }
    sched_job_rw_properties_t *record() {
        pointers.clear();
        for (auto &argument : arguments)
            pointers.push_back(argument.data());
        rw.name = name.data();
        rw.description = name.data();
        rw.arg_count = static_cast<uint32_t>(pointers.size());
        rw.args = pointers.data();
        return &rw;
    }

    std::string name;
    std::vector<std::string> arguments;
    std::vector<char *> pointers;
    sched_job_rw_properties_t rw = {};
};

struct Ran {
    time_t started = 0;
    time_t ended = 0;
    uint32_t status = 0;
    std::string messages;
};

class SchedulerFixture : public testing::Test {
protected:
    // Task 1 runs a script that is its job's argument.
    static constexpr const char *tasks = "task 1 script /bin/sh\ntask 2 missing /no/such/program\n";

    void SetUp() override { start(tasks); }
    void TearDown() override { sched_free_handle(&handle); }

    void start(const std::string &configuration) {
        site.configure(configuration);
        daemon = std::make_unique<Daemon>(site);
        ASSERT_TRUE(daemon->is_ready()) << daemon->output();
        ASSERT_EQ(sched_get_handle("alpha", &handle), TBS_ST_OK) << daemon->output();
    }
    void restart(const std::string &configuration = tasks) {
        sched_free_handle(&handle);
        start(configuration);
    }
    void kill_daemon() {
        daemon->signal(SIGKILL);
        daemon->wait();
    }

    sched_job_id_t create(NewJob &job) {
        sched_job_h_t made = nullptr;
        err_mask = 0;
        status = sched_job_create(handle, job.record(), &made, &err_mask);
        sched_job_id_t id = 0;
        if (status == TBS_ST_OK)
            sched_job_get_id(handle, made, &id);
        sched_job_free_handle(handle, &made);
        return id;
    }
    sched_job_id_t create(NewJob &&job) { return create(job); }

    template <class Body>
    auto with_job(sched_job_id_t id, Body &&body) {
        sched_job_handle job = {id};
        return body(&job);
    }

    // What the job last ran, all zero if it never did.
    Ran last_run(sched_job_id_t id) {
        return with_job(id, [&](sched_job_h_t job) {
            sched_job_properties_t properties = {};
            Ran ran;
            if (sched_job_get_properties(handle, job, &properties) == TBS_ST_OK) {
                const auto &last = properties.ro.last_completion;
                ran = {last.started, last.ended, last.exit_status, last.messages != nullptr ? last.messages : ""};
            }
            sched_free_job_properties(handle, &properties);
            return ran;
        });
    }
    time_t running_since(sched_job_id_t id) {
        return with_job(id, [&](sched_job_h_t job) {
            sched_job_properties_t properties = {};
            sched_job_get_properties(handle, job, &properties);
            const time_t started = properties.ro.running_status.started;
            sched_free_job_properties(handle, &properties);
            return started;
        });
    }
    Ran ran(sched_job_id_t id) {
        Ran last;
        EXPECT_TRUE(eventually([&] { return (last = last_run(id)).ended != 0; }, 30)) << daemon->output();
        return last;
    }
    tbs_status_t run(sched_job_id_t id, time_t *started = nullptr) {
        return with_job(id, [&](sched_job_h_t job) {
            sched_running_job_h_t running = nullptr;
            const auto done = sched_rjob_run_job(handle, job, &running);
            if (started != nullptr && running != nullptr)
                *started = running->started;
            sched_rjob_free_handle(handle, &running);
            return done;
        });
    }
    tbs_status_t remove(sched_job_id_t id, tbs_boolean_t is_forced = 0) {
        return with_job(id, [&](sched_job_h_t job) {
            sched_job_h_t slot = job;
            const auto done = sched_job_delete(handle, &slot, is_forced);
            if (slot != job)
                sched_job_free_handle(handle, &slot);
            return done;
        });
    }
    tbs_status_t terminate(sched_job_id_t id, time_t started) {
        sched_running_job_handle running = {id, started};
        return sched_rjob_terminate(handle, &running);
    }
    bool exists(sched_job_id_t id) {
        sched_job_h_t job = nullptr;
        const bool is_there = sched_job_lookup_by_id(handle, id, &job) == TBS_ST_OK;
        sched_job_free_handle(handle, &job);
        return is_there;
    }
    std::string read(const std::string &name) const {
        std::ifstream file(site.path(name));
        return {std::istreambuf_iterator<char>(file), {}};
    }

    void change_database(const std::string &words) const {
        sqlite3 *database = nullptr;
        sqlite3_open_v2(site.path("host/priv/scheduler.db").c_str(), &database, SQLITE_OPEN_READWRITE, nullptr);
        EXPECT_EQ(sqlite3_exec(database, words.c_str(), nullptr, nullptr, nullptr), SQLITE_OK) << words;
        sqlite3_close(database);
    }
    // Copies of the first job, for a daemon that is down.
    void multiply_jobs(uint32_t copies) const {
        change_database("WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < " +
                        std::to_string(copies) +
                        ") INSERT INTO job (body, owner, created_who, created_where, created_when, changed_who, "
                        "changed_where, changed_when, considered, changed_start) SELECT body, owner, created_who, "
                        "created_where, created_when, changed_who, changed_where, changed_when, considered, "
                        "changed_start FROM job, n WHERE id = 1");
    }

    Site site;
    std::unique_ptr<Daemon> daemon;
    sched_h_t handle = nullptr;
    tbs_status_t status = TBS_ST_OK;
    uint32_t err_mask = 0;
};

} // namespace velia::system_test
