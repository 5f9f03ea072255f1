#include <tests/relay/address.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <stdexcept>

#include <netdb.h>
#include <netinet/in.h>
#include <unistd.h>

namespace velia::relay {

namespace {

constexpr int connections_waiting_max = 128;

std::string text_of(const Address &address) {
    std::array<char, NI_MAXHOST> host = {};
    std::array<char, NI_MAXSERV> port = {};
    getnameinfo(address.base(), address.length, host.data(), host.size(), port.data(), port.size(),
                NI_NUMERICHOST | NI_NUMERICSERV);
    return std::string(host.data()) + " port " + port.data();
}

int open_socket(const Address &address, int type) {
    const int fd = socket(address.storage.ss_family, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0)
        throw std::runtime_error(std::string("no socket: ") + strerror(errno));
    return fd;
}

[[noreturn]] void give_up(int fd, const Address &address, const std::string &what) {
    const std::string reason = strerror(errno);
    close(fd);
    throw std::runtime_error(what + " " + text_of(address) + ": " + reason);
}

} // namespace

uint16_t Address::port() const {
    return ntohs(storage.ss_family == AF_INET6 ? reinterpret_cast<const sockaddr_in6 *>(&storage)->sin6_port
                                               : reinterpret_cast<const sockaddr_in *>(&storage)->sin_port);
}

Address parse_address(const std::string &text) {
    const auto colon = text.rfind(':');
    std::string host = colon == std::string::npos ? "127.0.0.1" : text.substr(0, colon);
    const std::string port = colon == std::string::npos ? text : text.substr(colon + 1);
    if (host.size() > 2 && host.front() == '[' && host.back() == ']')
        host = host.substr(1, host.size() - 2);
    addrinfo *found = nullptr;
    addrinfo hints = {};
    hints.ai_socktype = SOCK_DGRAM;
    hints.ai_flags = AI_NUMERICSERV;
    const int error_code = getaddrinfo(host.c_str(), port.c_str(), &hints, &found);
    if (error_code != 0)
        throw std::runtime_error(text + ": " + gai_strerror(error_code));
    Address address;
    memcpy(&address.storage, found->ai_addr, found->ai_addrlen);
    address.length = found->ai_addrlen;
    freeaddrinfo(found);
    return address;
}

int bind_socket(const Address &address, int type) {
    const int fd = open_socket(address, type);
    const int on = 1;
    if (type == SOCK_STREAM)
        setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (bind(fd, address.base(), address.length) != 0 ||
        (type == SOCK_STREAM && listen(fd, connections_waiting_max) != 0))
        give_up(fd, address, "nothing can listen on");
    return fd;
}

int connect_socket(const Address &address, int type) {
    const int fd = open_socket(address, type);
    if (connect(fd, address.base(), address.length) != 0 && errno != EINPROGRESS)
        give_up(fd, address, "no connection to");
    return fd;
}

Address bound_address(int fd) {
    Address address;
    getsockname(fd, address.base(), &address.length);
    return address;
}

} // namespace velia::relay
