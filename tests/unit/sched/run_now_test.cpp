// One task run on one host, pass by pass.
#include <deque>

#include <tests/unit/sched/fixture.h>
#include <tests/unit/sched/job.h>
#include <veliaxdr/sched_run.h>

using testing::ElementsAre;

namespace {

// A job as one look finds it.
struct Look {
    time_t started = 0;
    time_t ended = 0;
    uint32_t exit_status = 0;
    const char *output = "";
    tbs_status_t status = TBS_ST_OK;
};
constexpr Look waiting = {};
constexpr Look running = {5};
constexpr Look ended = {0, 9};
constexpr Look failed_look = {0, 0, 0, "", TBS_ST_TRY_AGAIN};

class RunNow : public SchedulerTest {
protected:
    RunNow() {
        uint32_t task = 7;
        answer(row::sched_task_name_to_id, sched_task_id_reply_t{TBS_ST_OK, &task});
        sched_job_handle made = {33};
        sched_job_h_t handle = &made;
        answer(row::sched_job_create, sched_job_create_reply_t{TBS_ST_OK, &handle, nullptr});
        answer(row::sched_job_delete, sched_job_reply_t{TBS_ST_OK, &handle});
        world.peer.on(row::sched_job_get_properties.number, [this](const sim::Call &) { return next_look(); });
    }

    sim::Answer next_look() {
        const Look look = looks.front();
        if (looks.size() > 1)
            looks.pop_front();
        Job job;
        sched_job_properties_t properties = {};
        properties.rw = job.rw;
        properties.ro.running_status.started = look.started;
        properties.ro.last_completion = {Job::text("1"), 1, look.ended, look.exit_status,
                                         const_cast<char *>(look.output)};
        return sim::reply(row::sched_job_get_properties.xdr_reply,
                          sched_properties_reply_t{look.status, look.status == TBS_ST_OK ? &properties : nullptr});
    }

    tbs_status_t run(std::deque<Look> seen = {ended}) {
        looks = std::move(seen);
        return sched_utl_run_job_now("alpha", "build", "by hand", args, 2);
    }

    // The same with nothing in hand that a raise could lose.
    void run_again() {
        looks.assign({running, ended});
        sched_utl_run_job_now("alpha", "build", "by hand", args, 2);
    }

    sim::Message waits() { return message(IMSG_PLAIN, 5, "alpha"); }
    sim::Message runs() { return message(IMSG_PLAIN, 8, "alpha"); }
    sim::Message done() { return message(IMSG_PLAIN, 10, "alpha"); }
    static sim::Message dot() { return text_message(IMSG_PROGRESS, "."); }
    static sim::Message last_dot() { return text_message(IMSG_PLAIN, ".\n"); }
    sim::Message cannot_look() { return message(IMSG_ERROR, 4, "alpha", tbs_strerror(TBS_ST_TRY_AGAIN)); }

    std::deque<Look> looks;
    char *args[2] = {Job::text("-all"), Job::text("two words")};
};

TEST_F(RunNow, OfAJobThatEndsWithinASecondShowsNoProgress) {
    EXPECT_EQ(run(), TBS_ST_OK);
    EXPECT_THAT(world.take_messages(), ElementsAre(last_dot(), done()));
    EXPECT_EQ(world.sleeps, 1u) << "the wait comes first";
    EXPECT_EQ(count(row::sched_job_delete), 1u);
    EXPECT_EQ(count(row::sched_rjob_run_job), 0u) << "the scheduler starts it";
}

TEST_F(RunNow, CreatesADailyJobOfTodayThatStartsAtOnce) {
    run();
    for (const auto &call : world.peer.calls)
        if (call.procedure == row::sched_job_create.number) {
            auto request = call.decode(row::sched_job_create.xdr_request);
            const sched_job_rw_properties_t &rw = *request.job;
            EXPECT_STREQ(rw.name, "by hand");
            EXPECT_STREQ(rw.description, "");
            EXPECT_EQ(rw.schedule.kind, SCHED_KIND_DAILY);
            EXPECT_EQ(rw.schedule.u.daily.frequency, 1);
            EXPECT_EQ(rw.schedule.u.daily.common.lifetime.start_date, 1);
            EXPECT_EQ(rw.schedule.u.daily.common.lifetime.last_date, 1);
            EXPECT_EQ(rw.schedule.u.daily.common.start_times.first_start_time, 0xFFFFFFFFu);
            EXPECT_EQ(rw.schedule.u.daily.common.start_times.last_start_time, 0u);
            EXPECT_EQ(rw.schedule.u.daily.common.start_times.restart_frequency, 0u);
            EXPECT_EQ(rw.task, 7u);
            EXPECT_EQ(rw.arg_count, 2u);
            EXPECT_STREQ(rw.args[1], "two words");
            EXPECT_EQ(rw.run_control.max_run_time, 0u);
            EXPECT_EQ(rw.delete_when_completed, 0);
            EXPECT_EQ(rw.notify_count, 0u);
            release(row::sched_job_create, request);
        }
    world.take_messages();
}

TEST_F(RunNow, DeletesTheJobAlthoughItMayRun) {
    run();
    auto request = last_request(row::sched_job_delete);
    EXPECT_EQ((*request.job)->job_id, 33u);
    EXPECT_EQ(request.flag, 1);
    release(row::sched_job_delete, request);
    world.take_messages();
}

TEST_F(RunNow, WithoutArgumentsIsAllowed) {
    looks = {ended};
    EXPECT_EQ(sched_utl_run_job_now("alpha", "build", "by hand", nullptr, 0), TBS_ST_OK);
    world.take_messages();
}

TEST_F(RunNow, TellsEachPassOnce) {
    EXPECT_EQ(run({waiting, waiting, running, running, waiting, running, ended}), TBS_ST_OK);
    EXPECT_THAT(world.take_messages(), ElementsAre(waits(), dot(), runs(), dot(), dot(), runs(), last_dot(), done()));
    EXPECT_EQ(world.sleeps, 7u);
}

TEST_F(RunNow, ThatIsNeverSeenRunningSaysSoAtTheEnd) {
    EXPECT_EQ(run({waiting, ended}), TBS_ST_OK);
    EXPECT_THAT(world.take_messages(), ElementsAre(waits(), runs(), last_dot(), done()));
}

TEST_F(RunNow, ThatRunsFromTheFirstLookOn) {
    EXPECT_EQ(run({running, ended}), TBS_ST_OK);
    EXPECT_THAT(world.take_messages(), ElementsAre(runs(), last_dot(), done()));
}

TEST_F(RunNow, OfAJobThatFailsIsOkAndTellsItsStatus) {
    EXPECT_EQ(run({Look{0, 9, 3}}), TBS_ST_OK);
    EXPECT_THAT(world.take_messages(), ElementsAre(message(IMSG_ERROR, 6, "build", "alpha", 3)));
}

TEST_F(RunNow, WithAnyOutputCountsAsFailedWithStatusZero) {
    EXPECT_EQ(run({Look{0, 9, 0, "lines\n"}}), TBS_ST_OK);
    EXPECT_THAT(world.take_messages(),
                ElementsAre(message(IMSG_ERROR, 6, "build", "alpha", 0), message(IMSG_ERROR, 7, "lines\n")));
}

TEST_F(RunNow, GoesOnAfterTwoLooksThatFailed) {
    EXPECT_EQ(run({failed_look, failed_look, running, failed_look, failed_look, ended}), TBS_ST_OK);
    EXPECT_THAT(world.take_messages(), ElementsAre(cannot_look(), waits(), cannot_look(), dot(), runs(), cannot_look(),
                                                   dot(), cannot_look(), dot(), runs(), last_dot(), done()));
}

TEST_F(RunNow, EndsWithTheThirdLookInARowThatFailedAndLeavesTheJob) {
    EXPECT_EQ(run({running, failed_look, failed_look, failed_look}), TBS_ST_TRY_AGAIN);
    EXPECT_THAT(world.take_messages(), ElementsAre(runs(), cannot_look(), dot(), cannot_look(), dot(), cannot_look(),
                                                   message(IMSG_ERROR, 150, "alpha")));
    EXPECT_EQ(count(row::sched_job_delete), 0u);
}

TEST_F(RunNow, ThatCannotConnectSaysSo) {
    EXPECT_EQ(sched_utl_run_job_now("nowhere", "build", "by hand", args, 2), TBS_ST_NOT_FOUND);
    EXPECT_EQ(world.take_messages().back(), message(IMSG_ERROR, 11, "nowhere"));
}

TEST_F(RunNow, OfATaskThatIsNotKnownLeavesNoJobBehind) {
    answer(row::sched_task_name_to_id, sched_task_id_reply_t{TBS_ST_NOT_FOUND, nullptr});
    EXPECT_EQ(run(), TBS_ST_NOT_FOUND);
    EXPECT_THAT(world.take_messages(), ElementsAre(message(IMSG_ERROR, 0, "build")));
    EXPECT_EQ(count(row::sched_job_create), 0u);
    answer(row::sched_task_name_to_id, sched_task_id_reply_t{TBS_ST_NO_ACCESS, nullptr});
    EXPECT_EQ(run(), TBS_ST_NO_ACCESS);
    EXPECT_THAT(world.take_messages(), ElementsAre(message(IMSG_ERROR, 149, "alpha")));
}

TEST_F(RunNow, ThatMayNotCreateSaysSo) {
    answer(row::sched_job_create, sched_job_create_reply_t{TBS_ST_NO_ACCESS, nullptr, nullptr});
    EXPECT_EQ(run(), TBS_ST_NO_ACCESS);
    EXPECT_THAT(world.take_messages(), ElementsAre(message(IMSG_ERROR, 1, "alpha")));
}

TEST_F(RunNow, WhoseNameIsTakenPassesTheServersStatusThrough) {
    answer(row::sched_job_create, sched_job_create_reply_t{TBS_ST_ALREADY_EXISTS, nullptr, nullptr});
    EXPECT_EQ(run(), TBS_ST_ALREADY_EXISTS);
    EXPECT_THAT(world.take_messages(),
                ElementsAre(message(IMSG_ERROR, 3, "alpha", tbs_strerror(TBS_ST_ALREADY_EXISTS))));
}

TEST_F(RunNow, WhoseJobIsInvalidSaysWhichFieldIs) {
    answer(row::sched_job_create, sched_job_create_reply_t{TBS_ST_INVALID_ARG, nullptr, nullptr});
    sched_job_handle other = {5};
    sched_job_h_t holder = &other;
    answer(row::sched_job_lookup_by_name, sched_job_reply_t{TBS_ST_OK, &holder});
    EXPECT_EQ(run(), TBS_ST_INVALID_ARG);
    EXPECT_THAT(world.take_messages(),
                ElementsAre(message(IMSG_ERROR, 2, "alpha"), message(IMSG_ERROR, 104, "by hand", "5")));
}

TEST_F(RunNow, WhoseJobCannotBeDeletedSaysSoAndIsOk) {
    answer(row::sched_job_delete, sched_job_reply_t{TBS_ST_NO_ACCESS, nullptr});
    EXPECT_EQ(run(), TBS_ST_OK);
    EXPECT_THAT(world.take_messages(),
                ElementsAre(last_dot(), done(), message(IMSG_ERROR, 9, "alpha", tbs_strerror(TBS_ST_NO_ACCESS))));
}

TEST_F(RunNow, WhoseDeletionFailsSaysSoAndLeaksNothing) {
    fail(row::sched_job_delete);
    EXPECT_EQ(run(), TBS_ST_OK);
    EXPECT_EQ(world.take_messages().back(), message(IMSG_ERROR, 9, "alpha", tbs_strerror(TBS_ST_RPC_FAILED)));
}

TEST_F(RunNow, HoldsNothingWhenARaiseLandsAnywhere) {
    begin_without_connections();
    sim::sweep_raises(
        world, [this] { run_again(); },
        [this](int number) {
            sim::release_lock(rvzd_call_lock);
            forget_connections();
            EXPECT_EQ(sim::Holdings::now(world), before) << number;
        });
    forget_connections();
    world.take_messages();
}

TEST_F(RunNow, HoldsNothingWhenAnyAllocationFails) {
    sim::sweep_allocations(
        world, [this] { run_again(); }, [this](int number) { EXPECT_EQ(sim::Holdings::now(world), before) << number; });
    world.take_messages();
}

} // namespace
