// Two questions about what a broker's host holds: the local path of a global one, and whether a server may restart.
#include <rvzd/client/rvzd_clnt/broker_call.h>
#include <rvzd/client/rvzd_clnt/host_info.h>
#include <support/credutl.h>
#include <support/fileutl.h>
#include <veliaxdr/rvzd_svr.h>

using namespace velia;
using namespace velia::rvzd_clnt;

namespace {

constexpr size_t host_size = 64;

tbs_status_t ask_local_path(rvzd_handle_t *handle, const char *global_path, uint64_t size, char *buffer) {
    rvzd_get_local_path_req_t request = {{}, const_cast<char *>(global_path), size};
    rvzd_get_local_path_reply_t reply = {{}, buffer, size};
    return broker_call(handle, procedures::get_local_path, request, reply, [&](clnt_stat outcome) -> tbs_status_t {
        if (outcome == RPC_SUCCESS)
            return reply.header.status;
        return outcome == RPC_PROCUNAVAIL ? TBS_ST_UNSUPPORTED : TBS_ST_RPC_FAILED;
    });
}

// A status in the header itself is dropped on purpose: the caller learns only of the toggling's own.
tbs_status_t status_of_toggle(clnt_stat outcome, const rvzd_toggle_server_restart_reply_t &reply) {
    return status_of_question(outcome, reply.header.status == TBS_ST_OK ? reply.toggle.status : TBS_ST_OK);
}

} // namespace

tbs_status_t rvzd_get_local_path(const char *host, const char *global_path, uint64_t size, char *buffer) {
    char path_host[host_size];
    if (host == nullptr || *host == '\0') {
        if (fileutl_path_host(global_path, path_host, sizeof path_host) != 0)
            return TBS_ST_ERROR;
        host = path_host;
    }
    const auto ask = [&](rvzd_handle_t *handle) { return ask_local_path(handle, global_path, size, buffer); };
    return with_handle(usual_request(host), ask).status;
}

tbs_status_t rvzd_toggle_server_restart(tbs_boolean_t enable, const char *server_name) {
    if (!credutl_is_privileged()) {
        imsg_print(IMSG_ERROR, &_rvzd_rvzd_msg_table, RVZD_MSG_NOT_PRIVILEGED);
        return TBS_ST_ERROR;
    }
    const auto ask = [&](rvzd_handle_t *handle) {
        rvzd_toggle_server_restart_req_t request = {{}, enable, const_cast<char *>(server_name)};
        rvzd_toggle_server_restart_reply_t reply = {};
        return broker_call(handle, quiet(procedures::toggle_server_restart), request, reply,
                           [&](clnt_stat outcome) { return status_of_toggle(outcome, reply); });
    };
    return with_handle(usual_request(nullptr), ask).status;
}
