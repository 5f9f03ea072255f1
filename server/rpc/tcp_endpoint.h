// Calls over one listening socket, of TCP or of this host, with a bound on the connections and on what each may cost.
#pragma once

#include <deque>
#include <map>
#include <memory>

#include <server/rpc/local_sockets.h>
#include <server/rpc/tcp_connection.h>

namespace velia::server {

class TcpEndpoint {
public:
    // The dispatcher has to outlive the endpoint.
    TcpEndpoint(uv_loop_t *loop, UniqueFd fd, const Dispatcher &dispatcher, const ConnectionLimits &limits);

    // The same for callers of this host, who are known.
    TcpEndpoint(uv_loop_t *loop, LocalSocket local, const Dispatcher &dispatcher, const ConnectionLimits &limits);
    ~TcpEndpoint();

    size_t connections() const { return connections_.size(); }

    void set_limits(const ConnectionLimits &limits) { limits_ = limits; }

private:
    using Connections = std::map<uint64_t, std::shared_ptr<TcpConnection>>;

    void accept_some();
    bool accept_one();
    void take_addresses(int fd, Caller &caller) const;
    void admit(UniqueFd fd, const Caller &caller);
    bool make_room(const Sender::Host &newcomer);
    void take_turns();
    void sweep();

    uv_loop_t *loop_;
    UniqueFd fd_;
    std::optional<ks_sockaddr_storage_t> local_address_; // of callers of this host
    const Dispatcher &dispatcher_;
    ConnectionLimits limits_;
    Connections connections_;
    uint64_t next_number_ = 0;
    std::deque<uint64_t> turns_; // connections of which more has come than was worked on
    int64_t told_ms_ = 0;        // when a failed accept was last told
    bool is_paused_ = false;
    PollHandle poll_;
    TimerHandle sweep_timer_;
    RoundHandle rounds_;
};

} // namespace velia::server
