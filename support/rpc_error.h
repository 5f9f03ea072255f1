// Creation errors of the calling thread, for the makers of clients.
#pragma once

#include <rpc/rpc.h>

namespace velia::support {

void note_creation_error(enum clnt_stat stat, int error_number);

// Takes over what the RPC library noted when it failed to make a client.
void note_library_creation_error();

} // namespace velia::support
