// A bare TCP connection as a sign of life: all addresses of a host are tried at once, and the first that stands ends
// it. Nothing outlives a call and nothing is shared between calls, so no lock is taken. Descriptors are kept in sets of
// the probe's own size, since a busy process has more of them than the system's sets hold.
#include <veliaxdr/rvzd_probe.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

#include <netdb.h>
#include <sys/select.h>
#include <unistd.h>

#include <common/trace.h>
#include <common/with.h>
#include <rvzd/client/rvzd_clnt/rvzd_clnt.h>
#include <support/ks.h>
#include <support/stg.h>
#include <support/sysutl.h>

using namespace velia;
using namespace velia::rvzd_clnt;

namespace {

// The well-known port, whatever port this site's brokers have.
constexpr char port_text[] = "371";
constexpr int trace_level_probe = 3;
constexpr int descriptors_max = 16384;
constexpr suseconds_t wait_us = 900000;
constexpr suseconds_t us_per_ms = 1000;
constexpr size_t address_text_size = 46;
constexpr int tries = 1;
constexpr int failed_conversion = 1; // what is told of any failed conversion

// Positions in the support layer's own table.

class DescriptorSet {
public:
    static bool holds(int fd) { return fd >= 0 && fd < descriptors_max; }

    void add(int fd) { word_of(fd) |= bit_of(fd); }
    void remove(int fd) { word_of(fd) &= ~bit_of(fd); }
    bool has(int fd) { return (word_of(fd) & bit_of(fd)) != 0; }
    int count() const { return sysutl_fd_set_popcount(words_, descriptors_max); }
    fd_set *for_select() { return reinterpret_cast<fd_set *>(words_); }

private:
    static constexpr int word_bits = static_cast<int>(sizeof(unsigned long) * CHAR_BIT);

    unsigned long &word_of(int fd) { return words_[fd / word_bits]; }
    static unsigned long bit_of(int fd) { return 1UL << (fd % word_bits); }

    unsigned long words_[descriptors_max / word_bits] = {};
};
static_assert(sizeof(DescriptorSet) == 2048);

struct Probe {
    const char *host;
    addrinfo *addresses;
    int *sockets; // those in progress; -1 for one that is closed already
    size_t socket_count;
    size_t socket_capacity;
    DescriptorSet pending;
};

enum class Verdict { alive, dead, open };

template <class... Arguments>
void report(int position, Arguments... arguments) {
    imsg_print_shared(IMSG_ERROR, subsystem, &_tbs_cmsg_tbs_msg_table, position, arguments...);
}

template <class... Arguments>
void trace_line(int severity, const char *format, Arguments... arguments) {
    if (is_traced(subsystem, trace_level_probe))
        imsg_print(severity, format, IMSG_FORMAT, arguments...);
}

void trace_failure(int severity, const char *operation, const char *error_text) {
    if (is_traced(subsystem, trace_level_probe))
        imsg_print_shared(severity, subsystem, &_tbs_cmsg_tbs_msg_table, TBS_MSG_OPERATION_FAILED, operation,
                          error_text);
}

void trace_trying(const Probe &probe, const addrinfo &address, int fd) {
    if (!is_traced(subsystem, trace_level_probe))
        return;
    char text[address_text_size];
    if (sysutl_host_numeric(address.ai_addr, sizeof text, text, 0, 0) != 0)
        trace_failure(IMSG_ERROR, "getnameinfo()", gai_strerror(failed_conversion));
    else
        imsg_print(IMSG_TRACE, "trying %s (%s): port: %s using fd: %d\n", IMSG_FORMAT, probe.host, text, port_text, fd);
}

void release(Probe &probe) {
    with_inhibit([&] {
        for (size_t i = 0; i < probe.socket_count; ++i)
            if (probe.sockets[i] >= 0)
                close(probe.sockets[i]);
        stg_free(probe.sockets);
        probe.sockets = nullptr;
        probe.socket_count = probe.socket_capacity = 0;
        if (probe.addresses != nullptr)
            freeaddrinfo(probe.addresses);
        probe.addresses = nullptr;
    });
}

bool make_room(Probe &probe) {
    const size_t needed = probe.socket_count + 1;
    if (needed <= probe.socket_capacity)
        return true;
    const size_t capacity = std::max(needed, 2 * probe.socket_capacity);
    auto *sockets = static_cast<int *>(stg_alloc(STG_HEAP_AREA, capacity * sizeof(int)));
    if (sockets == nullptr)
        return false;
    std::copy_n(probe.sockets, probe.socket_count, sockets);
    stg_free(probe.sockets);
    probe.sockets = sockets;
    probe.socket_capacity = capacity;
    return true;
}

// A socket at the next place of the array, which counts as taken only when its connection is on the way; else -1.
int open_socket(Probe &probe, const addrinfo &address) {
    const int fd = socket(address.ai_family, address.ai_socktype, 0);
    if (fd < 0) {
        report(TBS_MSG_OPERATION_FAILED, "socket()", imsg_strerror(errno));
        return -1;
    }
    if (!DescriptorSet::holds(fd)) {
        report(TBS_MSG_OPERATION_FAILED, "socket()", imsg_strerror(EMFILE));
        close(fd);
        return -1;
    }
    if (!make_room(probe)) {
        report(TBS_MSG_OPERATION_FAILED, "stg_alloc()", tbs_strerror(TBS_ST_NO_MEMORY));
        close(fd);
        return -1;
    }
    probe.sockets[probe.socket_count] = fd;
    return fd;
}

Verdict start_connecting(Probe &probe, const addrinfo &address) {
    const int fd = open_socket(probe, address);
    if (fd < 0)
        return Verdict::open;
    trace_trying(probe, address, fd);
    const auto status = sysutl_set_socket_nonblocking(fd, 1);
    if (status != TBS_ST_OK) {
        report(TBS_MSG_OPERATION_FAILED, "sysutl_set_socket_nonblocking()", tbs_strerror(status));
        close(fd);
        return Verdict::open;
    }
    const bool is_connected = connect(fd, address.ai_addr, address.ai_addrlen) == 0;
    const int error_number = errno;
    if (!is_connected && error_number != EINPROGRESS) {
        trace_failure(IMSG_ERROR, "connect()", imsg_strerror(error_number));
        close(fd);
        return Verdict::open;
    }
    ++probe.socket_count;
    if (!is_connected) {
        probe.pending.add(fd);
        return Verdict::open;
    }
    trace_line(IMSG_TRACE, "connected to %s on port %s\n", probe.host, port_text);
    return Verdict::alive;
}

bool look_up(Probe &probe) {
    addrinfo hints = {};
    hints.ai_flags = AI_ADDRCONFIG;
    hints.ai_socktype = SOCK_STREAM;
    h_errno = 0;
    if (getaddrinfo(probe.host, port_text, &hints, &probe.addresses) == 0)
        return true;
    // The text is that of errno read as a code of the resolver; people know the message by it.
    const char *error_text = gai_strerror(errno);
    probe.addresses = nullptr;
    report(TBS_MSG_HOST_OPERATION_FAILED, "getaddrinfo()", probe.host, error_text);
    return false;
}

// Without a wait, but for the resolver's: no raise lands between a socket's opening and its place in the array.
Verdict start_all(Probe &probe) {
    if (!look_up(probe))
        return Verdict::dead;
    for (const addrinfo *address = probe.addresses; address != nullptr; address = address->ai_next)
        if (start_connecting(probe, *address) == Verdict::alive)
            return Verdict::alive;
    freeaddrinfo(probe.addresses);
    probe.addresses = nullptr;
    return Verdict::open;
}

Verdict judge_socket(Probe &probe, int &fd) {
    int error_number = -1;
    socklen_t length = sizeof error_number;
    if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &error_number, &length) != 0) {
        trace_failure(IMSG_TRACE, "getsockopt()", imsg_strerror(errno));
        probe.pending.remove(fd);
        // Its number may be another thread's descriptor by the time when the others are closed.
        close(fd);
        fd = -1;
        return Verdict::open;
    }
    if (error_number == 0) {
        trace_line(IMSG_TRACE, "connected to %s on port %s with socket %d\n", probe.host, port_text, fd);
        return Verdict::alive;
    }
    trace_line(IMSG_ERROR, "Failed to connect to %s on port %s (%s)\n", probe.host, port_text, strerror(error_number));
    probe.pending.remove(fd);
    return Verdict::open;
}

Verdict judge_ready(Probe &probe, DescriptorSet &ready) {
    for (size_t i = 0; i < probe.socket_count; ++i) {
        int &fd = probe.sockets[i];
        if (fd >= 0 && ready.has(fd) && judge_socket(probe, fd) == Verdict::alive)
            return Verdict::alive;
    }
    return Verdict::open;
}

void give_up_waiting(Probe &probe) {
    trace_line(IMSG_ERROR, "Timed out (%d tries) trying to connect to %s\n", tries, probe.host);
    for (size_t i = 0; i < probe.socket_count; ++i)
        if (probe.sockets[i] >= 0)
            probe.pending.remove(probe.sockets[i]);
}

// A signal neither ends a wait nor makes it longer: the system leaves in the time-out what is left of it.
int wait_for_some(DescriptorSet &ready) {
    const int64_t left_ms = ks_deadline_left();
    timeval time_out = {0, left_ms < 0 ? wait_us : std::min<int64_t>(wait_us, left_ms * us_per_ms)};
    int count;
    do
        count = select(descriptors_max, nullptr, ready.for_select(), nullptr, &time_out);
    while (count < 0 && errno == EINTR && !ks_is_interrupted());
    return count;
}

Verdict wait_for_first(Probe &probe) {
    bool ran_out = false;
    while (probe.pending.count() > 0) {
        DescriptorSet ready = probe.pending;
        const int count = wait_for_some(ready);
        if (count < 0) {
            trace_failure(IMSG_TRACE, "select()", imsg_strerror(errno));
            return Verdict::dead;
        }
        ran_out = count == 0;
        if (ran_out)
            give_up_waiting(probe);
        else if (with_inhibit([&] { return judge_ready(probe, ready); }) == Verdict::alive)
            return Verdict::alive;
    }
    if (ran_out)
        trace_line(IMSG_WARNING, "Timed out connecting to %s\n", probe.host);
    return Verdict::dead;
}

} // namespace

int rvzd_nonblock_connect_ping(const char *host) {
    Probe probe = {};
    probe.host = host;
    return with_release(
        [&] {
            auto verdict = with_inhibit([&] { return start_all(probe); });
            if (verdict == Verdict::open)
                verdict = wait_for_first(probe);
            return verdict == Verdict::alive ? 1 : 0;
        },
        [&] { release(probe); });
}
