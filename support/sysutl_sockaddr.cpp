// Socket addresses of both families.
#include <support/sysutl.h>

#include <cstdio>
#include <cstring>

#include <arpa/inet.h>

namespace {

uint16_t *port_of(sockaddr *address) {
    if (address->sa_family == AF_INET)
        return &reinterpret_cast<sockaddr_in *>(address)->sin_port;
    if (address->sa_family == AF_INET6)
        return &reinterpret_cast<sockaddr_in6 *>(address)->sin6_port;
    return nullptr;
}

} // namespace

socklen_t sysutl_sockaddr_size(const struct sockaddr *address) {
    if (address->sa_family == AF_INET)
        return sizeof(sockaddr_in);
    return address->sa_family == AF_INET6 ? sizeof(sockaddr_in6) : 0;
}

// What is no address of either family becomes the address of no family.
void sysutl_copy_sockaddr(ks_sockaddr_storage_t *destination, const struct sockaddr *source) {
    ks_sockaddr_storage_t copy = {};
    memset(&copy, 0, sizeof copy);
    memcpy(&copy, source, sysutl_sockaddr_size(source));
    memcpy(destination, &copy, sizeof copy);
}

int sysutl_sockaddr_get_port(const struct sockaddr *address, uint16_t *port) {
    const uint16_t *from = port_of(const_cast<sockaddr *>(address));
    if (from == nullptr)
        return -1;
    *port = *from;
    return 0;
}

int sysutl_sockaddr_set_port(struct sockaddr *address, uint16_t port) {
    uint16_t *to = port_of(address);
    if (to == nullptr)
        return -1;
    *to = port;
    return 0;
}

int sysutl_sockaddr_any_init(int family, ks_sockaddr_storage_t *address) {
    memset(address, 0, sizeof *address);
    if (family != AF_INET && family != AF_INET6)
        return -1;
    // The wildcard address is all zeros in both families.
    address->base.sa_family = static_cast<sa_family_t>(family);
    return 0;
}

int sysutl_host_numeric(const struct sockaddr *address, size_t size, char *buffer, int /*reserved1*/,
                        int /*reserved2*/) {
    return getnameinfo(address, sysutl_sockaddr_size(address), buffer, static_cast<socklen_t>(size), nullptr, 0,
                       NI_NUMERICHOST);
}

char *sysutl_sockaddr_to_str(const struct sockaddr *address, size_t size, char *buffer) {
    char host[INET6_ADDRSTRLEN + 16];
    uint16_t port = 0;
    if (sysutl_host_numeric(address, sizeof host, host, 0, 0) != 0) {
        snprintf(buffer, size, "family %d", address->sa_family);
        return buffer;
    }
    sysutl_sockaddr_get_port(address, &port);
    const bool is_ipv6 = address->sa_family == AF_INET6;
    snprintf(buffer, size, "%s%s%s:%d", is_ipv6 ? "[" : "", host, is_ipv6 ? "]" : "", ntohs(port));
    return buffer;
}

int sysutl_is_addr_v4mapped(const ks_sockaddr_storage_t *address) {
    return address->base.sa_family == AF_INET6 && IN6_IS_ADDR_V4MAPPED(&address->ipv6.sin6_addr);
}

int sysutl_get_v4mapped_addr(const ks_sockaddr_storage_t *address, struct sockaddr_in *result) {
    if (!sysutl_is_addr_v4mapped(address))
        return -1;
    const uint16_t port = address->ipv6.sin6_port;
    in_addr host;
    memcpy(&host, &address->ipv6.sin6_addr.s6_addr[12], sizeof host);
    memset(result, 0, sizeof *result);
    result->sin_family = AF_INET;
    result->sin_port = port;
    result->sin_addr = host;
    return 0;
}

int sysutl_set_ipv4_as_ipv6mapped(const struct sockaddr_in *address, ks_sockaddr_storage_t *result) {
    const sockaddr_in from = *address;
    memset(result, 0, sizeof *result);
    result->ipv6.sin6_family = AF_INET6;
    result->ipv6.sin6_port = from.sin_port;
    memset(&result->ipv6.sin6_addr.s6_addr[10], 0xff, 2);
    memcpy(&result->ipv6.sin6_addr.s6_addr[12], &from.sin_addr, sizeof from.sin_addr);
    return 0;
}
