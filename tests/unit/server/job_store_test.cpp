// The scheduler's database: what was written is there, whole, and only of this program's making.
#include <server/scheduler/job_store.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <server/registry/sqlite.h>

using namespace velia::server;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

struct JobStores : testing::Test {
    JobStores() {
        std::string name = (std::filesystem::temp_directory_path() / "velia-jobs-XXXXXX").string();
        directory = mkdtemp(name.data());
        reopen();
    }
    ~JobStores() override {
        store.reset();
        std::filesystem::remove_all(directory);
    }
    std::string file_name() const { return directory / "scheduler.db"; }
    void reopen() {
        store.reset();
        store = open_job_store(file_name());
    }
    static JobRow row() {
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
    static ChangeRow change(const char *what, int64_t when = 9) {
        return {0, {"anna", "here", when}, what, 0, "n", "f"};
    }
    static RunRow run(sched_job_id_t job, int64_t started, int64_t due) {
        RunRow run;
        run.job = job;
        run.started = started;
        run.due = due;
        return run;
    }
    static RunStep step(RunStep::What what, const RunRow &run) {
        RunStep step;
        step.what = what;
        step.run = run;
        return step;
    }
    // How many frames of the log end a transaction: such a frame's second word says how large the database is then.
    size_t commits() const {
        std::ifstream log(file_name() + "-wal", std::ios::binary);
        const std::string bytes{std::istreambuf_iterator<char>(log), {}};
        constexpr size_t head = 32;
        constexpr size_t frame_head = 24;
        constexpr size_t page = 4096;
        size_t count = 0;
        for (size_t at = head; at + frame_head + page <= bytes.size(); at += frame_head + page)
            count += std::string_view(bytes).substr(at + 4, 4) != std::string_view("\0\0\0\0", 4) ? 1 : 0;
        return count;
    }
    void record(std::vector<RunStep *> steps) { store->record(steps); }
    int64_t considered() { return store->read().jobs.at(0).considered; }

    std::filesystem::path directory;
    std::unique_ptr<JobStore> store;
};

} // namespace

TEST_F(JobStores, RecordStepsOfManyRunsInOneCommit) {
    const auto first = store->add(row(), change("created"));
    const auto second = store->add(row(), change("created"));
    store->begin(run(first, 100, 90));
    RunStep end = step(RunStep::What::end, run(first, 100, 90));
    end.run.ended = 110;
    end.owed = {second};
    RunStep begin = step(RunStep::What::begin, run(second, 120, 115));
    RunStep pass_over = step(RunStep::What::pass_over, run(first, 0, 200));
    const auto before = commits();
    record({&end, &begin, &pass_over});
    EXPECT_EQ(commits(), before + 1);
    EXPECT_TRUE(end.is_done && begin.is_done && pass_over.is_done);
    reopen();
    const auto read = store->read();
    EXPECT_EQ(read.runs.at(0).ended, 110);
    EXPECT_EQ(read.runs.at(1).due, 115);
    EXPECT_EQ(read.jobs.at(0).considered, 200);
    EXPECT_THAT(read.owed, IsEmpty()) << "the follower has begun behind that";
}

TEST_F(JobStores, OfATransactionThatIsGivenUpNoStepIsDone) {
    const auto id = store->add(row(), change("created"));
    Sqlite(file_name())
        .run("CREATE TRIGGER give_up BEFORE INSERT ON run WHEN NEW.started = 101 "
             "BEGIN SELECT RAISE(ROLLBACK, 'no room'); END");
    reopen();
    RunStep good = step(RunStep::What::begin, run(id, 100, 90));
    RunStep bad = step(RunStep::What::begin, run(id, 101, 91));
    RunStep behind = step(RunStep::What::pass_over, run(id, 0, 95));
    EXPECT_THROW(record({&good, &bad, &behind}), StoreError);
    EXPECT_FALSE(good.is_done || bad.is_done || behind.is_done);
    EXPECT_THAT(store->read().runs, IsEmpty());
    EXPECT_EQ(considered(), 7);
}

TEST_F(JobStores, KeepTheYoungestChanges) {
    store->set_acl("one", change("access", 1));
    store->set_acl("two", change("access", 2));
    store.reset();
    Sqlite(file_name())
        .run(("UPDATE change SET number = " + std::to_string(changes_kept + 1) + " WHERE time = 2").c_str());
    store = open_job_store(file_name());
    store->set_acl("three", change("access", 3));
    const auto kept = store->changes(0, INT64_MAX, 10);
    ASSERT_EQ(kept.size(), 2U);
    EXPECT_EQ(kept.back().deed.when, 2);
}

TEST_F(JobStores, OfTheVersionBeforeAreTakenOn) {
    const auto id = store->add(row(), change("created"));
    store.reset();
    Sqlite(file_name())
        .run("DROP TABLE change; DROP TRIGGER drop_definition; DROP TABLE dropped; "
             "ALTER TABLE job DROP COLUMN definition; ALTER TABLE job DROP COLUMN predefined; "
             "PRAGMA user_version = 1");
    store = open_job_store(file_name());
    EXPECT_EQ(store->read().jobs.at(0).id, id);
    EXPECT_THAT(store->changes(0, INT64_MAX, 10), IsEmpty());
    EXPECT_TRUE(store->remove(id, change("deleted")));
}

TEST_F(JobStores, RefuseADatabaseOfANewerVersion) {
    store.reset();
    Sqlite(file_name()).run("PRAGMA user_version = 4");
    EXPECT_THROW(open_job_store(file_name()), StoreError);
}

TEST_F(JobStores, RefuseWhatSomethingElseHasMade) {
    const std::string other = directory / "other.db";
    Sqlite(other).run("CREATE TABLE mine (x)");
    EXPECT_THROW(open_job_store(other), StoreError);
}
