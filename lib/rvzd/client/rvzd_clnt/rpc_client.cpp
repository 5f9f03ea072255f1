// Socket, RPC client and authenticator of a shared record. The first address for which a socket can be had carries the
// traffic; no later step falls back to the other address.
#include <rvzd/client/rvzd_clnt/rpc_client.h>

#include <arpa/inet.h>
#include <cerrno>
#include <unistd.h>

#include <common/trace.h>
#include <common/with.h>
#include <support/credmap.h>
#include <support/ks.h>

using namespace velia;
using namespace velia::rvzd_clnt;

namespace {

constexpr int32_t retransmission_s = 3;
constexpr int trace_level_port = 4;

struct SocketTypeRow {
    int family;
    int socket_type;
    int protocol;
};

// By transport; only the socket type is read.
constexpr SocketTypeRow protocol_types[] = {{0, 0, 0}, {AF_INET, SOCK_DGRAM, 0}, {AF_INET, SOCK_STREAM, 0}};

// The address whose family gives a socket, which is then the record's; null if none does.
ks_sockaddr_storage_t *open_socket(rvzd_cached_handle_t *record) {
    const int socket_type = protocol_types[record->protocol].socket_type;
    for (uint32_t i = 0; i < record->server_addr.addr_count; ++i) {
        ks_sockaddr_storage_t *address = &record->server_addr.addrs[i];
        rvzd_socket_desc_t desc;
        const int family = address->base.sa_family;
        const auto status = with_inhibit([&] {
            const auto allocated = rvzd_alloc_one_socket(family, socket_type, RVZD_PROGRAM, 1, 1, desc);
            record->socket_fd = desc.fd;
            return allocated;
        });
        if (status == TBS_ST_OK)
            return address;
    }
    return nullptr;
}

void close_socket(rvzd_cached_handle_t *record) {
    close(record->socket_fd);
    record->socket_fd = no_socket;
}

bool trace_port(const rvzd_cached_handle_t *record) {
    if (!is_traced(subsystem, trace_level_port))
        return true;
    ks_sockaddr_storage_t local;
    socklen_t length = sizeof local;
    if (getsockname(record->socket_fd, &local.base, &length) != 0) {
        imsg_print(IMSG_ERROR, &_rvzd_rvzd_msg_table, RVZD_MSG_GETSOCKNAME, imsg_strerror(errno));
        return false;
    }
    uint16_t port = 0;
    sysutl_sockaddr_get_port(&local.base, &port);
    imsg_print(IMSG_TRACE, "handle port allocated was %d\n", IMSG_FORMAT, static_cast<int>(ntohs(port)));
    return true;
}

bool make_udp_client(rvzd_cached_handle_t *record, const ks_sockaddr_storage_t *address) {
    record->client =
        ks_clntudp_create_sockaddr(&address->base, RVZD_PROGRAM, RVZD_VERSION, retransmission_s, 0, &record->socket_fd);
    if (record->client == nullptr)
        ks_clnt_pcreateerror("rpcudp_create");
    return record->client != nullptr;
}

// A socket of our own, bound by the strict range, has to be connected by hand.
bool make_bound_tcp_client(rvzd_cached_handle_t *record) {
    const ks_sockaddr_storage_t *address = open_socket(record);
    if (address == nullptr)
        return false;
    const int error_number = ks_connect(record->socket_fd, &address->base);
    if (error_number != 0) {
        imsg_print(IMSG_ERROR, &_rvzd_rvzd_msg_table, RVZD_MSG_CONNECT_FAILED, imsg_strerror(error_number));
        return false;
    }
    record->client = ks_clnttcp_create_sockaddr(&address->base, RVZD_PROGRAM, RVZD_VERSION, &record->socket_fd, 0, 0);
    if (record->client == nullptr) {
        ks_clnt_pcreateerror("rpctcp_create");
        return false;
    }
    clnt_control(record->client, CLSET_FD_CLOSE, nullptr);
    return true;
}

bool make_tcp_client(rvzd_cached_handle_t *record, const ks_sockaddr_storage_t *address, uint32_t program) {
    uint16_t low;
    uint16_t high;
    int32_t strict = 0;
    const bool has_range = rvzd_bindport_has_port_range(program, &low, &high, &strict) != 0;
    close_socket(record);
    if (has_range && strict)
        return make_bound_tcp_client(record);
    record->client = sysutl_clnttcp_create_ext(&address->base, RVZD_PROGRAM, RVZD_VERSION, &record->socket_fd, 0, 0);
    if (record->client == nullptr)
        ks_clnt_pcreateerror("rpctcp_create");
    return record->client != nullptr;
}

bool make_rpc_client(rvzd_cached_handle_t *record, const ks_sockaddr_storage_t *address, uint32_t program) {
    switch (record->protocol) {
    case RVZD_PROTOCOL_UDP:
        return make_udp_client(record, address);
    case RVZD_PROTOCOL_TCP:
        return make_tcp_client(record, address, program);
    default:
        pfm_panic(source_file, __LINE__);
    }
}

bool set_authenticator(rvzd_cached_handle_t *record) {
    AUTH *authenticator =
        record->prim ? credmap_auth_create_default(record->host_name) : credmap_authunix_create_nobody();
    if (authenticator == nullptr)
        return false;
    if (record->client->cl_auth != nullptr)
        auth_destroy(record->client->cl_auth);
    record->client->cl_auth = authenticator;
    return true;
}

} // namespace

ClientResult velia::rvzd_clnt::make_client(rvzd_cached_handle_t *record, uint32_t program) {
    if (record->protocol != RVZD_PROTOCOL_UDP && record->protocol != RVZD_PROTOCOL_TCP)
        pfm_panic(source_file, __LINE__);
    record->uniquifier = sysutl_sock_port_uniquifier();
    record->last_contact = 0;
    record->sequence = 0;
    record->program = program;
    record->generation = process_generation();
    const ks_sockaddr_storage_t *address = open_socket(record);
    // A raise between the making of a client and its place in the record would lose it.
    const auto is_made = [&] { return with_inhibit([&] { return make_rpc_client(record, address, program); }); };
    if (address == nullptr || !trace_port(record) || !is_made())
        return ClientResult::failed;
    sysutl_set_cloexec_file(record->socket_fd, 1);
    if (!set_authenticator(record))
        return ClientResult::no_authenticator;
    // A record of the same key that is already known has just been talked to; its twin here need not ask again. A
    // record that reconnects meets itself, and so asks.
    const uint32_t bucket = bucket_of(record->host_name, record->protocol);
    const rvzd_cached_handle_t *known = find_record(bucket, {record->host_name, record->protocol, record->prim});
    if (known != nullptr) {
        record->last_contact = known->last_contact;
        record->protocol_version = known->protocol_version;
    }
    return ClientResult::made;
}

bool velia::rvzd_clnt::renew_connection(rvzd_cached_handle_t *record) {
    const auto drop = [&] { with_inhibit([&] { drop_connection(record); }); };
    drop();
    const bool is_made = with_cleanup([&] { return make_client(record, record->program) == ClientResult::made; }, drop);
    if (!is_made) {
        drop();
        imsg_print(IMSG_ERROR, &_rvzd_rvzd_msg_table, RVZD_MSG_CANNOT_CONTACT, record->host_name);
    }
    return is_made;
}
