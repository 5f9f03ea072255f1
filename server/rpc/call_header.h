// The header of an RPC call message as it arrives: read by a bounded reader, judged before anything is decoded by
// length words of a stranger.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

namespace velia::server {

using Bytes = std::span<const unsigned char>;

// Takes big-endian words and opaque fields off the front; false as soon as they are not there.
class ByteReader {
public:
    explicit ByteReader(Bytes bytes) : rest_(bytes) {}

    bool word(uint32_t &value);
    // A length word of at most `length_max`, its bytes, and the fill to a multiple of four.
    bool opaque(uint32_t length_max, Bytes &value);
    Bytes rest() const { return rest_; }

private:
    Bytes rest_;
};

enum class CallFault {
    none,
    no_call,         // too short, or no call message at all: no answer is owed
    rpc_version,     // another version of the RPC protocol itself
    bad_credentials, // credentials that cannot be read
    unknown_flavor,  // credentials of a kind that is not understood here
};

// Who the caller says he is. It proves nothing, and tells a careful client from one that says nothing.
struct Credentials {
    uint32_t uid = 0;
    uint32_t gid = 0;
};

struct CallHeader {
    CallFault fault = CallFault::no_call;
    uint32_t xid = 0;
    uint32_t program = 0;
    uint32_t version = 0;
    uint32_t procedure = 0;
    std::optional<Credentials> credentials;
    Bytes arguments;
};

CallHeader read_call_header(Bytes message);

} // namespace velia::server
