// The directory is only as good as who may write to it: sockets of others in it would get what is meant for the daemon.
#include <server/rpc/local_sockets.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <thread>

#include <common/local_road.h>
#include <server/messages.h>
#include <server/rpc/sockets.h>
#include <support/tbs.h>

namespace velia::server {

namespace {

constexpr mode_t directory_mode = 0755; // all local users come in
constexpr mode_t socket_mode = 0666;    // and may speak
constexpr mode_t lock_mode = 0600;
constexpr mode_t write_by_others = S_IWGRP | S_IWOTH;
constexpr int listen_backlog = 512;
constexpr const char *lock_name = "rvzd_server.lock";

static_assert(local_road_program == RVZD_PROGRAM);

void print_fault(const std::string &path, const char *why) {
    imsg_print(IMSG_ERROR, "Callers of this host cannot be served at \"%s\": %s\n", IMSG_FORMAT, path.c_str(), why);
}

std::string directory_name() {
    std::array<char, TBS_PATH_SIZE> path;
    // host/config is beside it.
    if (tbs_product_host_config_dir(path.data(), "") != TBS_ST_OK)
        return "";
    const std::string name = path.data();
    return name.substr(0, name.rfind("host/config")) + local_road_directory;
}

bool is_ours(const struct stat &status) {
    return S_ISDIR(status.st_mode) && (status.st_uid == geteuid() || status.st_uid == 0);
}

// Whoever comes across a directory that others could write to makes it theirs alone.
bool make_directory(const std::string &name) {
    const bool is_made = mkdir(name.c_str(), directory_mode) == 0;
    const UniqueFd fd(open(name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat status = {};
    if (!fd || fstat(fd.get(), &status) != 0) {
        print_fault(name, imsg_strerror(errno));
        return false;
    }
    if (!is_ours(status)) {
        print_fault(name, "the directory belongs to somebody else");
        return false;
    }
    if ((status.st_mode & 07777) == directory_mode)
        return true;
    if (!is_made && (status.st_mode & write_by_others) != 0)
        imsg_print(IMSG_WARNING, "Others could write to \"%s\"; they cannot any more.\n", IMSG_FORMAT, name.c_str());
    if (fchmod(fd.get(), directory_mode) == 0 || (status.st_mode & write_by_others) == 0)
        return true;
    print_fault(name, imsg_strerror(errno));
    return false;
}

// A daemon that was killed while it was making a server's process leaves its lock to that for a moment.
bool is_locked_soon(int fd) {
    constexpr int attempts = 100;
    constexpr std::chrono::milliseconds wait(10);
    for (int i = 0; i < attempts; ++i) {
        if (flock(fd, LOCK_EX | LOCK_NB) == 0)
            return true;
        if (errno != EWOULDBLOCK)
            return false;
        std::this_thread::sleep_for(wait);
    }
    errno = EWOULDBLOCK;
    return false;
}

// The file stays: a lock on a file that is removed would be one on nothing.
UniqueFd take_lock(const std::string &directory) {
    const std::string name = directory + "/" + lock_name;
    UniqueFd fd(open(name.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, lock_mode));
    if (fd && is_locked_soon(fd.get()))
        return fd;
    if (fd && errno == EWOULDBLOCK)
        print(IMSG_ERROR, MSG_ALREADY_RUNNING);
    else
        print_fault(name, imsg_strerror(errno));
    return {};
}

// A dual socket for all addresses takes IPv4, too, under the name that its callers look for.
std::vector<ks_sockaddr_storage_t> named_addresses(const std::vector<ks_sockaddr_storage_t> &addresses) {
    auto named = addresses;
    for (const auto &address : addresses)
        if (address.base.sa_family == AF_INET6 && IN6_IS_ADDR_UNSPECIFIED(&address.ipv6.sin6_addr)) {
            auto ipv4 = wildcard_address(AF_INET);
            sysutl_sockaddr_set_port(&ipv4.base, address.ipv6.sin6_port);
            named.push_back(ipv4);
        }
    return named;
}

// Callers who want the daemon anywhere on this host come from its loopback address.
ks_sockaddr_storage_t address_of_callers(const ks_sockaddr_storage_t &address) {
    auto callers = address;
    if (address.base.sa_family == AF_INET6 && IN6_IS_ADDR_UNSPECIFIED(&address.ipv6.sin6_addr))
        callers.ipv6.sin6_addr = in6addr_loopback;
    else if (address.base.sa_family == AF_INET && address.ipv4.sin_addr.s_addr == htonl(INADDR_ANY))
        callers.ipv4.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    sysutl_sockaddr_set_port(&callers.base, 0);
    return callers;
}

bool listen_at(int fd, const LocalRoadAddress &address) {
    const int on = 1;
    return setsockopt(fd, SOL_SOCKET, SO_PASSCRED, &on, sizeof on) == 0 &&
           bind(fd, address.get(), address.length()) == 0 && chmod(address.path(), socket_mode) == 0 &&
           ::listen(fd, listen_backlog) == 0;
}

union Control {
    std::array<char, CMSG_SPACE(sizeof(ucred))> room; // for nothing else, so that nothing else comes
    cmsghdr align;
};

} // namespace

LocalPlace::~LocalPlace() {
    for (const auto &path : made_)
        unlink(path.c_str());
}

std::optional<LocalPlace> LocalPlace::take() {
    LocalPlace place;
    place.directory_ = directory_name();
    if (!make_directory(place.directory_))
        return std::nullopt;
    place.lock_ = take_lock(place.directory_);
    return place.lock_ ? std::optional(std::move(place)) : std::nullopt;
}

std::optional<LocalSocket> LocalPlace::listen_for(const ks_sockaddr_storage_t &address) {
    char name[local_road_name_size];
    if (!local_road_name(&address.base, name))
        return std::nullopt;
    const std::string path = directory_ + "/" + name;
    const LocalRoadAddress socket_address(directory_.c_str(), name);
    UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    unlink(path.c_str());
    if (!fd || !socket_address.is_good() || !listen_at(fd.get(), socket_address)) {
        print_fault(path, imsg_strerror(errno));
        return std::nullopt;
    }
    made_.push_back(path);
    return LocalSocket{std::move(fd), address_of_callers(address)};
}

std::vector<LocalSocket> LocalPlace::listen(const std::vector<ks_sockaddr_storage_t> &addresses) {
    std::vector<LocalSocket> sockets;
    for (const auto &address : named_addresses(addresses))
        if (auto made = listen_for(address))
            sockets.push_back(std::move(*made));
    return sockets;
}

namespace {

std::shared_ptr<const std::vector<gid_t>> groups_of(int fd) {
    constexpr size_t groups_at_first = 64;
    std::vector<gid_t> groups(groups_at_first);
    for (int attempt = 0; attempt < 2; ++attempt) {
        auto length = static_cast<socklen_t>(groups.size() * sizeof(gid_t));
        const int outcome = getsockopt(fd, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &length);
        groups.resize(length / sizeof(gid_t)); // also as many as there are, where that was too few
        if (outcome == 0)
            return groups.empty() ? nullptr : std::make_shared<const std::vector<gid_t>>(std::move(groups));
        if (errno != ERANGE)
            break;
    }
    return nullptr;
}

} // namespace

KnownCaller maker_of(int fd) {
    ucred maker = {};
    socklen_t length = sizeof maker;
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &maker, &length) != 0)
        return {};
    return {maker.pid, maker.uid, maker.gid, groups_of(fd)};
}

ssize_t receive_from_known(int fd, unsigned char *bytes, size_t size, std::optional<KnownCaller> &sender) {
    Control control = {};
    iovec place = {bytes, size};
    msghdr header = {};
    header.msg_iov = &place;
    header.msg_iovlen = 1;
    header.msg_control = control.room.data();
    header.msg_controllen = control.room.size();
    const ssize_t count = recvmsg(fd, &header, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
    const cmsghdr *first = count > 0 ? CMSG_FIRSTHDR(&header) : nullptr;
    if (first != nullptr && first->cmsg_level == SOL_SOCKET && first->cmsg_type == SCM_CREDENTIALS) {
        ucred proven;
        memcpy(&proven, CMSG_DATA(first), sizeof proven);
        sender = KnownCaller{proven.pid, proven.uid, proven.gid};
    }
    return count;
}

} // namespace velia::server
