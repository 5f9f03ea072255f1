// An RPC client whose transport is the scripted peer.
#pragma once

#include <cstdint>

#include <rpc/rpc.h>

namespace sim {

// `owned_fd` is closed with the client when it was told to (CLSET_FD_CLOSE) or made the socket itself.
CLIENT *make_client(const sockaddr *address, uint32_t program, uint32_t version, int socket_fd, bool tcp,
                    bool owns_socket);

} // namespace sim
