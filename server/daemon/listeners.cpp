// Where the daemon listens. A port that another daemon holds is the one failure with words of its own.
#include <server/daemon/listeners.h>

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <thread>

#include <rpc/rpc.h>
#include <rpc/rpcb_clnt.h>

#include <server/messages.h>
#include <support/env.h>
#include <veliaxdr/rvzd_wire.h>

namespace velia::server {

namespace {

constexpr int ipv4_only = 4;

void print_fault(const SocketFault &fault) {
    if (fault.message == MSG_BIND_FAILED && fault.error_number == EADDRINUSE)
        print(IMSG_ERROR, MSG_ALREADY_RUNNING);
    else
        print(IMSG_ERROR, fault.message, imsg_strerror(fault.error_number));
}

// A daemon that was killed while it was making a process leaves its sockets to that for a moment.
UniqueFd open_soon(const ks_sockaddr_storage_t &address, int type, bool is_dual, SocketFault *fault) {
    constexpr int attempts = 100;
    constexpr std::chrono::milliseconds wait(10);
    auto socket = open_listening_socket({address, type, is_dual, 0}, fault);
    for (int i = 0; i < attempts && !socket && fault->error_number == EADDRINUSE; ++i) {
        std::this_thread::sleep_for(wait);
        socket = open_listening_socket({address, type, is_dual, 0}, fault);
    }
    return socket;
}

bool open_pair(const ks_sockaddr_storage_t &address, bool is_dual, Listeners &listeners, SocketFault *fault) {
    auto udp = open_soon(address, SOCK_DGRAM, is_dual, fault);
    if (!udp)
        return false;
    auto tcp = open_soon(address, SOCK_STREAM, is_dual, fault);
    if (!tcp)
        return false;
    listeners.udp.push_back(std::move(udp));
    listeners.tcp.push_back(std::move(tcp));
    listeners.addresses.push_back(address);
    return true;
}

bool is_missing_family(const SocketFault &fault) {
    return fault.error_number == EAFNOSUPPORT || fault.error_number == EADDRNOTAVAIL;
}

bool ipv6_is_forbidden() {
    std::array<char, 256> text;
    return getenv_safe("IVL_IP_VERSION", text.data(), text.size(), 0) != nullptr && atoi(text.data()) == ipv4_only;
}

bool open_wildcard(uint16_t port, Listeners &listeners) {
    auto ipv6 = wildcard_address(AF_INET6);
    auto ipv4 = wildcard_address(AF_INET);
    listeners.server_addresses = {ipv6, ipv4};
    sysutl_sockaddr_set_port(&ipv6.base, htons(port));
    sysutl_sockaddr_set_port(&ipv4.base, htons(port));
    SocketFault fault;
    if (!ipv6_is_forbidden()) {
        if (open_pair(ipv6, true, listeners, &fault))
            return true;
        if (!is_missing_family(fault)) {
            print_fault(fault);
            return false;
        }
    }
    listeners.server_addresses = {wildcard_address(AF_INET)};
    if (open_pair(ipv4, false, listeners, &fault))
        return true;
    if (is_missing_family(fault))
        print(IMSG_ERROR, MSG_CANNOT_BIND_ANY);
    else
        print_fault(fault);
    return false;
}

bool open_named(const std::string &name, uint16_t port, Listeners &listeners) {
    auto address = resolve_address(name);
    if (!address) {
        print(IMSG_ERROR, RVZD_MSG_UNKNOWN_HOST, name.c_str(), "not an address, and no host of that name");
        return false;
    }
    const int family = address->base.sa_family;
    auto &servers = listeners.server_addresses;
    if (std::none_of(servers.begin(), servers.end(), [&](const auto &known) { return known.base.sa_family == family; }))
        servers.push_back(*address);
    sysutl_sockaddr_set_port(&address->base, htons(port));
    SocketFault fault;
    if (open_pair(*address, false, listeners, &fault))
        return true;
    print_fault(fault);
    return false;
}

constexpr std::array netids_ipv6 = {"udp6", "tcp6"};
constexpr std::array netids_ipv4 = {"udp", "tcp"};

bool enter_address(const char *netid, const ks_sockaddr_storage_t &address) {
    auto copy = address;
    netconfig *config = getnetconfigent(netid);
    if (config == nullptr)
        return false;
    netbuf buffer = {sizeof copy, sysutl_sockaddr_size(&copy.base), &copy};
    const bool is_entered = rpcb_set(RVZD_PROGRAM, RVZD_VERSION, config, &buffer) != FALSE;
    freenetconfigent(config);
    return is_entered;
}

} // namespace

std::optional<Listeners> open_listeners(const std::vector<std::string> &names, uint16_t port) {
    Listeners listeners;
    const bool is_open = names.empty() ? open_wildcard(port, listeners)
                                       : std::all_of(names.begin(), names.end(), [&](const std::string &name) {
                                             return open_named(name, port, listeners);
                                         });
    return is_open ? std::optional(std::move(listeners)) : std::nullopt;
}

void print_listeners(const Listeners &listeners) {
    for (const auto &address : listeners.addresses) {
        std::array<char, 128> text = {};
        print(IMSG_PLAIN, MSG_LISTENING_ON, sysutl_myhostname(),
              sysutl_sockaddr_to_str(&address.base, text.size(), text.data()));
    }
}

bool register_with_rpcbind(const Listeners &listeners) {
    unregister_from_rpcbind(); // what a daemon that was killed left behind
    bool is_registered = true;
    for (const auto &address : listeners.addresses) {
        const bool is_ipv6 = address.base.sa_family == AF_INET6;
        for (const char *netid : is_ipv6 ? netids_ipv6 : netids_ipv4)
            is_registered &= enter_address(netid, address);
        // The dual socket takes IPv4 as well.
        if (is_ipv6 && IN6_IS_ADDR_UNSPECIFIED(&address.ipv6.sin6_addr)) {
            auto ipv4 = wildcard_address(AF_INET);
            ipv4.ipv4.sin_port = address.ipv6.sin6_port;
            for (const char *netid : netids_ipv4)
                is_registered &= enter_address(netid, ipv4);
        }
    }
    if (!is_registered)
        print(IMSG_ERROR, MSG_CANNOT_REGISTER);
    return is_registered;
}

void unregister_from_rpcbind() {
    for (const char *netid : {"udp6", "tcp6", "udp", "tcp"})
        if (netconfig *config = getnetconfigent(netid)) {
            rpcb_unset(RVZD_PROGRAM, RVZD_VERSION, config);
            freenetconfigent(config);
        }
}

} // namespace velia::server
