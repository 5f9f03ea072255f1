#include <tests/system/support/lossy_relay.h>

#include <array>
#include <stdexcept>
#include <vector>

#include <arpa/inet.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

namespace velia::system_test {

namespace {

constexpr size_t datagram_size = 65536;

sockaddr_in address_of(const std::string &text, uint16_t port) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    inet_pton(AF_INET, text.c_str(), &address.sin_addr);
    return address;
}

} // namespace

LossyRelay::LossyRelay(const std::string &address, const std::string &daemon_address, uint16_t port,
                       unsigned loss_percent)
    : daemon_(address_of(daemon_address, port)), fd_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)),
      end_fd_(eventfd(0, EFD_CLOEXEC)), loss_percent_(loss_percent) {
    const sockaddr_in own = address_of(address, port);
    if (bind(fd_, reinterpret_cast<const sockaddr *>(&own), sizeof own) != 0)
        throw std::runtime_error("the relay has no address");
    thread_ = std::thread([this] { run(); });
}

LossyRelay::~LossyRelay() {
    eventfd_write(end_fd_, 1);
    thread_.join();
    for (const auto &[port, client] : clients_)
        close(client.fd);
    close(fd_);
    close(end_fd_);
}

bool LossyRelay::is_lost() {
    const bool lost = random_() % 100 < loss_percent_;
    lost_ += lost ? 1 : 0;
    return lost;
}

int LossyRelay::fd_for(const sockaddr_in &client) {
    const auto known = clients_.find(client.sin_port);
    if (known != clients_.end())
        return known->second.fd;
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    connect(fd, reinterpret_cast<const sockaddr *>(&daemon_), sizeof daemon_);
    clients_[client.sin_port] = {client, fd};
    return fd;
}

void LossyRelay::relay_requests() {
    std::array<char, datagram_size> bytes;
    sockaddr_in client = {};
    socklen_t length = sizeof client;
    const ssize_t count =
        recvfrom(fd_, bytes.data(), bytes.size(), MSG_DONTWAIT, reinterpret_cast<sockaddr *>(&client), &length);
    if (count >= 0 && !is_lost())
        send(fd_for(client), bytes.data(), static_cast<size_t>(count), MSG_NOSIGNAL);
}

void LossyRelay::relay_replies(const Client &client) {
    std::array<char, datagram_size> bytes;
    const ssize_t count = recv(client.fd, bytes.data(), bytes.size(), MSG_DONTWAIT);
    if (count >= 0 && !is_lost())
        sendto(fd_, bytes.data(), static_cast<size_t>(count), MSG_NOSIGNAL,
               reinterpret_cast<const sockaddr *>(&client.address), sizeof client.address);
}

void LossyRelay::run() {
    while (true) {
        std::vector<pollfd> watched = {{end_fd_, POLLIN, 0}, {fd_, POLLIN, 0}};
        for (const auto &[port, client] : clients_)
            watched.push_back({client.fd, POLLIN, 0});
        if (poll(watched.data(), watched.size(), -1) < 0)
            continue;
        if (watched[0].revents != 0)
            return;
        if (watched[1].revents != 0)
            relay_requests();
        for (size_t i = 2; i < watched.size(); ++i)
            for (const auto &[port, client] : clients_)
                if (client.fd == watched[i].fd && watched[i].revents != 0)
                    relay_replies(client);
    }
}

} // namespace velia::system_test
