// What clients of both transports are, and all of clnt_control.
#pragma once

#include <cstdint>

#include <support/ks.h>

#include "message.h"
#include "record_reader.h"

namespace velia::support::transport {

struct Connection {
    int descriptor;
    RecordReader replies;
    bool is_broken; // what stands at the descriptor cannot be used any more
};

// The connection to the broker of this host, and where it stands; see local_road.h.
struct LocalRoad {
    Connection connection; // no descriptor: there was none when it was looked for
    int64_t look_again_us;
    uint32_t generation; // of the process that looked
    bool is_possible;    // the peer is a broker, and of this host
};

// The record behind a CLIENT, which is its first member; a transport's own record begins with it.
struct Client {
    CLIENT base;
    ks_sockaddr_storage_t peer;
    netbuf peer_buffer; // of `peer`, as CLGET_SVC_ADDR gives it
    rpc_err error;
    uint32_t program;
    uint32_t version;
    uint32_t transaction;    // of the last call
    bool transaction_is_set; // the next call's, by CLSET_XID
    bool has_time_out;       // one of CLSET_TIMEOUT, which goes for all calls
    timeval time_out;
    int64_t retransmission_us; // UDP
    int descriptor;
    bool owns_descriptor;
    OutBuffer request;
    LocalRoad local;
    const struct Transport *transport;
};

// What the two differ in.
struct Transport {
    // Makes the call; `client.error` tells how it ended.
    void (*exchange)(Client &client, const Call &call, int64_t until_us, bool waits);
    // Turns to the address that now stands in `peer`. An errno value.
    int (*turn_to_peer)(Client &client);
    void (*release)(Client &client);
    bool retransmits;
};

// Where a client is to come from.
struct Origin {
    const sockaddr *address;
    uint32_t program;
    uint32_t version;
    int descriptor;
};

// Fills the zeroed record with what both have in common. False without an authenticator.
bool begin_client(Client &client, const Transport &transport, const Origin &origin);

// Ends a client whose descriptor stays as it is.
void discard_client(Client &client);

inline void fail(Client &client, clnt_stat status, int error_number = 0) {
    client.error = {};
    client.error.re_status = status;
    client.error.re_errno = error_number;
}

// The two makers of records: null with the creation error noted. The descriptor is not theirs.
CLIENT *make_datagram_client(const Origin &origin, int64_t retransmission_us);
CLIENT *make_stream_client(const Origin &origin);

} // namespace velia::support::transport
