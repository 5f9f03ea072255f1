#include "sockets.h"

#include <cerrno>

#include <fcntl.h>
#include <poll.h>

#include <support/ks.h>

#include "clock.h"
#include "limits.h"
#include "wait.h"

namespace velia::support::transport {

namespace {

constexpr int64_t connect_time_us = 25 * us_per_s;

int take_error(int descriptor) {
    int error_number = 0;
    socklen_t length = sizeof error_number;
    return getsockopt(descriptor, SOL_SOCKET, SO_ERROR, &error_number, &length) == 0 ? error_number : errno;
}

int await_connection(int descriptor, int64_t until_us) {
    switch (wait_for(descriptor, POLLOUT, until_us)) {
    case Wait::timed_out:
        return ETIMEDOUT;
    case Wait::interrupted:
        return EINTR;
    default:
        return take_error(descriptor);
    }
}

} // namespace

int check_type(int descriptor, int type) {
    int actual = 0;
    socklen_t length = sizeof actual;
    if (getsockopt(descriptor, SOL_SOCKET, SO_TYPE, &actual, &length) != 0)
        return errno;
    return actual == type ? 0 : EPROTOTYPE;
}

int set_short_receive(int descriptor) {
    const timeval limit = {0, short_receive_us};
    if (setsockopt(descriptor, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit) != 0)
        return errno;
    const int flags = fcntl(descriptor, F_GETFL);
    if (flags < 0)
        return errno;
    return (flags & O_NONBLOCK) == 0 || fcntl(descriptor, F_SETFL, flags & ~O_NONBLOCK) == 0 ? 0 : errno;
}

int connect_until(int descriptor, const sockaddr *address, int64_t until_us) {
    const int flags = fcntl(descriptor, F_GETFL);
    if (flags < 0)
        return errno;
    fcntl(descriptor, F_SETFL, flags | O_NONBLOCK);
    int error_number = connect(descriptor, address, sysutl_sockaddr_size(address)) == 0 ? 0 : errno;
    if (error_number == EINPROGRESS || error_number == EINTR) {
        error_number = await_connection(descriptor, until_us);
        if (error_number != 0)
            disconnect(descriptor);
    }
    fcntl(descriptor, F_SETFL, flags);
    return error_number;
}

int disconnect(int descriptor) {
    const sockaddr nowhere = {AF_UNSPEC, {}};
    if (connect(descriptor, &nowhere, sizeof nowhere) != 0)
        return errno;
    take_error(descriptor); // that of the connection which has just been ended
    return 0;
}

} // namespace velia::support::transport

using namespace velia::support::transport;

int ks_connect(int socket_fd, const struct sockaddr *address) {
    return connect_until(socket_fd, address, deadline_after(connect_time_us));
}
