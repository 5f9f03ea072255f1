// Gives a record that has none its connection: socket, RPC client, authenticator.
#pragma once

#include <rvzd/client/rvzd_clnt/cached_handle.h>

namespace velia::rvzd_clnt {

enum class ClientResult {
    made,
    failed,           // TBS_ST_ERROR; told where it was seen
    no_authenticator, // TBS_ST_ERROR; not worth a second attempt
};

// `program` selects the port rule of a TCP connection. What was opened when this fails stays in the record, whose
// release closes it.
ClientResult make_client(rvzd_cached_handle_t *record, uint32_t program);

// Gives a record that is in use another connection: the one it has is of the parent of this process. False, told, with
// no connection.
bool renew_connection(rvzd_cached_handle_t *record);

} // namespace velia::rvzd_clnt
