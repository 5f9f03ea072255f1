// One question over netlink with both ends of the call: the answer is about that socket and no other, or there is none.
// A UDP socket is known by both ends only if it is connected. A closed socket has no number that any descriptor could
// have.
#include <server/rights/socket_owner.h>

#include <array>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <memory>
#include <string>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <arpa/inet.h>

#include <server/loop/unique_fd.h>

namespace velia::server {

namespace {

constexpr timeval answer_time = {0, 200'000}; // the kernel answers before send returns
constexpr size_t link_name_size = 64;

struct Question {
    nlmsghdr header;
    inet_diag_req_v2 request;
};

union Answer {
    std::array<char, 4096> bytes;
    nlmsghdr header;
};

uint16_t port_of(const ks_sockaddr_storage_t &address) {
    return address.base.sa_family == AF_INET ? address.ipv4.sin_port : address.ipv6.sin6_port;
}

void put_address(const ks_sockaddr_storage_t &address, __be32 (&words)[4]) {
    if (address.base.sa_family == AF_INET)
        memcpy(words, &address.ipv4.sin_addr, sizeof address.ipv4.sin_addr);
    else
        memcpy(words, &address.ipv6.sin6_addr, sizeof address.ipv6.sin6_addr);
}

// The socket whose own end is `own`, connected to `other`.
inet_diag_sockid ends(const ks_sockaddr_storage_t &own, const ks_sockaddr_storage_t &other) {
    inet_diag_sockid id = {};
    id.idiag_sport = port_of(own);
    id.idiag_dport = port_of(other);
    put_address(own, id.idiag_src);
    put_address(other, id.idiag_dst);
    id.idiag_cookie[0] = id.idiag_cookie[1] = INET_DIAG_NOCOOKIE;
    return id;
}

bool is_same(const inet_diag_sockid &left, const inet_diag_sockid &right) {
    return left.idiag_sport == right.idiag_sport && left.idiag_dport == right.idiag_dport &&
           memcmp(left.idiag_src, right.idiag_src, sizeof left.idiag_src) == 0 &&
           memcmp(left.idiag_dst, right.idiag_dst, sizeof left.idiag_dst) == 0;
}

// The number of the socket; 0 for none.
uint32_t ask(int family, int protocol, const inet_diag_sockid &asked, const inet_diag_sockid &wanted) {
    const UniqueFd fd(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_SOCK_DIAG));
    Question question = {};
    question.header.nlmsg_len = sizeof question;
    question.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
    question.header.nlmsg_flags = NLM_F_REQUEST;
    question.request.sdiag_family = static_cast<uint8_t>(family);
    question.request.sdiag_protocol = static_cast<uint8_t>(protocol);
    question.request.idiag_states = ~0U;
    question.request.id = asked;
    if (!fd || setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &answer_time, sizeof answer_time) != 0 ||
        send(fd.get(), &question, sizeof question, 0) != static_cast<ssize_t>(sizeof question))
        return 0;
    Answer answer;
    const ssize_t length = recv(fd.get(), answer.bytes.data(), answer.bytes.size(), 0);
    if (length < static_cast<ssize_t>(NLMSG_LENGTH(sizeof(inet_diag_msg))) ||
        answer.header.nlmsg_type != SOCK_DIAG_BY_FAMILY)
        return 0;
    inet_diag_msg told;
    memcpy(&told, NLMSG_DATA(&answer.header), sizeof told);
    return is_same(told.id, wanted) ? told.idiag_inode : 0;
}

// Kernels differ in which end of a UDP question is the socket's own; what they answer is looked at by its own ends.
uint32_t socket_number(const ks_sockaddr_storage_t &peer, const ks_sockaddr_storage_t &local, bool is_udp) {
    const auto wanted = ends(peer, local);
    const int protocol = is_udp ? IPPROTO_UDP : IPPROTO_TCP;
    const uint32_t number = ask(peer.base.sa_family, protocol, wanted, wanted);
    return number != 0 || !is_udp ? number : ask(peer.base.sa_family, protocol, ends(local, peer), wanted);
}

struct DirectoryCloser {
    void operator()(DIR *directory) const { closedir(directory); }
};

bool has_open(const std::string &directory_name, uint32_t number) {
    const std::unique_ptr<DIR, DirectoryCloser> directory(opendir(directory_name.c_str()));
    const std::string wanted = "socket:[" + std::to_string(number) + "]";
    while (directory != nullptr) {
        const dirent *entry = readdir(directory.get());
        if (entry == nullptr)
            break;
        std::array<char, link_name_size> link = {};
        const ssize_t length = readlinkat(dirfd(directory.get()), entry->d_name, link.data(), link.size() - 1);
        if (length > 0 && wanted == link.data())
            return true;
    }
    return false;
}

} // namespace

bool owns_socket(int32_t pid, const Caller &caller) {
    const auto peer = unmapped(caller.peer);
    auto local = unmapped(caller.local);
    if (peer.base.sa_family != local.base.sa_family)
        return false;
    const uint32_t number = socket_number(peer, local, caller.transport == RVZD_PROTOCOL_UDP);
    return number != 0 && has_open("/proc/" + std::to_string(pid) + "/fd", number) &&
           !has_open("/proc/self/fd", number);
}

} // namespace velia::server
