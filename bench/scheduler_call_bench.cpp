// What a call of the scheduler's client adds to the bare exchange of its records over the same transport, TCP.
#include <bench/support/answering_peer.h>
#include <bench/support/check.h>
#include <bench/support/ratio.h>
#include <bench/support/scheduler_results.h>

#include <benchmark/benchmark.h>

#include <veliaxdr/sched_handle.h>
#include <veliaxdr/sched_tasks.h>

namespace {

using bench::check;

namespace row = velia::procedures;

sched_h_t scheduler;
char task_name[] = "clean views";

template <class Request, class Reply>
void exchange(const velia::Procedure<Request, Reply> &procedure, Request request) {
    Reply reply = {};
    CLIENT *client = sched_get_rpc_clnt(scheduler);
    check(clnt_call(client, procedure.number, procedure.request_routine(), &request, procedure.reply_routine(), &reply,
                    sched_timeout) == RPC_SUCCESS,
          "exchange");
    clnt_freeres(client, procedure.reply_routine(), reinterpret_cast<char *>(&reply));
}

void BareTime(benchmark::State &state) {
    for (auto _ : state)
        exchange(row::sched_get_time, {0, scheduler});
}
void CallTime(benchmark::State &state) {
    time_t now;
    for (auto _ : state)
        check(sched_get_time(scheduler, &now) == TBS_ST_OK, "call");
}
void BareTaskName(benchmark::State &state) {
    for (auto _ : state)
        exchange(row::sched_task_id_to_name, {{0, scheduler}, 7, 80});
}
void CallTaskName(benchmark::State &state) {
    char name[80];
    for (auto _ : state)
        check(sched_task_id_to_name(scheduler, 7, sizeof name, name) == TBS_ST_OK, "call");
}

BENCHMARK(BareTime)->UseRealTime();
BENCHMARK(CallTime)->UseRealTime();
BENCHMARK(BareTaskName)->UseRealTime();
BENCHMARK(CallTaskName)->UseRealTime();

bench::AnsweringPeer::Results results() {
    time_t now = 1700000000;
    return {{RVZD_PROC_SCHED_CONTACT, bench::scheduler_contact()},
            {RVZD_PROC_SCHED_GET_TIME, bench::encoded(row::sched_get_time.xdr_reply, {TBS_ST_OK, &now})},
            {RVZD_PROC_SCHED_TASK_ID_TO_NAME,
             bench::encoded(row::sched_task_id_to_name.xdr_reply, {TBS_ST_OK, sizeof task_name, task_name})}};
}

} // namespace

int main(int argc, char **argv) {
    const bench::AnsweringPeer peer(results());
    check(sched_get_handle(bench::AnsweringPeer::host, &scheduler) == TBS_ST_OK, "handle");
    const int missed = bench::run(argc, argv, {{"CallTime", "BareTime", 1.05}, {"CallTaskName", "BareTaskName", 1.05}});
    sched_free_handle(&scheduler);
    return missed;
}
