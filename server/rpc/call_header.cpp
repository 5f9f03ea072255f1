// Call headers by RFC 5531: xid, direction, RPC version, program, version, procedure, credentials, verifier.
#include <server/rpc/call_header.h>

#include <rpc/rpc.h>

namespace velia::server {

namespace {

constexpr uint32_t auth_bytes_max = MAX_AUTH_BYTES;
constexpr uint32_t machine_name_max = 255;
constexpr uint32_t groups_max = 16;
constexpr size_t word_bytes = 4;

std::optional<Credentials> read_auth_sys(Bytes body) {
    ByteReader reader(body);
    Credentials credentials;
    uint32_t stamp = 0;
    uint32_t group_count = 0;
    Bytes machine_name;
    const bool is_whole = reader.word(stamp) && reader.opaque(machine_name_max, machine_name) &&
                          reader.word(credentials.uid) && reader.word(credentials.gid) && reader.word(group_count) &&
                          group_count <= groups_max && reader.rest().size() == group_count * word_bytes;
    return is_whole ? std::optional(credentials) : std::nullopt;
}

CallFault read_credentials(uint32_t flavor, Bytes body, std::optional<Credentials> &credentials) {
    if (flavor == AUTH_NONE)
        return CallFault::none;
    if (flavor != AUTH_SYS)
        return CallFault::unknown_flavor;
    credentials = read_auth_sys(body);
    return credentials ? CallFault::none : CallFault::bad_credentials;
}

} // namespace

bool ByteReader::word(uint32_t &value) {
    if (rest_.size() < word_bytes)
        return false;
    value = static_cast<uint32_t>(rest_[0]) << 24 | static_cast<uint32_t>(rest_[1]) << 16 |
            static_cast<uint32_t>(rest_[2]) << 8 | rest_[3];
    rest_ = rest_.subspan(word_bytes);
    return true;
}

bool ByteReader::opaque(uint32_t length_max, Bytes &value) {
    uint32_t length = 0;
    if (!word(length) || length > length_max)
        return false;
    const size_t padded_length = (static_cast<size_t>(length) + word_bytes - 1) / word_bytes * word_bytes;
    if (padded_length > rest_.size())
        return false;
    value = rest_.first(length);
    rest_ = rest_.subspan(padded_length);
    return true;
}

CallHeader read_call_header(Bytes message) {
    CallHeader header;
    ByteReader reader(message);
    uint32_t direction = 0;
    uint32_t rpc_version = 0;
    if (!reader.word(header.xid) || !reader.word(direction) || direction != CALL || !reader.word(rpc_version))
        return header;
    if (rpc_version != RPC_MSG_VERSION) {
        header.fault = CallFault::rpc_version;
        return header;
    }
    uint32_t flavor = 0;
    uint32_t verifier_flavor = 0;
    Bytes credentials;
    Bytes verifier;
    const bool is_whole = reader.word(header.program) && reader.word(header.version) && reader.word(header.procedure) &&
                          reader.word(flavor) && reader.opaque(auth_bytes_max, credentials) &&
                          reader.word(verifier_flavor) && reader.opaque(auth_bytes_max, verifier);
    if (!is_whole)
        return header;
    header.fault = read_credentials(flavor, credentials, header.credentials);
    header.arguments = reader.rest();
    return header;
}

} // namespace velia::server
