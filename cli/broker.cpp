// One contact, with the time-out that the user gave.
#include <cli/broker.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <memory>

#include <netdb.h>
#include <unistd.h>

#include <cli/messages.h>
#include <support/credmap.h>
#include <support/ks.h>
#include <veliaxdr/rvzd_messages.h>
#include <veliaxdr/rvzd_socket.h>
#include <veliaxdr/rvzd_wire.h>

namespace velia::cli {

namespace {

constexpr Duration retransmission = std::chrono::seconds(3);

struct DestroyClient {
    void operator()(CLIENT *client) const {
        auth_destroy(client->cl_auth);
        clnt_destroy(client);
    }
};
using Client = std::unique_ptr<CLIENT, DestroyClient>;

Client make_client(const ks_sockaddr_storage_t &address, uint32_t protocol, Duration timeout) {
    int fd = -1;
    CLIENT *client = protocol == RVZD_PROTOCOL_TCP
                         ? ks_clnttcp_create_sockaddr(&address.base, RVZD_PROGRAM, RVZD_VERSION, &fd, 0, 0)
                         : ks_clntudp_create_sockaddr(&address.base, RVZD_PROGRAM, RVZD_VERSION,
                                                      whole_seconds(retransmission), 0, &fd);
    if (client == nullptr) {
        ks_clnt_pcreateerror(text_of_address(address).c_str());
        return {};
    }
    clnt_control(client, CLSET_FD_CLOSE, nullptr);
    wait_no_longer(client, timeout);
    AUTH *nobody = credmap_authunix_create_nobody();
    if (nobody != nullptr) {
        auth_destroy(client->cl_auth);
        client->cl_auth = nobody;
    }
    return Client(client);
}

bool contact(const ks_sockaddr_storage_t &address, uint32_t protocol, Duration timeout, Reach &reach) {
    const auto start = std::chrono::steady_clock::now();
    const Client client = make_client(address, protocol, timeout);
    if (!client)
        return false;
    rvzd_contact_req_t request = {{}, RVZD_PROTOCOL_CURRENT};
    rvzd_contact_reply_t reply = {};
    const auto outcome =
        clnt_call(client.get(), RVZD_PROC_CONTACT, reinterpret_cast<xdrproc_t>(xdr_rvzd_contact_req_t), &request,
                  reinterpret_cast<xdrproc_t>(xdr_rvzd_contact_reply_t), &reply, timeval_of(timeout));
    if (outcome != RPC_SUCCESS) {
        ks_clnt_perror(client.get(), text_of_address(address).c_str());
        return false;
    }
    const std::chrono::duration<double, std::milli> elapsed = std::chrono::steady_clock::now() - start;
    reach = {true, elapsed.count(), text_of_address(address)};
    return true;
}

using Addresses = std::unique_ptr<addrinfo, decltype(&freeaddrinfo)>;

Addresses look_up(const std::string &host) {
    addrinfo *list = nullptr;
    const int code = sysutl_host_addr(host.c_str(), nullptr, 0, &list);
    if (code != 0)
        tell_failure_by(TBS_ST_NOT_FOUND, host, [&] {
            imsg_print(IMSG_ERROR, &_rvzd_rvzd_msg_table, RVZD_MSG_UNKNOWN_HOST, host.c_str(), gai_strerror(code));
        });
    return {list, freeaddrinfo};
}

} // namespace

Reach reach_broker(const std::string &host, uint32_t protocol, Duration timeout) {
    Reach reach;
    const Addresses addresses = look_up(host);
    if (!addresses)
        return reach;
    for (const addrinfo *entry = addresses.get(); entry != nullptr && !reach.answered; entry = entry->ai_next) {
        ks_sockaddr_storage_t address;
        sysutl_copy_sockaddr(&address, entry->ai_addr);
        uint16_t port = 0;
        rvzd_get_port(host.c_str(), &port, address.base.sa_family);
        sysutl_sockaddr_set_port(&address.base, port);
        contact(address, protocol, timeout, reach);
    }
    if (!reach.answered)
        tell_failure_by(TBS_ST_RPC_FAILED, host,
                        [&] { imsg_print(IMSG_ERROR, &_rvzd_rvzd_msg_table, RVZD_MSG_CANNOT_CONTACT, host.c_str()); });
    return reach;
}

void set_timeout(rvzd_handle_t *handle, Duration timeout) {
    const timeval time = timeval_of(timeout);
    handle->tv_sec = time.tv_sec;
    handle->tv_usec = time.tv_usec;
}

void wait_no_longer(CLIENT *client, Duration timeout) {
    timeval wait = timeval_of(std::min(timeout, retransmission));
    clnt_control(client, CLSET_RETRY_TIMEOUT, reinterpret_cast<char *>(&wait));
}

std::string text_of_address(const ks_sockaddr_storage_t &address) {
    std::array<char, 96> text;
    return sysutl_sockaddr_to_str(&address.base, text.size(), text.data());
}

uint32_t protocol_of_name(const std::string &name) {
    return name == rvzd_protocol_names[RVZD_PROTOCOL_TCP] ? RVZD_PROTOCOL_TCP : RVZD_PROTOCOL_UDP;
}

} // namespace velia::cli
