// Handles: a broker handle over TCP, the caller's authentication, and a scheduler that speaks our version.
#include <cstring>

#include <rvzd/client/sched_c_clnt/call.h>
#include <veliaxdr/sched_jobs.h>

using namespace velia;
using namespace velia::scheduler;

namespace {

void release(sched_h_t handle) {
    stg_free(handle->hostname);
    credutl_free_client(&handle->client);
    rvzd_free_handle(handle->rvzd_handle);
    stg_free(handle);
}

sched_h_t new_handle(const char *host) {
    auto *handle = static_cast<sched_h_t>(stg_malloc(sizeof(sched_handle)));
    if (handle == nullptr)
        return nullptr;
    *handle = {};
    if (host == nullptr)
        return handle;
    handle->hostname = stg_strdup(host);
    if (handle->hostname != nullptr)
        return handle;
    stg_free(handle);
    return nullptr;
}

tbs_status_t agree_on_version(sched_h_t handle) {
    uint32_t version = 0;
    uint32_t version2 = 0;
    const auto status = sched_contact(handle, SCHED_INTERFACE_VERSION, &version, &version2);
    if (status != TBS_ST_OK) {
        imsg_print(IMSG_ERROR, &_tbs_cmsg_tbs_msg_table, TBS_MSG_OPERATION_FAILED, "sched_contact",
                   tbs_strerror(status));
        return status;
    }
    return version == SCHED_INTERFACE_VERSION ? TBS_ST_OK : TBS_ST_UNSUPPORTED;
}

tbs_status_t connect(sched_h_t handle, const char *host) {
    tbs_status_t status = credutl_mk_client_ironvale(1, &handle->auth, &handle->client);
    if (status == TBS_ST_OK)
        status = rvzd_get_handle_prim_proto(host, RVZD_PROTOCOL_TCP, 0, 0, &handle->rvzd_handle);
    return status == TBS_ST_OK ? agree_on_version(handle) : status;
}

tbs_status_t open_handle(const char *host, sched_h_t &handle) {
    with_inhibit([&] { handle = new_handle(host); });
    if (handle != nullptr)
        return connect(handle, host);
    trace_no_memory();
    return TBS_ST_NO_MEMORY;
}

} // namespace

timeval sched_timeout = {25, 0};

tbs_status_t sched_get_handle(const char *host, sched_h_t *out) {
    sched_h_t handle = nullptr;
    const auto undo = [&] {
        if (handle != nullptr)
            release(handle);
    };
    const auto status = with_cleanup([&] { return open_handle(host, handle); }, undo);
    if (status == TBS_ST_OK)
        *out = handle;
    else
        undo();
    return status;
}

void sched_free_handle(sched_h_t *handle) {
    sched_h_t released = *handle;
    if (released == nullptr)
        return;
    *handle = nullptr;
    with_inhibit([&] { release(released); });
}

const char *sched_get_hostname(sched_h_t handle) {
    return handle != nullptr ? handle->hostname : nullptr;
}

CLIENT *sched_get_rpc_clnt(sched_h_t handle) {
    return handle != nullptr && handle->rvzd_handle != nullptr ? rvzd_get_rpc_clnt(handle->rvzd_handle) : nullptr;
}

tbs_status_t sched_job_get_id(sched_h_t /*handle*/, sched_job_h_t job, sched_job_id_t *id) {
    *id = job != nullptr ? job->job_id : 0;
    return TBS_ST_OK;
}
