// Names of hosts and services. The files config/hosts.conf and config/services.conf of the installation come before the
// system's own sources, so that a whole site can live on the loopback addresses of one machine without privileges.
#include <support/sysutl.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <strings.h>
#include <unistd.h>

namespace {

constexpr size_t line_size = 1024;
constexpr char blanks[] = " \t\r\n";

// Runs `use` with the words of each line until it returns true; comments and lines that do not fit are left out.
template <class Use>
bool for_each_line(const char *file_name, Use &&use) {
    char path[TBS_PATH_SIZE];
    if (tbs_product_config_dir(path, file_name) != TBS_ST_OK)
        return false;
    FILE *file = fopen(path, "re");
    if (file == nullptr)
        return false;
    char line[line_size];
    bool done = false;
    while (!done && fgets(line, sizeof line, file) != nullptr) {
        line[strcspn(line, "#")] = '\0';
        char *rest = nullptr;
        const char *name = strtok_r(line, blanks, &rest);
        if (name != nullptr)
            done = use(name, rest);
    }
    fclose(file);
    return done;
}

int numeric_entry(const char *address, const char *port, int socket_type, addrinfo **result) {
    addrinfo hints = {};
    hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
    hints.ai_socktype = socket_type != 0 ? socket_type : SOCK_STREAM;
    return getaddrinfo(address, port, &hints, result);
}

struct Lookup {
    const char *host;
    const char *port; // digits, or null
    int socket_type;
    addrinfo **result;
};

// Appends each address of the line; the list is glued from the system's own, so freeaddrinfo releases it.
bool take_addresses(const Lookup &lookup, char *rest) {
    addrinfo **tail = lookup.result;
    for (const char *address = strtok_r(nullptr, blanks, &rest); address != nullptr;
         address = strtok_r(nullptr, blanks, &rest)) {
        if (numeric_entry(address, lookup.port, lookup.socket_type, tail) != 0)
            continue;
        while (*tail != nullptr)
            tail = &(*tail)->ai_next;
    }
    return *lookup.result != nullptr;
}

bool find_in_hosts(const Lookup &lookup) {
    return for_each_line("hosts.conf", [&](const char *name, char *rest) {
        return strcasecmp(name, lookup.host) == 0 && take_addresses(lookup, rest);
    });
}

bool names_protocol(const char *protocol, int socket_type) {
    if (protocol == nullptr || socket_type == 0)
        return true;
    return strcasecmp(protocol, socket_type == SOCK_DGRAM ? "udp" : "tcp") == 0;
}

// Leaves the digits of the service's port in `port`.
bool find_in_services(const char *service, int socket_type, char *port, size_t port_size) {
    return for_each_line("services.conf", [&](const char *name, char *rest) {
        const char *entry = strtok_r(nullptr, blanks, &rest);
        if (entry == nullptr || strcasecmp(name, service) != 0)
            return false;
        const char *slash = strchr(entry, '/');
        const size_t length = slash != nullptr ? static_cast<size_t>(slash - entry) : strlen(entry);
        if (length == 0 || length >= port_size || strspn(entry, "0123456789") != length)
            return false;
        memcpy(port, entry, length);
        port[length] = '\0';
        return names_protocol(slash != nullptr ? slash + 1 : nullptr, socket_type);
    });
}

// The machine's own name stands for the host that this process is told to be.
const char *as_this_host(const char *host) {
    const char *given = getenv("VELIA_HOSTNAME");
    char machine[256];
    if (given == nullptr || *given == '\0' || gethostname(machine, sizeof machine) != 0)
        return host;
    machine[sizeof machine - 1] = '\0';
    return strcasecmp(host, machine) == 0 ? given : host;
}

int ask_system(const char *host, const char *service, int socket_type, addrinfo **result) {
    addrinfo hints = {};
    hints.ai_socktype = socket_type != 0 ? socket_type : service == nullptr ? SOCK_STREAM : 0;
    return getaddrinfo(host, service, &hints, result);
}

} // namespace

int sysutl_host_addr(const char *host, const char *service, int socket_type, struct addrinfo **result) {
    *result = nullptr;
    char digits[8];
    const char *port = service;
    if (service != nullptr && find_in_services(service, socket_type, digits, sizeof digits))
        port = digits;
    if (host == nullptr)
        return ask_system(nullptr, port, socket_type, result);
    host = as_this_host(host);
    const bool port_is_known = port == nullptr || port == digits || strspn(port, "0123456789") == strlen(port);
    if (port_is_known && find_in_hosts({host, port, socket_type, result}))
        return 0;
    return ask_system(host, port, socket_type, result);
}
