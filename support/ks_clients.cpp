// RPC clients on sockets of either family, over UDP and TCP.
#include <support/ks.h>

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <time.h>
#include <unistd.h>

#include "pipe_guard.h"
#include "rpc_error.h"

namespace {

using velia::support::guard_against_broken_pipes;
using velia::support::note_creation_error;
using velia::support::note_library_creation_error;

constexpr int connect_timeout_ms = 25'000;
constexpr unsigned datagram_size = 8800; // of a request and of a reply; the largest reply has 8744 bytes

netbuf address_buffer(const sockaddr *address, ks_sockaddr_storage_t &copy) {
    sysutl_copy_sockaddr(&copy, address);
    const socklen_t length = sysutl_sockaddr_size(address);
    return {static_cast<unsigned>(sizeof copy), static_cast<unsigned>(length), &copy};
}

// A new socket close on exec; -1 with the creation error noted.
int open_socket(const sockaddr *address, int type) {
    const int opened = socket(address->sa_family, type | SOCK_CLOEXEC, 0);
    if (opened < 0)
        note_creation_error(RPC_SYSTEMERROR, errno);
    return opened;
}

int64_t now_ms() {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1'000'000;
}

// 0 once the connection stands, else the errno value.
int await_connection(int descriptor) {
    const int64_t deadline = now_ms() + connect_timeout_ms;
    for (;;) {
        const int64_t left = deadline - now_ms();
        pollfd wanted = {descriptor, POLLOUT, 0};
        const int ready = poll(&wanted, 1, left > 0 ? static_cast<int>(left) : 0);
        if (ready == 0)
            return ETIMEDOUT;
        if (ready > 0)
            break;
        if (errno != EINTR)
            return errno;
    }
    int error_number = 0;
    socklen_t length = sizeof error_number;
    getsockopt(descriptor, SOL_SOCKET, SO_ERROR, &error_number, &length);
    return error_number;
}

// Connects without waiting longer than the bound; the socket's blocking mode is as before. 0, else the errno value.
int connect_bounded(int descriptor, const sockaddr *address) {
    const int flags = fcntl(descriptor, F_GETFL);
    if (flags < 0)
        return errno;
    fcntl(descriptor, F_SETFL, flags | O_NONBLOCK);
    int error_number = connect(descriptor, address, sysutl_sockaddr_size(address)) == 0 ? 0 : errno;
    if (error_number == EINPROGRESS || error_number == EINTR)
        error_number = await_connection(descriptor);
    fcntl(descriptor, F_SETFL, flags);
    return error_number;
}

bool is_connected(int descriptor) {
    ks_sockaddr_storage_t peer;
    socklen_t length = sizeof peer;
    return getpeername(descriptor, &peer.base, &length) == 0;
}

bool ensure_connected(int descriptor, const sockaddr *address) {
    const int error_number = is_connected(descriptor) ? 0 : connect_bounded(descriptor, address);
    if (error_number != 0)
        note_creation_error(RPC_SYSTEMERROR, error_number);
    return error_number == 0;
}

// A small request goes out at once; the call waits for its answer anyway.
void send_without_delay(int descriptor) {
    const int on = 1;
    setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

CLIENT *make_tcp_client(int descriptor, const sockaddr *address, uint32_t program, uint32_t version, uint32_t send_size,
                        uint32_t receive_size) {
    if (!ensure_connected(descriptor, address))
        return nullptr;
    send_without_delay(descriptor);
    ks_sockaddr_storage_t copy;
    const netbuf server = address_buffer(address, copy);
    CLIENT *client = clnt_vc_create(descriptor, &server, program, version, send_size, receive_size);
    if (client == nullptr)
        note_library_creation_error();
    else
        guard_against_broken_pipes(client);
    return client;
}

// The RPC library asks the kernel to report refused ports for IPv4 alone.
void report_refused_ports(int descriptor, int family) {
    const int on = 1;
    if (family == AF_INET6)
        setsockopt(descriptor, IPPROTO_IPV6, IPV6_RECVERR, &on, sizeof on);
}

CLIENT *make_udp_client(int descriptor, const sockaddr *address, uint32_t program, uint32_t version,
                        timeval retransmission) {
    ks_sockaddr_storage_t copy;
    netbuf server = address_buffer(address, copy);
    CLIENT *client = clnt_dg_create(descriptor, &server, program, version, datagram_size, datagram_size);
    if (client == nullptr) {
        note_library_creation_error();
        return nullptr;
    }
    report_refused_ports(descriptor, address->sa_family);
    clnt_control(client, CLSET_RETRY_TIMEOUT, reinterpret_cast<char *>(&retransmission));
    return client;
}

bool has_known_family(const sockaddr *address) {
    if (sysutl_sockaddr_size(address) != 0)
        return true;
    note_creation_error(RPC_SYSTEMERROR, EAFNOSUPPORT);
    return false;
}

// Runs `make` on the caller's socket, or on a new one that is the caller's if a client came of it.
template <class Make>
CLIENT *make_on_socket(const sockaddr *address, int type, int *socket_fd, Make &&make) {
    if (!has_known_family(address))
        return nullptr;
    const bool is_own = *socket_fd < 0;
    const int descriptor = is_own ? open_socket(address, type) : *socket_fd;
    if (descriptor < 0)
        return nullptr;
    CLIENT *client = make(descriptor);
    if (client != nullptr)
        *socket_fd = descriptor;
    else if (is_own)
        close(descriptor);
    return client;
}

} // namespace

CLIENT *ks_clntudp_create_sockaddr(const struct sockaddr *address, uint32_t program, uint32_t version,
                                   int32_t retransmission_s, int32_t retransmission_us, int *socket_fd) {
    const timeval retransmission = {retransmission_s, retransmission_us};
    return make_on_socket(address, SOCK_DGRAM, socket_fd, [&](int descriptor) {
        return make_udp_client(descriptor, address, program, version, retransmission);
    });
}

CLIENT *ks_clnttcp_create_sockaddr(const struct sockaddr *address, uint32_t program, uint32_t version, int *socket_fd,
                                   uint32_t send_size, uint32_t receive_size) {
    return make_on_socket(address, SOCK_STREAM, socket_fd, [&](int descriptor) {
        return make_tcp_client(descriptor, address, program, version, send_size, receive_size);
    });
}

CLIENT *sysutl_clnttcp_create_ext(const struct sockaddr *address, uint32_t program, uint32_t version, int *socket_fd,
                                  uint32_t send_size, uint32_t receive_size) {
    *socket_fd = -1;
    CLIENT *client = ks_clnttcp_create_sockaddr(address, program, version, socket_fd, send_size, receive_size);
    if (client != nullptr)
        clnt_control(client, CLSET_FD_CLOSE, nullptr);
    return client;
}
