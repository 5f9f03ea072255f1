// What stands around each call: the lock of broker calls. They have a file of their own, so that a program that puts
// others in their place replaces nothing else.
#include <rvzd/client/rvzd_clnt/rvzd_clnt.h>
#include <rvzd/client/sched_c_clnt/call.h>

using namespace velia;

uint32_t sched_c_clnt_exit_before(uint32_t /*procedure*/, void * /*request*/, void * /*reply*/,
                                  tbs_status_t * /*status*/) {
    take(rvzd_clnt::call_lock);
    return 0;
}

uint32_t sched_c_clnt_exit_after(uint32_t /*procedure*/, void * /*request*/, void * /*reply*/,
                                 tbs_status_t * /*status*/) {
    give_back(rvzd_clnt::call_lock);
    return 0;
}

uint32_t sched_c_clnt_exit_error(CLIENT * /*client*/, uint32_t /*procedure*/, uint32_t /*rpc_status*/,
                                 tbs_status_t * /*status*/, uint32_t /*four*/) {
    give_back(rvzd_clnt::call_lock);
    return scheduler::hook_ends_call;
}
