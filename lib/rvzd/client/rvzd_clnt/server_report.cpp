// What a server tells the broker: who it is, and whether it is busy. The reports are one call with five records.
#include <veliaxdr/rvzd_svr.h>

#include <arpa/inet.h>
#include <unistd.h>

#include <rvzd/client/rvzd_clnt/broker_call.h>

using namespace velia;
using namespace velia::rvzd_clnt;

namespace {

template <class Request>
using Report = Procedure<Request, rvzd_null_reply_t>;

template <class Request>
tbs_status_t send_report(rvzd_handle_t *handle, const Report<Request> &procedure, Request &request) {
    rvzd_null_reply_t reply = {};
    return broker_call(handle, procedure, request, reply, [&](clnt_stat outcome) -> tbs_status_t {
        return outcome == RPC_SUCCESS ? reply.header.status : TBS_ST_RPC_FAILED;
    });
}

// With no handle given, one to the local broker is taken for the one call.
template <class Request>
tbs_status_t report(rvzd_handle_t *handle, const Report<Request> &procedure, Request request) {
    if (handle != nullptr)
        return send_report(handle, procedure, request);
    const auto send = [&](rvzd_handle_t *own) { return send_report(own, procedure, request); };
    return with_handle(usual_request(nullptr), send).status;
}

int32_t own_pid() {
    return static_cast<int32_t>(getpid());
}

} // namespace

tbs_status_t rvzd_server_port_from_desc(const rvzd_socket_desc_t *desc, rvzd_server_port_t *port) {
    const int family = desc->addr.base.sa_family;
    if (family != AF_INET && family != AF_INET6)
        return TBS_ST_ERROR;
    uint16_t network_port = 0;
    sysutl_sockaddr_get_port(&desc->addr.base, &network_port);
    *port = {family, network_port};
    return TBS_ST_OK;
}

tbs_status_t rvzd_port_list_from_socket_vec(const rvzd_socket_desc_t *descs, int32_t count,
                                            rvzd_server_port_list_t *list) {
    *list = {};
    if (count > RVZD_SERVER_PORTS_MAX)
        return TBS_ST_ERROR;
    for (int32_t i = 0; i < count; ++i) {
        const auto status = rvzd_server_port_from_desc(&descs[i], &list->ports[i]);
        if (status != TBS_ST_OK)
            return status;
        ++list->count;
    }
    return TBS_ST_OK;
}

tbs_status_t rvzd_register_server(rvzd_handle_t *handle, const rvzd_rpc_trait_t *trait, const tbs_uuid_t *uuid,
                                  const char *path, const rvzd_socket_desc_t *descs, int32_t count) {
    rvzd_server_port_list_t ports;
    const auto status = rvzd_port_list_from_socket_vec(descs, count, &ports);
    if (status != TBS_ST_OK)
        return status;
    for (uint32_t i = 0; i < ports.count; ++i)
        ports.ports[i].port = ntohs(static_cast<uint16_t>(ports.ports[i].port));
    return report(handle, procedures::register_server,
                  rvzd_register_server_req_t{{}, *trait, *uuid, const_cast<char *>(path), ports, own_pid()});
}

tbs_status_t rvzd_server_idle(rvzd_handle_t *handle, tbs_boolean_t flag) {
    return report(handle, procedures::server_idle, rvzd_server_idle_req_t{{}, own_pid(), flag});
}

tbs_status_t rvzd_server_busy(rvzd_handle_t *handle, const tbs_uuid_t *uuid) {
    return report(handle, procedures::server_busy, rvzd_server_busy_req_t{{}, own_pid(), *uuid});
}

tbs_status_t rvzd_server_alternate_uuid(rvzd_handle_t *handle, const tbs_uuid_t *uuid) {
    return report(handle, procedures::server_alternate_uuid, rvzd_server_alternate_uuid_req_t{{}, own_pid(), *uuid});
}

tbs_status_t rvzd_sched_info(rvzd_handle_t *handle, const tbs_uuid_t *uuid, const rvzd_sched_info_pair_t *pair) {
    return report(handle, procedures::sched_info, rvzd_sched_info_req_t{{}, own_pid(), *uuid, *pair});
}
