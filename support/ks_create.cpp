// Clients by host name. The port comes from the port mapper of each address: version 2 for IPv4, version 3 for IPv6.
#include <support/ks.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <arpa/inet.h>
#include <rpc/pmap_prot.h>
#include <rpc/rpcb_prot.h>

#include "rpc_error.h"

namespace {

using velia::support::note_creation_error;

constexpr uint16_t usual_mapper_port = 111;
constexpr timeval mapper_timeout = {5, 0};
constexpr int32_t mapper_retry_s = 1;

struct Wanted {
    uint32_t program;
    uint32_t version;
    bool is_tcp;
};

uint16_t mapper_port() {
    addrinfo *found = nullptr;
    uint16_t port = htons(usual_mapper_port);
    if (sysutl_host_addr(nullptr, "sunrpc", SOCK_DGRAM, &found) == 0) {
        sysutl_sockaddr_get_port(found->ai_addr, &port);
        freeaddrinfo(found);
    }
    return port;
}

// One call to a port mapper over UDP. The reply, which the caller has zeroed, is released by the caller.
clnt_stat ask_mapper(const sockaddr *address, uint32_t mapper_version, uint32_t procedure, xdrproc_t xdr_request,
                     void *request, xdrproc_t xdr_reply, void *reply) {
    ks_sockaddr_storage_t mapper;
    sysutl_copy_sockaddr(&mapper, address);
    sysutl_sockaddr_set_port(&mapper.base, mapper_port());
    int socket_fd = -1;
    CLIENT *client = ks_clntudp_create_sockaddr(&mapper.base, PMAPPROG, mapper_version, mapper_retry_s, 0, &socket_fd);
    if (client == nullptr)
        return ks_rpc_get_createerr()->stat;
    clnt_control(client, CLSET_FD_CLOSE, nullptr);
    const clnt_stat stat = clnt_call(client, procedure, xdr_request, static_cast<char *>(request), xdr_reply,
                                     static_cast<char *>(reply), mapper_timeout);
    clnt_destroy(client);
    return stat;
}

// A universal address ends in the two bytes of the port: "...hhh.lll". 0 for anything else.
unsigned port_of_universal_address(const char *text) {
    unsigned high = 0;
    unsigned low = 0;
    const char *last = strrchr(text, '.');
    if (last == nullptr || last == text)
        return 0;
    const char *before = static_cast<const char *>(memrchr(text, '.', static_cast<size_t>(last - text)));
    if (before == nullptr || sscanf(before, ".%3u.%3u", &high, &low) != 2 || high > 255 || low > 255)
        return 0;
    return high << 8 | low;
}

clnt_stat mapped_port_ipv4(const sockaddr *address, const Wanted &wanted, unsigned &port) {
    const long protocol = wanted.is_tcp ? IPPROTO_TCP : IPPROTO_UDP;
    struct pmap request = {wanted.program, wanted.version, static_cast<rpcprot_t>(protocol), 0};
    unsigned reply = 0;
    const clnt_stat stat = ask_mapper(address, PMAPVERS, PMAPPROC_GETPORT, reinterpret_cast<xdrproc_t>(xdr_pmap),
                                      &request, reinterpret_cast<xdrproc_t>(xdr_u_int), &reply);
    port = reply <= UINT16_MAX ? reply : 0;
    return stat;
}

clnt_stat mapped_port_ipv6(const sockaddr *address, const Wanted &wanted, unsigned &port) {
    char protocol[] = {wanted.is_tcp ? 't' : 'u', wanted.is_tcp ? 'c' : 'd', 'p', '6', '\0'};
    char empty[] = "";
    rpcb request = {wanted.program, wanted.version, protocol, empty, empty};
    char *reply = nullptr;
    const clnt_stat stat = ask_mapper(address, RPCBVERS_3, RPCBPROC_GETADDR, reinterpret_cast<xdrproc_t>(xdr_rpcb),
                                      &request, reinterpret_cast<xdrproc_t>(xdr_wrapstring), &reply);
    port = stat == RPC_SUCCESS && reply != nullptr ? port_of_universal_address(reply) : 0;
    free(reply);
    return stat;
}

// 0 with the creation error noted when the address has no such program.
unsigned mapped_port(const sockaddr *address, const Wanted &wanted) {
    unsigned port = 0;
    const bool is_ipv4 = address->sa_family == AF_INET;
    const clnt_stat stat = is_ipv4 ? mapped_port_ipv4(address, wanted, port) : mapped_port_ipv6(address, wanted, port);
    if (stat != RPC_SUCCESS)
        note_creation_error(RPC_PMAPFAILURE, 0);
    else if (port == 0)
        note_creation_error(RPC_PROGNOTREGISTERED, 0);
    return stat == RPC_SUCCESS ? port : 0;
}

CLIENT *create_at(const sockaddr *address, const Wanted &wanted) {
    constexpr int32_t retransmission_s = 5;
    const unsigned port = mapped_port(address, wanted);
    if (port == 0)
        return nullptr;
    ks_sockaddr_storage_t server;
    sysutl_copy_sockaddr(&server, address);
    sysutl_sockaddr_set_port(&server.base, htons(static_cast<uint16_t>(port)));
    int socket_fd = -1;
    if (wanted.is_tcp)
        return sysutl_clnttcp_create_ext(&server.base, wanted.program, wanted.version, &socket_fd, 0, 0);
    CLIENT *client =
        ks_clntudp_create_sockaddr(&server.base, wanted.program, wanted.version, retransmission_s, 0, &socket_fd);
    if (client != nullptr)
        clnt_control(client, CLSET_FD_CLOSE, nullptr);
    return client;
}

} // namespace

CLIENT *ks_clnt_create(const char *host, uint32_t program, uint32_t version, const char *protocol_name) {
    const bool is_tcp = protocol_name != nullptr && strcmp(protocol_name, "tcp") == 0;
    if (!is_tcp && (protocol_name == nullptr || strcmp(protocol_name, "udp") != 0)) {
        note_creation_error(RPC_UNKNOWNPROTO, 0);
        return nullptr;
    }
    addrinfo *addresses = nullptr;
    if (host == nullptr || sysutl_host_addr(host, nullptr, is_tcp ? SOCK_STREAM : SOCK_DGRAM, &addresses) != 0) {
        note_creation_error(RPC_UNKNOWNHOST, 0);
        return nullptr;
    }
    const Wanted wanted = {program, version, is_tcp};
    CLIENT *client = nullptr;
    for (const addrinfo *at = addresses; at != nullptr && client == nullptr; at = at->ai_next)
        client = create_at(at->ai_addr, wanted);
    freeaddrinfo(addresses);
    return client;
}
