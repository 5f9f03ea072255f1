// Where a server listens. The broker supplies ports only: the server is reached at the addresses that the client
// already uses for the broker, each paired with the port of its family.
#include <veliaxdr/rvzd_lookup.h>

#include <algorithm>
#include <arpa/inet.h>

#include <rvzd/client/rvzd_clnt/broker_call.h>

using namespace velia;
using namespace velia::rvzd_clnt;

namespace {

// The port of the first entry of this family; null if no entry has it. A port that no socket address can hold is none.
const rvzd_server_port_t *port_of_family(const rvzd_server_port_list_t &list, int family) {
    const uint32_t count = std::min<uint32_t>(list.count, RVZD_SERVER_PORTS_MAX);
    for (uint32_t i = 0; i < count; ++i)
        if (list.ports[i].family == family && list.ports[i].port <= UINT16_MAX)
            return &list.ports[i];
    return nullptr;
}

tbs_status_t pair_with_ports(const rvzd_server_addr_t &host, const rvzd_server_port_list_t &ports,
                             rvzd_server_addr_t &out) {
    out.addr_count = 0;
    for (uint32_t i = 0; i < host.addr_count; ++i) {
        const rvzd_server_port_t *port = port_of_family(ports, host.addrs[i].base.sa_family);
        if (port == nullptr)
            continue;
        ks_sockaddr_storage_t &address = out.addrs[out.addr_count++];
        address = host.addrs[i];
        sysutl_sockaddr_set_port(&address.base, htons(static_cast<uint16_t>(port->port)));
    }
    return out.addr_count > 0 ? tbs_status_t{TBS_ST_OK} : tbs_status_t{TBS_ST_UNSUPPORTED};
}

tbs_status_t pair_with_v70_port(const rvzd_server_addr_t &host, uint16_t network_port, rvzd_server_addr_t &out) {
    for (uint32_t i = 0; i < host.addr_count; ++i) {
        if (host.addrs[i].base.sa_family != AF_INET)
            continue;
        out.addrs[0] = host.addrs[i];
        sysutl_sockaddr_set_port(&out.addrs[0].base, network_port);
        return TBS_ST_OK;
    }
    return TBS_ST_ERROR;
}

tbs_status_t find_by_ports(rvzd_handle_t *handle, rvzd_find_server_req_t &request, rvzd_server_addr_t &out) {
    rvzd_find_server_reply_t reply = {};
    return broker_call(handle, procedures::find_server, request, reply, [&](clnt_stat outcome) -> tbs_status_t {
        if (outcome != RPC_SUCCESS)
            return TBS_ST_RPC_FAILED;
        if (reply.header.status != TBS_ST_OK)
            return reply.header.status;
        return pair_with_ports(handle->cached->server_addr, reply.ports, out);
    });
}

// The count is 1 whatever comes of the call.
tbs_status_t find_by_address(rvzd_handle_t *handle, rvzd_find_server_req_t &request, rvzd_server_addr_t &out) {
    rvzd_find_server_v70_reply_t reply = {};
    out.addr_count = 1;
    return broker_call(handle, procedures::find_server_v70, request, reply, [&](clnt_stat outcome) -> tbs_status_t {
        if (outcome != RPC_SUCCESS)
            return TBS_ST_RPC_FAILED;
        if (reply.header.status != TBS_ST_OK)
            return reply.header.status;
        return pair_with_v70_port(handle->cached->server_addr, reply.address.sin_port, out);
    });
}

} // namespace

tbs_status_t rvzd_find_server(rvzd_handle_t *handle, rvzd_rpc_trait_t *trait, const tbs_uuid_t *uuid, const char *path,
                              rvzd_server_addr_t *out) {
    return with_lock(call_lock, [&]() -> tbs_status_t {
        if (handle->cached->generic_service && !rvzd_utl_is_generic_service_prog(trait->prog)) {
            tbs_log_int_error(subsystem, &_rvzd_rvzd_msg_table, RVZD_MSG_GENERIC_HANDLE, source_file, __LINE__, 0,
                              static_cast<unsigned long>(trait->prog));
            return TBS_ST_ERROR;
        }
        rvzd_find_server_req_t request = {{}, *trait, *uuid, const_cast<char *>(path)};
        return handle->cached->protocol_version == RVZD_PROTOCOL_V70 ? find_by_address(handle, request, *out)
                                                                     : find_by_ports(handle, request, *out);
    });
}

int rvzd_utl_is_generic_service_prog(uint64_t program) {
    return program == RVZD_GENERIC_SERVICE_PROGRAM;
}
