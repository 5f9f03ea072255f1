// Questions about a caller's address.
#include <server/rpc/caller.h>

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cstring>
#include <unistd.h>

namespace velia::server {

namespace {

constexpr uint32_t nobodies[] = {65534, UINT32_MAX, UINT32_MAX - 1};

} // namespace

bool is_administrator(uid_t user) {
    return user == 0 || user == geteuid();
}

bool KnownCaller::is_in(gid_t group) const {
    return group == gid || (groups != nullptr && std::find(groups->begin(), groups->end(), group) != groups->end());
}

KnownCaller known_by_both(const KnownCaller &maker, const KnownCaller &sender) {
    const bool is_sender_lent = is_administrator(sender.uid) && !is_administrator(maker.uid);
    KnownCaller known = is_sender_lent ? maker : sender;
    known.pid = maker.pid == sender.pid ? sender.pid : 0;
    known.groups = maker.pid == sender.pid && maker.uid == sender.uid ? maker.groups : nullptr;
    return known;
}

bool is_somebody(const std::optional<Credentials> &credentials) {
    return credentials && std::none_of(std::begin(nobodies), std::end(nobodies),
                                       [&](uint32_t nobody) { return credentials->uid == nobody; });
}

std::optional<Credentials> believed(const std::optional<Credentials> &claimed,
                                    const std::optional<KnownCaller> &known) {
    return known && is_somebody(claimed) ? Credentials{known->uid, known->gid} : claimed;
}

ks_sockaddr_storage_t unmapped(const ks_sockaddr_storage_t &address) {
    if (address.base.sa_family != AF_INET6 || !IN6_IS_ADDR_V4MAPPED(&address.ipv6.sin6_addr))
        return address;
    ks_sockaddr_storage_t plain = {};
    plain.ipv4.sin_family = AF_INET;
    plain.ipv4.sin_port = address.ipv6.sin6_port;
    memcpy(&plain.ipv4.sin_addr, address.ipv6.sin6_addr.s6_addr + 12, sizeof plain.ipv4.sin_addr);
    return plain;
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
    if (caller.known)
        return {{AF_UNIX, caller.known->uid}, static_cast<uint64_t>(caller.known->pid)};
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
