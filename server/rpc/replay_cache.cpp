// Every entry is either in progress, and bounded by what the broker lets wait, or answered and in the queue of the
// ended.
#include <server/rpc/replay_cache.h>

namespace velia::server {

namespace {

template <class Value>
void append_bytes(std::string &text, const Value &value) {
    text.append(reinterpret_cast<const char *>(&value), sizeof value);
}

} // namespace

ReplayCache::Key ReplayCache::key_of(const Caller &caller, Bytes message) {
    const auto &peer = caller.peer;
    Key key;
    key.reserve(sizeof peer.ipv6.sin6_addr + sizeof peer.ipv6.sin6_port + message.size());
    if (peer.base.sa_family == AF_INET) {
        append_bytes(key, peer.ipv4.sin_addr);
        append_bytes(key, peer.ipv4.sin_port);
    } else {
        append_bytes(key, peer.ipv6.sin6_addr);
        append_bytes(key, peer.ipv6.sin6_port);
    }
    key.append(reinterpret_cast<const char *>(message.data()), message.size());
    return key;
}

void ReplayCache::forget_old(int64_t now_ms) {
    while (!ended_.empty() && (now_ms - ended_.front().at_ms > KEPT_MS || ended_.size() > ENTRIES_MAX / 2)) {
        entries_.erase(entries_.find(*ended_.front().key));
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
    ended_.push_back({&found->first, now_ms});
}

} // namespace velia::server
