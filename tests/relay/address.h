// Addresses of IPv4 and IPv6, and the sockets on them.
#pragma once

#include <cstdint>
#include <string>

#include <sys/socket.h>

namespace velia::relay {

struct Address {
    sockaddr_storage storage = {};
    socklen_t length = sizeof(sockaddr_storage);

    sockaddr *base() { return reinterpret_cast<sockaddr *>(&storage); }
    const sockaddr *base() const { return reinterpret_cast<const sockaddr *>(&storage); }
    uint16_t port() const;

    // To compare and to sort by.
    std::string key() const { return {reinterpret_cast<const char *>(&storage), length}; }
};

// "PORT" (of 127.0.0.1), "HOST:PORT" or "[HOST]:PORT", the host an address or a name. Throws std::runtime_error.
Address parse_address(const std::string &text);

// Sockets that never wait. Each throws std::runtime_error, and names the address.
int bind_socket(const Address &address, int type);
int connect_socket(const Address &address, int type);

Address bound_address(int fd);

} // namespace velia::relay
