// The owner of the calling socket, from the kernel's socket tables. A port may be bound on several addresses by several
// users; if any of the sockets that could have sent the call is a stranger's, the call is a stranger's.
#include <server/broker/privilege.h>

#include <arpa/inet.h>
#include <array>
#include <cstdio>
#include <cstring>
#include <memory>
#include <unistd.h>

namespace velia::server {

namespace {

struct FileCloser {
    void operator()(FILE *file) const { fclose(file); }
};

constexpr size_t ipv4_digits = 8;
constexpr size_t ipv6_digits = 32;

// The kernel prints an address as words of the machine's order, in hexadecimal.
bool read_address(const char *digits, size_t digit_count, ks_sockaddr_storage_t &address) {
    std::array<uint32_t, 4> words = {};
    for (size_t i = 0; i < digit_count / ipv4_digits; ++i)
        if (sscanf(digits + i * ipv4_digits, "%8x", &words[i]) != 1)
            return false;
    if (digit_count == ipv4_digits) {
        address.ipv4.sin_family = AF_INET;
        memcpy(&address.ipv4.sin_addr, words.data(), sizeof address.ipv4.sin_addr);
    } else {
        address.ipv6.sin6_family = AF_INET6;
        memcpy(&address.ipv6.sin6_addr, words.data(), sizeof address.ipv6.sin6_addr);
    }
    return true;
}

bool is_wildcard(const std::string &text) {
    return text == "0.0.0.0" || text == "::";
}

uint16_t port_of(const ks_sockaddr_storage_t &address) {
    return ntohs(address.base.sa_family == AF_INET ? address.ipv4.sin_port : address.ipv6.sin6_port);
}

struct Verdict {
    bool found = false;
    bool stranger = false;
};

void judge_line(const char *line, const Caller &caller, Verdict &verdict) {
    std::array<char, ipv6_digits + 1> digits = {};
    unsigned port = 0;
    unsigned uid = 0;
    if (sscanf(line, " %*u: %32[0-9A-Fa-f]:%x %*s %*s %*s %*s %*s %u", digits.data(), &port, &uid) != 3 ||
        port != port_of(caller.peer))
        return;
    ks_sockaddr_storage_t address = {};
    const size_t digit_count = strlen(digits.data());
    if ((digit_count != ipv4_digits && digit_count != ipv6_digits) ||
        !read_address(digits.data(), digit_count, address))
        return;
    const auto text = address_text(address);
    if (!is_wildcard(text) && text != address_text(caller.peer))
        return;
    verdict.found = true;
    verdict.stranger |= uid != 0 && uid != geteuid();
}

void judge_table(const char *file_name, const Caller &caller, Verdict &verdict) {
    const std::unique_ptr<FILE, FileCloser> file(fopen(file_name, "re"));
    std::array<char, 512> line;
    while (file != nullptr && fgets(line.data(), line.size(), file.get()) != nullptr)
        judge_line(line.data(), caller, verdict);
}

} // namespace

bool is_privileged(const Caller &caller) {
    if (!is_from_this_host(caller))
        return false;
    Verdict verdict;
    const bool is_udp = caller.transport == RVZD_PROTOCOL_UDP;
    judge_table(is_udp ? "/proc/net/udp" : "/proc/net/tcp", caller, verdict);
    judge_table(is_udp ? "/proc/net/udp6" : "/proc/net/tcp6", caller, verdict);
    return verdict.found && !verdict.stranger;
}

} // namespace velia::server
