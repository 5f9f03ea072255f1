// A store of each kind, with jobs that were made for the test, and short words for what tests do with it.
#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <server/scheduler/job_store.h>

namespace velia::server {

// Where one test's jobs are. Nothing is left of it at the end.
class JobStorePlace {
public:
    JobStorePlace() = default;
    virtual ~JobStorePlace() = default;
    JobStorePlace(const JobStorePlace &) = delete;
    JobStorePlace &operator=(const JobStorePlace &) = delete;

    virtual std::unique_ptr<JobStore> open() = 0;
};

// One file, of a directory of its own.
class SqliteJobStorePlace : public JobStorePlace {
public:
    SqliteJobStorePlace();
    ~SqliteJobStorePlace() override;

    std::unique_ptr<JobStore> open() override { return open_job_store(file_name()); }
    std::string file_name() const { return directory_ / "scheduler.db"; }

private:
    std::filesystem::path directory_;
};

struct JobStoreKind {
    std::string name;
    std::function<std::unique_ptr<JobStorePlace>()> make_place;
};

inline void PrintTo(const JobStoreKind &kind, std::ostream *out) {
    *out << kind.name;
}

std::vector<JobStoreKind> job_store_kinds();

// A schema of its own in the database server of this process.
std::string new_jobs_conninfo();

// What a client made of a job; it follows that other one.
std::string body_of(const std::string &name, sched_job_id_t follows = 0);

inline JobRow job_row() {
    JobRow row;
    row.body = "body";
    row.owner = 1000;
    row.created = {"anna", "here", 5};
    row.changed = {"ben", "there", 6};
    row.considered = 7;
    row.changed_start = 8;
    row.is_predefined = true;
    return row;
}

inline JobRow job_row(const std::string &name, sched_job_id_t follows = 0) {
    JobRow row = job_row();
    row.body = body_of(name, follows);
    return row;
}

inline ChangeRow change_row(const char *what, int64_t when = 9) {
    return {0, {"anna", "here", when}, what, 0, "n", "f"};
}

inline RunRow run_row(sched_job_id_t job, int64_t started, int64_t due) {
    RunRow run;
    run.job = job;
    run.started = started;
    run.due = due;
    return run;
}

inline RunStep run_step(RunStep::What what, const RunRow &run) {
    RunStep step;
    step.what = what;
    step.run = run;
    return step;
}

inline void record_in(JobStore &store, std::vector<RunStep *> steps) {
    store.record(steps);
}

// One test for each kind.
class JobStoreTest : public testing::TestWithParam<JobStoreKind> {
protected:
    JobStoreTest() : place(GetParam().make_place()), store(place->open()) {}

    void reopen() {
        store.reset();
        store = place->open();
    }
    static JobRow row() { return job_row(); }
    static ChangeRow change(const char *what, int64_t when = 9) { return change_row(what, when); }
    static RunRow run(sched_job_id_t job, int64_t started, int64_t due) { return run_row(job, started, due); }
    static RunStep step(RunStep::What what, const RunRow &of) { return run_step(what, of); }
    void record(std::vector<RunStep *> steps) { store->record(steps); }
    int64_t considered() { return store->read().jobs.at(0).considered; }
    uint64_t state() {
        JobsState state;
        for (const auto &job : store->read().jobs)
            state.add(job.id, job.body);
        return state.value();
    }

    std::unique_ptr<JobStorePlace> place;
    std::unique_ptr<JobStore> store;
};

inline std::string name_of_job_store(const testing::TestParamInfo<JobStoreKind> &kind) {
    return kind.param.name;
}

#define VELIA_FOR_EACH_JOB_STORE(SUITE)                                                                                \
    INSTANTIATE_TEST_SUITE_P(Each, SUITE, testing::ValuesIn(job_store_kinds()), name_of_job_store)

} // namespace velia::server
