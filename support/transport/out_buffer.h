// The bytes of a request, as an XDR stream that grows with what is encoded.
#pragma once

#include <cstddef>

#include <rpc/rpc.h>

namespace velia::support::transport {

struct OutBuffer {
    char *bytes;
    size_t capacity;
    size_t used;
    size_t longest; // what the transport can carry
};

// An empty encoding stream over the buffer. It is not destroyed; the buffer is the owner's. A position beyond what has
// been encoded cannot be set.
void encode_into(XDR *stream, OutBuffer &buffer);

void release(OutBuffer &buffer);

} // namespace velia::support::transport
