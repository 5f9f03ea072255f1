// A request is never sent twice over one connection. What has come since the last call, the end of the connection among
// it, is looked at before a request goes out where sending would not tell.
#include "connection.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>

#include "clock.h"
#include "interrupt.h"
#include "sockets.h"
#include "wait.h"

namespace velia::support::transport {

namespace {

constexpr size_t mark_size = 4;
constexpr uint32_t last_fragment_bit = 0x80000000;
constexpr int old_pieces_max = 64; // of what nobody has asked for, before a request goes out all the same

// One call on its way.
struct Sending {
    Client &client;
    Connection &connection;
    const Road &road;
    const Call &call;
    int64_t until_us;
    bool has_reconnected;
    bool has_no_road;
};

// The connection is of no use after it: the peer's view of it is not ours any more.
void fail_connection(const Sending &sending, clnt_stat status, int error_number) {
    sending.connection.is_broken = true;
    fail(sending.client, status, error_number);
}

void fail_wait(Client &client, Wait outcome) {
    if (outcome == Wait::interrupted)
        fail(client, RPC_INTR, EINTR);
    else
        fail(client, RPC_TIMEDOUT);
}

bool reconnect(Sending &sending) {
    sending.has_reconnected = true;
    const int error_number = sending.road.connect(sending.client, sending.connection, sending.until_us);
    if (error_number == ETIMEDOUT && now_us() >= sending.until_us)
        fail_connection(sending, RPC_TIMEDOUT, 0);
    else if (error_number != 0)
        fail_connection(sending, error_number == EINTR ? RPC_INTR : RPC_CANTSEND, error_number);
    sending.has_no_road = error_number != 0;
    return error_number == 0;
}

enum class Arrival { some, none, ended, failed };

// Takes what has come, or comes within what `flags` allow. For `failed` errno tells why.
Arrival take_bytes(Connection &connection, int flags) {
    size_t size = 0;
    char *place = room(connection.replies, size);
    if (place == nullptr) {
        errno = ENOMEM;
        return Arrival::failed;
    }
    const ssize_t count = recv(connection.descriptor, place, size, flags);
    if (count > 0) {
        arrived(connection.replies, static_cast<size_t>(count));
        return Arrival::some;
    }
    if (count == 0)
        return Arrival::ended;
    return errno == EAGAIN || errno == EINTR ? Arrival::none : Arrival::failed;
}

// Records nobody waits for: answers that came too late. False where there is no sense in what has come.
bool pass_over_old_records(Connection &connection) {
    Record record;
    do
        record = next_record(connection.replies);
    while (record == Record::whole);
    return record == Record::incomplete;
}

// Whether a request may be sent on the connection as it stands.
bool is_usable(Connection &connection, const Road &road) {
    for (int pieces = 0; road.is_looked_at_first && !connection.is_broken && pieces < old_pieces_max; ++pieces) {
        const Arrival arrival = take_bytes(connection, MSG_DONTWAIT);
        if (arrival == Arrival::none)
            return true;
        connection.is_broken = arrival != Arrival::some || !pass_over_old_records(connection);
    }
    return !connection.is_broken;
}

enum class Sent { whole, nothing, failed };

// Sends the request, waiting for the peer to take it. `nothing` where the connection ended before its first byte.
Sent send_request(Sending &sending) {
    const OutBuffer &request = sending.client.request;
    Connection &connection = sending.connection;
    size_t sent = 0;
    while (sent < request.used) {
        const ssize_t count =
            send(connection.descriptor, request.bytes + sent, request.used - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (count >= 0) {
            sent += static_cast<size_t>(count);
            continue;
        }
        if (errno == EINTR)
            continue;
        if (errno != EAGAIN) {
            fail_connection(sending, RPC_CANTSEND, errno);
            return sent == 0 ? Sent::nothing : Sent::failed;
        }
        const Wait outcome = wait_for(connection.descriptor, POLLOUT, sending.until_us);
        if (outcome != Wait::ready) {
            connection.is_broken = connection.is_broken || sent > 0;
            fail_wait(sending.client, outcome);
            return Sent::failed;
        }
    }
    return Sent::whole;
}

bool deliver_request(Sending &sending) {
    if (!is_usable(sending.connection, sending.road) && !reconnect(sending))
        return false;
    Sent sent = send_request(sending);
    if (sent == Sent::nothing && !sending.has_reconnected)
        sent = reconnect(sending) ? send_request(sending) : Sent::failed;
    return sent == Sent::whole;
}

// True once the call is over.
bool take_record(Sending &sending) {
    Client &client = sending.client;
    const RecordReader &replies = sending.connection.replies;
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
        switch (next_record(sending.connection.replies)) {
        case Record::incomplete:
            return false;
        case Record::too_large:
            fail_connection(sending, RPC_CANTRECV, EMSGSIZE);
            return true;
        case Record::whole:
            if (take_record(sending))
                return true;
        }
    }
}

// Waits for what comes next, but for a usual answer, which the receive itself waits for. False where the call is over.
bool await_bytes(Sending &sending, bool is_late) {
    const int64_t left_us = sending.until_us - now_us();
    if (is_interrupted()) {
        fail_wait(sending.client, Wait::interrupted);
        return false;
    }
    if (left_us <= 0) {
        fail_wait(sending.client, Wait::timed_out);
        return false;
    }
    if (!is_late && left_us >= short_receive_at_most_us)
        return true;
    const Wait outcome = wait_for(sending.connection.descriptor, POLLIN, sending.until_us);
    if (outcome != Wait::ready)
        fail_wait(sending.client, outcome);
    return outcome == Wait::ready;
}

// True where the request is on its way once more, over another connection.
bool repeat(Sending &sending) {
    return sending.road.may_repeat && !sending.has_reconnected && reconnect(sending) &&
           send_request(sending) == Sent::whole;
}

void await_reply(Sending &sending) {
    bool is_late = false;
    while (await_bytes(sending, is_late)) {
        switch (take_bytes(sending.connection, 0)) {
        case Arrival::none:
            is_late = true;
            break;
        case Arrival::ended:
            errno = ECONNRESET;
            [[fallthrough]];
        case Arrival::failed:
            fail_connection(sending, RPC_CANTRECV, errno);
            if (!repeat(sending))
                return;
            break;
        case Arrival::some:
            if (take_records(sending))
                return;
        }
    }
}

} // namespace

bool encode_record(Client &client, const Call &call) {
    XDR stream;
    encode_into(&stream, client.request);
    const long mark = 0; // its place
    if (!XDR_PUTLONG(&stream, &mark) || !encode_call(&stream, client.transaction, call))
        return false;
    const uint32_t written = htonl(static_cast<uint32_t>(client.request.used - mark_size) | last_fragment_bit);
    memcpy(client.request.bytes, &written, sizeof written);
    return true;
}

Ending exchange_over(Client &client, Connection &connection, const Road &road, const Call &call, int64_t until_us,
                     bool waits) {
    if (!encode_record(client, call)) {
        fail(client, RPC_CANTENCODEARGS);
        return Ending::told;
    }
    if (is_interrupted() || (waits && now_us() >= until_us)) {
        fail_wait(client, is_interrupted() ? Wait::interrupted : Wait::timed_out);
        return Ending::told;
    }
    Sending sending = {client, connection, road, call, until_us, false, false};
    if (deliver_request(sending)) {
        if (waits)
            await_reply(sending);
        else
            fail(client, RPC_TIMEDOUT);
        shrink(connection.replies);
    }
    return sending.has_no_road ? Ending::no_road : Ending::told;
}

} // namespace velia::support::transport
