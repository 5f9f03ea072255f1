#include "message.h"

#include <climits>
#include <cstring>

#include <arpa/inet.h>

namespace velia::support::transport {

namespace {

bool_t nothing(XDR *, void *) {
    return TRUE;
}

bool_t put_word(XDR *stream, uint32_t word) {
    const long wide = static_cast<int32_t>(word);
    return XDR_PUTLONG(stream, &wide);
}

bool begins_with(const char *bytes, size_t length, uint32_t transaction) {
    uint32_t first;
    if (length < sizeof first)
        return false;
    memcpy(&first, bytes, sizeof first);
    return ntohl(first) == transaction;
}

void decode_results(XDR *stream, rpc_msg &reply, const Call &call, rpc_err &error) {
    if (!AUTH_VALIDATE(call.auth, &reply.acpted_rply.ar_verf)) {
        error.re_status = RPC_AUTHERROR;
        error.re_why = AUTH_INVALIDRESP;
    } else if (!AUTH_UNWRAP(call.auth, stream, call.xdr_results, static_cast<caddr_t>(call.results))) {
        error.re_status = RPC_CANTDECODERES;
    }
}

} // namespace

bool encode_call(XDR *stream, uint32_t transaction, const Call &call) {
    const uint32_t head[] = {transaction, CALL, RPC_MSG_VERSION, call.program, call.version, call.procedure};
    for (const uint32_t word : head)
        if (!put_word(stream, word))
            return false;
    return AUTH_MARSHALL(call.auth, stream) &&
           AUTH_WRAP(call.auth, stream, call.xdr_arguments, static_cast<caddr_t>(call.arguments));
}

Reading read_reply(char *bytes, size_t length, uint32_t transaction, const Call &call, rpc_err &error) {
    if (length > UINT_MAX || !begins_with(bytes, length, transaction))
        return Reading::of_another;
    char verifier[MAX_AUTH_BYTES];
    rpc_msg reply = {};
    reply.acpted_rply.ar_verf.oa_base = verifier; // or else the library would take a heap block for it
    reply.acpted_rply.ar_results.where = nullptr;
    reply.acpted_rply.ar_results.proc = reinterpret_cast<xdrproc_t>(reinterpret_cast<void (*)()>(nothing));
    XDR stream;
    xdrmem_create(&stream, bytes, static_cast<u_int>(length), XDR_DECODE);
    if (!xdr_replymsg(&stream, &reply))
        return Reading::malformed;
    error = {};
    _seterr_reply(&reply, &error);
    if (error.re_status == RPC_SUCCESS)
        decode_results(&stream, reply, call, error);
    return error.re_status == RPC_AUTHERROR ? Reading::access_stale : Reading::done;
}

bool renew_credentials(const Call &call, const rpc_err &error) {
    rpc_msg refusal = {};
    refusal.rm_direction = REPLY;
    refusal.rm_reply.rp_stat = MSG_DENIED;
    refusal.rjcted_rply.rj_stat = AUTH_ERROR;
    refusal.rjcted_rply.rj_why = error.re_why;
    return AUTH_REFRESH(call.auth, &refusal) != FALSE;
}

} // namespace velia::support::transport
