// Calls over UDP. A request is sent until it is answered; an answer is taken from the peer alone, and only if it is one
// to this request. In the usual case a call is one send and one receive.
#include <algorithm>
#include <cerrno>
#include <cstdlib>

#include <poll.h>
#include <sys/socket.h>

#include "../rpc_error.h"
#include "client.h"
#include "clock.h"
#include "interrupt.h"
#include "round_trip.h"
#include "sockets.h"
#include "wait.h"

namespace velia::support::transport {

namespace {

constexpr size_t datagram_size = 8800; // of a request and of a reply; the largest reply has 8744 bytes

struct DatagramClient : Client {
    RoundTrip round_trip;
    char reply[datagram_size];
};

// One call on its way.
struct Sending {
    DatagramClient &client;
    const Call &call;
    Repetition repetition;
    int64_t until_us;
    int64_t first_sent_us;
    int64_t next_sending_us;
    bool is_repeated;
};

bool send_request(const DatagramClient &client) {
    return send(client.descriptor, client.request.bytes, client.request.used, MSG_NOSIGNAL) >= 0;
}

// The system tells with the next operation on the socket what became of an earlier one; that of another call is none of
// this one's.
bool begin_sending(DatagramClient &client) {
    if (send_request(client) || (errno == ECONNREFUSED && send_request(client)))
        return true;
    if (errno == EAGAIN || errno == ENOBUFS || errno == EINTR) // as if it had been lost
        return true;
    fail(client, errno == ECONNREFUSED ? RPC_CANTRECV : RPC_CANTSEND, errno);
    return false;
}

// What goes wrong with a repetition leaves the first sending's answer to be waited for, unless nobody is there.
bool send_again(Sending &sending, int64_t now) {
    sending.is_repeated = true;
    sending.next_sending_us = now + sending.repetition.next_us();
    if (send_request(sending.client) || errno != ECONNREFUSED)
        return true;
    fail(sending.client, RPC_CANTRECV, ECONNREFUSED);
    return false;
}

// The next datagram, until the clock shows `until_us`; its length, or -1 with errno: EAGAIN for none. What has not come
// within a short receive is waited for by the clock.
ssize_t receive(DatagramClient &client, int64_t until_us, bool is_late) {
    int flags = MSG_TRUNC;
    if (is_late) {
        flags |= MSG_DONTWAIT;
        if (wait_for(client.descriptor, POLLIN, until_us) != Wait::ready) {
            errno = EAGAIN;
            return -1;
        }
    }
    return recv(client.descriptor, client.reply, datagram_size, flags);
}

void note_round_trip(Sending &sending) {
    if (sending.is_repeated) // nobody knows which of the sendings was answered
        return;
    DatagramClient &client = sending.client;
    client.round_trip.measured(now_us() - sending.first_sent_us);
    remember_round_trip(&client.peer.base, client.round_trip);
}

// True once the call is over.
bool take_reply(Sending &sending, size_t length) {
    DatagramClient &client = sending.client;
    rpc_err error = {};
    const bool is_cut = length > datagram_size;
    const Reading reading =
        read_reply(client.reply, is_cut ? datagram_size : length, client.transaction, sending.call, error);
    if (reading == Reading::of_another || reading == Reading::malformed)
        return false;
    note_round_trip(sending);
    client.error = error;
    return true;
}

// True once the call is over, with what the receive has told.
bool take_failure(Sending &sending, int error_number) {
    if (is_interrupted()) {
        fail(sending.client, RPC_INTR, EINTR);
        return true;
    }
    if (error_number == EAGAIN || error_number == EINTR)
        return false;
    fail(sending.client, RPC_CANTRECV, error_number);
    return true;
}

// True once the call is over.
bool look_at_clock(Sending &sending, int64_t now) {
    if (now >= sending.until_us) {
        fail(sending.client, RPC_TIMEDOUT);
        return true;
    }
    return now >= sending.next_sending_us && !send_again(sending, now);
}

void await_reply(Sending &sending) {
    bool is_late = false;
    for (int64_t now = sending.first_sent_us; !look_at_clock(sending, now); now = now_us()) {
        const int64_t until_us = std::min(sending.next_sending_us, sending.until_us);
        is_late = is_late || until_us - now < short_receive_at_most_us;
        const ssize_t length = receive(sending.client, until_us, is_late);
        if (length >= 0 ? take_reply(sending, static_cast<size_t>(length)) : take_failure(sending, errno))
            return;
        is_late = is_late || length < 0;
    }
}

void exchange(Client &base, const Call &call, int64_t until_us, bool waits) {
    auto &client = static_cast<DatagramClient &>(base);
    XDR stream;
    encode_into(&stream, client.request);
    if (!encode_call(&stream, client.transaction, call)) {
        fail(client, RPC_CANTENCODEARGS);
        return;
    }
    if (is_interrupted()) {
        fail(client, RPC_INTR, EINTR);
        return;
    }
    const int64_t now = now_us();
    if (waits && now >= until_us) {
        fail(client, RPC_TIMEDOUT);
        return;
    }
    if (!begin_sending(client))
        return;
    if (!waits) {
        fail(client, RPC_TIMEDOUT);
        return;
    }
    Sending sending = {client, call, {client.round_trip, client.retransmission_us}, until_us, now, 0, false};
    sending.next_sending_us = now + sending.repetition.next_us();
    await_reply(sending);
}

int turn_to_peer(Client &base) {
    auto &client = static_cast<DatagramClient &>(base);
    client.round_trip = remembered_round_trip(&client.peer.base);
    return connect(client.descriptor, &client.peer.base, client.peer_buffer.len) == 0 ? 0 : errno;
}

void release_nothing(Client &) {}

constexpr Transport datagrams = {exchange, turn_to_peer, release_nothing, true};

int prepare(DatagramClient &client) {
    int error_number = check_type(client.descriptor, SOCK_DGRAM);
    if (error_number == 0)
        error_number = set_short_receive(client.descriptor);
    return error_number == 0 ? turn_to_peer(client) : error_number;
}

} // namespace

CLIENT *make_datagram_client(const Origin &origin, int64_t retransmission_us) {
    auto *client = static_cast<DatagramClient *>(calloc(1, sizeof(DatagramClient)));
    if (client == nullptr) {
        note_creation_error(RPC_SYSTEMERROR, ENOMEM);
        return nullptr;
    }
    client->retransmission_us = retransmission_us;
    client->request.longest = datagram_size;
    const int error_number = begin_client(*client, datagrams, origin) ? prepare(*client) : ENOMEM;
    if (error_number == 0)
        return &client->base;
    discard_client(*client);
    note_creation_error(RPC_SYSTEMERROR, error_number);
    return nullptr;
}

} // namespace velia::support::transport
