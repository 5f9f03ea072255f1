// The system has tables of the sockets of UDP and TCP, "... LOCAL_ADDRESS:PORT REMOTE:PORT STATE SENDING:WAITING ...",
// in hexadecimal. Of sockets of the host it tells by a question over netlink.
#include <tests/system/support/unread.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <linux/sock_diag.h>
#include <linux/unix_diag.h>
#include <sys/socket.h>
#include <unistd.h>

namespace velia::system_test {

namespace {

constexpr const char *tables[] = {"/proc/net/udp", "/proc/net/udp6", "/proc/net/tcp", "/proc/net/tcp6"};

bool has_unread(const char *table, uint16_t port) {
    std::ifstream lines(table);
    for (std::string line; std::getline(lines, line);) {
        unsigned at = 0;
        unsigned unread = 0;
        if (sscanf(line.c_str(), " %*u: %*[0-9A-F]:%4X %*s %*s %*8X:%8X", &at, &unread) == 2 && at == port &&
            unread > 0)
            return true;
    }
    return false;
}

// Sockets that were made of a connection have the name of the one that listened, once they have been accepted; before,
// the caller waits at the one that listens.
bool is_unread_socket(const nlmsghdr *message, const std::string &directory) {
    std::string name;
    uint32_t unread = 0;
    auto *told = static_cast<unix_diag_msg *>(NLMSG_DATA(message));
    auto *attribute = reinterpret_cast<rtattr *>(told + 1);
    for (auto left = static_cast<int>(NLMSG_PAYLOAD(message, sizeof *told)); RTA_OK(attribute, left);
         attribute = RTA_NEXT(attribute, left)) {
        if (attribute->rta_type == UNIX_DIAG_NAME)
            name.assign(static_cast<char *>(RTA_DATA(attribute)), RTA_PAYLOAD(attribute));
        else if (attribute->rta_type == UNIX_DIAG_RQLEN)
            unread = static_cast<unix_diag_rqlen *>(RTA_DATA(attribute))->udiag_rqueue;
    }
    return unread > 0 && name.starts_with(directory);
}

bool has_unread_of_host(const std::string &directory) {
    struct {
        nlmsghdr header;
        unix_diag_req request;
    } question = {};
    question.header.nlmsg_len = sizeof question;
    question.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
    question.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    question.request.sdiag_family = AF_UNIX;
    question.request.udiag_states = ~0U;
    question.request.udiag_show = UDIAG_SHOW_NAME | UDIAG_SHOW_RQLEN;
    const int fd = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_SOCK_DIAG);
    bool is_found = false;
    bool is_over = send(fd, &question, sizeof question, 0) < 0;
    alignas(nlmsghdr) static std::array<char, 65536> bytes;
    while (!is_over) {
        auto length = static_cast<unsigned>(std::max<ssize_t>(recv(fd, bytes.data(), bytes.size(), 0), 0));
        is_over = length == 0;
        for (auto *message = reinterpret_cast<nlmsghdr *>(bytes.data()); NLMSG_OK(message, length);
             message = NLMSG_NEXT(message, length)) {
            is_over = is_over || message->nlmsg_type == NLMSG_DONE || message->nlmsg_type == NLMSG_ERROR;
            is_found = is_found || (!is_over && is_unread_socket(message, directory));
        }
    }
    close(fd);
    return is_found;
}

} // namespace

bool is_request_waiting(const Site &site) {
    return std::any_of(std::begin(tables), std::end(tables),
                       [&](const char *table) { return has_unread(table, site.port()); }) ||
           has_unread_of_host(site.path("host/run"));
}

} // namespace velia::system_test
