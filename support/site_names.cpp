// Reads config/hosts.conf and config/services.conf. They are small and read afresh at each question, so that a change
// counts at once; what is wrong in them is told at the first question alone. A raise may land while a message is
// printed, so that comes when nothing is held yet or any more.
#include "site_names.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <arpa/inet.h>
#include <strings.h>
#include <sys/socket.h>

#include <common/text_file.h>
#include <support/tbs.h>

#include "refused_file.h"
#include "words.h"

using namespace velia;

namespace {

constexpr FileBounds site_file_bounds = {list_file.file_bytes, 1023};
constexpr unsigned port_max = 65535;

// The next line without its comment. A line that is longer than any sensible one is passed over.
FileOutcome next_line(TextFile &file, TextLine &line) {
    FileOutcome outcome = file.next_line(line);
    while (outcome == FileOutcome::line_too_long)
        outcome = file.skip_line() == FileOutcome::ok ? file.next_line(line) : FileOutcome::end;
    if (outcome == FileOutcome::ok)
        line.text[strcspn(line.text, "#")] = '\0';
    return outcome;
}

// Calls `take(words)` with what follows the name on each line that begins with it, until it says that it has enough.
template <class Take>
FileOutcome take_lines_of(TextFile &file, const char *name, Take &&take) {
    FileOutcome outcome;
    for (TextLine line; (outcome = next_line(file, line)) == FileOutcome::ok;) {
        char *at = line.text;
        const char *line_name = next_word(&at);
        if (line_name != nullptr && strcasecmp(line_name, name) == 0 && take(at))
            break;
    }
    return outcome;
}

bool is_address(const char *word) {
    in_addr ipv4;
    in6_addr ipv6;
    char without_scope[INET6_ADDRSTRLEN] = "";
    const size_t length = strcspn(word, "%");
    if (length < sizeof without_scope)
        memcpy(without_scope, word, length);
    return inet_aton(word, &ipv4) != 0 || inet_pton(AF_INET6, without_scope, &ipv6) == 1;
}

// "port" or "port/protocol", cut apart; 0 if it is no port.
unsigned split_port(char *word, const char *&protocol) {
    char *slash = strchr(word, '/');
    protocol = slash != nullptr ? slash + 1 : nullptr;
    if (slash != nullptr)
        *slash = '\0';
    char *end = nullptr;
    const unsigned long port = strtoul(word, &end, 10);
    const bool is_number = *word >= '0' && *word <= '9' && *end == '\0' && port <= port_max;
    return is_number ? static_cast<unsigned>(port) : 0;
}

// What nobody can mean by the words behind a name; null for nothing.
const char *fault_of_host(char *words) {
    char *word = next_word(&words);
    if (word == nullptr)
        return "there is no address";
    for (; word != nullptr; word = next_word(&words))
        if (!is_address(word))
            return "an address is malformed";
    return nullptr;
}

const char *fault_of_service(char *words) {
    char *word = next_word(&words);
    if (word == nullptr)
        return "there is no port";
    const char *protocol;
    if (split_port(word, protocol) == 0)
        return "the port is malformed";
    const bool is_known = protocol == nullptr || strcasecmp(protocol, "udp") == 0 || strcasecmp(protocol, "tcp") == 0;
    return is_known ? nullptr : "the protocol is neither udp nor tcp";
}

// One of the two files. It is read so often that a refusal is printed once, and again after it could be read, and its
// faults once a process.
struct SiteFile {
    const char *name;
    const char *(*fault_of)(char *words);
    bool is_refusal_printed;
    bool is_checked;
};

SiteFile hosts_file = {"hosts.conf", fault_of_host, false, false};
SiteFile services_file = {"services.conf", fault_of_service, false, false};

struct Fault {
    int line_number;
    const char *words;
};
constexpr size_t fault_count_max = 8;

const char *fault_of_line(const SiteFile &site_file, TextFile &file, FileOutcome outcome, TextLine &line) {
    if (outcome == FileOutcome::line_too_long) {
        file.skip_line();
        return "it is too long";
    }
    line.text[strcspn(line.text, "#")] = '\0';
    char *at = line.text;
    return next_word(&at) != nullptr ? site_file.fault_of(at) : nullptr;
}

size_t find_faults(const SiteFile &site_file, TextFile &file, Fault (&faults)[fault_count_max]) {
    size_t count = 0;
    int line_number = 1;
    for (TextLine line; count < fault_count_max; ++line_number) {
        const FileOutcome outcome = file.next_line(line);
        if (outcome != FileOutcome::ok && outcome != FileOutcome::line_too_long)
            break;
        const char *words = fault_of_line(site_file, file, outcome, line);
        if (words != nullptr)
            faults[count++] = {line_number, words};
    }
    return count;
}

void tell_faults(SiteFile &site_file, const char *path) {
    TextFile file;
    Fault faults[fault_count_max];
    if (__atomic_load_n(&site_file.is_checked, __ATOMIC_RELAXED) ||
        file.open(path, site_file_bounds) != FileOutcome::ok)
        return;
    const size_t count = find_faults(site_file, file, faults);
    file.close();
    if (__atomic_exchange_n(&site_file.is_checked, true, __ATOMIC_RELAXED))
        return;
    for (size_t i = 0; i < count; ++i)
        imsg_print(IMSG_WARNING, "Line %d of \"%s\" is not understood: %s.\n", IMSG_FORMAT, faults[i].line_number, path,
                   faults[i].words);
}

// Gives the lines of `name` to `take`. If the file is refused, also half-way, calls `forget()` and says so. 0, or the
// errno value of a file that could not be read.
template <class Take, class Forget>
int read_site_file(SiteFile &site_file, const char *name, Take &&take, Forget &&forget) {
    char path[TBS_PATH_SIZE];
    if (tbs_product_config_dir(path, site_file.name) != TBS_ST_OK)
        return 0;
    tell_faults(site_file, path);
    TextFile file;
    FileOutcome outcome = file.open(path, site_file_bounds);
    if (outcome == FileOutcome::ok) {
        outcome = take_lines_of(file, name, take);
        file.close();
    }
    if (!is_refused(outcome)) {
        __atomic_store_n(&site_file.is_refusal_printed, false, __ATOMIC_RELAXED);
        return outcome == FileOutcome::unreadable ? file.error_number() : 0;
    }
    forget();
    if (!__atomic_exchange_n(&site_file.is_refusal_printed, true, __ATOMIC_RELAXED))
        support::print_refused_file(path, file, outcome);
    return 0;
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

// 0 if it is malformed or for another protocol.
unsigned port_of_word(char *word, int socket_type) {
    const char *protocol;
    const unsigned port = split_port(word, protocol);
    return is_protocol_of(protocol, socket_type) ? port : 0;
}

} // namespace

int velia::support::find_site_host(const char *host, const char *port, int socket_type, addrinfo **result) {
    int error = 0;
    const auto take = [&](char *words) {
        while (char *address = next_word(&words)) {
            error = append_address(address, port, socket_type, result);
            if (error != 0)
                return true;
        }
        return false;
    };
    const auto forget = [&] {
        if (*result != nullptr)
            freeaddrinfo(*result);
        *result = nullptr;
        error = 0;
    };
    read_site_file(hosts_file, host, take, forget);
    return error;
}

bool velia::support::lacks_means(int error_number) {
    return error_number == EMFILE || error_number == ENFILE || error_number == ENOMEM;
}

int velia::support::find_site_service(const char *service, int socket_type, unsigned &port) {
    port = 0;
    const auto take = [&](char *words) {
        char *word = next_word(&words);
        if (word != nullptr)
            port = port_of_word(word, socket_type);
        return port != 0;
    };
    const int error_number = read_site_file(services_file, service, take, [&] { port = 0; });
    if (port != 0 || !lacks_means(error_number))
        return 0;
    errno = error_number;
    return EAI_SYSTEM;
}
