// A scheduler whose jobs other daemons have, too: what it hears of them while it begins a run itself.
#include <chrono>

#include <tests/postgres/server.h>
#include <tests/unit/job_store/job_store_fixture.h>
#include <tests/unit/server/scheduler_door.h>

using namespace server_tests;

namespace {

struct Conninfo {
    const std::string conninfo = new_jobs_conninfo();
};

struct SharedScheduler : Conninfo, SchedulerDoor {
    SharedScheduler() : SchedulerDoor([this](Scheduler &scheduler) { scheduler.open_shared(conninfo, "alpha"); }) {}

    std::string ask_database(const std::string &sql) const {
        const size_t begin = conninfo.rfind('=') + 1;
        const std::string schema = conninfo.substr(begin, conninfo.rfind('\'') - begin);
        return velia::postgres_test::server().ask("SET search_path = " + schema + "; " + sql);
    }
    // Of this daemon, made when it had given up to ask whether it was; this time it hears of it. Another beginning for
    // what this one was for is refused, and nothing of that is new to anybody: here since the job is another one.
    void make_begun_late(sched_job_id_t id) const {
        ask_database("UPDATE scheduler SET changes = changes + 1");
        ask_database("UPDATE job SET mark = mark + 1, at = (SELECT changes FROM scheduler) WHERE id = " +
                     std::to_string(id));
        ask_database("INSERT INTO job_run SELECT " + std::to_string(id) +
                     ", 1000, changes, 0, 'alpha', 0, 0, '', '', 0 FROM scheduler");
    }
    bool has_unended_run() const { return ask_database("SELECT count(*) FROM job_run WHERE ended = 0") != "0"; }
    template <class Condition>
    bool comes_to(Condition &&condition) {
        constexpr auto patience = std::chrono::seconds(40);
        const auto end = std::chrono::steady_clock::now() + patience;
        while (!condition() && std::chrono::steady_clock::now() < end)
            uv_run(loop(), UV_RUN_NOWAIT);
        return condition();
    }
    // The question for what is new has come to the thread, which is held: meanwhile it is told that the daemon lives.
    bool asks_what_is_new() {
        ask_database("UPDATE job_daemon SET seen = 'epoch'");
        return comes_to([&] { return ask_database("SELECT seen > 'epoch' FROM job_daemon") == "t"; });
    }
    // Asked before it, and told behind it.
    std::promise<void> hear_of_late_run_while_it_begins(sched_job_id_t id, Awaited &begins) {
        auto held = hold_thread();
        EXPECT_TRUE(asks_what_is_new());
        make_begun_late(id);
        held.set_value();
        auto held_behind = hold_thread();
        begins = run(id);
        EXPECT_TRUE(comes_to([&] { return jobs().find(id)->has_unknown_run; }));
        return held_behind;
    }
};

} // namespace

TEST_F(SharedScheduler, ARunOfItsOwnThatIsToldWhileItBeginsAnotherIsTakenBack) {
    const auto id = created(DoorJob("job"));
    Awaited begins;
    auto held = hear_of_late_run_while_it_begins(id, begins);
    held.set_value();
    EXPECT_EQ(await(begins).status, TBS_ST_TRY_AGAIN);
    EXPECT_TRUE(comes_to([&] { return !has_unended_run(); })) << "no start would be made ever after";
    EXPECT_TRUE(comes_to([&] { return jobs().find(id)->phase == Job::Phase::idle; }));
}

TEST_F(SharedScheduler, WhatWasAskedForBeforeADoubtIsNoAnswerToIt) {
    const auto id = created(DoorJob("job"));
    Awaited begins;
    auto held = hear_of_late_run_while_it_begins(id, begins);
    EXPECT_TRUE(asks_what_is_new()) << "once more, behind the one that begins";
    held.set_value();
    EXPECT_EQ(await(begins).status, TBS_ST_TRY_AGAIN);
    EXPECT_TRUE(comes_to([&] { return !has_unended_run(); })) << "no start would be made ever after";
}
