// When all places are taken a newcomer gets that of the connection of least use, wherever it stands: first one that is
// of none at all, then one of the host that has most of them, the longest without progress. Those for which work is
// being done keep theirs, unless their host has more than the newcomer's.
#include <server/rpc/tcp_endpoint.h>

#include <algorithm>
#include <cerrno>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <tuple>

#include <server/messages.h>

namespace velia::server {

namespace {

constexpr uint64_t sweep_interval_ms = 250;
constexpr int64_t tell_interval_ms = 10000;
constexpr uint64_t turns_ns = 1'000'000; // for newcomers, and for requests that have come with others; then all
                                         // sockets are looked at again

} // namespace

TcpEndpoint::TcpEndpoint(uv_loop_t *loop, UniqueFd fd, const Dispatcher &dispatcher, const ConnectionLimits &limits)
    : loop_(loop), fd_(std::move(fd)), dispatcher_(dispatcher), limits_(limits),
      poll_(loop, fd_.get(), event_target<&TcpEndpoint::accept_some>(*this)), sweep_timer_(loop, [this] { sweep(); }),
      rounds_(loop, [this] { take_turns(); }) {
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
    const uint64_t end_ns = uv_hrtime() + turns_ns;
    while (accept_one() && uv_hrtime() < end_ns) {
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
    if (make_room({}))
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
    if (connections_.size() >= limits_.connections_max && !make_room(sender_of(caller).host))
        return;
    const int on = 1;
    if (local_address_)
        setsockopt(fd.get(), SOL_SOCKET, SO_PASSCRED, &on, sizeof on);
    else
        setsockopt(fd.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    const uint64_t number = next_number_++;
    TcpConnection::Owner owner = {[this, number] { connections_.erase(number); },
                                  [this, number] {
                                      turns_.push_back(number);
                                      rounds_.start();
                                  }};
    auto connection = std::make_shared<TcpConnection>(loop_, std::move(fd), caller, dispatcher_, std::move(owner));
    if (connections_.empty())
        sweep_timer_.start(sweep_interval_ms, sweep_interval_ms);
    connections_.emplace(number, connection);
    connection->begin();
}

bool TcpEndpoint::make_room(const Sender::Host &newcomer) {
    const int64_t now_ms = monotonic_ms();
    std::map<Sender::Host, size_t> counts;
    for (const auto &[number, connection] : connections_)
        ++counts[connection->host()];
    // The higher, the more it deserves its place.
    const auto merit = [&](const TcpConnection &connection) {
        const auto use = connection.use(now_ms);
        const size_t others = connections_.size() - counts.at(connection.host());
        return std::tuple(!connection.is_useless(now_ms), others, use, connection.progress_ms());
    };
    const auto victim =
        std::min_element(connections_.begin(), connections_.end(), [&](const auto &left, const auto &right) {
            return merit(*left.second) < merit(*right.second);
        });
    if (victim == connections_.end())
        return false;
    const bool is_worked_for = victim->second->use(now_ms) == TcpConnection::Use::worked_for;
    if (is_worked_for && counts.at(victim->second->host()) <= counts[newcomer] + 1)
        return false;
    connections_.erase(victim);
    return true;
}

// Each of those that wait has one request worked on, as long as there is time; the others come first in the next round.
void TcpEndpoint::take_turns() {
    const uint64_t end_ns = uv_hrtime() + turns_ns; // the usual clock is behind by as much as there is
    for (size_t count = turns_.size(); count > 0 && uv_hrtime() < end_ns; --count) {
        const auto connection = connections_.find(turns_.front());
        turns_.pop_front();
        if (connection != connections_.end())
            connection->second->take_turn();
    }
    if (turns_.empty())
        rounds_.stop();
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
