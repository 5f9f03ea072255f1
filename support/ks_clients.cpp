// RPC clients on sockets of either family, over UDP and TCP: what is wrong with what a caller gives, and whose the
// socket is.
#include <support/ks.h>

#include <cerrno>

#include <sys/socket.h>
#include <unistd.h>

#include <support/pfm.h>

#include "raise.h"
#include "rpc_error.h"
#include "transport/client.h"
#include "transport/clock.h"

namespace {

using velia::support::note_creation_error;
using velia::support::raise_lands_next;
using velia::support::transport::make_datagram_client;
using velia::support::transport::make_stream_client;
using velia::support::transport::Origin;
using velia::support::transport::us_per_s;

// A new socket close on exec; -1 with the creation error noted.
int open_socket(const sockaddr *address, int type) {
    const int opened = socket(address->sa_family, type | SOCK_CLOEXEC, 0);
    if (opened < 0)
        note_creation_error(RPC_SYSTEMERROR, errno);
    return opened;
}

bool is_fit(bool condition, int error_number) {
    if (!condition)
        note_creation_error(RPC_SYSTEMERROR, error_number);
    return condition;
}

// Runs `make` with the caller's socket, or with a new one that is the caller's if a client came of it.
template <class Make>
CLIENT *make_on_socket(Origin origin, int type, int *socket_fd, Make &&make) {
    const bool is_own = *socket_fd < 0;
    origin.descriptor = is_own ? open_socket(origin.address, type) : *socket_fd;
    if (origin.descriptor < 0)
        return nullptr;
    CLIENT *client = make(origin);
    if (client != nullptr && raise_lands_next()) { // nobody will know of it
        clnt_destroy(client);
        client = nullptr;
    }
    if (client != nullptr)
        *socket_fd = origin.descriptor;
    else if (is_own)
        close(origin.descriptor);
    return client;
}

template <class Make>
CLIENT *make_undisturbed(Make &&make) {
    pfm_inhibit();
    CLIENT *client = make();
    pfm_enable();
    return client;
}

} // namespace

CLIENT *ks_clntudp_create_sockaddr(const struct sockaddr *address, uint32_t program, uint32_t version,
                                   int32_t retransmission_s, int32_t retransmission_us, int *socket_fd) {
    const int64_t interval_us = retransmission_s * us_per_s + retransmission_us;
    if (!is_fit(sysutl_sockaddr_size(address) != 0, EAFNOSUPPORT) ||
        !is_fit(retransmission_s >= 0 && retransmission_us >= 0 && interval_us > 0, EINVAL))
        return nullptr;
    return make_undisturbed([&] {
        return make_on_socket({address, program, version, -1}, SOCK_DGRAM, socket_fd,
                              [&](const Origin &origin) { return make_datagram_client(origin, interval_us); });
    });
}

CLIENT *ks_clnttcp_create_sockaddr(const struct sockaddr *address, uint32_t program, uint32_t version, int *socket_fd,
                                   uint32_t send_size, uint32_t receive_size) {
    if (!is_fit(sysutl_sockaddr_size(address) != 0, EAFNOSUPPORT) ||
        !is_fit(send_size <= KS_RECORD_MAX && receive_size <= KS_RECORD_MAX, EINVAL))
        return nullptr;
    return make_undisturbed([&] {
        return make_on_socket({address, program, version, -1}, SOCK_STREAM, socket_fd, make_stream_client);
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
