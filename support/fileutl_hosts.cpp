// Host names: which are this host, and the host part of a global path.
#include <support/fileutl.h>

#include <cstdlib>
#include <cstring>

#include <arpa/inet.h>
#include <netdb.h>
#include <strings.h>
#include <unistd.h>

#include <support/strutl.h>
#include <support/sysutl.h>

#include "site_names.h"
#include "this_host.h"

namespace {

constexpr char network_directory[] = "/net/";

// The address that `text` spells; false if it spells none. Never asks a resolver.
bool read_address(const char *text, ks_sockaddr_storage_t &address) {
    addrinfo hints = {};
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICHOST;
    addrinfo *found = nullptr;
    if (getaddrinfo(text, nullptr, &hints, &found) != 0)
        return false;
    sysutl_copy_sockaddr(&address, found->ai_addr);
    freeaddrinfo(found);
    return true;
}

bool is_loopback(const ks_sockaddr_storage_t &address) {
    constexpr uint32_t loopback_network = 127;
    sockaddr_in ipv4 = address.ipv4;
    const bool is_mapped = sysutl_get_v4mapped_addr(&address, &ipv4) == 0;
    if (!is_mapped && address.base.sa_family == AF_INET6)
        return IN6_IS_ADDR_LOOPBACK(&address.ipv6.sin6_addr);
    if (!is_mapped)
        ipv4 = address.ipv4;
    return ntohl(ipv4.sin_addr.s_addr) >> 24 == loopback_network;
}

bool same_address(const ks_sockaddr_storage_t &left, const sockaddr *right) {
    ks_sockaddr_storage_t other;
    sysutl_copy_sockaddr(&other, right);
    if (left.base.sa_family != other.base.sa_family)
        return false;
    if (left.base.sa_family == AF_INET)
        return left.ipv4.sin_addr.s_addr == other.ipv4.sin_addr.s_addr;
    return IN6_ARE_ADDR_EQUAL(&left.ipv6.sin6_addr, &other.ipv6.sin6_addr);
}

// On a machine with several hosts an address is this host's only if the site's file says so.
bool is_address_of_site_host(const char *host, const ks_sockaddr_storage_t &address) {
    addrinfo *addresses = nullptr;
    velia::support::find_site_host(host, "0", SOCK_STREAM, &addresses);
    bool found = false;
    for (const addrinfo *at = addresses; at != nullptr && !found; at = at->ai_next)
        found = same_address(address, at->ai_addr);
    if (addresses != nullptr)
        freeaddrinfo(addresses);
    return found;
}

bool is_name_of_this_machine(const char *host, const char *my_name) {
    if (strcasecmp(host, my_name) == 0)
        return true;
    const size_t host_length = strcspn(host, ".");
    const size_t my_length = strcspn(my_name, ".");
    const bool one_is_short = host[host_length] == '\0' || my_name[my_length] == '\0';
    return one_is_short && host_length == my_length && strncasecmp(host, my_name, my_length) == 0;
}

bool is_site_host() {
    const char *name = getenv("VELIA_HOSTNAME");
    return name != nullptr && *name != '\0';
}

bool is_this_host_by_site(const char *host) {
    const char *my_name = sysutl_myhostname();
    ks_sockaddr_storage_t address;
    if (strcasecmp(velia::support::as_this_host(host), my_name) == 0)
        return true;
    return read_address(host, address) && is_address_of_site_host(my_name, address);
}

bool is_this_host_by_system(const char *host) {
    ks_sockaddr_storage_t address;
    if (read_address(host, address))
        return is_loopback(address);
    return is_name_of_this_machine(host, sysutl_myhostname());
}

bool is_spelling_of_localhost(const char *host) {
    return strcasecmp(host, "localhost") == 0 || strcasecmp(host, "localhost.localdomain") == 0;
}

// A host part: what stands from `begin` for `length` characters.
int give_host(const char *begin, size_t length, char *buffer, size_t size) {
    if (length == 0 || length >= size)
        return 1;
    strutl_ncpy(buffer, begin, length);
    return 0;
}

} // namespace

int fileutl_is_localhost(const char *host) {
    if (host == nullptr || *host == '\0')
        return 0;
    if (is_spelling_of_localhost(host))
        return 1;
    return (is_site_host() ? is_this_host_by_site(host) : is_this_host_by_system(host)) ? 1 : 0;
}

int fileutl_hosts_equal(const char *left, const char *right) {
    if (left == nullptr || right == nullptr)
        return 0;
    if (strcasecmp(left, right) == 0)
        return 1;
    return fileutl_is_localhost(left) && fileutl_is_localhost(right) ? 1 : 0;
}

int fileutl_path_host(const char *path, char *buffer, size_t size) {
    if (size == 0)
        return 1;
    buffer[0] = '\0';
    if (path == nullptr)
        return 1;
    const char *host = nullptr;
    if (strutl_match_prefix(path, network_directory, &host) == 0 || strutl_match_prefix(path, "//", &host) == 0)
        return give_host(host, strcspn(host, "/"), buffer, size);
    const size_t host_length = strcspn(path, ":/");
    if (strncmp(path + host_length, ":/", 2) != 0)
        return 1;
    return give_host(path, host_length, buffer, size);
}
