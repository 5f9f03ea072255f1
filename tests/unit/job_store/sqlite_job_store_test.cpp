// The scheduler's database: what was written is there, whole, and only of this program's making.
#include <fstream>

#include <server/registry/sqlite.h>
#include <tests/unit/job_store/job_store_fixture.h>

using namespace velia::server;
using testing::IsEmpty;

namespace {

struct JobFiles : testing::Test {
    // How many frames of the log end a transaction: such a frame's second word says how large the database is then.
    size_t commits() const {
        std::ifstream log(place.file_name() + "-wal", std::ios::binary);
        const std::string bytes{std::istreambuf_iterator<char>(log), {}};
        constexpr size_t head = 32;
        constexpr size_t frame_head = 24;
        constexpr size_t page = 4096;
        size_t count = 0;
        for (size_t at = head; at + frame_head + page <= bytes.size(); at += frame_head + page)
            count += std::string_view(bytes).substr(at + 4, 4) != std::string_view("\0\0\0\0", 4) ? 1 : 0;
        return count;
    }
    // While nobody has the file open.
    void run_in_file(const std::string &sql) {
        store.reset();
        Sqlite(place.file_name()).run(sql.c_str());
    }

    SqliteJobStorePlace place;
    std::unique_ptr<JobStore> store = place.open();
};

} // namespace

TEST_F(JobFiles, RecordStepsOfManyRunsInOneCommit) {
    const auto first = store->add(job_row(), change_row("created"));
    const auto second = store->add(job_row(), change_row("created"));
    store->begin(run_row(first, 100, 90));
    RunStep end = run_step(RunStep::What::end, run_row(first, 100, 90));
    end.run.ended = 110;
    end.owed = {second};
    RunStep begin = run_step(RunStep::What::begin, run_row(second, 120, 115));
    RunStep pass_over = run_step(RunStep::What::pass_over, run_row(first, 0, 200));
    const auto before = commits();
    record_in(*store, {&end, &begin, &pass_over});
    EXPECT_EQ(commits(), before + 1);
    EXPECT_TRUE(end.is_done && begin.is_done && pass_over.is_done);
    store = place.open();
    const auto read = store->read();
    EXPECT_EQ(read.runs.at(0).ended, 110);
    EXPECT_EQ(read.runs.at(1).due, 115);
    EXPECT_EQ(read.jobs.at(0).considered, 200);
    EXPECT_THAT(read.owed, IsEmpty()) << "the follower has begun behind that";
}

TEST_F(JobFiles, OfATransactionThatIsGivenUpNoStepIsDone) {
    const auto id = store->add(job_row(), change_row("created"));
    run_in_file("CREATE TRIGGER give_up BEFORE INSERT ON run WHEN NEW.started = 101 "
                "BEGIN SELECT RAISE(ROLLBACK, 'no room'); END");
    store = place.open();
    RunStep good = run_step(RunStep::What::begin, run_row(id, 100, 90));
    RunStep bad = run_step(RunStep::What::begin, run_row(id, 101, 91));
    RunStep behind = run_step(RunStep::What::pass_over, run_row(id, 0, 95));
    EXPECT_THROW(record_in(*store, {&good, &bad, &behind}), StoreError);
    EXPECT_FALSE(good.is_done || bad.is_done || behind.is_done);
    EXPECT_THAT(store->read().runs, IsEmpty());
    EXPECT_EQ(store->read().jobs.at(0).considered, 7);
}

TEST_F(JobFiles, KeepTheYoungestChanges) {
    store->set_acl("one", change_row("access", 1));
    store->set_acl("two", change_row("access", 2));
    run_in_file("UPDATE change SET number = " + std::to_string(changes_kept + 1) + " WHERE time = 2");
    store = place.open();
    store->set_acl("three", change_row("access", 3));
    const auto kept = store->changes(0, INT64_MAX, 10);
    ASSERT_EQ(kept.size(), 2U);
    EXPECT_EQ(kept.back().deed.when, 2);
}

TEST_F(JobFiles, OfTheVersionBeforeAreTakenOn) {
    const auto id = store->add(job_row(), change_row("created"));
    run_in_file("DROP TABLE change; DROP TRIGGER drop_definition; DROP TABLE dropped; "
                "ALTER TABLE job DROP COLUMN definition; ALTER TABLE job DROP COLUMN predefined; "
                "PRAGMA user_version = 1");
    store = place.open();
    EXPECT_EQ(store->read().jobs.at(0).id, id);
    EXPECT_THAT(store->changes(0, INT64_MAX, 10), IsEmpty());
    EXPECT_TRUE(store->remove(id, change_row("deleted")));
}

TEST_F(JobFiles, RefuseADatabaseOfANewerVersion) {
    run_in_file("PRAGMA user_version = 4");
    EXPECT_THROW(place.open(), StoreError);
}

TEST_F(JobFiles, RefuseWhatSomethingElseHasMade) {
    const std::string other = place.file_name() + ".other";
    Sqlite(other).run("CREATE TABLE mine (x)");
    EXPECT_THROW(open_job_store(other), StoreError);
}
