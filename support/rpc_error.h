// Creation errors of the calling thread, for the makers of clients.
#pragma once

#include <rpc/rpc.h>

namespace velia::support {

void note_creation_error(enum clnt_stat stat, int error_number);

} // namespace velia::support
