// The two ends of a call.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

#include <server/loop/fair_queue.h>
#include <server/rpc/call_header.h>
#include <support/sysutl.h>
#include <veliaxdr/rvzd_wire.h>

namespace velia::server {

// Root, and the daemon's own user.
bool is_administrator(uid_t user);

// Who calls over a socket of this host, by the kernel's word.
struct KnownCaller {
    pid_t pid = 0; // 0: of a process that cannot be seen from here
    uid_t uid = UINT32_MAX;
    gid_t gid = UINT32_MAX;
    // Further ones, as of when the connection was made, where the process that made it is it that speaks; null: none.
    std::shared_ptr<const std::vector<gid_t>> groups = nullptr;

    bool is_in(gid_t group) const;
    bool operator==(const KnownCaller &) const = default;
};

struct Caller {
    ks_sockaddr_storage_t peer = {};
    ks_sockaddr_storage_t local = {}; // the address of ours to which the call came
    rvzd_protocol_in_t transport = RVZD_PROTOCOL_NONE;
    std::optional<KnownCaller> known;       // none: it came over IP, and is a stranger from wherever
    std::optional<Credentials> credentials; // none: it did not say who it is
};

// Who it is for whom one process made a connection, and another, or the same as another user, sends over it. A process
// that was brought to write for somebody else lends him nothing, and whoever was left a connection has nothing of its
// maker: rights are those that both have, and no process is it but the one that did both.
KnownCaller known_by_both(const KnownCaller &maker, const KnownCaller &sender);

// True for credentials of somebody, not of nobody.
bool is_somebody(const std::optional<Credentials> &credentials);

// What a caller claims to be; whoever is known is who it is, but may still be nobody if it wants to.
std::optional<Credentials> believed(const std::optional<Credentials> &claimed, const std::optional<KnownCaller> &known);

// An IPv4 address out of its IPv6 wrapping, so that both forms of one host compare and print alike.
ks_sockaddr_storage_t unmapped(const ks_sockaddr_storage_t &address);

// Whose the call is where shares are given: its address, of IPv6 the network of it, since a host has as many addresses
// there as it likes; and its port. Of whoever is known, its user and its process.
Sender sender_of(const Caller &caller);
Sender::Host host_of(const ks_sockaddr_storage_t &address);

// The peer's address without its port.
std::string address_text(const ks_sockaddr_storage_t &address);

} // namespace velia::server
