// When all places are taken a newcomer gets that of the peer who has deserved it least: one that never completed a
// request, then the longest idle. Peers for whom work is being done keep theirs.
#include <server/rpc/tcp_endpoint.h>

#include <algorithm>
#include <cerrno>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <server/messages.h>

namespace velia::server {

namespace {

constexpr int accepts_a_turn = 64;
constexpr uint64_t sweep_interval_ms = 250;
constexpr int64_t tell_interval_ms = 10000;
constexpr int rank_kept = 3; // peers of this rank and above are not dropped for others

} // namespace

TcpEndpoint::TcpEndpoint(uv_loop_t *loop, UniqueFd fd, const Dispatcher &dispatcher, const ConnectionLimits &limits)
    : loop_(loop), fd_(std::move(fd)), dispatcher_(dispatcher), limits_(limits),
      poll_(loop, fd_.get(), event_target<&TcpEndpoint::accept_some>(*this)), sweep_timer_(loop, [this] { sweep(); }) {
    poll_.watch(UV_READABLE);
}

TcpEndpoint::TcpEndpoint(uv_loop_t *loop, LocalSocket local, const Dispatcher &dispatcher,
                         const ConnectionLimits &limits)
    : TcpEndpoint(loop, std::move(local.fd), dispatcher, limits) {
    local_address_ = local.address;
}

TcpEndpoint::~TcpEndpoint() {
    poll_.watch(0);
}

void TcpEndpoint::accept_some() {
    for (int i = 0; i < accepts_a_turn && accept_one(); ++i) {
    }
}

bool TcpEndpoint::accept_one() {
    Caller caller;
    caller.transport = RVZD_PROTOCOL_TCP;
    socklen_t length = sizeof caller.peer;
    UniqueFd fd(accept4(fd_.get(), &caller.peer.base, &length, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (fd) {
        take_addresses(fd.get(), caller);
        admit(std::move(fd), caller);
        return true;
    }
    if (errno == EINTR || errno == ECONNABORTED)
        return true;
    const bool is_short_of_descriptors = errno == EMFILE || errno == ENFILE;
    if (!is_short_of_descriptors)
        return false;
    const int error_number = errno;
    if (make_room())
        return true;
    if (monotonic_ms() - told_ms_ > tell_interval_ms) {
        told_ms_ = monotonic_ms();
        print(IMSG_ERROR, MSG_ACCEPT_FAILED, imsg_strerror(error_number));
    }
    // The waiting connection keeps the socket readable; it is looked at again with the next sweep.
    is_paused_ = true;
    poll_.watch(0);
    sweep_timer_.start(sweep_interval_ms, sweep_interval_ms);
    return false;
}

// A caller of this host is known for who connected until its first message.
void TcpEndpoint::take_addresses(int fd, Caller &caller) const {
    if (local_address_) {
        caller.peer = caller.local = *local_address_;
        caller.known = maker_of(fd);
        return;
    }
    socklen_t length = sizeof caller.local;
    getsockname(fd, &caller.local.base, &length);
}

void TcpEndpoint::admit(UniqueFd fd, const Caller &caller) {
    if (connections_.size() >= limits_.connections_max && !make_room())
        return;
    const int on = 1;
    if (local_address_)
        setsockopt(fd.get(), SOL_SOCKET, SO_PASSCRED, &on, sizeof on);
    else
        setsockopt(fd.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    const uint64_t number = next_number_++;
    auto connection = std::make_shared<TcpConnection>(loop_, std::move(fd), caller, dispatcher_,
                                                      [this, number] { connections_.erase(number); });
    if (connections_.empty())
        sweep_timer_.start(sweep_interval_ms, sweep_interval_ms);
    connections_.emplace(number, connection);
    connection->begin();
}

bool TcpEndpoint::make_room() {
    const auto order = [](const Connections::value_type &left, const Connections::value_type &right) {
        const auto key = [](const auto &connection) {
            return std::pair(connection->rank(), connection->last_activity_ms());
        };
        return key(left.second) < key(right.second);
    };
    const auto victim = std::min_element(connections_.begin(), connections_.end(), order);
    if (victim == connections_.end() || victim->second->rank() >= rank_kept)
        return false;
    connections_.erase(victim);
    return true;
}

void TcpEndpoint::sweep() {
    const int64_t now_ms = monotonic_ms();
    std::erase_if(connections_, [&](const auto &entry) { return entry.second->is_overdue(now_ms, limits_); });
    if (is_paused_) {
        is_paused_ = false;
        poll_.watch(UV_READABLE);
    } else if (connections_.empty()) {
        sweep_timer_.stop();
    }
}

} // namespace velia::server
