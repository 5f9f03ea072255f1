// One road from an address to a listening socket.
#include <server/rpc/sockets.h>

#include <arpa/inet.h>
#include <cerrno>
#include <fcntl.h>
#include <netinet/tcp.h>

#include <server/messages.h>
#include <veliaxdr/rvzd_socket.h>

namespace velia::server {

namespace {

constexpr int listen_backlog = 512;

void set_option(int fd, int level, int option, int value) {
    setsockopt(fd, level, option, &value, sizeof value);
}

void set_options(int fd, const SocketRequest &request) {
    const bool is_ipv6 = request.address.base.sa_family == AF_INET6;
    if (is_ipv6)
        set_option(fd, IPPROTO_IPV6, IPV6_V6ONLY, request.is_dual ? 0 : 1);
    if (request.type == SOCK_STREAM) {
        set_option(fd, SOL_SOCKET, SO_REUSEADDR, 1);
        return;
    }
    // Replies leave from the address to which the call came.
    if (is_ipv6)
        set_option(fd, IPPROTO_IPV6, IPV6_RECVPKTINFO, 1);
    else
        set_option(fd, IPPROTO_IP, IP_PKTINFO, 1);
}

bool bind_socket(int fd, const SocketRequest &request) {
    auto address = request.address;
    const socklen_t length = sysutl_sockaddr_size(&address.base);
    if (request.ruled_program == 0)
        return bind(fd, &address.base, length) == 0;
    errno = EADDRINUSE;
    return rvzd_bindport(fd, &address.base, length, request.ruled_program, 1, 1) == TBS_ST_OK;
}

} // namespace

UniqueFd open_listening_socket(const SocketRequest &request, SocketFault *fault) {
    const int family = request.address.base.sa_family;
    UniqueFd fd(socket(family, request.type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!fd) {
        *fault = {MSG_SOCKET_FAILED, errno};
        return {};
    }
    set_options(fd.get(), request);
    if (!bind_socket(fd.get(), request)) {
        *fault = {MSG_BIND_FAILED, errno};
        return {};
    }
    if (request.type == SOCK_STREAM && listen(fd.get(), listen_backlog) != 0) {
        *fault = {MSG_LISTEN_FAILED, errno};
        return {};
    }
    return fd;
}

ks_sockaddr_storage_t wildcard_address(int family) {
    ks_sockaddr_storage_t address = {};
    sysutl_sockaddr_any_init(family, &address);
    return address;
}

std::optional<ks_sockaddr_storage_t> resolve_address(const std::string &text) {
    ks_sockaddr_storage_t address = {};
    if (inet_pton(AF_INET, text.c_str(), &address.ipv4.sin_addr) == 1) {
        address.ipv4.sin_family = AF_INET;
        return address;
    }
    if (inet_pton(AF_INET6, text.c_str(), &address.ipv6.sin6_addr) == 1) {
        address.ipv6.sin6_family = AF_INET6;
        return address;
    }
    addrinfo *found = nullptr;
    if (sysutl_host_addr(text.c_str(), nullptr, 0, &found) != 0 || found == nullptr)
        return std::nullopt;
    sysutl_copy_sockaddr(&address, found->ai_addr);
    freeaddrinfo(found);
    sysutl_sockaddr_set_port(&address.base, 0);
    return address;
}

} // namespace velia::server
