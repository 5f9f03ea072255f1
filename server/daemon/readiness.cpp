// Neither way ever blocks for long or fails the daemon: whoever does not listen misses it.
#include <server/daemon/readiness.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <poll.h>
#include <string_view>
#include <sys/socket.h>
#include <sys/un.h>

namespace velia::server {

namespace {

constexpr int reader_wait_ms = 1000;
constexpr int standard_descriptors = 3;

} // namespace

ServiceManager::ServiceManager() {
    if (const char *name = getenv("NOTIFY_SOCKET"))
        socket_name_ = name;
    unsetenv("NOTIFY_SOCKET");
}

void ServiceManager::send_reloading() const {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    const auto now_us = static_cast<long long>(now.tv_sec) * 1000000 + now.tv_nsec / 1000;
    send("RELOADING=1\nMONOTONIC_USEC=" + std::to_string(now_us));
}

void ServiceManager::send(const std::string &state) const {
    sockaddr_un address = {};
    if (socket_name_.empty() || socket_name_.size() >= sizeof address.sun_path)
        return;
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, socket_name_.data(), socket_name_.size());
    // A name in the abstract space is written with an "@" in place of its leading null byte.
    if (address.sun_path[0] == '@')
        address.sun_path[0] = '\0';
    const UniqueFd fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + socket_name_.size());
    sendto(fd.get(), state.data(), state.size(), MSG_NOSIGNAL | MSG_DONTWAIT, reinterpret_cast<sockaddr *>(&address),
           length);
}

void send_ready_fd(int fd) {
    if (fd < 0)
        return;
    std::string_view rest = "READY=1\n";
    while (!rest.empty()) {
        const ssize_t count = write(fd, rest.data(), rest.size());
        if (count > 0) {
            rest.remove_prefix(static_cast<size_t>(count));
            continue;
        }
        pollfd writable = {fd, POLLOUT, 0};
        const bool may_go_on = errno == EINTR || (errno == EAGAIN && poll(&writable, 1, reader_wait_ms) > 0);
        if (!may_go_on)
            break;
    }
    if (fd >= standard_descriptors)
        close(fd);
}

} // namespace velia::server
