// Calls and replies as bytes. The codec, credentials among it, is the RPC library's.
#pragma once

#include <cstddef>
#include <cstdint>

#include "out_buffer.h"

namespace velia::support::transport {

// What the caller of a procedure gives.
struct Call {
    AUTH *auth;
    uint32_t program;
    uint32_t version;
    rpcproc_t procedure;
    xdrproc_t xdr_arguments;
    void *arguments;
    xdrproc_t xdr_results;
    void *results;
};

// Encodes the call behind what `stream` holds already. False if the arguments cannot be encoded.
bool encode_call(XDR *stream, uint32_t transaction, const Call &call);

enum class Reading {
    of_another,   // not a reply with this number
    malformed,    // one that says nothing which can be understood
    access_stale, // the peer wants other credentials; `error` tells why
    done,         // `error` tells how
};

// Reads a reply to `call`. Where `error.re_status` is RPC_SUCCESS the results are decoded.
Reading read_reply(char *bytes, size_t length, uint32_t transaction, const Call &call, rpc_err &error);

// Other credentials, where the authenticator has them; false if the refusal stands. The message is made for it.
bool renew_credentials(const Call &call, const rpc_err &error);

} // namespace velia::support::transport
