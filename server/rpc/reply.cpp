// One encoder for every form of reply: the form is a filled rpc_msg.
#include <server/rpc/reply.h>

#include <array>

namespace velia::server {

namespace {

// How much of the buffer it takes; 0 when the message cannot be encoded.
uint32_t encode_into(rpc_msg &message, unsigned char *buffer, uint32_t size) {
    XDR stream;
    xdrmem_create(&stream, reinterpret_cast<char *>(buffer), size, XDR_ENCODE);
    const u_int length = xdr_replymsg(&stream, &message) ? xdr_getpos(&stream) : 0;
    xdr_destroy(&stream);
    return length;
}

// Empty when the message cannot be encoded. Each thread has a buffer to encode in, which only a long list outgrows.
MessageBytes encode(rpc_msg &message, uint32_t bytes_max = REPLY_BYTES_MAX) {
    static thread_local std::array<unsigned char, REPLY_BYTES_MAX> buffer;
    uint32_t length = encode_into(message, buffer.data(), REPLY_BYTES_MAX);
    if (length != 0 || bytes_max == REPLY_BYTES_MAX)
        return {buffer.begin(), buffer.begin() + length};
    MessageBytes bytes(bytes_max);
    length = encode_into(message, bytes.data(), bytes_max);
    bytes.resize(length);
    bytes.shrink_to_fit();
    return bytes;
}

rpc_msg accepted(uint32_t xid, accept_stat stat) {
    rpc_msg message = {};
    message.rm_xid = xid;
    message.rm_direction = REPLY;
    message.rm_reply.rp_stat = MSG_ACCEPTED;
    message.acpted_rply.ar_verf = _null_auth;
    message.acpted_rply.ar_stat = stat;
    return message;
}

rpc_msg denied(uint32_t xid, reject_stat stat) {
    rpc_msg message = {};
    message.rm_xid = xid;
    message.rm_direction = REPLY;
    message.rm_reply.rp_stat = MSG_DENIED;
    message.rjcted_rply.rj_stat = stat;
    return message;
}

} // namespace

MessageBytes encode_success(uint32_t xid, xdrproc_t routine, void *record, uint32_t bytes_max) {
    rpc_msg message = accepted(xid, SUCCESS);
    message.acpted_rply.ar_results.where = static_cast<char *>(record);
    message.acpted_rply.ar_results.proc = routine;
    auto bytes = encode(message, bytes_max);
    return bytes.empty() ? encode_refusal(xid, SYSTEM_ERR) : bytes;
}

MessageBytes encode_refusal(uint32_t xid, accept_stat why, uint32_t low, uint32_t high) {
    rpc_msg message = accepted(xid, why);
    message.acpted_rply.ar_vers.low = low;
    message.acpted_rply.ar_vers.high = high;
    return encode(message);
}

MessageBytes encode_rpc_mismatch(uint32_t xid) {
    rpc_msg message = denied(xid, RPC_MISMATCH);
    message.rjcted_rply.rj_vers.low = RPC_MSG_VERSION;
    message.rjcted_rply.rj_vers.high = RPC_MSG_VERSION;
    return encode(message);
}

MessageBytes encode_auth_error(uint32_t xid, auth_stat why) {
    rpc_msg message = denied(xid, AUTH_ERROR);
    message.rjcted_rply.rj_why = why;
    return encode(message);
}

} // namespace velia::server
