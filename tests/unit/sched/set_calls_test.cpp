// Sets of jobs on their way: pieces put together, lists that change meanwhile, changes cut to what a request holds.
#include <tests/sim/sweeps.h>
#include <tests/unit/sched/fixture.h>
#include <tests/unit/sched/job.h>
#include <tests/unit/sched/set_samples.h>

namespace {

class SetCalls : public SchedulerTest {
protected:
    ~SetCalls() override { release(); }

    void release() {
        sched_free_jobs(scheduler, count, &jobs);
        count = 0;
    }
    tbs_status_t list() {
        release();
        return sched_set_get_jobs(scheduler, &state, &count, &jobs);
    }

    // Pieces of two jobs each, up to `total`, in the state that the how manieth call finds.
    template <class StateOf>
    void answer_lists(uint32_t total, StateOf &&state_of) {
        world.peer.on(RVZD_PROC_SCHED_SET_GET_JOBS, [this, total, state_of](const sim::Call &call) {
            const auto request = call.decode(xdr_sched_set_get_jobs_request_t);
            sched_job_properties_t piece[2] = {};
            uint32_t number = 0;
            for (uint32_t id = request.after + 1; id <= total && number < 2; ++id) {
                piece[number].rw = job.rw;
                piece[number++].ro.job_id = id;
            }
            const int has_more = request.after + number < total ? 1 : 0;
            return sim::reply(xdr_sched_set_get_jobs_reply_t, {TBS_ST_OK, state_of(calls++), has_more, number, piece});
        });
    }
    static uint64_t same(int /*call*/) { return 77; }

    void answer_pieces(tbs_status_t status, sched_set_fault_t refused = {}) {
        world.peer.answer(RVZD_PROC_SCHED_SET_APPLY, sim::reply(xdr_sched_set_apply_reply_t, {status, 5, refused, 40}));
    }
    std::vector<sched_set_change_t> creations(size_t number) const {
        return std::vector<sched_set_change_t>(number, {SCHED_SET_CREATE, 0, 0, job.rw});
    }
    tbs_status_t apply(std::vector<sched_set_change_t> &changes) {
        fault = {9, 9};
        return sched_set_apply(scheduler, 77, static_cast<uint32_t>(changes.size()), changes.data(), &fault);
    }

    Job job;
    int calls = 0;
    uint64_t state = 0;
    uint32_t count = 0;
    sched_job_properties_t *jobs = nullptr;
    sched_set_fault_t fault = {};
};

} // namespace

TEST_F(SetCalls, PutThePiecesOfAListTogether) {
    for (const uint32_t total : {0U, 1U, 2U, 3U, 7U}) {
        answer_lists(total, same);
        EXPECT_EQ(list(), TBS_ST_OK);
        EXPECT_EQ(state, 77U);
        ASSERT_EQ(count, total);
        for (uint32_t i = 0; i < count; ++i)
            EXPECT_EQ(jobs[i].ro.job_id, i + 1);
        EXPECT_EQ(jobs == nullptr, total == 0);
    }
    EXPECT_EQ(calls, 1 + 1 + 1 + 2 + 4);
}

TEST_F(SetCalls, BeginAListAnewThatHasChangedMeanwhile) {
    answer_lists(5, [](int call) { return call < 2 ? uint64_t(call) : 9; });
    EXPECT_EQ(list(), TBS_ST_OK);
    EXPECT_EQ(state, 9U);
    EXPECT_EQ(count, 5U);
    EXPECT_EQ(calls, 2 + 3);
}

TEST_F(SetCalls, GiveUpAListThatChangesAgainAndAgain) {
    answer_lists(5, [](int call) { return uint64_t(call); });
    EXPECT_EQ(list(), TBS_ST_TRY_AGAIN);
    EXPECT_EQ(calls, 20);
    EXPECT_EQ(jobs, nullptr);
}

TEST_F(SetCalls, GiveNoJobsWhereAPieceFails) {
    answer_lists(5, same);
    world.peer.on(RVZD_PROC_SCHED_SET_GET_JOBS, [this](const sim::Call &call) {
        sched_job_properties_t one = {};
        one.rw = job.rw;
        one.ro.job_id = 1;
        if (call.decode(xdr_sched_set_get_jobs_request_t).after == 0)
            return sim::reply(xdr_sched_set_get_jobs_reply_t, {TBS_ST_OK, 1, 1, 1, &one});
        return sim::reply(xdr_sched_set_get_jobs_reply_t, {TBS_ST_NO_ACCESS, 0, 0, 0, nullptr});
    });
    EXPECT_EQ(list(), TBS_ST_NO_ACCESS);
    EXPECT_EQ(jobs, nullptr);
    EXPECT_EQ(count, 0U);
}

TEST_F(SetCalls, EndAListThatSaysThereIsMoreAndHasNothing) {
    world.peer.answer(RVZD_PROC_SCHED_SET_GET_JOBS,
                      sim::reply(xdr_sched_set_get_jobs_reply_t, {TBS_ST_OK, 3, 1, 0, nullptr}));
    EXPECT_EQ(list(), TBS_ST_OK);
    EXPECT_EQ(count, 0U);
}

TEST_F(SetCalls, SendAsManyChangesAsARequestHolds) {
    const std::string description(20000, 'x');
    job.rw.description = Job::text(description.c_str());
    answer_pieces(TBS_ST_OK);
    auto changes = creations(5);
    changes[1] = {SCHED_SET_DELETE, 3, 0, {}};
    EXPECT_EQ(apply(changes), TBS_ST_OK);
    ASSERT_EQ(world.peer.count(RVZD_PROC_SCHED_SET_APPLY), 2U);
    uint32_t before_last = 0;
    for (const auto &call : world.peer.calls) {
        auto request = call.decode(xdr_sched_set_apply_request_t);
        EXPECT_EQ(request.state, 77U);
        EXPECT_EQ(request.before, before_last);
        EXPECT_EQ(request.set, before_last == 0 ? 0U : 5U);
        before_last += request.count;
        EXPECT_EQ(request.is_last != 0, before_last == 5);
        wire_tests::release(xdr_sched_set_apply_request_t, request);
    }
    EXPECT_EQ(changes[0].job_id, 40U);
    EXPECT_EQ(changes[1].job_id, 3U);
    EXPECT_EQ(changes[4].job_id, 43U);
}

TEST_F(SetCalls, RefuseAChangeThatNoRequestHolds) {
    auto changes = creations(2);
    const std::string large(60000, 'x');
    changes[1].rw.description = Job::text(large.c_str());
    answer_pieces(TBS_ST_OK);
    EXPECT_EQ(apply(changes), TBS_ST_INVALID_ARG);
    EXPECT_EQ(fault.place, 2U);
    changes[0].rw.schedule.kind = 0; // goes out in no way
    EXPECT_EQ(apply(changes), TBS_ST_INVALID_ARG);
    EXPECT_EQ(fault.place, 1U);
}

TEST_F(SetCalls, TellWhichChangeASchedulerRefuses) {
    answer_pieces(TBS_ST_INVALID_ARG, {1, SCHED_ERR_FOLLOWS});
    auto changes = creations(1);
    EXPECT_EQ(apply(changes), TBS_ST_INVALID_ARG);
    EXPECT_EQ(fault.place, 1U);
    EXPECT_EQ(fault.err_mask, uint32_t{SCHED_ERR_FOLLOWS});
    EXPECT_EQ(changes[0].job_id, 0U);
    EXPECT_EQ(sched_set_apply(scheduler, 77, 1, changes.data(), nullptr), TBS_ST_INVALID_ARG);
}

TEST_F(SetCalls, UndoThemselvesWhenAnyAllocationFails) {
    answer_lists(5, same);
    answer_pieces(TBS_ST_OK);
    auto changes = creations(2);
    tbs_status_t status = TBS_ST_OK;
    const auto listing = [&] { status = list(); };
    sim::sweep_allocations(world, listing, [&](int number) {
        EXPECT_NE(status, TBS_ST_OK);
        EXPECT_EQ(jobs, nullptr);
        EXPECT_EQ(sim::Holdings::now(world), before) << number;
    });
    EXPECT_EQ(count, 5U);
    release();
    const auto applying = [&] { status = apply(changes); };
    sim::sweep_allocations(world, applying,
                           [&](int number) { EXPECT_EQ(sim::Holdings::now(world), before) << number; });
    EXPECT_EQ(status, TBS_ST_OK);
    world.take_messages();
}

TEST_F(SetCalls, HoldNothingButTheLockWhenARaiseLandsAnywhere) {
    answer_lists(5, same);
    answer_pieces(TBS_ST_OK);
    auto changes = creations(2);
    const auto listing = [&] { list(); };
    sim::sweep_raises(world, listing, [&](int number) {
        sim::release_lock(rvzd_call_lock);
        EXPECT_EQ(sim::Holdings::now(world), before) << number;
    });
    release();
    const auto applying = [&] { apply(changes); };
    sim::sweep_raises(world, applying, [&](int number) {
        sim::release_lock(rvzd_call_lock);
        EXPECT_EQ(sim::Holdings::now(world), before) << number;
    });
}
