// The daemon's own sockets.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include <server/rpc/local_sockets.h>
#include <server/rpc/sockets.h>

namespace velia::server {

struct Listeners {
    std::vector<UniqueFd> udp;
    std::vector<UniqueFd> tcp;
    std::vector<LocalSocket> local;                      // of callers of this host
    std::vector<ks_sockaddr_storage_t> addresses;        // of the daemon, with its port
    std::vector<ks_sockaddr_storage_t> server_addresses; // for the sockets of servers, one of each family, any port
};

// A UDP and a TCP socket on each of the named addresses, or, with none named, one dual socket each for all addresses
// where that can be had. None when any of it fails, which is told. `port` in host order.
std::optional<Listeners> open_listeners(const std::vector<std::string> &names, uint16_t port);

// Tells where the daemon listens.
void print_listeners(const Listeners &listeners);

// Enters the daemon's addresses with rpcbind, and takes them out again. False: rpcbind would not, which is told.
bool register_with_rpcbind(const Listeners &listeners);
void unregister_from_rpcbind();

} // namespace velia::server
