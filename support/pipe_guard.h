// Keeps a broken connection an error of the call.
#pragma once

#include <rpc/rpc.h>

namespace velia::support {

// Makes every later call of `client`, a TCP client of the RPC library, return RPC_CANTSEND where its write would have
// raised SIGPIPE. What the process does about that signal elsewhere stays as it is.
void guard_against_broken_pipes(CLIENT *client);

} // namespace velia::support
