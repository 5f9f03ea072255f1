// An RPC client whose transport is the scripted peer.
#pragma once

#include <cstdint>

#include <rpc/rpc.h>

namespace sim {

// `socket_fd` is closed with the client where it owns it, or was given it since (CLSET_FD_CLOSE).
CLIENT *make_client(const sockaddr *address, uint32_t program, uint32_t version, int socket_fd, bool tcp,
                    bool owns_socket);

} // namespace sim
