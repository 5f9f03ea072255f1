#include <tests/hostile/datagram_peer.h>

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace velia::hostile {

using relay::bind_socket;
using relay::bound_address;
using relay::parse_address;

namespace {

constexpr size_t datagram_bytes_max = 65536;

Bytes loopback(int family) {
    return family == AF_INET6 ? "[::1]" : "127.0.0.1";
}

// A full buffer of the receiver's is not waited for: what does not fit is lost, as on any network.
void send_to(int fd, const Bytes &bytes, const relay::Address &receiver) {
    sendto(fd, bytes.data(), bytes.size(), 0, receiver.base(), receiver.length);
}

} // namespace

DatagramPeer::DatagramPeer(int family, Script script)
    : script_(std::move(script)), fd_(bind_socket(parse_address(loopback(family) + ":0"), SOCK_DGRAM)),
      address_(bound_address(fd_)), stop_fd_(eventfd(0, EFD_CLOEXEC)) {
    open_strangers(family);
    thread_ = std::thread([this] { serve(); });
}

DatagramPeer::~DatagramPeer() {
    eventfd_write(stop_fd_, 1);
    thread_.join();
    for (const int fd : strangers_)
        close(fd);
    close(fd_);
    close(stop_fd_);
}

void DatagramPeer::open_strangers(int family) {
    for (int i = 0; i < 3; ++i)
        strangers_.push_back(bind_socket(parse_address(loopback(family) + ":0"), SOCK_DGRAM));
    if (family == AF_INET)
        strangers_.push_back(bind_socket(parse_address("127.0.0.2:" + std::to_string(address_.port())), SOCK_DGRAM));
}

void DatagramPeer::serve() {
    for (;;) {
        pollfd wanted[] = {{stop_fd_, POLLIN, 0}, {fd_, POLLIN, 0}};
        poll(wanted, 2, -1);
        if (wanted[0].revents != 0)
            return;
        Bytes bytes(datagram_bytes_max, '\0');
        relay::Address caller;
        const ssize_t count = recvfrom(fd_, bytes.data(), bytes.size(), 0, caller.base(), &caller.length);
        if (count < 0)
            continue;
        bytes.resize(static_cast<size_t>(count));
        script_(Call(*this, caller, std::move(bytes), calls_++));
    }
}

void DatagramPeer::Call::send(const Bytes &reply) const {
    send_to(peer_.fd_, reply, caller_);
}

void DatagramPeer::Call::send_from_stranger(const Bytes &reply, size_t which) const {
    send_to(peer_.strangers_[which % peer_.strangers_.size()], reply, caller_);
}

} // namespace velia::hostile
