// Socket addresses of either family.
#include <support/sysutl.h>

#include <cstring>

#include <arpa/inet.h>

namespace {

const sockaddr_in &ipv4(const sockaddr *address) {
    return *reinterpret_cast<const sockaddr_in *>(address);
}

const sockaddr_in6 &ipv6(const sockaddr *address) {
    return *reinterpret_cast<const sockaddr_in6 *>(address);
}

constexpr size_t mapped_ipv4_at = 12; // within the 16 bytes of an IPv6 address

} // namespace

void sysutl_copy_sockaddr(ks_sockaddr_storage_t *destination, const struct sockaddr *source) {
    ks_sockaddr_storage_t copy = {};
    memset(&copy, 0, sizeof copy);
    memcpy(&copy, source, sysutl_sockaddr_size(source));
    *destination = copy;
}

socklen_t sysutl_sockaddr_size(const struct sockaddr *address) {
    switch (address->sa_family) {
    case AF_INET:
        return sizeof(sockaddr_in);
    case AF_INET6:
        return sizeof(sockaddr_in6);
    default:
        return 0;
    }
}

int sysutl_sockaddr_get_port(const struct sockaddr *address, uint16_t *port) {
    *port = 0;
    switch (address->sa_family) {
    case AF_INET:
        *port = ipv4(address).sin_port;
        return 0;
    case AF_INET6:
        *port = ipv6(address).sin6_port;
        return 0;
    default:
        return -1;
    }
}

int sysutl_sockaddr_set_port(struct sockaddr *address, uint16_t port) {
    switch (address->sa_family) {
    case AF_INET:
        reinterpret_cast<sockaddr_in *>(address)->sin_port = port;
        return 0;
    case AF_INET6:
        reinterpret_cast<sockaddr_in6 *>(address)->sin6_port = port;
        return 0;
    default:
        return -1;
    }
}

// Both wildcard addresses are all zero.
int sysutl_sockaddr_any_init(int family, ks_sockaddr_storage_t *address) {
    memset(address, 0, sizeof *address);
    if (family != AF_INET && family != AF_INET6)
        return -1;
    address->base.sa_family = static_cast<sa_family_t>(family);
    return 0;
}

int sysutl_host_numeric(const struct sockaddr *address, size_t size, char *buffer, int, int) {
    const socklen_t length = sysutl_sockaddr_size(address);
    if (length == 0)
        return EAI_FAMILY;
    return getnameinfo(address, length, buffer, static_cast<socklen_t>(size), nullptr, 0, NI_NUMERICHOST);
}

char *sysutl_sockaddr_to_str(const struct sockaddr *address, size_t size, char *buffer) {
    char host[SYSUTL_ADDRESS_TEXT_SIZE];
    uint16_t port = 0;
    if (sysutl_host_numeric(address, sizeof host, host, 0, 0) != 0) {
        snprintf(buffer, size, "?");
        return buffer;
    }
    sysutl_sockaddr_get_port(address, &port);
    const char *form = address->sa_family == AF_INET6 ? "[%s]:%u" : "%s:%u";
    snprintf(buffer, size, form, host, static_cast<unsigned>(ntohs(port)));
    return buffer;
}

int sysutl_is_addr_v4mapped(const ks_sockaddr_storage_t *address) {
    return address->base.sa_family == AF_INET6 && IN6_IS_ADDR_V4MAPPED(&address->ipv6.sin6_addr);
}

int sysutl_get_v4mapped_addr(const ks_sockaddr_storage_t *address, struct sockaddr_in *result) {
    sockaddr_in taken = {};
    const bool is_mapped = sysutl_is_addr_v4mapped(address) != 0;
    if (is_mapped) {
        taken.sin_family = AF_INET;
        taken.sin_port = address->ipv6.sin6_port;
        memcpy(&taken.sin_addr, &address->ipv6.sin6_addr.s6_addr[mapped_ipv4_at], sizeof taken.sin_addr);
    }
    *result = taken;
    return is_mapped ? 0 : -1;
}

int sysutl_set_ipv4_as_ipv6mapped(const struct sockaddr_in *address, ks_sockaddr_storage_t *result) {
    ks_sockaddr_storage_t mapped;
    memset(&mapped, 0, sizeof mapped);
    const bool is_ipv4 = address->sin_family == AF_INET;
    if (is_ipv4) {
        mapped.ipv6.sin6_family = AF_INET6;
        mapped.ipv6.sin6_port = address->sin_port;
        mapped.ipv6.sin6_addr.s6_addr[10] = 0xff;
        mapped.ipv6.sin6_addr.s6_addr[11] = 0xff;
        memcpy(&mapped.ipv6.sin6_addr.s6_addr[mapped_ipv4_at], &address->sin_addr, sizeof address->sin_addr);
    }
    *result = mapped;
    return is_ipv4 ? 0 : -1;
}
