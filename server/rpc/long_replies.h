// Replies that are longer than what a connection may otherwise have unsent: how many bytes of them wait in all, and for
// each host, so that nobody who asks for long lists and takes none has the daemon's memory. The loop's alone.
#pragma once

#include <server/loop/fair_queue.h>

namespace velia::server {

constexpr size_t reply_is_long_beyond = 1 << 20;
constexpr size_t long_replies_of_host_max = size_t{128} << 20;
constexpr size_t long_replies_max = size_t{256} << 20;

// Whether one more may be made; it is taken whatever its length is by then.
bool has_room_for_long_reply(const Sender::Host &host);

// The place of one that waits.
class LongReply {
public:
    LongReply(const Sender::Host &host, size_t bytes);
    ~LongReply();
    LongReply(const LongReply &) = delete;
    LongReply &operator=(const LongReply &) = delete;

private:
    Sender::Host host_;
    size_t bytes_;
};

} // namespace velia::server
