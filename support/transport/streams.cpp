// Calls over TCP: a connection of the caller's descriptor.
#include <cerrno>
#include <cstdlib>

#include <netinet/tcp.h>
#include <sys/socket.h>

#include "../rpc_error.h"
#include "clock.h"
#include "connection.h"
#include "limits.h"
#include "local_road.h"
#include "sockets.h"

namespace velia::support::transport {

namespace {

struct StreamClient : Client {
    Connection connection;
};

// A small request goes out at once; the call waits for its answer anyway.
void send_without_delay(int descriptor) {
    const int on = 1;
    setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

int connect_first(Client &client, Connection &connection, int64_t until_us) {
    int error_number = connect_until(connection.descriptor, &client.peer.base, until_us);
    if (error_number == 0)
        error_number = set_short_receive(connection.descriptor);
    send_without_delay(connection.descriptor);
    begin_anew(connection.replies);
    connection.is_broken = error_number != 0;
    return error_number;
}

int connect_again(Client &client, Connection &connection, int64_t until_us) {
    const int error_number = disconnect(connection.descriptor);
    return error_number == 0 ? connect_first(client, connection, until_us) : error_number;
}

constexpr Road tcp = {connect_again, true, false};

void exchange(Client &client, const Call &call, int64_t until_us, bool waits) {
    exchange_over(client, static_cast<StreamClient &>(client).connection, tcp, call, until_us, waits);
}

// The next call connects.
int turn_to_peer(Client &client) {
    static_cast<StreamClient &>(client).connection.is_broken = true;
    return 0;
}

void release_replies(Client &client) {
    release(static_cast<StreamClient &>(client).connection.replies);
}

constexpr Transport streams = {exchange, turn_to_peer, release_replies, false};

bool is_connected(int descriptor) {
    ks_sockaddr_storage_t peer;
    socklen_t length = sizeof peer;
    return getpeername(descriptor, &peer.base, &length) == 0;
}

// Where calls take the local road, the caller's descriptor is not connected unless that road ends.
int prepare(StreamClient &client) {
    constexpr int64_t connect_time_us = 25 * us_per_s;
    const int error_number = check_type(client.descriptor, SOCK_STREAM);
    if (error_number != 0)
        return error_number;
    client.connection.descriptor = client.descriptor;
    client.connection.is_broken = !is_connected(client.descriptor);
    if (!client.connection.is_broken) {
        send_without_delay(client.descriptor);
        return set_short_receive(client.descriptor);
    }
    return has_local_road(client) ? 0 : connect_first(client, client.connection, deadline_after(connect_time_us));
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
