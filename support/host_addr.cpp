// Host and service look-up: the site's files first, then the system's resolver.
#include <support/sysutl.h>

#include <cerrno>
#include <cstdio>

#include "site_names.h"
#include "this_host.h"
#include "transport/resolver.h"

namespace {

constexpr size_t port_text_size = 16;

int ask_system(const char *host, const char *service, int socket_type, addrinfo **result) {
    addrinfo hints = {};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = socket_type;
    return velia::support::transport::look_up({host, service, hints}, result);
}

// A caller that has no wish gets each address once.
int type_of_entries(int socket_type) {
    return socket_type != 0 ? socket_type : SOCK_STREAM;
}

// A service that only the system knows is looked up by itself; its port goes for the site's addresses, too.
int system_port(const char *service, int socket_type, char (&port)[port_text_size]) {
    addrinfo *found = nullptr;
    errno = 0;
    const int error = ask_system(nullptr, service, socket_type, &found);
    // The resolver calls a service unknown, too, when it could not open the list.
    if (error == EAI_SERVICE && velia::support::lacks_means(errno))
        return EAI_SYSTEM;
    if (error != 0)
        return error;
    uint16_t network_port = 0;
    sysutl_sockaddr_get_port(found->ai_addr, &network_port);
    freeaddrinfo(found);
    snprintf(port, sizeof port, "%u", static_cast<unsigned>(ntohs(network_port)));
    return 0;
}

// The port as decimal text; "0" for no service.
int find_port(const char *service, int socket_type, char (&port)[port_text_size]) {
    snprintf(port, sizeof port, "0");
    if (service == nullptr)
        return 0;
    unsigned site_port = 0;
    const int error = velia::support::find_site_service(service, socket_type, site_port);
    if (error != 0)
        return error;
    if (site_port == 0)
        return system_port(service, socket_type, port);
    snprintf(port, sizeof port, "%u", site_port);
    return 0;
}

} // namespace

int sysutl_host_addr(const char *host, const char *service, int socket_type, struct addrinfo **result) {
    *result = nullptr;
    if (host == nullptr && service == nullptr)
        return EAI_NONAME;
    char port[port_text_size];
    int error = find_port(service, socket_type, port);
    if (error != 0)
        return error;
    const int entry_type = type_of_entries(socket_type);
    const char *wanted = host != nullptr ? velia::support::as_this_host(host) : nullptr;
    addrinfo *found = nullptr;
    if (wanted != nullptr)
        error = velia::support::find_site_host(wanted, port, entry_type, &found);
    if (error == 0 && found == nullptr)
        error = ask_system(wanted, port, entry_type, &found);
    if (error != 0) {
        if (found != nullptr)
            freeaddrinfo(found);
        return error;
    }
    *result = found;
    return 0;
}
