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
    int64_t considered() { return store->read().jobs.at(0).considered; }

    std::filesystem::path directory;
    std::unique_ptr<JobStore> store;
};

} // namespace

TEST_F(JobStores, KeepEachFieldOfAJob) {
    const auto id = store->add(row(), change("created"));
    reopen();
    const auto jobs = store->read().jobs;
    ASSERT_EQ(jobs.size(), 1U);
    const JobRow &read = jobs[0];
    EXPECT_EQ(read.id, id);
    EXPECT_EQ(read.body, "body");
    EXPECT_EQ(read.owner, 1000U);
    EXPECT_EQ(read.created.who + read.created.where, "annahere");
    EXPECT_EQ(read.changed.who + read.changed.where, "benthere");
    EXPECT_EQ(read.created.when, 5);
    EXPECT_EQ(read.changed.when, 6);
    EXPECT_EQ(read.considered, 7);
    EXPECT_EQ(read.changed_start, 8);
    EXPECT_TRUE(read.is_predefined);
}

TEST_F(JobStores, ChangeAndRemoveWhatIsThere) {
    JobRow changed = row();
    changed.id = store->add(row(), change("created"));
    changed.body = "other";
    changed.owner.reset();
    EXPECT_TRUE(store->change(changed, change("changed")));
    EXPECT_EQ(store->read().jobs[0].body, "other");
    EXPECT_EQ(store->read().jobs[0].owner, std::nullopt);
    EXPECT_EQ(store->read().jobs[0].created.who, "anna");
    EXPECT_TRUE(store->remove(changed.id, change("deleted")));
    EXPECT_FALSE(store->remove(changed.id, change("deleted")));
    EXPECT_FALSE(store->change(changed, change("changed")));
    EXPECT_THAT(store->read().jobs, IsEmpty());
}

TEST_F(JobStores, NeverGiveANumberTwice) {
    const auto id = store->add(row(), change("created"));
    store->remove(id, change("deleted"));
    reopen();
    EXPECT_GT(store->add(row(), change("created")), id);
}

TEST_F(JobStores, AChangeTakesBackNothingThatWasConsidered) {
    JobRow changed = row();
    changed.id = store->add(row(), change("created"));
    store->consider(changed.id, 50);
    store->consider(changed.id, 40);
    EXPECT_EQ(considered(), 50);
    store->change(changed, change("changed"));
    EXPECT_EQ(considered(), 50);
}

TEST_F(JobStores, ARunThatBeginsIsThereBeforeItsEnd) {
    const auto id = store->add(row(), change("created"));
    store->begin(run(id, 100, 90));
    reopen();
    auto runs = store->read().runs;
    ASSERT_EQ(runs.size(), 1U);
    EXPECT_EQ(runs[0].started, 100);
    EXPECT_EQ(runs[0].due, 90);
    EXPECT_EQ(runs[0].ended, 0);
    EXPECT_EQ(considered(), 90);
    RunRow ended = runs[0];
    ended.ended = 110;
    ended.exit_status = 3;
    ended.process_id = "44";
    ended.messages = "out";
    store->end(ended, {}, false);
    runs = store->read().runs;
    ASSERT_EQ(runs.size(), 1U);
    EXPECT_EQ(runs[0].ended, 110);
    EXPECT_EQ(runs[0].exit_status, 3U);
    EXPECT_EQ(runs[0].process_id + runs[0].messages, "44out");
}

TEST_F(JobStores, OneThatDidNotBeginMayBeMadeAgain) {
    const auto id = store->add(row(), change("created"));
    store->begin(run(id, 100, 90));
    store->forget(run(id, 100, 90), 89);
    EXPECT_THAT(store->read().runs, IsEmpty());
    EXPECT_EQ(considered(), 89);
}

TEST_F(JobStores, AnEndOwesItsFollowersAStartUntilTheyBegin) {
    const auto first = store->add(row(), change("created"));
    const auto second = store->add(row(), change("created"));
    store->begin(run(first, 100, 90));
    store->end(run(first, 100, 90), {second, 77}, false);
    EXPECT_THAT(store->read().owed, ElementsAre(second));
    store->begin(run(second, 110, 0));
    EXPECT_THAT(store->read().owed, IsEmpty());
}

TEST_F(JobStores, AJobMayGoWithItsLastRunAndItsRunsWithIt) {
    const auto id = store->add(row(), change("created"));
    store->begin(run(id, 100, 90));
    store->end(run(id, 100, 90), {}, true);
    EXPECT_THAT(store->read().jobs, IsEmpty());
    EXPECT_THAT(store->read().runs, IsEmpty());
}

TEST_F(JobStores, KeepTheYoungestRuns) {
    const auto id = store->add(row(), change("created"));
    for (int64_t started = 1; started <= runs_kept + 5; ++started) {
        RunRow ended = run(id, started, 0);
        store->begin(ended);
        ended.ended = started;
        store->end(ended, {}, false);
    }
    const auto runs = store->read().runs;
    ASSERT_EQ(runs.size(), static_cast<size_t>(runs_kept));
    EXPECT_EQ(runs.front().started, 6);
}

TEST_F(JobStores, KeepTheAccessList) {
    EXPECT_EQ(store->read().acl, "");
    store->set_acl("one", change("access"));
    store->set_acl("two", change("access"));
    reopen();
    EXPECT_EQ(store->read().acl, "two");
}

TEST_F(JobStores, LogEachChangeWithWhatItDoes) {
    auto changed = row();
    changed.id = store->add(row(), change("created", 1));
    const auto other = store->add(row(), change("created", 2));
    store->change(changed, change("changed", 3));
    store->set_acl("one", change("access", 4));
    store->remove(changed.id, change("deleted", 5));
    EXPECT_FALSE(store->remove(changed.id, change("deleted", 6)));
    reopen();
    const auto all = store->changes(0, INT64_MAX, 10);
    std::vector<std::string> told;
    for (const auto &each : all)
        told.push_back(std::to_string(each.deed.when) + each.what + std::to_string(each.job));
    EXPECT_THAT(told, ElementsAre("5deleted1", "4access0", "3changed1", "2created2", "1created1"));
    EXPECT_EQ(all[2].deed.who + all[2].deed.where + all[2].job_name + all[2].fields, "annaherenf");
    EXPECT_EQ(store->changes(0, all[1].number, 2).front().deed.when, 3);
    EXPECT_EQ(store->changes(changed.id, INT64_MAX, 10).size(), 3U);
    EXPECT_EQ(store->changes(changed.id, all[2].number, 10).size(), 1U);
    EXPECT_EQ(store->changes(other, INT64_MAX, 10).size(), 1U);
    EXPECT_EQ(store->changes(0, INT64_MAX, 2).size(), 2U);
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
    Sqlite(file_name()).run("DROP TABLE change; ALTER TABLE job DROP COLUMN predefined; PRAGMA user_version = 1");
    store = open_job_store(file_name());
    EXPECT_EQ(store->read().jobs.at(0).id, id);
    EXPECT_THAT(store->changes(0, INT64_MAX, 10), IsEmpty());
    EXPECT_TRUE(store->remove(id, change("deleted")));
}

TEST_F(JobStores, RefuseADatabaseOfANewerVersion) {
    store.reset();
    Sqlite(file_name()).run("PRAGMA user_version = 3");
    EXPECT_THROW(open_job_store(file_name()), StoreError);
}

TEST_F(JobStores, RefuseWhatSomethingElseHasMade) {
    const std::string other = directory / "other.db";
    Sqlite(other).run("CREATE TABLE mine (x)");
    EXPECT_THROW(open_job_store(other), StoreError);
}
