// Reply messages, encoded by the RPC library.
#pragma once

#include <cstdint>
#include <vector>

#include <rpc/rpc.h>

namespace velia::server {

using MessageBytes = std::vector<unsigned char>;

// A list that has no pieces may be longer, up to what a connection may have unsent.
enum { REPLY_BYTES_MAX = 65536, LIST_BYTES_MAX = (1 << 20) - 1024 };

// The results of a procedure that was run. A record that cannot be encoded becomes SYSTEM_ERR.
MessageBytes encode_success(uint32_t xid, xdrproc_t routine, void *record, uint32_t bytes_max = REPLY_BYTES_MAX);

// The call was understood and not run; `low` and `high` belong to PROG_MISMATCH.
MessageBytes encode_refusal(uint32_t xid, accept_stat why, uint32_t low = 0, uint32_t high = 0);

MessageBytes encode_rpc_mismatch(uint32_t xid);
MessageBytes encode_auth_error(uint32_t xid, auth_stat why);

} // namespace velia::server
