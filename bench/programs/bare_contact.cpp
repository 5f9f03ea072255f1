// The same contact by the RPC library alone: name and service look-up, a client, one call.
#include <cstddef>

#include <netdb.h>

#include <support/credmap.h>
#include <support/ks.h>
#include <veliaxdr/rvzd_wire.h>

int main(int argc, char **argv) {
    addrinfo *host = nullptr;
    addrinfo *service = nullptr;
    if (argc < 2 || sysutl_host_addr(argv[1], nullptr, 0, &host) != 0 ||
        sysutl_host_addr(nullptr, "rvzd", SOCK_DGRAM, &service) != 0)
        return 1;
    uint16_t port = 0;
    sysutl_sockaddr_get_port(service->ai_addr, &port);
    sysutl_sockaddr_set_port(host->ai_addr, port);
    int fd = -1;
    CLIENT *client = ks_clntudp_create_sockaddr(host->ai_addr, RVZD_PROGRAM, RVZD_VERSION, 3, 0, &fd);
    if (client == nullptr)
        return 1;
    client->cl_auth = credmap_authunix_create_nobody();
    rvzd_contact_req_t request = {{}, RVZD_PROTOCOL_CURRENT};
    rvzd_contact_reply_t reply = {};
    return clnt_call(client, RVZD_PROC_CONTACT, reinterpret_cast<xdrproc_t>(xdr_rvzd_contact_req_t), &request,
                     reinterpret_cast<xdrproc_t>(xdr_rvzd_contact_reply_t), &reply, (timeval{25, 0})) != RPC_SUCCESS;
}
