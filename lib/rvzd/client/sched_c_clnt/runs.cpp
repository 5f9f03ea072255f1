// The calls about runs and changes. What they give stands in the reply itself, and is released as such a reply.
#include <algorithm>

#include <rvzd/client/rvzd_clnt/rvzd_clnt.h>
#include <rvzd/client/sched_c_clnt/call.h>
#include <veliaxdr/sched_runs.h>

using namespace velia;
using namespace velia::scheduler;
namespace row = velia::procedures;

namespace {

// Whoever does not want it leaves it in the reply, which is released.
template <class Value>
void hand_over(Value *out, Value &value) {
    if (out == nullptr)
        return;
    *out = value;
    value = {};
}

template <class Reply>
void release_reply(sched_h_t handle, xdrproc_t routine, Reply &reply) {
    with_lock(rvzd_clnt::call_lock, [&] {
        release_record(handle, routine, &reply);
        return true;
    });
}

// A raise waits until it is released: it is in nobody's hands meanwhile.
template <class Request, class Reply, class Element>
void release_list(sched_h_t handle, const Procedure<Request, Reply> &procedure, Element *Reply::*field, uint32_t count,
                  Element **array) {
    if (array == nullptr || *array == nullptr)
        return;
    with_inhibit([&] {
        Reply reply = {};
        reply.count = count;
        reply.*field = *array;
        *array = nullptr;
        release_reply(handle, procedure.reply_routine(), reply);
    });
}

// The count goes with the list, so that neither is told without the other.
template <class Reply, class Element>
auto handing_over(uint32_t *count, Element **array, Element *Reply::*field) {
    return [count, array, field](Reply &reply) {
        if (count != nullptr)
            *count = reply.*field != nullptr ? reply.count : 0;
        hand_over(array, reply.*field);
    };
}

} // namespace

tbs_status_t sched_run_get_output(sched_h_t handle, sched_job_id_t job, time_t started, uint64_t offset,
                                  uint32_t size_max, sched_run_output_t *output) {
    const sched_run_output_request_t request = {job, started, offset,
                                                std::min<uint32_t>(size_max, SCHED_RUN_PIECE_MAX)};
    return call_own<row::sched_run_get_output>(
        handle, request, [&](sched_run_output_reply_t &reply) { hand_over(output, reply.output); });
}

void sched_run_free_output(sched_h_t handle, sched_run_output_t *output) {
    if (output == nullptr)
        return;
    with_inhibit([&] {
        sched_run_output_reply_t reply = {TBS_ST_OK, *output};
        *output = {};
        release_reply(handle, row::sched_run_get_output.reply_routine(), reply);
    });
}

tbs_status_t sched_run_get_history(sched_h_t handle, sched_job_id_t job, uint32_t *count, sched_run_t **runs) {
    return call_own<row::sched_run_get_history>(handle, sched_run_history_request_t{job},
                                                handing_over(count, runs, &sched_run_history_reply_t::runs));
}

void sched_run_free_history(sched_h_t handle, uint32_t count, sched_run_t **runs) {
    release_list(handle, row::sched_run_get_history, &sched_run_history_reply_t::runs, count, runs);
}

tbs_status_t sched_get_changes(sched_h_t handle, sched_job_id_t job, uint64_t before, uint32_t count_max,
                               uint32_t *count, sched_change_t **changes) {
    const sched_changes_request_t request = {job, before, std::min<uint32_t>(count_max, SCHED_CHANGES_MAX)};
    return call_own<row::sched_get_changes>(handle, request,
                                            handing_over(count, changes, &sched_changes_reply_t::changes));
}

void sched_free_changes(sched_h_t handle, uint32_t count, sched_change_t **changes) {
    release_list(handle, row::sched_get_changes, &sched_changes_reply_t::changes, count, changes);
}

tbs_status_t sched_get_next_runs(sched_h_t handle, sched_job_id_t job, time_t after, uint32_t count_max,
                                 uint32_t *count, sched_next_run_t **next_runs) {
    const sched_next_runs_request_t request = {job, after, std::min<uint32_t>(count_max, SCHED_NEXT_RUNS_MAX)};
    return call_own<row::sched_get_next_runs>(handle, request,
                                              handing_over(count, next_runs, &sched_next_runs_reply_t::next_runs));
}

void sched_free_next_runs(sched_h_t handle, uint32_t count, sched_next_run_t **next_runs) {
    release_list(handle, row::sched_get_next_runs, &sched_next_runs_reply_t::next_runs, count, next_runs);
}

tbs_status_t sched_job_set_host(sched_h_t handle, sched_job_id_t job, const char *host) {
    const sched_set_host_request_t request = {job, const_cast<char *>(host)};
    return call_own<row::sched_job_set_host>(handle, request, take_nothing);
}

tbs_status_t sched_job_create_at_host(sched_h_t handle, const sched_job_rw_properties_t *job, const char *host,
                                      sched_job_id_t *made, sched_validate_job_rw_properties_err_mask_t *err_mask) {
    const sched_create_at_host_request_t request = {const_cast<char *>(host),
                                                    job != nullptr ? *job : sched_job_rw_properties_t{}};
    return call_own<row::sched_job_create_at_host>(handle, request, [&](const sched_create_at_host_reply_t &reply) {
        copy_out(made, &reply.job_id);
        copy_out(err_mask, &reply.err_mask);
    });
}

tbs_status_t sched_get_job_hosts(sched_h_t handle, sched_job_id_t after, uint32_t count_max, uint32_t *count,
                                 sched_job_host_t **hosts) {
    const sched_job_hosts_request_t request = {after, std::min<uint32_t>(count_max, SCHED_JOB_HOSTS_MAX)};
    return call_own<row::sched_get_job_hosts>(handle, request,
                                              handing_over(count, hosts, &sched_job_hosts_reply_t::hosts));
}

void sched_free_job_hosts(sched_h_t handle, uint32_t count, sched_job_host_t **hosts) {
    release_list(handle, row::sched_get_job_hosts, &sched_job_hosts_reply_t::hosts, count, hosts);
}
