#include <tests/system/support/attacks.h>

#include <array>
#include <functional>
#include <netinet/in.h>
#include <poll.h>
#include <stdexcept>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

#include <sqlite3.h>

#include <tests/system/support/raw.h>
#include <veliaxdr/rvzd_procedure_rows.hpp>

namespace velia::system_test {

namespace {

constexpr uint32_t attackers_host = INADDR_LOOPBACK + 8;
constexpr size_t message_bytes_max = 65536;

class Socket {
public:
    Socket(const Target &target, int type) : fd_(socket(AF_INET, type | SOCK_CLOEXEC, 0)) {
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(attackers_host);
        bind(fd_, reinterpret_cast<sockaddr *>(&address), sizeof address);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(target.port);
        connect(fd_, reinterpret_cast<sockaddr *>(&address), sizeof address);
    }
    ~Socket() {
        if (fd_ >= 0)
            close(fd_);
    }
    Socket(const Socket &) = delete;
    Socket &operator=(const Socket &) = delete;
    Socket(Socket &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}

    bool send(const Bytes &bytes, int flags = 0) const {
        return ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL | flags) == static_cast<ssize_t>(bytes.size());
    }
    // Something of what comes within the time; none also when the peer has closed.
    size_t receive(int wait_ms) const {
        pollfd readable = {fd_, POLLIN, 0};
        static thread_local std::array<char, message_bytes_max> bytes;
        const ssize_t count = poll(&readable, 1, wait_ms) > 0 ? recv(fd_, bytes.data(), bytes.size(), 0) : 0;
        return count > 0 ? static_cast<size_t>(count) : 0;
    }

private:
    int fd_;
};

template <class Procedure, class Request>
Bytes call_of(const Procedure &procedure, Request request) {
    Bytes arguments(message_bytes_max);
    XDR stream;
    xdrmem_create(&stream, reinterpret_cast<char *>(arguments.data()), static_cast<u_int>(arguments.size()),
                  XDR_ENCODE);
    if (procedure.xdr_request(&stream, &request) == FALSE)
        throw std::logic_error("an attack that cannot be encoded");
    arguments.resize(xdr_getpos(&stream));
    static std::atomic<uint32_t> xid = 1;
    return call_message(xid++, RVZD_PROGRAM, RVZD_VERSION, procedure.number, arguments);
}

Bytes find_call(uint32_t program) {
    static std::atomic<uint64_t> sequence = 1; // so that each is another one
    rvzd_find_server_req_t request = {};
    request.header.sequence = sequence++;
    request.trait = {program, 1, RVZD_PROTOCOL_UDP};
    static char path[] = "";
    request.path = path;
    return call_of(velia::procedures::find_server, request);
}

Bytes pattern_call() {
    constexpr int patterns_count = 5000;
    static char pattern[] = "*x*y";
    std::vector<char *> patterns(patterns_count, pattern);
    static char region[] = "";
    rvzd_registry_get_pattern_req_t request = {};
    request.region = region;
    request.db = RGY_DB_REGIONS;
    request.version = RGY_PROTOCOL_VERSION;
    request.max_entries = 1;
    request.patterns = patterns.data();
    request.patterns_length = patterns_count;
    request.pattern_count = patterns_count;
    return call_of(velia::procedures::rgy_get_pattern_entry, request);
}

Bytes listing_call() {
    static char region[] = "nobody";
    rvzd_registry_get_req_t request = {};
    request.db = RGY_DB_REGIONS;
    request.version = RGY_PROTOCOL_VERSION;
    request.region = region;
    request.max_entries = 1000;
    return call_of(velia::procedures::rgy_get_entry, request);
}

Bytes password_call() {
    static char password[] = "guess";
    rvzd_registry_chk_access_req_t request = {};
    request.version = RGY_PROTOCOL_VERSION;
    request.password = password;
    return call_of(velia::procedures::rgy_chk_access, request);
}

using IsOver = std::function<bool()>;

// Sends the calls in one piece, and waits until replies have come and no more do.
void call_together(const Target &target, const Bytes &call, int count, const IsOver &is_over) {
    Bytes calls;
    for (int i = 0; i < count; ++i) {
        const Bytes record = as_record(call);
        calls.insert(calls.end(), record.begin(), record.end());
    }
    const Socket socket(target, SOCK_STREAM);
    socket.send(calls);
    while (!is_over() && socket.receive(50) > 0) {
    }
}

void send_patterns(const Target &target, const IsOver &) {
    static const Bytes call = pattern_call();
    const Socket socket(target, SOCK_DGRAM);
    socket.send(call);
    socket.receive(10);
}

void list_region(const Target &target, const IsOver &is_over) {
    call_together(target, listing_call(), 140, is_over);
}

void guess_passwords(const Target &target, const IsOver &is_over) {
    call_together(target, password_call(), 64, is_over);
}

void look_up_unknown(const Target &target, const IsOver &is_over) {
    const Socket socket(target, SOCK_DGRAM);
    for (int i = 0; i < 600 && !is_over(); ++i) {
        socket.send(find_call(target.slow_program + 1000));
        socket.receive(5);
    }
}

void hoard(const Target &target, const IsOver &is_over) {
    constexpr int connections = 300;
    const Bytes call = as_record(listing_call());
    std::vector<Socket> hoarded;
    for (int i = 0; i < connections; ++i)
        hoarded.emplace_back(target, SOCK_STREAM);
    for (int i = 0; i < 200 && !is_over(); ++i) {
        for (const Socket &socket : hoarded)
            socket.send(call, MSG_DONTWAIT);
        usleep(1000);
    }
}

void wait_for_server(const Target &target, const IsOver &is_over) {
    std::vector<Socket> sockets;
    for (int i = 0; i < 600 && !is_over(); ++i) {
        sockets.emplace_back(target, SOCK_DGRAM);
        sockets.back().send(find_call(target.slow_program));
    }
    while (!is_over())
        usleep(10000);
}

void look_up_from_many_sockets(const Target &target, const IsOver &is_over) {
    for (int i = 0; i < 300 && !is_over(); ++i) {
        const Socket socket(target, SOCK_DGRAM);
        socket.send(find_call(target.slow_program + 1000));
        socket.receive(5);
    }
}

void lock_database(const Target &target, const IsOver &is_over) {
    sqlite3 *database = nullptr;
    if (sqlite3_open_v2(target.registry_file.c_str(), &database, SQLITE_OPEN_READWRITE, nullptr) == SQLITE_OK &&
        sqlite3_exec(database, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr) == SQLITE_OK)
        for (int i = 0; i < 100 && !is_over(); ++i)
            usleep(10000);
    sqlite3_close(database);
    usleep(1000);
}

struct Kind {
    const char *name;
    void (*round)(const Target &target, const IsOver &is_over);
};

constexpr std::array kinds = {Kind{"patterns", send_patterns},
                              Kind{"region", list_region},
                              Kind{"passwords", guess_passwords},
                              Kind{"unknown", look_up_unknown},
                              Kind{"hoarders", hoard},
                              Kind{"waiting", wait_for_server},
                              Kind{"foreign", look_up_from_many_sockets},
                              Kind{"lock", lock_database}};

} // namespace

const std::vector<std::string> &Attack::names() {
    static const std::vector<std::string> names = [] {
        std::vector<std::string> made;
        for (const Kind &kind : kinds)
            made.emplace_back(kind.name);
        return made;
    }();
    return names;
}

Attack::Attack(const std::string &name, const Target &target) : target_(target) {
    for (const Kind &kind : kinds)
        if (name == kind.name)
            thread_ = std::thread([this, &kind] {
                while (!is_over_) {
                    kind.round(target_, [this] { return is_over_.load(); });
                    ++rounds_;
                }
            });
    if (!thread_.joinable())
        throw std::logic_error("no attack of this name: " + name);
}

Attack::~Attack() {
    is_over_ = true;
    thread_.join();
}

} // namespace velia::system_test
