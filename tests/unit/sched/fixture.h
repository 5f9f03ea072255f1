// What the tests of the scheduler's client share: a scheduler on the host alpha that is reached over TCP and answers as
// a test says.
#pragma once

#include <tests/unit/rvzd_clnt/broker_fixture.h>
#include <tests/unit/sched/samples.h>
#include <veliaxdr/sched_access.h>
#include <veliaxdr/sched_handle.h>
#include <veliaxdr/sched_jobs.h>
#include <veliaxdr/sched_messages.h>
#include <veliaxdr/sched_tasks.h>

namespace {

namespace row = velia::procedures;

class SchedulerTest : public BrokerTest {
protected:
    SchedulerTest() {
        answer_contact(1);
        scheduler = open("alpha");
        world.peer.calls.clear();
        world.take_messages();
        before = sim::Holdings::now(world);
    }
    ~SchedulerTest() override {
        EXPECT_EQ(sim::Holdings::now(world), before) << "what calls gave was released, and nothing else";
        sched_free_handle(&scheduler);
        EXPECT_EQ(rvzd_call_lock.depth, 0u);
    }

    sched_h_t open(const char *host) {
        sched_h_t handle = nullptr;
        EXPECT_EQ(sched_get_handle(host, &handle), TBS_ST_OK);
        return handle;
    }

    // Those that no handle is in need of.
    void forget_connections() {
        world.advance_s(100);
        rvzd_free_cached_handles();
    }

    // A raise within a call takes its connection out of use, which a handle that has it keeps. So there is none.
    void begin_without_connections() {
        sched_free_handle(&scheduler);
        forget_connections();
        before = sim::Holdings::now(world);
        EXPECT_EQ(before.clients, 0u);
    }

    void answer_contact(uint32_t version, tbs_status_t status = TBS_ST_OK) {
        uint32_t second = 9;
        answer(row::sched_contact, sched_contact_reply_t{status, &version, &second});
    }

    // The reply is coded at once.
    template <class Request, class Reply>
    void answer(const velia::Procedure<Request, Reply> &procedure, const Reply &reply) {
        world.peer.answer(procedure.number, sim::reply(procedure.xdr_reply, reply));
    }
    template <class Request, class Reply>
    void answer_once(const velia::Procedure<Request, Reply> &procedure, const Reply &reply) {
        world.peer.answer_once(procedure.number, sim::reply(procedure.xdr_reply, reply));
    }
    template <class Request, class Reply>
    void fail(const velia::Procedure<Request, Reply> &procedure) {
        world.peer.answer(procedure.number, sim::failure(RPC_CANTRECV, ECONNRESET));
    }
    template <class Request, class Reply>
    size_t count(const velia::Procedure<Request, Reply> &procedure) {
        return world.peer.count(procedure.number);
    }

    // The last request, whose storage is the heap's.
    template <class Request, class Reply>
    Request last_request(const velia::Procedure<Request, Reply> &procedure) {
        EXPECT_EQ(world.peer.last().procedure, procedure.number);
        return world.peer.last().decode(procedure.xdr_request);
    }
    template <class Request, class Reply>
    void release(const velia::Procedure<Request, Reply> &procedure, Request &request) {
        xdr_free(procedure.request_routine(), &request);
    }

    sim::Message message(int severity, int position, auto... arguments) {
        return message_of(severity, _sched_rvzd_msg_table, position, arguments...);
    }

    sched_h_t scheduler = nullptr;
    sim::Holdings before = {};
    wire_tests::Sampler sampler{20261122};
};

} // namespace
