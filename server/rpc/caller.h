// The two ends of a call.
#pragma once

#include <optional>
#include <string>

#include <server/loop/fair_queue.h>
#include <server/rpc/call_header.h>
#include <support/sysutl.h>
#include <veliaxdr/rvzd_wire.h>

namespace velia::server {

struct Caller {
    ks_sockaddr_storage_t peer = {};
    ks_sockaddr_storage_t local = {}; // the address of ours to which the call came
    rvzd_protocol_in_t transport = RVZD_PROTOCOL_NONE;
    std::optional<Credentials> credentials; // none: it did not say who it is
};

// An IPv4 address out of its IPv6 wrapping, so that both forms of one host compare and print alike.
ks_sockaddr_storage_t unmapped(const ks_sockaddr_storage_t &address);

// True when the call came from this host: over loopback, or from the address to which it went.
bool is_from_this_host(const Caller &caller);

// Whose the call is where shares are given: its address, of IPv6 the network of it, since a host has as many addresses
// there as it likes; and its port.
Sender sender_of(const Caller &caller);
Sender::Host host_of(const ks_sockaddr_storage_t &address);

// The peer's address without its port.
std::string address_text(const ks_sockaddr_storage_t &address);

} // namespace velia::server
