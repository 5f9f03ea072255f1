// Every entry is either in progress, and bounded by what the broker lets wait, or answered and in the queue of the
// ended.
#include <server/rpc/replay_cache.h>

namespace velia::server {

ReplayCache::Key ReplayCache::key_of(const Caller &caller, Bytes message) {
    const auto &peer = caller.peer;
    const uint16_t port = peer.base.sa_family == AF_INET ? peer.ipv4.sin_port : peer.ipv6.sin6_port;
    Key key = address_text(peer) + "/" + std::to_string(port) + "/";
    key.append(reinterpret_cast<const char *>(message.data()), message.size());
    return key;
}

void ReplayCache::forget_old(int64_t now_ms) {
    while (!ended_.empty() && (now_ms - ended_.front().at_ms > KEPT_MS || ended_.size() > ENTRIES_MAX / 2)) {
        entries_.erase(ended_.front().key);
        ended_.pop_front();
    }
}

ReplayCache::Verdict ReplayCache::begin(const Key &key, int64_t now_ms, const MessageBytes **reply) {
    forget_old(now_ms);
    const auto found = entries_.find(key);
    if (found == entries_.end()) {
        if (entries_.size() >= ENTRIES_MAX)
            return Verdict::too_many;
        entries_.emplace(key, Entry{});
        return Verdict::is_new;
    }
    if (!found->second.is_answered)
        return Verdict::in_progress;
    *reply = &found->second.reply;
    return Verdict::answered;
}

void ReplayCache::finish(const Key &key, int64_t now_ms, MessageBytes reply) {
    const auto found = entries_.find(key);
    if (found == entries_.end() || found->second.is_answered)
        return;
    found->second = {true, std::move(reply)};
    ended_.push_back({key, now_ms});
}

} // namespace velia::server
