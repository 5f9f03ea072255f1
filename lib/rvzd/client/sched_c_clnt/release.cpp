// What calls gave goes back the way it came: as part of a reply that is freed through the handle's RPC client. Where
// there is no storage for the cells of such a reply, its parts are released one by one.
#include <cstdlib>

#include <rvzd/client/rvzd_clnt/rvzd_clnt.h>
#include <rvzd/client/sched_c_clnt/call.h>
#include <veliaxdr/sched_access.h>
#include <veliaxdr/sched_jobs.h>
#include <veliaxdr/sched_tasks.h>

using namespace velia;
using namespace velia::scheduler;

namespace {

template <class Value>
Value *cell_with(const Value &value) {
    // NOLINTNEXTLINE(bugprone-sizeof-expression): a value may be a pointer itself
    auto *cell = static_cast<Value *>(stg_malloc(sizeof value));
    if (cell != nullptr)
        *cell = value;
    return cell;
}

// The RPC library's own routine frees it.
uint32_t *count_cell_with(uint32_t count) {
    auto *cell = static_cast<uint32_t *>(malloc(sizeof(uint32_t)));
    if (cell != nullptr)
        *cell = count;
    return cell;
}

template <class Request, class Reply>
void release_reply(sched_h_t handle, const Procedure<Request, Reply> &procedure, Reply &reply) {
    with_lock(rvzd_clnt::call_lock, [&] {
        release_record(handle, procedure.reply_routine(), &reply);
        return true;
    });
}

// What stands behind one pointer of a reply. A raise waits until it is released: it is in nobody's hands meanwhile.
template <class Request, class Reply, class Value>
void release_value(sched_h_t handle, const Procedure<Request, Reply> &procedure, Value *Reply::*field,
                   bool_t (*routine)(XDR *, Value *), Value *value) {
    with_inhibit([&] {
        Value released = *value;
        *value = {};
        Reply reply = {};
        reply.*field = cell_with(released);
        if (reply.*field != nullptr)
            release_reply(handle, procedure, reply);
        else
            xdr_free(reinterpret_cast<xdrproc_t>(routine), &released);
    });
}

template <class Request, class Reply, class Element>
void release_array(sched_h_t handle, const Procedure<Request, Reply> &procedure, Element **Reply::*field,
                   bool_t (*routine)(XDR *, Element *), uint32_t count, Element **array) {
    if (array == nullptr || *array == nullptr)
        return;
    with_inhibit([&] {
        Element *released = *array;
        *array = nullptr;
        Reply reply = {};
        reply.count = count_cell_with(count);
        reply.*field = cell_with(released);
        if (reply.count != nullptr && reply.*field != nullptr)
            return release_reply(handle, procedure, reply);
        for (uint32_t i = 0; i < count; ++i)
            xdr_free(reinterpret_cast<xdrproc_t>(routine), &released[i]);
        stg_free(released);
        free(reply.count);
        stg_free(reply.*field);
    });
}

bool_t xdr_flag_item(XDR *xdrs, strutl_flag_item_t *item) {
    return xdr_strutl_flag_item_t(xdrs, item);
}

} // namespace

void sched_free_jobs(sched_h_t handle, uint32_t count, sched_job_properties_t **jobs) {
    release_array(handle, procedures::sched_get_jobs, &sched_get_jobs_reply_t::jobs, xdr_sched_job_properties_t, count,
                  jobs);
}

void sched_free_tasks(sched_h_t handle, uint32_t count, sched_task_properties_t **tasks) {
    release_array(handle, procedures::sched_get_tasks, &sched_get_tasks_reply_t::tasks, xdr_sched_task_properties_t,
                  count, tasks);
}

void sched_free_app_perms(sched_h_t handle, strutl_flag_item_t **items, uint32_t count, tbs_acl_generic_map_t *map) {
    if (items == nullptr || *items == nullptr)
        return;
    release_array(handle, procedures::sched_get_app_perms, &sched_app_perms_reply_t::items, xdr_flag_item, count,
                  items);
    if (map != nullptr)
        *map = {};
}

tbs_status_t sched_free_job_properties(sched_h_t handle, sched_job_properties_t *properties) {
    if (properties != nullptr)
        release_value(handle, procedures::sched_job_get_properties, &sched_properties_reply_t::properties,
                      xdr_sched_job_properties_t, properties);
    return TBS_ST_OK;
}

tbs_status_t sched_free_job_completion_info(sched_h_t handle, sched_job_completion_info_t *info) {
    if (info != nullptr)
        release_value(handle, procedures::sched_rjob_get_completion_info, &sched_completion_reply_t::info,
                      xdr_sched_job_completion_info_t, info);
    return TBS_ST_OK;
}

void sched_job_free_handle(sched_h_t handle, sched_job_h_t *job) {
    release_value(handle, procedures::sched_job_lookup_by_id, &sched_job_reply_t::job, xdr_sched_job_h_t, job);
}

void sched_rjob_free_handle(sched_h_t handle, sched_running_job_h_t *job) {
    release_value(handle, procedures::sched_rjob_get_handle, &sched_running_job_reply_t::job, xdr_sched_running_job_h_t,
                  job);
}
