// Calls over TCP. Before a request goes out, what has come since the last call is looked at: the end of the connection
// among it. A request is never sent twice.
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include "../rpc_error.h"
#include "client.h"
#include "clock.h"
#include "interrupt.h"
#include "limits.h"
#include "record_reader.h"
#include "sockets.h"
#include "wait.h"

namespace velia::support::transport {

namespace {

constexpr size_t mark_size = 4;
constexpr uint32_t last_fragment_bit = 0x80000000;
constexpr int old_pieces_max = 64; // of what nobody has asked for, before a request goes out all the same

struct StreamClient : Client {
    RecordReader replies;
    bool is_broken; // what stands at the descriptor cannot be used any more
};

// One call on its way.
struct Sending {
    StreamClient &client;
    const Call &call;
    int64_t until_us;
    bool has_reconnected;
};

// The connection is of no use after it: the peer's view of it is not ours any more.
void fail_connection(StreamClient &client, clnt_stat status, int error_number) {
    client.is_broken = true;
    fail(client, status, error_number);
}

void fail_wait(StreamClient &client, Wait outcome) {
    if (outcome == Wait::interrupted)
        fail(client, RPC_INTR, EINTR);
    else
        fail(client, RPC_TIMEDOUT);
}

// A small request goes out at once; the call waits for its answer anyway.
void send_without_delay(int descriptor) {
    const int on = 1;
    setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

int prepare_connection(StreamClient &client, int64_t until_us) {
    int error_number = connect_until(client.descriptor, &client.peer.base, until_us);
    if (error_number == 0)
        error_number = set_short_receive(client.descriptor);
    send_without_delay(client.descriptor);
    begin_anew(client.replies);
    client.is_broken = error_number != 0;
    return error_number;
}

bool reconnect(Sending &sending) {
    StreamClient &client = sending.client;
    sending.has_reconnected = true;
    int error_number = disconnect(client.descriptor);
    if (error_number == 0)
        error_number = prepare_connection(client, sending.until_us);
    if (error_number == ETIMEDOUT && now_us() >= sending.until_us)
        fail_connection(client, RPC_TIMEDOUT, 0);
    else if (error_number != 0)
        fail_connection(client, error_number == EINTR ? RPC_INTR : RPC_CANTSEND, error_number);
    return error_number == 0;
}

enum class Arrival { some, none, ended, failed };

// Takes what has come, or comes within what `flags` allow. For `failed` errno tells why.
Arrival take_bytes(StreamClient &client, int flags) {
    size_t size = 0;
    char *place = room(client.replies, size);
    if (place == nullptr) {
        errno = ENOMEM;
        return Arrival::failed;
    }
    const ssize_t count = recv(client.descriptor, place, size, flags);
    if (count > 0) {
        arrived(client.replies, static_cast<size_t>(count));
        return Arrival::some;
    }
    if (count == 0)
        return Arrival::ended;
    return errno == EAGAIN || errno == EINTR ? Arrival::none : Arrival::failed;
}

// Records nobody waits for: answers that came too late. False where there is no sense in what has come.
bool pass_over_old_records(StreamClient &client) {
    Record record;
    do
        record = next_record(client.replies);
    while (record == Record::whole);
    return record == Record::incomplete;
}

// Whether a request may be sent on the connection as it stands.
bool is_usable(StreamClient &client) {
    for (int pieces = 0; !client.is_broken && pieces < old_pieces_max; ++pieces) {
        const Arrival arrival = take_bytes(client, MSG_DONTWAIT);
        if (arrival == Arrival::none)
            return true;
        client.is_broken = arrival != Arrival::some || !pass_over_old_records(client);
    }
    return !client.is_broken;
}

enum class Sent { whole, nothing, failed };

// Sends the request, waiting for the peer to take it. `nothing` where the connection ended before its first byte.
Sent send_request(Sending &sending) {
    StreamClient &client = sending.client;
    size_t sent = 0;
    while (sent < client.request.used) {
        const ssize_t count = send(client.descriptor, client.request.bytes + sent, client.request.used - sent,
                                   MSG_NOSIGNAL | MSG_DONTWAIT);
        if (count >= 0) {
            sent += static_cast<size_t>(count);
            continue;
        }
        if (errno == EINTR)
            continue;
        if (errno != EAGAIN) {
            fail_connection(client, RPC_CANTSEND, errno);
            return sent == 0 ? Sent::nothing : Sent::failed;
        }
        const Wait outcome = wait_for(client.descriptor, POLLOUT, sending.until_us);
        if (outcome != Wait::ready) {
            client.is_broken = client.is_broken || sent > 0;
            fail_wait(client, outcome);
            return Sent::failed;
        }
    }
    return Sent::whole;
}

bool deliver_request(Sending &sending) {
    if (!is_usable(sending.client) && !reconnect(sending))
        return false;
    Sent sent = send_request(sending);
    if (sent == Sent::nothing && !sending.has_reconnected)
        sent = reconnect(sending) ? send_request(sending) : Sent::failed;
    return sent == Sent::whole;
}

// True once the call is over.
bool take_record(Sending &sending) {
    StreamClient &client = sending.client;
    RecordReader &replies = client.replies;
    rpc_err error = {};
    switch (read_reply(replies.bytes + replies.begin, replies.end - replies.begin, client.transaction, sending.call,
                       error)) {
    case Reading::of_another:
        return false;
    case Reading::malformed:
        fail(client, RPC_CANTDECODERES);
        return true;
    default:
        client.error = error;
        return true;
    }
}

// True once the call is over.
bool take_records(Sending &sending) {
    for (;;) {
        switch (next_record(sending.client.replies)) {
        case Record::incomplete:
            return false;
        case Record::too_large:
            fail_connection(sending.client, RPC_CANTRECV, EMSGSIZE);
            return true;
        case Record::whole:
            if (take_record(sending))
                return true;
        }
    }
}

// Waits for what comes next, but for a usual answer, which the receive itself waits for. False where the call is over.
bool await_bytes(Sending &sending, bool is_late) {
    StreamClient &client = sending.client;
    const int64_t left_us = sending.until_us - now_us();
    if (is_interrupted()) {
        fail_wait(client, Wait::interrupted);
        return false;
    }
    if (left_us <= 0) {
        fail_wait(client, Wait::timed_out);
        return false;
    }
    if (!is_late && left_us >= short_receive_at_most_us)
        return true;
    const Wait outcome = wait_for(client.descriptor, POLLIN, sending.until_us);
    if (outcome != Wait::ready)
        fail_wait(client, outcome);
    return outcome == Wait::ready;
}

void await_reply(Sending &sending) {
    StreamClient &client = sending.client;
    bool is_late = false;
    while (await_bytes(sending, is_late)) {
        switch (take_bytes(client, 0)) {
        case Arrival::none:
            is_late = true;
            break;
        case Arrival::ended:
            fail_connection(client, RPC_CANTRECV, ECONNRESET);
            return;
        case Arrival::failed:
            fail_connection(client, RPC_CANTRECV, errno);
            return;
        case Arrival::some:
            if (take_records(sending))
                return;
        }
    }
}

bool encode_request(StreamClient &client, const Call &call) {
    XDR stream;
    encode_into(&stream, client.request);
    const long mark = 0; // its place
    if (!XDR_PUTLONG(&stream, &mark) || !encode_call(&stream, client.transaction, call))
        return false;
    const uint32_t written = htonl(static_cast<uint32_t>(client.request.used - mark_size) | last_fragment_bit);
    memcpy(client.request.bytes, &written, sizeof written);
    return true;
}

void exchange(Client &base, const Call &call, int64_t until_us, bool waits) {
    auto &client = static_cast<StreamClient &>(base);
    if (!encode_request(client, call)) {
        fail(client, RPC_CANTENCODEARGS);
        return;
    }
    if (is_interrupted() || (waits && now_us() >= until_us)) {
        fail_wait(client, is_interrupted() ? Wait::interrupted : Wait::timed_out);
        return;
    }
    Sending sending = {client, call, until_us, false};
    if (!deliver_request(sending))
        return;
    if (waits)
        await_reply(sending);
    else
        fail(client, RPC_TIMEDOUT);
    shrink(client.replies);
}

// The next call connects.
int turn_to_peer(Client &base) {
    static_cast<StreamClient &>(base).is_broken = true;
    return 0;
}

void release_replies(Client &base) {
    release(static_cast<StreamClient &>(base).replies);
}

constexpr Transport streams = {exchange, turn_to_peer, release_replies, false};

bool is_connected(int descriptor) {
    ks_sockaddr_storage_t peer;
    socklen_t length = sizeof peer;
    return getpeername(descriptor, &peer.base, &length) == 0;
}

int prepare(StreamClient &client) {
    constexpr int64_t connect_time_us = 25 * us_per_s;
    int error_number = check_type(client.descriptor, SOCK_STREAM);
    if (error_number != 0)
        return error_number;
    if (!is_connected(client.descriptor))
        return prepare_connection(client, deadline_after(connect_time_us));
    send_without_delay(client.descriptor);
    return set_short_receive(client.descriptor);
}

} // namespace

CLIENT *make_stream_client(const Origin &origin) {
    auto *client = static_cast<StreamClient *>(calloc(1, sizeof(StreamClient)));
    if (client == nullptr) {
        note_creation_error(RPC_SYSTEMERROR, ENOMEM);
        return nullptr;
    }
    client->request.longest = KS_RECORD_MAX;
    const int error_number = begin_client(*client, streams, origin) ? prepare(*client) : ENOMEM;
    if (error_number == 0)
        return &client->base;
    discard_client(*client);
    note_creation_error(error_number == EINTR ? RPC_INTR : RPC_SYSTEMERROR, error_number);
    return nullptr;
}

} // namespace velia::support::transport
