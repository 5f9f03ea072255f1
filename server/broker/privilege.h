// Who may administer servers.
#pragma once

#include <server/rpc/caller.h>

namespace velia::server {

// True when the call comes from this host, out of a socket that the kernel says belongs to root or to the daemon's own
// user. What the call's credentials claim is not asked: anyone can write them, and clients send those of nobody.
bool is_privileged(const Caller &caller);

} // namespace velia::server
