// One connection, over TCP or from this host: records in, replies out in the order in which they are given.
#pragma once

#include <deque>
#include <functional>
#include <memory>

#include <server/loop/handles.h>
#include <server/loop/unique_fd.h>
#include <server/rpc/dispatcher.h>
#include <server/rpc/long_replies.h>
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

    struct Owner {
        // Called once, when the peer has gone or is to go; the owner then drops the connection.
        std::function<void()> on_end;
        // More has come than one turn is for: the owner calls take_turn() when the others have had theirs.
        std::function<void()> on_more;
    };

    TcpConnection(uv_loop_t *loop, UniqueFd fd, const Caller &caller, const Dispatcher &dispatcher, Owner owner);

    void begin();

    // One request of those that have come.
    void take_turn();

    // True when the peer has overrun a limit.
    bool is_overdue(int64_t now_ms, const ConnectionLimits &limits) const;

    // Of how much use the connection is. A peer that has not completed a request yet, or does not take its replies, is
    // of none, whatever it sends.
    enum class Use { none, idle, worked_for };
    Use use(int64_t now_ms) const;
    // True when it has been of none for so long that nobody's patience is asked for: a newcomer is not at once.
    bool is_useless(int64_t now_ms) const;

    // When it last completed a request or took a part of a reply.
    int64_t progress_ms() const { return progress_ms_; }
    Sender::Host host() const { return sender_of(caller_).host; }

private:
    void on_ready(int events);
    bool receive();
    bool take_sender(const std::optional<KnownCaller> &sender);
    bool serve_one();
    void reply(MessageBytes message);
    void add_unsent(MessageBytes message);
    bool send();
    void go_on();
    bool may_serve() const;
    void end();

    UniqueFd fd_;
    Caller caller_;                     // of the record that comes in
    KnownCaller maker_;                 // of a connection from this host
    std::optional<KnownCaller> sender_; // of what came last over it
    const Dispatcher &dispatcher_;
    Owner owner_;
    RecordAssembler assembler_;
    MessageBytes input_; // what has come and is not looked at yet
    size_t input_at_ = 0;
    struct Unsent {
        MessageBytes bytes;
        std::unique_ptr<LongReply> place; // of a long one, which is not counted in what may be unsent
    };
    std::deque<Unsent> unsent_;
    size_t unsent_bytes_ = 0;
    size_t sent_of_first_ = 0;
    uint32_t calls_in_progress_ = 0;
    bool has_completed_request_ = false;
    bool is_in_turn_ = false; // the owner will call
    int64_t request_begun_ms_;
    int64_t taken_ms_ = 0; // when the peer last took of what is unsent, or when that began
    int64_t progress_ms_;
    PollHandle poll_;
};

} // namespace velia::server
