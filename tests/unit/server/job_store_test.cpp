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
using testing::UnorderedElementsAre;

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
    store->end(ended, {}, std::nullopt);
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
    store->end(run(first, 100, 90), {second, 77}, std::nullopt);
    EXPECT_THAT(store->read().owed, ElementsAre(second));
    store->begin(run(second, 110, 0));
    EXPECT_THAT(store->read().owed, IsEmpty());
}

TEST_F(JobStores, AJobMayGoWithItsLastRunAndItsRunsWithIt) {
    const auto id = store->add(row(), change("created"));
    store->begin(run(id, 100, 90));
    store->end(run(id, 100, 90), {}, change("deleted"));
    EXPECT_THAT(store->read().jobs, IsEmpty());
    EXPECT_THAT(store->read().runs, IsEmpty());
    EXPECT_EQ(store->changes(id, INT64_MAX, 1).at(0).what, "deleted");
}

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

TEST_F(JobStores, AStepThatFailsLeavesTheOthersBe) {
    const auto id = store->add(row(), change("created"));
    RunStep good = step(RunStep::What::begin, run(id, 100, 90));
    RunStep of_no_job = step(RunStep::What::begin, run(id + 1, 100, 90));
    RunStep again = step(RunStep::What::begin, run(id, 100, 90));
    RunStep behind = step(RunStep::What::pass_over, run(id, 0, 95));
    record({&of_no_job, &good, &again, &behind});
    EXPECT_FALSE(of_no_job.is_done);
    EXPECT_TRUE(good.is_done);
    EXPECT_FALSE(again.is_done);
    EXPECT_TRUE(behind.is_done);
    reopen();
    EXPECT_EQ(store->read().runs.size(), 1U);
    EXPECT_EQ(considered(), 95);
}

// As when the disk is full: the failure of one is the end of the transaction.
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

TEST_F(JobStores, RememberTheDefinitionsOfJobsThatWereDeletedHoweverThatWas) {
    JobRow defined = row();
    const auto add = [&](const char *definition) {
        defined.definition = definition;
        return store->add(defined, change("created"));
    };
    const auto first = add("one");
    const auto last = add("two");
    const auto in_set = add("three");
    add("stays");
    const auto nobodys = add("");
    EXPECT_EQ(store->read().jobs.at(0).definition, "one");
    store->remove(first, change("deleted"));
    store->remove(nobodys, change("deleted"));
    store->begin(run(last, 100, 90));
    store->end(run(last, 100, 90), {}, change("deleted"));
    JobSet set;
    JobsState state;
    for (const auto &job : store->read().jobs)
        state.add(job.id, job.body);
    set.state = state.value();
    set.removed = {in_set};
    set.notes = {change("deleted")};
    set.take_numbers = [](sched_job_id_t) {};
    ASSERT_TRUE(store->apply(set));
    reopen();
    EXPECT_THAT(store->read().dropped, UnorderedElementsAre("one", "two", "three"));
    store->forget_dropped({"one", "nothing"});
    reopen();
    EXPECT_THAT(store->read().dropped, UnorderedElementsAre("two", "three"));
}

TEST_F(JobStores, KeepTheYoungestRuns) {
    const auto id = store->add(row(), change("created"));
    for (int64_t started = 1; started <= runs_kept + 5; ++started) {
        RunRow ended = run(id, started, 0);
        store->begin(ended);
        ended.ended = started;
        store->end(ended, {}, std::nullopt);
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
