// Reads config/hosts.conf and config/services.conf. They are small and read afresh at each question, so that a change
// counts at once.
#include "site_names.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <strings.h>
#include <sys/socket.h>

#include <support/tbs.h>

namespace {

constexpr size_t line_size = 1024;
constexpr char blanks[] = " \t\r\n";
constexpr unsigned port_max = 65535;

char *next_word(char **at) {
    *at += strspn(*at, blanks);
    if (**at == '\0')
        return nullptr;
    char *word = *at;
    *at += strcspn(*at, blanks);
    if (**at != '\0')
        *(*at)++ = '\0';
    return word;
}

void skip_rest_of_line(FILE *file) {
    for (int byte = getc(file); byte != EOF && byte != '\n';)
        byte = getc(file);
}

// One line without its comment. A line that is longer than any sensible one is passed over.
bool next_line(FILE *file, char (&line)[line_size]) {
    while (fgets(line, sizeof line, file) != nullptr) {
        const bool is_whole = strchr(line, '\n') != nullptr || feof(file);
        if (is_whole) {
            line[strcspn(line, "#")] = '\0';
            return true;
        }
        skip_rest_of_line(file);
    }
    return false;
}

// Calls `take(words)` with what follows the name on each line that begins with it, until it says that it has enough.
template <class Take>
void for_each_line_of(const char *file_name, const char *name, Take &&take) {
    char path[TBS_PATH_SIZE];
    if (tbs_product_config_dir(path, file_name) != TBS_ST_OK)
        return;
    FILE *file = fopen(path, "re");
    if (file == nullptr)
        return;
    char line[line_size];
    bool enough = false;
    while (!enough && next_line(file, line)) {
        char *at = line;
        const char *line_name = next_word(&at);
        if (line_name != nullptr && strcasecmp(line_name, name) == 0)
            enough = take(at);
    }
    fclose(file);
}

// The nodes come from the system's resolver, so that freeaddrinfo releases the joined list as it would its own.
int append_address(const char *address, const char *port, int socket_type, addrinfo **list) {
    addrinfo hints = {};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = socket_type;
    hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
    addrinfo *found = nullptr;
    const int error = getaddrinfo(address, port, &hints, &found);
    if (error == EAI_NONAME)
        return 0;
    if (error != 0)
        return error;
    while (*list != nullptr)
        list = &(*list)->ai_next;
    *list = found;
    return 0;
}

bool is_protocol_of(const char *protocol, int socket_type) {
    return protocol == nullptr || socket_type == 0 ||
           strcasecmp(protocol, socket_type == SOCK_DGRAM ? "udp" : "tcp") == 0;
}

// "port" or "port/protocol"; 0 if it is malformed or for another protocol.
unsigned port_of_word(char *word, int socket_type) {
    char *protocol = strchr(word, '/');
    if (protocol != nullptr)
        *protocol++ = '\0';
    char *end = nullptr;
    const unsigned long port = strtoul(word, &end, 10);
    const bool is_number = *word >= '0' && *word <= '9' && *end == '\0' && port <= port_max;
    return is_number && is_protocol_of(protocol, socket_type) ? static_cast<unsigned>(port) : 0;
}

} // namespace

int velia::support::find_site_host(const char *host, const char *port, int socket_type, addrinfo **result) {
    int error = 0;
    for_each_line_of("hosts.conf", host, [&](char *words) {
        while (char *address = next_word(&words)) {
            error = append_address(address, port, socket_type, result);
            if (error != 0)
                return true;
        }
        return false;
    });
    return error;
}

unsigned velia::support::find_site_service(const char *service, int socket_type) {
    unsigned port = 0;
    for_each_line_of("services.conf", service, [&](char *words) {
        char *word = next_word(&words);
        if (word != nullptr)
            port = port_of_word(word, socket_type);
        return port != 0;
    });
    return port;
}
