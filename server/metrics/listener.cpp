#include <server/metrics/listener.h>

#include <algorithm>
#include <cerrno>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <server/config/place.h>
#include <server/rpc/sockets.h>
#include <support/imsg.h>

namespace velia::server {

namespace {

constexpr int listen_backlog = 16;
constexpr mode_t socket_mode = 0660; // the group of the directory's choice may read figures

const sockaddr *base_of(const sockaddr_un &address) {
    return reinterpret_cast<const sockaddr *>(&address);
}

// What a daemon that was killed has left: a socket at which nobody listens.
void remove_remains(const sockaddr_un &address) {
    struct stat status = {};
    if (lstat(address.sun_path, &status) != 0 || !S_ISSOCK(status.st_mode))
        return;
    const UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (connect(fd.get(), base_of(address), sizeof address) != 0 && errno == ECONNREFUSED)
        unlink(address.sun_path);
}

// None, with the system's word in errno.
UniqueFd listen_at_path(const std::string &path) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::copy(path.begin(), path.end(), address.sun_path); // the configuration takes none that is longer
    remove_remains(address);
    UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!fd || bind(fd.get(), base_of(address), sizeof address) != 0)
        return {};
    if (chmod(path.c_str(), socket_mode) != 0 || listen(fd.get(), listen_backlog) != 0)
        return {};
    return fd;
}

UniqueFd listen_at(const Place &place) {
    if (!place.path.empty())
        return listen_at_path(place.path);
    SocketFault fault;
    auto fd = open_listening_socket({place.address, SOCK_STREAM}, &fault);
    if (!fd)
        errno = fault.error_number;
    return fd;
}

} // namespace

void MetricsListener::close() {
    endpoint_.reset();
    if (!path_.empty())
        unlink(path_.c_str());
    path_.clear();
    place_.clear();
}

void MetricsListener::serve_at(const std::string &place) {
    if (place == place_)
        return;
    close();
    const auto where = place_of_text(place);
    if (!where)
        return;
    UniqueFd fd = listen_at(*where);
    if (!fd) {
        imsg_print(IMSG_ERROR, "The figures cannot be had at \"%s\": %s\n", IMSG_FORMAT, place.c_str(),
                   imsg_strerror(errno));
        return;
    }
    endpoint_ = std::make_unique<HttpEndpoint>(loop_, std::move(fd), make_page_);
    place_ = place;
    path_ = where->path;
    imsg_print(IMSG_PLAIN, "The figures can be had at \"%s\", as /metrics.\n", IMSG_FORMAT, place.c_str());
}

} // namespace velia::server
