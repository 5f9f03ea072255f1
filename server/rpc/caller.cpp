// Questions about a caller's address.
#include <server/rpc/caller.h>

#include <arpa/inet.h>
#include <array>
#include <cstring>

namespace velia::server {

namespace {

bool same_host(const ks_sockaddr_storage_t &left, const ks_sockaddr_storage_t &right) {
    if (left.base.sa_family != right.base.sa_family)
        return false;
    if (left.base.sa_family == AF_INET)
        return left.ipv4.sin_addr.s_addr == right.ipv4.sin_addr.s_addr;
    return memcmp(&left.ipv6.sin6_addr, &right.ipv6.sin6_addr, sizeof left.ipv6.sin6_addr) == 0;
}

bool is_loopback(const ks_sockaddr_storage_t &address) {
    if (address.base.sa_family == AF_INET)
        return ntohl(address.ipv4.sin_addr.s_addr) >> 24 == IN_LOOPBACKNET;
    return address.base.sa_family == AF_INET6 && IN6_IS_ADDR_LOOPBACK(&address.ipv6.sin6_addr);
}

} // namespace

ks_sockaddr_storage_t unmapped(const ks_sockaddr_storage_t &address) {
    if (address.base.sa_family != AF_INET6 || !IN6_IS_ADDR_V4MAPPED(&address.ipv6.sin6_addr))
        return address;
    ks_sockaddr_storage_t plain = {};
    plain.ipv4.sin_family = AF_INET;
    plain.ipv4.sin_port = address.ipv6.sin6_port;
    memcpy(&plain.ipv4.sin_addr, address.ipv6.sin6_addr.s6_addr + 12, sizeof plain.ipv4.sin_addr);
    return plain;
}

bool is_from_this_host(const Caller &caller) {
    const auto peer = unmapped(caller.peer);
    return is_loopback(peer) || same_host(peer, unmapped(caller.local));
}

Sender::Host host_of(const ks_sockaddr_storage_t &address) {
    const auto plain = unmapped(address);
    Sender::Host host = {plain.base.sa_family, 0};
    if (plain.base.sa_family == AF_INET6)
        memcpy(&host[1], &plain.ipv6.sin6_addr, sizeof host[1]);
    else if (plain.base.sa_family == AF_INET)
        host[1] = plain.ipv4.sin_addr.s_addr;
    return host;
}

Sender sender_of(const Caller &caller) {
    const auto &peer = caller.peer;
    return {host_of(peer), peer.base.sa_family == AF_INET6 ? peer.ipv6.sin6_port : peer.ipv4.sin_port};
}

std::string address_text(const ks_sockaddr_storage_t &address) {
    const auto plain = unmapped(address);
    std::array<char, INET6_ADDRSTRLEN> text = {};
    const void *bytes = plain.base.sa_family == AF_INET ? static_cast<const void *>(&plain.ipv4.sin_addr)
                                                        : static_cast<const void *>(&plain.ipv6.sin6_addr);
    if (inet_ntop(plain.base.sa_family, bytes, text.data(), text.size()) == nullptr)
        return "unknown";
    return text.data();
}

} // namespace velia::server
