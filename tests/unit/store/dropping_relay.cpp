#include <tests/unit/store/dropping_relay.h>

#include <array>
#include <cstring>
#include <poll.h>
#include <string_view>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace velia::server {

namespace {

constexpr int slice_ms = 20;
constexpr const char *socket_name = ".s.PGSQL.5432";

sockaddr_un address_in(const std::filesystem::path &directory) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, (directory / socket_name).c_str(), sizeof address.sun_path - 1);
    return address;
}

} // namespace

DroppingRelay::DroppingRelay(const std::filesystem::path &server_directory) : server_directory_(server_directory) {
    std::string name = "/tmp/velia-relay-XXXXXX";
    directory_ = mkdtemp(name.data());
    listener_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_un address = address_in(directory_);
    if (bind(listener_, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0)
        listen(listener_, 8);
    thread_ = std::thread([this] { run(); });
}

DroppingRelay::~DroppingRelay() {
    is_over_ = true;
    thread_.join();
    close(listener_);
    std::filesystem::remove_all(directory_);
}

// One connection after the other.
void DroppingRelay::run() {
    while (!is_over_) {
        pollfd descriptor = {listener_, POLLIN, 0};
        if (poll(is_holding_ ? nullptr : &descriptor, is_holding_ ? 0 : 1, slice_ms) != 1 || is_holding_)
            continue; // it may have been told to hold while it looked
        const int client = accept(listener_, nullptr, nullptr);
        const int server = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const sockaddr_un address = address_in(server_directory_);
        if (connect(server, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0)
            carry(client, server);
        close(client);
        close(server);
    }
}

void DroppingRelay::carry(int client, int server) {
    std::array<char, 65536> bytes;
    bool is_answer_dropped = false;
    while (!is_over_ && !is_holding_) {
        std::array<pollfd, 2> ends = {{{client, POLLIN, 0}, {server, POLLIN, 0}}};
        if (poll(ends.data(), ends.size(), slice_ms) <= 0)
            continue;
        for (const auto &[fd, events, revents] : ends) {
            const ssize_t size = revents != 0 ? recv(fd, bytes.data(), bytes.size(), 0) : -1;
            if (revents == 0)
                continue;
            if (size <= 0)
                return;
            if (pieces_left_ > 0 && --pieces_left_ == 0)
                return;
            const bool is_commit =
                fd == client &&
                std::string_view(bytes.data(), static_cast<size_t>(size)).find("COMMIT") != std::string_view::npos;
            if (is_commit && drops_ == Drops::commit) {
                drops_ = Drops::nothing;
                return;
            }
            if (fd == server && is_answer_dropped)
                return;
            if (is_commit && drops_ == Drops::answer_to_commit) {
                drops_ = Drops::nothing;
                is_answer_dropped = true;
            }
            if (send(fd == client ? server : client, bytes.data(), static_cast<size_t>(size), MSG_NOSIGNAL) != size)
                return;
        }
    }
}

} // namespace velia::server
