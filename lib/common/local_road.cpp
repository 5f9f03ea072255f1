#include <common/local_road.h>

#include <cstdio>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <unistd.h>

namespace velia {

namespace {

// True when the text fitted.
bool fits(int length, size_t size) {
    return length >= 0 && static_cast<size_t>(length) < size;
}

} // namespace

bool local_road_name(const sockaddr *address, char (&name)[local_road_name_size]) {
    char text[INET6_ADDRSTRLEN];
    const void *bytes = nullptr;
    in_port_t port = 0;
    if (address->sa_family == AF_INET) {
        const auto *ipv4 = reinterpret_cast<const sockaddr_in *>(address);
        bytes = &ipv4->sin_addr;
        port = ipv4->sin_port;
    } else if (address->sa_family == AF_INET6) {
        const auto *ipv6 = reinterpret_cast<const sockaddr_in6 *>(address);
        bytes = &ipv6->sin6_addr;
        port = ipv6->sin6_port;
    }
    return bytes != nullptr && inet_ntop(address->sa_family, bytes, text, sizeof text) != nullptr &&
           fits(snprintf(name, sizeof name, "rvzd.%s.%u", text, static_cast<unsigned>(ntohs(port))), sizeof name);
}

LocalRoadAddress::LocalRoadAddress(const char *directory, const char *name)
    : address_(), length_(sizeof address_), directory_(-1) {
    address_.sun_family = AF_UNIX;
    const size_t size = sizeof address_.sun_path;
    if (fits(snprintf(address_.sun_path, size, "%s/%s", directory, name), size))
        return;
    directory_ = open(directory, O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (directory_ < 0 || !fits(snprintf(address_.sun_path, size, "/proc/self/fd/%d/%s", directory_, name), size))
        length_ = 0;
}

LocalRoadAddress::~LocalRoadAddress() {
    if (directory_ >= 0)
        close(directory_);
}

} // namespace velia
