// From a host name to a ready RPC client of one of its servers. Raises are inhibited from the start until the
// connection stands and is the caller's, so that a half-made one is never left behind; one that waited lands then.
#include <veliaxdr/rvzd_lookup.h>

#include <cerrno>
#include <unistd.h>

#include <common/trace.h>
#include <common/with.h>
#include <rvzd/client/rvzd_clnt/rvzd_clnt.h>
#include <support/ks.h>
#include <support/stg.h>

using namespace velia;
using namespace velia::rvzd_clnt;

static_assert(sizeof(rvzd_connection_t) == 96);
static_assert(offsetof(rvzd_connection_t, server_addr) == 16);

namespace {

constexpr int trace_level_connections = 2;
constexpr size_t address_text_size = 96;

struct Target {
    const char *host;
    rvzd_rpc_trait_t *trait;
    const tbs_uuid_t *uuid;
    const char *path; // "" for none
    const char *server_name;
};

// One address: how it ended, and what the RPC library said of it.
struct Trial {
    tbs_status_t status;
    char *error_text; // heap, null for none
};

tbs_status_t status_of_creation_error() {
    const ks_rpc_createerr_t *error = ks_rpc_get_createerr();
    const bool refused = error->error_number == ECONNRESET || error->error_number == ECONNREFUSED;
    if (error->stat == RPC_SYSTEMERROR && refused)
        return TBS_ST_ERROR;
    // A failure without an errno must not look like success.
    const auto status = tbs_errno2status(error->error_number);
    return status != TBS_ST_OK ? status : TBS_ST_ERROR;
}

Trial failed_creation(const char *text) {
    const auto status = status_of_creation_error();
    return {status, stg_strdup(ks_clnt_spcreateerror(text))};
}

Trial try_udp(const Target &target, rvzd_connection_t &connection, const ks_sockaddr_storage_t &address) {
    rvzd_socket_desc_t desc;
    const auto status = rvzd_alloc_one_socket(address.base.sa_family, SOCK_DGRAM, target.trait->prog, 1, 1, desc);
    if (status != TBS_ST_OK)
        return {status, nullptr};
    connection.socket_fd = desc.fd;
    connection.client = ks_clntudp_create_sockaddr(&address.base, static_cast<uint32_t>(target.trait->prog),
                                                   static_cast<uint32_t>(target.trait->vers), connection.wait_s, 0,
                                                   &connection.socket_fd);
    if (connection.client != nullptr)
        return {TBS_ST_OK, nullptr};
    const Trial failed = failed_creation("ks_clntudp_create");
    close(connection.socket_fd);
    connection.socket_fd = -1;
    return failed;
}

Trial try_tcp(const Target &target, rvzd_connection_t &connection, const ks_sockaddr_storage_t &address) {
    connection.client =
        ks_clnttcp_create_sockaddr(&address.base, static_cast<uint32_t>(target.trait->prog),
                                   static_cast<uint32_t>(target.trait->vers), &connection.socket_fd, 0, 0);
    return connection.client != nullptr ? Trial{TBS_ST_OK, nullptr} : failed_creation("ks_clnttcp_create");
}

// Tries the addresses in order. When none works the first one's status tells why; when a later one works, what was
// wrong with the first is worth a warning.
tbs_status_t try_addresses(const Target &target, rvzd_connection_t &connection, Trial *trials) {
    const auto attempt = connection.transport == 0 ? try_udp : try_tcp;
    tbs_status_t status = TBS_ST_ERROR;
    for (uint32_t i = 0; i < connection.server_addr.addr_count; ++i) {
        trials[i] = attempt(target, connection, connection.server_addr.addrs[i]);
        status = trials[i].status;
        if (status == TBS_ST_OK)
            break;
    }
    // The caller destroys the client and nothing else, so the client has its socket, whoever opened it.
    if (connection.client != nullptr)
        clnt_control(connection.client, CLSET_FD_CLOSE, nullptr);
    if (status != TBS_ST_OK)
        return trials[0].status;
    if (trials[0].error_text != nullptr)
        imsg_print(IMSG_WARNING, "%s\n", IMSG_FORMAT, trials[0].error_text);
    return status;
}

tbs_status_t open_client(const Target &target, rvzd_connection_t &connection) {
    Trial trials[RVZD_SERVER_ADDRS_MAX] = {};
    return with_release([&] { return try_addresses(target, connection, trials); },
                        [&] {
                            for (Trial &trial : trials) {
                                stg_free(trial.error_text);
                                trial.error_text = nullptr;
                            }
                        });
}

void trace_tcp_connection(const rvzd_connection_t &connection) {
    if (!is_traced(subsystem, trace_level_connections))
        return;
    ks_sockaddr_storage_t local = {};
    ks_sockaddr_storage_t remote = {};
    sockaddr_storage server = {};
    socklen_t length = sizeof local;
    getsockname(connection.socket_fd, &local.base, &length);
    length = sizeof remote;
    if (getpeername(connection.socket_fd, &remote.base, &length) != 0 &&
        clnt_control(connection.client, CLGET_SERVER_ADDR, reinterpret_cast<char *>(&server)))
        sysutl_copy_sockaddr(&remote, reinterpret_cast<sockaddr *>(&server));
    char local_text[address_text_size];
    char remote_text[address_text_size];
    imsg_print(IMSG_TRACE, "rvzd_tcp clnt %p socket %d local %s remote %s\n", IMSG_FORMAT,
               static_cast<void *>(connection.client), connection.socket_fd,
               sysutl_sockaddr_to_str(&local.base, sizeof local_text, local_text),
               sysutl_sockaddr_to_str(&remote.base, sizeof remote_text, remote_text));
}

tbs_status_t look_up(const Target &target, rvzd_handle_t *handle, rvzd_connection_t &connection) {
    const auto status = rvzd_find_server(handle, target.trait, target.uuid, target.path, &connection.server_addr);
    if (status == TBS_ST_OK)
        return status;
    char uuid_text[TBS_UUID_STR_SIZE];
    imsg_print_shared(IMSG_ERROR, subsystem, &_rvzd_rvzd_msg_table, RVZD_MSG_SERVER_NOT_FOUND, target.server_name,
                      tbs_uuid_to_str(target.uuid, uuid_text), target.path, target.host);
    return status;
}

tbs_status_t connect_by_handle(const Target &target, rvzd_handle_t *handle, rvzd_connection_t &connection) {
    auto status = look_up(target, handle, connection);
    if (status != TBS_ST_OK)
        return status;
    require_as(connection.server_addr.addr_count > 0, "handle->server_addr.addr_count > 0", __LINE__);
    status = open_client(target, connection);
    if (status != TBS_ST_OK) {
        imsg_print_shared(IMSG_ERROR, subsystem, &_rvzd_rvzd_msg_table, RVZD_MSG_NO_CONNECTION, target.server_name,
                          target.host);
        return status;
    }
    if (connection.transport != 0)
        trace_tcp_connection(connection);
    return status;
}

tbs_status_t connect_to_target(const Target &target, rvzd_handle_t *&handle, rvzd_connection_t &connection) {
    if (rvzd_get_handle_prim(target.host, 0, &handle) != TBS_ST_OK) {
        imsg_print_shared(IMSG_ERROR, subsystem, &_rvzd_rvzd_msg_table, RVZD_MSG_CANNOT_FIND_BROKER, target.host);
        return TBS_ST_NOT_FOUND;
    }
    const auto status = connect_by_handle(target, handle, connection);
    rvzd_free_handle(handle);
    handle = nullptr;
    return status;
}

// Of what a raise left half-made.
void undo(rvzd_handle_t *&handle, rvzd_connection_t &connection) {
    with_inhibit([&] {
        rvzd_free_handle(handle);
        handle = nullptr;
        if (connection.client != nullptr)
            clnt_destroy(connection.client);
        else if (connection.socket_fd != -1)
            close(connection.socket_fd);
        connection.client = nullptr;
        connection.socket_fd = -1;
    });
}

} // namespace

tbs_status_t rvzd_connect_to_server(const char *host, rvzd_rpc_trait_t *trait, rvzd_connection_t *connection,
                                    const tbs_uuid_t *uuid, const char *path, const char *server_name) {
    const Target target = {host, trait, uuid, path != nullptr ? path : "", server_name};
    rvzd_handle_t *handle = nullptr;
    return with_lock(call_lock, [&] {
        connection->socket_fd = -1;
        connection->client = nullptr;
        return with_inhibit([&] {
            return with_cleanup([&] { return connect_to_target(target, handle, *connection); },
                                [&] { undo(handle, *connection); });
        });
    });
}
