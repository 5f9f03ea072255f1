// Calls over one UDP socket.
#pragma once

#include <memory>

#include <server/loop/handles.h>
#include <server/loop/unique_fd.h>
#include <server/rpc/dispatcher.h>
#include <server/rpc/replay_cache.h>
#include <server/rpc/reply_rate.h>

namespace velia::server {

class UdpEndpoint {
public:
    // The dispatcher and the rate, which endpoints share, have to outlive the endpoint.
    UdpEndpoint(uv_loop_t *loop, UniqueFd fd, const Dispatcher &dispatcher, ReplyRate &rate);
    ~UdpEndpoint();

private:
    struct Arrivals;
    struct Channel;
    struct PendingCall;

    void receive();
    void take(Bytes message, const Caller &caller);
    void take_once(const CallHeader &header, Bytes message, const Caller &caller);

    std::shared_ptr<Channel> channel_; // replies given later find it gone when the endpoint is
    const Dispatcher &dispatcher_;
    uint16_t port_ = 0; // of the socket, in network order
    PollHandle poll_;
};

} // namespace velia::server
