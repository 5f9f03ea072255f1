// What the calls have in common, and the stub of each procedure, which is one RPC.
#include <rvzd/client/sched_c_clnt/call.h>

using namespace velia;
using namespace velia::scheduler;

bool velia::scheduler::make_call(const SchedulerCall &call, tbs_status_t &status) {
    const Exchange &exchange = call.exchange;
    if (sched_c_clnt_exit_before(exchange.procedure_number, exchange.request, exchange.reply, &status) != 0)
        return false;
    while (true) {
        CLIENT *client = sched_get_rpc_clnt(call.handle);
        const uint32_t rpc_status = call.stub(exchange.request, client, exchange.reply, &sched_timeout);
        if (rpc_status == RPC_SUCCESS)
            break;
        if (sched_c_clnt_exit_error(client, exchange.procedure_number, rpc_status, &status, word_of_error_hook) ==
            hook_ends_call)
            return false;
        release_record(call.handle, exchange.reply_routine, exchange.reply); // of what came before it failed
        call.clear(exchange.reply);
    }
    return sched_c_clnt_exit_after(exchange.procedure_number, exchange.request, exchange.reply, &status) == 0;
}

void velia::scheduler::release_record(sched_h_t handle, xdrproc_t routine, void *record) {
    CLIENT *client = sched_get_rpc_clnt(handle);
    with_inhibit([&] {
        if (client != nullptr)
            sched_free_result(client, routine, record);
        else
            xdr_free(routine, record);
    });
}

// NOLINTBEGIN(bugprone-macro-parentheses): types
#define DEFINE_STUB(NUMBER, CONSTANT, NAME, REQUEST, REPLY, RUNS, OVER)                                                \
    uint32_t NAME##_V2(REQUEST *request, CLIENT *client, REPLY *reply, const struct timeval *time_out) {               \
        return call_once(procedures::NAME, #NAME ":Client Handle=(nil)!", request, client, reply, time_out);           \
    }
RVZD_SCHEDULER_PROCEDURES(DEFINE_STUB)
#undef DEFINE_STUB
// NOLINTEND(bugprone-macro-parentheses)

void sched_free_result(CLIENT *client, xdrproc_t routine, void *reply) {
    if (client == nullptr)
        client = ::sched_clnt;
    clnt_freeres(client, routine, static_cast<char *>(reply));
}
