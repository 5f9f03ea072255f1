#include <server/rpc/long_replies.h>

#include <map>

namespace velia::server {

namespace {

struct Waiting {
    size_t all = 0;
    std::map<Sender::Host, size_t> of_host;
};

Waiting &waiting() {
    static Waiting waiting;
    return waiting;
}

} // namespace

bool has_room_for_long_reply(const Sender::Host &host) {
    const auto found = waiting().of_host.find(host);
    return waiting().all < long_replies_max &&
           (found == waiting().of_host.end() || found->second < long_replies_of_host_max);
}

LongReply::LongReply(const Sender::Host &host, size_t bytes) : host_(host), bytes_(bytes) {
    waiting().of_host[host_] += bytes_;
    waiting().all += bytes_;
}

LongReply::~LongReply() {
    waiting().all -= bytes_;
    const auto found = waiting().of_host.find(host_);
    found->second -= bytes_;
    if (found->second == 0)
        waiting().of_host.erase(found);
}

} // namespace velia::server
