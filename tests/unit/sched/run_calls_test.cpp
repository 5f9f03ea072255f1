// The calls about runs and changes: what each sends, what it gives, and whose that is.
#include <tests/unit/sched/fixture.h>
#include <tests/unit/sched/run_samples.h>

using testing::ElementsAre;
using testing::HasSubstr;

namespace {

struct Case {
    const char *name;
    uint32_t procedure;
    std::function<tbs_status_t(sched_h_t handle, bool wanted)> call;
    std::function<void(sched_h_t handle)> release;
};

class RunCalls : public SchedulerTest {
protected:
    void answer_all(tbs_status_t wanted) {
        velia::for_each_run_procedure(
            [&]<class Request, class Reply>(const velia::Procedure<Request, Reply> &procedure) {
                Reply reply = {};
                do
                    wire_tests::fill(sampler, reply);
                while (is_empty(reply));
                reply.status = wanted;
                answer(procedure, reply);
            });
    }

    static bool is_empty(const sched_run_output_reply_t &reply) { return reply.output.size == 0; }
    static bool is_empty(const sched_run_history_reply_t &reply) { return reply.count == 0; }
    static bool is_empty(const sched_changes_reply_t &reply) { return reply.count == 0; }
    static bool is_empty(const sched_next_runs_reply_t &reply) { return reply.count == 0; }
    static bool is_empty(const sched_job_hosts_reply_t &reply) { return reply.count == 0; }
    static bool is_empty(const sched_set_host_reply_t & /*reply*/) { return false; }
    static bool is_empty(const sched_create_at_host_reply_t &reply) { return reply.job_id == 0 || reply.err_mask == 0; }

    void run(const Case &each, bool wanted = true) {
        output = {};
        count = 0;
        runs = nullptr;
        changes = nullptr;
        next_runs = nullptr;
        hosts = nullptr;
        status = each.call(scheduler, wanted);
    }

    sched_run_output_t output = {};
    uint32_t count = 0;
    sched_run_t *runs = nullptr;
    sched_change_t *changes = nullptr;
    sched_next_run_t *next_runs = nullptr;
    sched_job_host_t *hosts = nullptr;
    tbs_status_t status = 0;

    const std::vector<Case> cases = {
        {row::sched_run_get_output.name, row::sched_run_get_output.number,
         [this](sched_h_t h, bool w) { return sched_run_get_output(h, 7, 99, 11, 70000, w ? &output : nullptr); },
         [this](sched_h_t h) { sched_run_free_output(h, &output); }},
        {row::sched_run_get_history.name, row::sched_run_get_history.number,
         [this](sched_h_t h, bool w) { return sched_run_get_history(h, 7, w ? &count : nullptr, w ? &runs : nullptr); },
         [this](sched_h_t h) { sched_run_free_history(h, count, &runs); }},
        {row::sched_get_changes.name, row::sched_get_changes.number,
         [this](sched_h_t h, bool w) {
             return sched_get_changes(h, 7, 11, 1000, w ? &count : nullptr, w ? &changes : nullptr);
         },
         [this](sched_h_t h) { sched_free_changes(h, count, &changes); }},
        {row::sched_get_next_runs.name, row::sched_get_next_runs.number,
         [this](sched_h_t h, bool w) {
             return sched_get_next_runs(h, 7, 11, 1000, w ? &count : nullptr, w ? &next_runs : nullptr);
         },
         [this](sched_h_t h) { sched_free_next_runs(h, count, &next_runs); }},
        {row::sched_get_job_hosts.name, row::sched_get_job_hosts.number,
         [this](sched_h_t h, bool w) {
             return sched_get_job_hosts(h, 7, 5000, w ? &count : nullptr, w ? &hosts : nullptr);
         },
         [this](sched_h_t h) { sched_free_job_hosts(h, count, &hosts); }},
    };
};

} // namespace

TEST_F(RunCalls, SendWhatTheyAreGivenWithinTheBounds) {
    answer_all(TBS_ST_OK);
    for (const Case &each : cases) {
        run(each);
        each.release(scheduler);
        const auto &request = world.peer.last().request;
        sim::Bytes expected;
        if (each.procedure == row::sched_run_get_output.number) {
            sched_run_output_request_t sent = {7, 99, 11, SCHED_RUN_PIECE_MAX};
            expected = sim::encode(xdr_sched_run_output_request_t, sent);
        } else if (each.procedure == row::sched_run_get_history.number) {
            sched_run_history_request_t sent = {7};
            expected = sim::encode(xdr_sched_run_history_request_t, sent);
        } else if (each.procedure == row::sched_get_next_runs.number) {
            sched_next_runs_request_t sent = {7, 11, SCHED_NEXT_RUNS_MAX};
            expected = sim::encode(xdr_sched_next_runs_request_t, sent);
        } else if (each.procedure == row::sched_get_job_hosts.number) {
            sched_job_hosts_request_t sent = {7, SCHED_JOB_HOSTS_MAX};
            expected = sim::encode(xdr_sched_job_hosts_request_t, sent);
        } else {
            sched_changes_request_t sent = {7, 11, SCHED_CHANGES_MAX};
            expected = sim::encode(xdr_sched_changes_request_t, sent);
        }
        EXPECT_EQ(request, expected) << each.name;
        EXPECT_TRUE(world.peer.last().tcp);
    }
}

TEST_F(RunCalls, GiveTheirOutputsWithTheServersStatusAndReleaseThem) {
    for (const tbs_status_t wanted : {TBS_ST_OK, TBS_ST_NO_ACCESS}) {
        answer_all(wanted);
        for (const Case &each : cases) {
            SCOPED_TRACE(each.name);
            run(each);
            EXPECT_EQ(status, wanted);
            EXPECT_TRUE(output.size != 0 || (count != 0 && (runs != nullptr || changes != nullptr ||
                                                            next_runs != nullptr || hosts != nullptr)));
            each.release(scheduler);
            EXPECT_EQ(output.bytes, nullptr);
            EXPECT_EQ(runs, nullptr);
            EXPECT_EQ(changes, nullptr);
            EXPECT_EQ(next_runs, nullptr);
            EXPECT_EQ(hosts, nullptr);
            EXPECT_EQ(sim::Holdings::now(world), before);
        }
        EXPECT_THAT(world.take_messages(), ElementsAre());
    }
}

TEST_F(RunCalls, WhoseOutputsAreNotWantedReleaseThem) {
    answer_all(TBS_ST_OK);
    for (const Case &each : cases) {
        run(each, false);
        EXPECT_EQ(status, TBS_ST_OK);
        EXPECT_EQ(sim::Holdings::now(world), before) << each.name;
    }
    sched_run_free_output(scheduler, nullptr);
    sched_run_free_history(scheduler, 3, nullptr);
    sched_free_changes(scheduler, 3, nullptr);
    sched_free_next_runs(scheduler, 3, nullptr);
    sched_free_job_hosts(scheduler, 3, nullptr);
}

TEST_F(RunCalls, AHostIsNamedWithItsJobAndNoneWithTheEmptyName) {
    char name[] = "beta";
    char nothing[] = "";
    for (const tbs_status_t wanted : {TBS_ST_OK, TBS_ST_UNSUPPORTED}) {
        answer_all(wanted);
        for (char *host : {name, nothing}) {
            sched_set_host_request_t sent = {7, host};
            EXPECT_EQ(sched_job_set_host(scheduler, 7, *host != '\0' ? host : nullptr), wanted);
            EXPECT_EQ(world.peer.last().request, sim::encode(xdr_sched_set_host_request_t, sent));
            EXPECT_EQ(sim::Holdings::now(world), before);
        }
    }
}

TEST_F(RunCalls, AJobIsMadeTogetherWithItsHost) {
    char name[] = "beta";
    sched_create_at_host_request_t sent = {name, {}};
    wire_tests::fill(sampler, sent.job);
    for (const tbs_status_t wanted : {TBS_ST_OK, TBS_ST_INVALID_ARG}) {
        answer_all(wanted);
        sched_job_id_t made = 0;
        uint32_t err_mask = 0;
        EXPECT_EQ(sched_job_create_at_host(scheduler, &sent.job, name, &made, &err_mask), wanted);
        EXPECT_EQ(world.peer.last().request, sim::encode(xdr_sched_create_at_host_request_t, sent));
        EXPECT_TRUE(world.peer.last().tcp);
        sched_create_at_host_reply_t told = {wanted, made, err_mask};
        EXPECT_NE(made, 0U);
        const sim::Call last = world.peer.last();
        EXPECT_EQ(world.peer.take(last).reply, sim::encode(xdr_sched_create_at_host_reply_t, told));
        EXPECT_EQ(sched_job_create_at_host(scheduler, &sent.job, name, nullptr, nullptr), wanted);
        EXPECT_EQ(sched_job_create_at_host(scheduler, nullptr, name, &made, &err_mask), TBS_ST_RPC_FAILED);
        EXPECT_EQ(sim::Holdings::now(world), before);
    }
}

TEST_F(RunCalls, WhoseRpcFailsSaySoUnderTheirNames) {
    velia::for_each_run_procedure([&](const auto &procedure) { fail(procedure); });
    for (const Case &each : cases) {
        run(each);
        EXPECT_EQ(status, TBS_ST_RPC_FAILED);
        const auto told = world.take_messages();
        ASSERT_EQ(told.size(), 1u);
        EXPECT_THAT(told[0].text, HasSubstr(std::string(each.name) + " call failed"));
        EXPECT_EQ(sim::Holdings::now(world), before) << each.name;
        testing::internal::CaptureStderr();
        EXPECT_EQ(each.call(nullptr, true), TBS_ST_RPC_FAILED);
        EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr(each.name));
    }
}

TEST_F(RunCalls, WhoseReplyIsCutAtAnyByteFailAndLeakNothing) {
    answer_all(TBS_ST_OK);
    for (const Case &each : cases) {
        run(each);
        each.release(scheduler);
        const sim::Answer whole = world.peer.take(world.peer.last());
        for (size_t size = 0; size < whole.reply.size(); size += 4) {
            sim::Answer cut = whole;
            cut.reply.resize(size);
            world.peer.answer_once(each.procedure, cut);
            run(each);
            EXPECT_EQ(status, TBS_ST_RPC_FAILED) << each.name << " " << size;
            ASSERT_EQ(sim::Holdings::now(world), before) << each.name << " " << size;
        }
    }
    world.take_messages();
}

TEST_F(RunCalls, UndoThemselvesWhenAnyAllocationFails) {
    answer_all(TBS_ST_OK);
    for (const Case &each : cases) {
        const auto operation = [&] {
            run(each);
            if (status == TBS_ST_OK)
                each.release(scheduler);
        };
        sim::sweep_allocations(world, operation, [&](int) {
            EXPECT_EQ(sim::Holdings::now(world), before) << each.name;
            EXPECT_EQ(rvzd_call_lock.depth, 0u);
        });
        EXPECT_EQ(status, TBS_ST_OK);
        world.take_messages();
    }
}

TEST_F(RunCalls, HoldNothingButTheLockWhenARaiseLandsAnywhere) {
    answer_all(TBS_ST_OK);
    for (const Case &each : cases) {
        const auto operation = [&] { run(each); };
        sim::sweep_raises(world, operation, [&](int number) {
            sim::release_lock(rvzd_call_lock);
            each.release(scheduler);
            EXPECT_EQ(sim::Holdings::now(world), before) << each.name << " " << number;
        });
        each.release(scheduler);
    }
}

TEST_F(RunCalls, WhatTheyGaveIsReleasedWholeWhenARaiseLandsInThat) {
    answer_all(TBS_ST_OK);
    for (const Case &each : cases) {
        run(each);
        const auto operation = [&] { each.release(scheduler); };
        for (int number = 1; number < 12; ++number) {
            world.raise_at_call(number, sim::raise_code);
            sim::run_and_catch(operation);
            world.raise_at_call(0, 0);
            sim::release_lock(rvzd_call_lock);
            EXPECT_EQ(sim::Holdings::now(world), before) << each.name << " " << number;
            run(each);
        }
        each.release(scheduler);
    }
}
