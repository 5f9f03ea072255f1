#include <tests/system/support/speaker.h>

#include <arpa/inet.h>
#include <array>
#include <cstring>
#include <fcntl.h>
#include <grp.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

namespace velia::system_test {

namespace {

constexpr int answer_deadline_ms = 5000;
constexpr size_t results_at = 24; // behind the header of an answer
constexpr size_t mark_bytes = 4;
constexpr uint32_t nobody = 65534;

sockaddr_in ipv4(const std::string &text, uint16_t port) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    inet_pton(AF_INET, text.c_str(), &address.sin_addr);
    return address;
}

int connect_over_ip(const Site &site, int type, const std::string &from, uint16_t port) {
    const int fd = socket(AF_INET, type | SOCK_CLOEXEC, 0);
    const int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    const auto own = ipv4(from, port);
    const auto daemon = ipv4("127.0.0.1", site.port());
    if (bind(fd, reinterpret_cast<const sockaddr *>(&own), sizeof own) == 0 &&
        connect(fd, reinterpret_cast<const sockaddr *>(&daemon), sizeof daemon) == 0)
        return fd;
    close(fd);
    return -1;
}

// The daemon's socket for its address, or for all of them.
int connect_on_host(const Site &site) {
    for (const char *listening : {"127.0.0.1", "0.0.0.0"}) {
        const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        site.path(std::string("host/run/rvzd.") + listening + "." + std::to_string(site.port()))
            .copy(address.sun_path, sizeof address.sun_path - 1);
        if (connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0)
            return fd;
        close(fd);
    }
    return -1;
}

[[noreturn]] void tell(int fd, const std::string &text) {
    size_t told = 0;
    while (told < text.size()) {
        const ssize_t count = write(fd, text.data() + told, text.size() - told);
        if (count <= 0)
            _exit(EXIT_FAILURE);
        told += static_cast<size_t>(count);
    }
    _exit(EXIT_SUCCESS);
}

} // namespace

std::string told_as(uid_t user, const std::function<std::string()> &work) {
    std::array<int, 2> ends = {};
    if (pipe2(ends.data(), O_CLOEXEC) != 0)
        return "no pipe";
    const pid_t child = fork();
    if (child == 0) {
        const bool is_changed =
            user == getuid() || (setgroups(0, nullptr) == 0 && setgid(user) == 0 && setuid(user) == 0);
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        tell(ends[1], is_changed ? work() : "no right to be another user");
    }
    close(ends[1]);
    std::string text;
    std::array<char, 4096> piece;
    for (ssize_t count; (count = read(ends[0], piece.data(), piece.size())) > 0;)
        text.append(piece.data(), static_cast<size_t>(count));
    close(ends[0]);
    waitpid(child, nullptr, 0);
    return text;
}

Speaker::Speaker(const Site &site, SpeaksOver road, Claims claims, const std::string &from, uint16_t port)
    : road_(road), claims_(claims),
      fd_(road == SpeaksOver::HOST
              ? connect_on_host(site)
              : connect_over_ip(site, road == SpeaksOver::UDP ? SOCK_DGRAM : SOCK_STREAM, from, port)) {}

Speaker::~Speaker() {
    if (fd_ >= 0)
        close(fd_);
}

Bytes Speaker::message(uint32_t procedure, const Bytes &arguments) const {
    static uint32_t xid = 0x5000;
    Bytes bytes;
    for (const uint32_t word : {++xid, 0U, 2U, uint32_t{RVZD_PROGRAM}, uint32_t{RVZD_VERSION}, procedure})
        put_word(bytes, word);
    if (claims_ == Claims::NOTHING) {
        for (int i = 0; i < 2; ++i)
            put_word(bytes, 0);
    } else {
        const uint32_t user = claims_ == Claims::ROOT ? 0 : nobody;
        // AUTH_SYS of 20 bytes: stamp, no machine name, user, group, no further groups.
        for (const uint32_t word : {1U, 20U, 0U, 0U, user, user, 0U})
            put_word(bytes, word);
    }
    for (int i = 0; i < 2; ++i) // no verifier
        put_word(bytes, 0);
    bytes.insert(bytes.end(), arguments.begin(), arguments.end());
    return road_ == SpeaksOver::UDP ? bytes : as_record(bytes);
}

bool Speaker::send(const Bytes &bytes) const {
    return ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
}

std::optional<Bytes> Speaker::receive_results() const {
    const size_t header_bytes = results_at + (road_ == SpeaksOver::UDP ? 0 : mark_bytes);
    Bytes bytes(65536);
    size_t length = 0;
    size_t wanted = header_bytes;
    while (length < wanted) {
        pollfd readable = {fd_, POLLIN, 0};
        const ssize_t count = poll(&readable, 1, answer_deadline_ms) > 0
                                  ? recv(fd_, bytes.data() + length, bytes.size() - length, 0)
                                  : -1;
        if (count <= 0)
            return std::nullopt;
        length += static_cast<size_t>(count);
        if (road_ != SpeaksOver::UDP && length >= mark_bytes)
            wanted = mark_bytes + (word_at(bytes, 0) & 0x7fffffffU);
    }
    return Bytes(bytes.begin() + static_cast<ptrdiff_t>(header_bytes), bytes.begin() + static_cast<ptrdiff_t>(length));
}

} // namespace velia::system_test
