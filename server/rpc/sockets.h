// Sockets on which this host listens: the daemon's own, and those that it opens for a server.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include <server/loop/unique_fd.h>
#include <support/sysutl.h>

namespace velia::server {

// What kept a socket from being had: a row of the broker's table and the system's word.
struct SocketFault {
    int message = 0;
    int error_number = 0;
};

struct SocketRequest {
    ks_sockaddr_storage_t address; // port in network order, 0 for any
    int type;                      // SOCK_DGRAM or SOCK_STREAM
    bool is_dual = false;          // an IPv6 wildcard that takes IPv4 as well
    uint64_t ruled_program = 0;    // not 0: the port rule of this program, where it has one
};

// Bound, for streams listening, close-on-exec and non-blocking; no descriptor and *fault otherwise.
UniqueFd open_listening_socket(const SocketRequest &request, SocketFault *fault);

ks_sockaddr_storage_t wildcard_address(int family);

// A numeric address, or the first of a host's; none when the name is not known.
std::optional<ks_sockaddr_storage_t> resolve_address(const std::string &text);

} // namespace velia::server
