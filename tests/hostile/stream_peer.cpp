#include <tests/hostile/stream_peer.h>

#include <algorithm>
#include <cerrno>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace velia::hostile {

using relay::bind_socket;
using relay::bound_address;
using relay::parse_address;

namespace {

constexpr uint32_t last_fragment = 0x80000000;
constexpr int connect_patience_ms = 100;

Bytes loopback(int family) {
    return family == AF_INET6 ? "[::1]:0" : "127.0.0.1:0";
}

} // namespace

StreamPeer::StreamPeer(int family, Script script)
    : script_(std::move(script)), fd_(bind_socket(parse_address(loopback(family)), SOCK_STREAM)),
      address_(bound_address(fd_)), stop_fd_(eventfd(0, EFD_CLOEXEC)), thread_([this] { serve(); }) {}

StreamPeer::~StreamPeer() {
    eventfd_write(stop_fd_, 1);
    thread_.join();
    close(fd_);
    close(stop_fd_);
}

void StreamPeer::serve() {
    for (;;) {
        pollfd wanted[] = {{stop_fd_, POLLIN, 0}, {fd_, POLLIN, 0}};
        poll(wanted, 2, -1);
        if (wanted[0].revents != 0)
            return;
        const int fd = accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (fd < 0)
            continue;
        const int on = 1;
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        Connection connection(*this, fd, connections_++);
        script_(connection);
    }
}

StreamPeer::Connection::Seen StreamPeer::Connection::wait(short events) {
    pollfd wanted[] = {{peer_.stop_fd_, POLLIN, 0}, {fd_, events, 0}};
    poll(wanted, 2, -1);
    return wanted[0].revents != 0 ? Seen::gone : Seen::ready;
}

bool StreamPeer::Connection::receive(Bytes &bytes) {
    for (size_t came = 0; came < bytes.size();) {
        const ssize_t count = wait(POLLIN) == Seen::ready ? recv(fd_, &bytes[came], bytes.size() - came, 0) : 0;
        if (count == 0 || (count < 0 && errno != EAGAIN))
            return false;
        came += static_cast<size_t>(std::max<ssize_t>(count, 0));
    }
    return true;
}

std::optional<Bytes> StreamPeer::Connection::request() {
    Bytes message;
    for (bool is_last = false; !is_last;) {
        Bytes its_mark(4, '\0');
        if (!receive(its_mark))
            return std::nullopt;
        is_last = (word_of(its_mark, 0) & last_fragment) != 0;
        Bytes fragment(word_of(its_mark, 0) & ~last_fragment, '\0');
        if (!receive(fragment))
            return std::nullopt;
        message += fragment;
    }
    return message;
}

bool StreamPeer::Connection::send(const Bytes &bytes) {
    for (size_t sent = 0; sent < bytes.size();) {
        if (wait(POLLOUT) == Seen::gone)
            return false;
        const ssize_t count = ::send(fd_, &bytes[sent], bytes.size() - sent, MSG_NOSIGNAL);
        if (count < 0 && errno != EAGAIN)
            return false;
        sent += static_cast<size_t>(std::max<ssize_t>(count, 0));
    }
    return true;
}

bool StreamPeer::Connection::pause(std::chrono::milliseconds time) {
    pollfd stop = {peer_.stop_fd_, POLLIN, 0};
    return poll(&stop, 1, static_cast<int>(time.count())) == 0;
}

bool StreamPeer::Connection::drip(const Bytes &bytes, std::chrono::milliseconds pause_time) {
    for (const char byte : bytes)
        if (!send({byte}) || !pause(pause_time))
            return false;
    return true;
}

void StreamPeer::Connection::wait_for_its_end() {
    Bytes byte(1, '\0');
    while (receive(byte))
        continue;
}

void StreamPeer::Connection::close() {
    if (fd_ >= 0)
        ::close(fd_);
    fd_ = -1;
}

void StreamPeer::Connection::reset() {
    const linger at_once = {1, 0};
    setsockopt(fd_, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
    close();
}

// Connections until one does not come about: the queue of those that nobody has taken is full.
FullPort::FullPort(const relay::Address &address)
    : fd_(bind_socket(address, SOCK_STREAM)), address_(bound_address(fd_)) {
    listen(fd_, 0);
    pollfd connected = {};
    do {
        waiting_.push_back(relay::connect_socket(address_, SOCK_STREAM));
        connected = {waiting_.back(), POLLOUT, 0};
    } while (poll(&connected, 1, connect_patience_ms) > 0);
}

FullPort::~FullPort() {
    for (const int fd : waiting_)
        close(fd);
    close(fd_);
}

} // namespace velia::hostile
