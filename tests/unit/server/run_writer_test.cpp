// Runs written down: what comes while a disk is waited for goes with the next transaction, as one.
#include <server/scheduler/run_writer.h>

#include <condition_variable>
#include <mutex>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <server/registry/store.h>

using namespace velia::server;
using testing::ElementsAre;

namespace {

// Keeps nothing; a commit ends when it is let.
class SlowStore : public JobStore {
public:
    JobContents read() override { return {}; }
    sched_job_id_t add(const JobRow & /*row*/, const ChangeRow & /*change*/) override { return 0; }
    bool change(const JobRow & /*row*/, const ChangeRow & /*change*/) override { return true; }
    bool remove(sched_job_id_t /*id*/, const ChangeRow & /*change*/) override { return true; }
    bool remove_idle(sched_job_id_t /*id*/, const ChangeRow & /*change*/) override { return true; }
    void set_acl(const std::string & /*acl*/, const ChangeRow & /*change*/) override {}
    void set_boot(const std::string & /*boot*/) override {}
    std::vector<ChangeRow> changes(sched_job_id_t /*job*/, int64_t /*before*/, uint32_t /*count_max*/) override {
        return {};
    }
    sched_job_id_t last_number() override { return 0; }
    void put_all(const JobStock & /*stock*/) override {}
    bool apply(JobSet & /*set*/) override { return true; }
    void forget_dropped(const std::vector<std::string> & /*definitions*/) override {}
    void begin(const RunRow & /*run*/) override {}
    void forget(const RunRow & /*run*/, int64_t /*considered*/, bool /*is_owed*/) override {}
    void end(const RunRow & /*run*/, const std::vector<sched_job_id_t> & /*owed*/,
             const std::optional<ChangeRow> & /*removal*/) override {}

    void record(std::vector<RunStep *> &steps) override {
        std::unique_lock held(lock_);
        commits_.push_back(steps.size());
        is_changed_.notify_all();
        is_changed_.wait(held, [this] { return may_commit_; });
        if (is_full_)
            throw StoreError("no room");
        for (auto *step : steps)
            step->is_done = true;
    }

    void await_commit() {
        std::unique_lock held(lock_);
        is_changed_.wait(held, [this] { return !commits_.empty(); });
    }
    void let_commit(bool is_full = false) {
        const std::lock_guard held(lock_);
        may_commit_ = true;
        is_full_ = is_full;
        is_changed_.notify_all();
    }
    std::vector<size_t> commits() {
        const std::lock_guard held(lock_);
        return commits_;
    }

private:
    std::mutex lock_;
    std::condition_variable is_changed_;
    std::vector<size_t> commits_; // of so many steps each
    bool may_commit_ = false;
    bool is_full_ = false;
};

struct RunWriters : testing::Test {
    RunWriters() { writer.open(store, "/no/such/directory"); }
    ~RunWriters() override { store.let_commit(); }

    static RunTurn turn(RunStep::What what, sched_job_id_t job) {
        RunTurn turn;
        turn.step.what = what;
        turn.step.run.job = job;
        return turn;
    }
    // Until so many have been told.
    void await(size_t count) {
        while (told.size() < count)
            uv_run(&loop.loop, UV_RUN_ONCE);
    }

    struct Loop {
        Loop() {
            uv_loop_init(&loop);
            uv_timer_init(&loop, &timer); // holds the loop: the worker does not
            uv_timer_start(
                &timer, [](uv_timer_t *) {}, 1, 1);
        }
        ~Loop() {
            uv_close(reinterpret_cast<uv_handle_t *>(&timer), nullptr);
            uv_run(&loop, UV_RUN_DEFAULT);
            uv_loop_close(&loop);
        }
        uv_loop_t loop;
        uv_timer_t timer;
    } loop;
    SlowStore store;
    std::vector<RunTurn> told;
    bool adds_one = false; // when the first is told
    RunWriter writer{worker, [this](const RunTurn &turn) {
                         told.push_back(turn);
                         if (adds_one && told.size() == 1)
                             writer.add(RunWriters::turn(RunStep::What::pass_over, 99));
                     }};
    Worker worker{&loop.loop, {{64, 64, 64}, 1, 0}};
};

} // namespace

TEST_F(RunWriters, WhatComesMeanwhileIsWrittenTogether) {
    adds_one = true;
    writer.add(turn(RunStep::What::pass_over, 1));
    writer.write();
    store.await_commit();
    for (sched_job_id_t job = 2; job <= 9; ++job) {
        writer.add(turn(job % 2 == 0 ? RunStep::What::end : RunStep::What::pass_over, job));
        writer.write();
    }
    EXPECT_THAT(store.commits(), ElementsAre(1));
    store.let_commit();
    await(10);
    EXPECT_THAT(store.commits(), ElementsAre(1, 9)) << "with what was added when the first was told";
    for (sched_job_id_t job = 1; job <= 9; ++job)
        EXPECT_EQ(told[job - 1].step.run.job, job);
    EXPECT_TRUE(told[1].step.is_done);
    EXPECT_NE(told[1].step.run.ended, 0) << "an end of which no file tells";
}

TEST_F(RunWriters, ManyGoInSeveralTransactions) {
    store.let_commit();
    for (sched_job_id_t job = 1; job <= 600; ++job)
        writer.add(turn(RunStep::What::pass_over, job));
    writer.write();
    await(600);
    EXPECT_THAT(store.commits(), ElementsAre(256, 256, 88));
}

TEST_F(RunWriters, ABeginningThatMayNotBeMadeHasEnded) {
    store.let_commit();
    writer.add(turn(RunStep::What::begin, 1));
    writer.write();
    await(1);
    EXPECT_EQ(told[0].keeper, -1);
    EXPECT_TRUE(told[0].step.is_done);
    EXPECT_EQ(told[0].step.run.exit_status, status_not_found);
    EXPECT_NE(told[0].step.run.ended, 0);
    EXPECT_NE(told[0].step.run.messages.find("no such task"), std::string::npos);
}

TEST_F(RunWriters, AnEndThatIsKnownIsWrittenAsItIs) {
    store.let_commit();
    RunTurn known = turn(RunStep::What::end, 1);
    known.step.run.ended = 5;
    known.step.run.exit_status = 9;
    writer.add(std::move(known));
    writer.write();
    await(1);
    EXPECT_EQ(told[0].step.run.ended, 5);
    EXPECT_EQ(told[0].step.run.exit_status, 9U);
}

TEST_F(RunWriters, WhereNothingCanBeWrittenNothingBegins) {
    store.let_commit(true);
    RunTurn allowed = turn(RunStep::What::begin, 1);
    allowed.is_allowed = true;
    writer.add(std::move(allowed));
    writer.write();
    await(1);
    EXPECT_EQ(told[0].keeper, -1);
    EXPECT_FALSE(told[0].step.is_done);
    EXPECT_NE(told[0].step.run.ended, 0);
    EXPECT_NE(told[0].step.run.messages.find("could not be written down"), std::string::npos);
}
