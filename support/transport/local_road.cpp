// A daemon that was not there, or went, is looked for again now and then. The road of a parent process is not taken:
// the kernel would know the messages as this process's, but the answers would be for either.
#include "local_road.h"

#include <cerrno>

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <common/local_road.h>
#include <support/tbs.h>

#include "../forked_locks.h"
#include "../paths.h"
#include "clock.h"
#include "connection.h"
#include "sockets.h"

namespace velia::support::transport {

namespace {

constexpr int64_t look_again_after_us = us_per_s;
constexpr timeval patience_of_connecting = {0, 500'000}; // the daemon takes connections all the time

bool is_loopback(const sockaddr *address) {
    if (address->sa_family == AF_INET)
        return ntohl(reinterpret_cast<const sockaddr_in *>(address)->sin_addr.s_addr) >> 24 == IN_LOOPBACKNET;
    return IN6_IS_ADDR_LOOPBACK(&reinterpret_cast<const sockaddr_in6 *>(address)->sin6_addr);
}

// Nobody binds to an address of another host.
bool is_of_this_host(const sockaddr *address) {
    if (is_loopback(address))
        return true;
    ks_sockaddr_storage_t any_port;
    sysutl_copy_sockaddr(&any_port, address);
    sysutl_sockaddr_set_port(&any_port.base, 0);
    const int descriptor = socket(address->sa_family, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const bool is_bound = bind(descriptor, &any_port.base, sysutl_sockaddr_size(address)) == 0;
    close(descriptor);
    return is_bound;
}

bool connect_to_socket_of(int descriptor, const sockaddr *address) {
    char directory[TBS_PATH_SIZE];
    char name[local_road_name_size];
    if (path_below_root(directory, sizeof directory, local_road_directory, nullptr) != TBS_ST_OK ||
        !local_road_name(address, name))
        return false;
    const LocalRoadAddress socket_address(directory, name);
    return socket_address.is_good() && connect(descriptor, socket_address.get(), socket_address.length()) == 0;
}

// By its own address, or else as one that listens at all addresses.
bool connect_to_broker(int descriptor, const sockaddr *address) {
    if (connect_to_socket_of(descriptor, address))
        return true;
    ks_sockaddr_storage_t wildcard;
    uint16_t port = 0;
    sysutl_sockaddr_get_port(address, &port);
    sysutl_sockaddr_any_init(address->sa_family, &wildcard);
    sysutl_sockaddr_set_port(&wildcard.base, port);
    return connect_to_socket_of(descriptor, &wildcard.base);
}

void drop(Connection &connection) {
    if (connection.descriptor >= 0)
        close(connection.descriptor);
    connection.descriptor = -1;
    connection.is_broken = true;
}

int connect_anew(Client &client, Connection &connection, int64_t) {
    drop(connection);
    begin_anew(connection.replies);
    client.local.generation = process_generation();
    client.local.look_again_us = now_us() + look_again_after_us;
    const int descriptor = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    setsockopt(descriptor, SOL_SOCKET, SO_SNDTIMEO, &patience_of_connecting, sizeof patience_of_connecting);
    if (!connect_to_broker(descriptor, &client.peer.base) || set_short_receive(descriptor) != 0) {
        close(descriptor);
        return ENOTCONN;
    }
    connection.descriptor = descriptor;
    connection.is_broken = false;
    return 0;
}

// What a transport may send again may go out again on this road, too.
constexpr Road road_of_datagrams = {connect_anew, false, true};
constexpr Road road_of_streams = {connect_anew, false, false};

bool is_of_this_process(const Client &client) {
    return client.local.generation == process_generation();
}

} // namespace

bool has_local_road(const Client &client) {
    return client.local.connection.descriptor >= 0;
}

void look_for_local_road(Client &client) {
    leave_local_road(client);
    client.local.is_possible = client.program == local_road_program && is_of_this_host(&client.peer.base);
    if (client.local.is_possible)
        connect_anew(client, client.local.connection, 0);
}

bool exchange_locally(Client &client, const Call &call, int64_t until_us, bool waits) {
    LocalRoad &local = client.local;
    if (!local.is_possible)
        return false;
    const bool is_known = has_local_road(client) && is_of_this_process(client);
    if (!is_known && is_of_this_process(client) && now_us() < local.look_again_us)
        return false;
    if (!is_known && connect_anew(client, local.connection, until_us) != 0)
        return false;
    const Road &road = client.transport->retransmits ? road_of_datagrams : road_of_streams;
    if (exchange_over(client, local.connection, road, call, until_us, waits) == Ending::no_road)
        return false;
    return true;
}

void leave_local_road(Client &client) {
    drop(client.local.connection);
    release(client.local.connection.replies);
    begin_anew(client.local.connection.replies);
}

} // namespace velia::support::transport
