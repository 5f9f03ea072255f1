// Whose the socket is out of which a call over IP came, for servers that do not speak over the socket of this host.
#pragma once

#include <cstdint>

#include <server/rpc/caller.h>

namespace velia::server {

// True when the kernel's socket diagnosis knows exactly the socket that has the call's addresses, and the process has
// it open. Not for a socket that is closed, one that takes calls from anywhere else than the daemon, or a socket that
// the daemon itself has.
bool owns_socket(int32_t pid, const Caller &caller);

} // namespace velia::server
