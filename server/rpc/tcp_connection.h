// One connection, over TCP or from this host: records in, replies out in the order in which they are given.
#pragma once

#include <deque>
#include <functional>
#include <memory>

#include <server/loop/handles.h>
#include <server/loop/unique_fd.h>
#include <server/rpc/dispatcher.h>
#include <server/rpc/record_assembler.h>

namespace velia::server {

struct ConnectionLimits {
    int64_t request_ms = 30000; // from a request's first byte to its last, and for the peer to take a reply
    int64_t idle_ms = 300000;
    uint32_t connections_max = 256;
};

class TcpConnection : public std::enable_shared_from_this<TcpConnection> {
public:
    enum { CALLS_IN_PROGRESS_MAX = 64, UNSENT_BYTES_MAX = 1 << 20 };

    // `on_end` is called once, when the peer has gone or is to go; the owner then drops the connection.
    TcpConnection(uv_loop_t *loop, UniqueFd fd, const Caller &caller, const Dispatcher &dispatcher,
                  std::function<void()> on_end);

    void begin();

    // True when the peer has overrun a limit.
    bool is_overdue(int64_t now_ms, const ConnectionLimits &limits) const;

    // Who is dropped first when there is no room: the lower the rank, the sooner; within a rank the longest idle.
    int rank() const;
    int64_t last_activity_ms() const { return active_ms_; }

private:
    void on_ready(int events);
    bool receive();
    bool take_sender(const std::optional<KnownCaller> &sender);
    bool process(Bytes bytes);
    void reply(const MessageBytes &message);
    bool send();
    void watch();
    void end();

    UniqueFd fd_;
    Caller caller_;                     // of the record that comes in
    KnownCaller maker_;                 // of a connection from this host
    std::optional<KnownCaller> sender_; // of what came last over it
    const Dispatcher &dispatcher_;
    std::function<void()> on_end_;
    RecordAssembler assembler_;
    std::deque<MessageBytes> unsent_;
    size_t unsent_bytes_ = 0;
    size_t sent_of_first_ = 0;
    uint32_t calls_in_progress_ = 0;
    bool has_completed_request_ = false;
    int64_t request_begun_ms_;
    int64_t active_ms_;
    PollHandle poll_;
};

} // namespace velia::server
