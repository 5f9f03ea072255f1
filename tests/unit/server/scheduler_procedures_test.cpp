// Requests that meet while one of them is being written.
#include <tests/unit/server/scheduler_door.h>

using namespace server_tests;

namespace {

using JobsThatMeet = SchedulerDoor;

} // namespace

TEST_F(JobsThatMeet, OfOneNameOneIsMade) {
    const auto first = create(DoorJob("twin"));
    const auto second = create(DoorJob("twin"));
    EXPECT_EQ(await(second).status, TBS_ST_INVALID_ARG);
    EXPECT_EQ(await(second).err_mask, SCHED_ERR_NAME_DUPLICATE);
    EXPECT_EQ(await(first).status, TBS_ST_OK);
}

TEST_F(JobsThatMeet, MayBeTheSameJobsUnderOneName) {
    const auto id = created(DoorJob("a"));
    const auto first = change(id, DoorJob("a"));
    const auto second = change(id, DoorJob("a"));
    EXPECT_EQ(await(first).status, TBS_ST_OK);
    EXPECT_EQ(await(second).status, TBS_ST_OK);
}

TEST_F(JobsThatMeet, ANameStaysTakenUntilTheLastThatWritesItHasEnded) {
    const auto id = created(DoorJob("a"));
    const auto first = change(id, DoorJob("b"));
    const auto second = change(id, DoorJob("c"));
    auto let = hold_thread();
    const auto third = change(id, DoorJob("b"));
    await(first);
    await(second);
    const auto refused = create(DoorJob("b"));
    const bool is_answered = refused->has_value();
    let.set_value();
    EXPECT_EQ(await(third).status, TBS_ST_OK);
    ASSERT_TRUE(is_answered);
    EXPECT_EQ((*refused)->err_mask, SCHED_ERR_NAME_DUPLICATE);
    EXPECT_EQ(await(create(DoorJob("c"))).status, TBS_ST_OK) << "which nobody has any more";
}

TEST_F(JobsThatMeet, CloseNoCircleThatNeitherOfThemMakes) {
    const auto a = created(DoorJob("a"));
    const auto b = created(DoorJob("b"));
    const auto first = change(a, DoorJob("a").after(b));
    const auto second = change(b, DoorJob("b").after(a));
    EXPECT_EQ(await(first).status, TBS_ST_OK);
    EXPECT_EQ(await(second).status, TBS_ST_TRY_AGAIN);
    const auto again = await(change(b, DoorJob("b").after(a)));
    EXPECT_EQ(again.status, TBS_ST_INVALID_ARG);
    EXPECT_EQ(again.err_mask, SCHED_ERR_FOLLOWS);
    const auto c = created(DoorJob("c"));
    EXPECT_EQ(await(change(c, DoorJob("c").after(a))).status, TBS_ST_OK) << "none is on the way any more";
}

TEST_F(JobsThatMeet, AJobThatIsChangedWhileItsLastRunEndsStays) {
    const auto id = created(DoorJob("last").completed());
    ASSERT_TRUE(jobs().find(id)->has_completed());
    auto let = hold_thread();
    const auto begun = run(id); // its task is not there, so that it ends at once
    const auto changed = change(id, DoorJob("last"));
    let.set_value();
    let_thread_work(); // both are written before the loop hears of either
    EXPECT_EQ(await(begun).status, TBS_ST_OK);
    EXPECT_EQ(await(changed).status, TBS_ST_OK);
    settle();
    EXPECT_NE(jobs().find(id), nullptr);
    reopen();
    EXPECT_NE(jobs().find(id), nullptr) << "what was acknowledged is kept";
}

namespace {

struct SetsInPieces : SchedulerDoor {
    Awaited send(uint64_t set, uint64_t state, uint32_t before, bool is_last) {
        DoorJob job("job " + std::to_string(before));
        sched_set_change_t change = {SCHED_SET_CREATE, 0, 0, *job.record()};
        return ask(procedures::sched_set_apply, {set, state, before, is_last ? 1 : 0, 1, &change});
    }
    uint64_t state() { return await(ask(procedures::sched_set_get_jobs, {0})).state; }
};

} // namespace

TEST_F(SetsInPieces, AreMadeWithTheLastOfThem) {
    const auto set = await(send(0, state(), 0, false)).set;
    EXPECT_NE(set, 0U);
    EXPECT_TRUE(jobs().all().empty());
    EXPECT_EQ(await(send(set, state(), 1, true)).status, TBS_ST_OK);
    EXPECT_EQ(jobs().all().size(), 2U);
}

TEST_F(SetsInPieces, APieceThatDoesNotGoOnWhereTheOneBeforeEndedIsTheirEnd) {
    const auto set = await(send(0, state(), 0, false)).set;
    EXPECT_EQ(await(send(set, state(), 2, true)).status, TBS_ST_INVALID_ARG);
    EXPECT_EQ(await(send(set, state(), 1, true)).status, TBS_ST_NOT_FOUND);
    EXPECT_TRUE(jobs().all().empty());
}

TEST_F(SetsInPieces, APieceForAnotherStateIsTheirEnd) {
    const auto set = await(send(0, state(), 0, false)).set;
    EXPECT_EQ(await(send(set, state() + 1, 1, true)).status, TBS_ST_INVALID_ARG);
    EXPECT_EQ(await(send(set, state(), 1, true)).status, TBS_ST_NOT_FOUND);
    EXPECT_TRUE(jobs().all().empty());
}

namespace {

using RunsThatCannotBegin = SchedulerDoor;

} // namespace

TEST_F(RunsThatCannotBegin, AreFollowedLikeAnyOther) {
    const auto first = created(DoorJob("first"));
    const auto second = created(DoorJob("second").after(first));
    EXPECT_EQ(await(run(first)).status, TBS_ST_OK);
    settle();
    ASSERT_EQ(jobs().find(first)->runs.size(), 1U);
    EXPECT_NE(jobs().find(first)->runs[0].exit_status, 0U);
    EXPECT_EQ(jobs().find(second)->runs.size(), 1U);
    reopen();
    EXPECT_EQ(jobs().find(first)->runs.size(), 1U);
    EXPECT_EQ(jobs().find(second)->runs.size(), 1U) << "and nothing is owed";
}

TEST_F(RunsThatCannotBegin, AreToldOfWhereTheirJobIsMadeAndItIsMadeAllTheSame) {
    const auto made = await(create(DoorJob("of no task")));
    EXPECT_EQ(made.status, TBS_ST_OK);
    EXPECT_EQ(made.err_mask, SCHED_ERR_TASK);
    EXPECT_EQ(await(change(made.job, DoorJob("of no task"))).err_mask, SCHED_ERR_TASK);
}

TEST_F(RunsThatCannotBegin, EndAJobThatGoesWithItsLastRun) {
    const auto id = created(DoorJob("last").completed());
    EXPECT_EQ(await(run(id)).status, TBS_ST_OK);
    settle();
    EXPECT_EQ(jobs().find(id), nullptr);
    reopen();
    EXPECT_EQ(jobs().find(id), nullptr);
}

namespace {

struct OthersJobs : SchedulerDoor {
    static constexpr uid_t anna = 1000;
    static constexpr uid_t ben = 1001;

    void SetUp() override {
        let_everybody_do_all();
        call_as(anna);
        id = created(DoorJob("annas"));
    }
    Awaited remove() {
        sched_job_handle handle = {id};
        sched_job_h_t given = &handle;
        return ask(procedures::sched_job_delete, {{}, &given, 1});
    }
    Awaited terminate() {
        sched_running_job_handle handle = {id, 5};
        return ask(procedures::sched_rjob_terminate, {{}, &handle});
    }
    Awaited apply(int32_t what) {
        DoorJob job("changed");
        sched_set_change_t change = {what, id, 0, *job.record()};
        return ask(procedures::sched_set_apply,
                   {0, await(ask(procedures::sched_set_get_jobs, {0})).state, 0, 1, 1, &change});
    }

    sched_job_id_t id = 0;
};

} // namespace

TEST_F(OthersJobs, AreNobodysToTouch) {
    for (const std::optional<uid_t> caller : {std::optional(ben), std::optional<uid_t>()}) {
        call_as(caller);
        EXPECT_EQ(await(change(id, DoorJob("bens"))).status, TBS_ST_NO_ACCESS);
        EXPECT_EQ(await(run(id)).status, TBS_ST_NO_ACCESS);
        EXPECT_EQ(await(terminate()).status, TBS_ST_NO_ACCESS);
        EXPECT_EQ(await(remove()).status, TBS_ST_NO_ACCESS);
        EXPECT_EQ(await(apply(SCHED_SET_CHANGE)).status, TBS_ST_NO_ACCESS);
        EXPECT_EQ(await(apply(SCHED_SET_DELETE)).status, TBS_ST_NO_ACCESS);
    }
    ASSERT_NE(jobs().find(id), nullptr);
    EXPECT_EQ(jobs().find(id)->name, "annas");
    EXPECT_TRUE(jobs().find(id)->runs.empty());
}

TEST_F(OthersJobs, AreTheirOwnersAndAdministratorsToTouch) {
    for (const uid_t caller : {anna, uid_t{0}}) {
        call_as(caller);
        EXPECT_EQ(await(change(id, DoorJob("others"))).status, TBS_ST_OK);
        EXPECT_EQ(await(terminate()).status, TBS_ST_NOT_FOUND);
        EXPECT_EQ(await(apply(SCHED_SET_CHANGE)).status, TBS_ST_OK);
    }
    EXPECT_EQ(jobs().find(id)->row.owner, anna) << "whoever changed it";
    EXPECT_EQ(await(apply(SCHED_SET_DELETE)).status, TBS_ST_OK);
    EXPECT_EQ(jobs().find(id), nullptr);
}

// Where the daemon is the superuser's a job runs as who made it, and nobody in particular makes none.
TEST_F(OthersJobs, AreNotMadeForNobodyByTheSuperusersDaemon) {
    call_as(std::nullopt);
    const tbs_status_t expected = geteuid() == 0 ? TBS_ST_NO_ACCESS : TBS_ST_OK;
    EXPECT_EQ(await(create(DoorJob("strangers"))).status, expected);
    EXPECT_EQ(await(apply(SCHED_SET_CREATE)).status, expected);
}
