// Every entry is either in progress, and bounded by its host's share, or answered, and in the queue of its channel.
#include <server/rpc/replay_cache.h>

#include <cstring>
#include <string_view>

#include <common/require.h>

namespace velia::server {

ReplayCache::Key ReplayCache::key_of(const Caller &caller, Bytes message) {
    const auto peer = unmapped(caller.peer);
    Key key;
    key.sender = sender_of(caller);
    if (peer.base.sa_family == AF_INET6)
        memcpy(key.address.data(), &peer.ipv6.sin6_addr, sizeof key.address);
    key.length = message.size();
    key.hash = std::hash<std::string_view>()({reinterpret_cast<const char *>(message.data()), message.size()});
    return key;
}

void ReplayCache::count(Hosts::iterator host, ptrdiff_t change) {
    by_count_.erase({host->second.count, host->first});
    host->second.count += static_cast<size_t>(change);
    if (host->second.count != 0)
        by_count_.emplace(host->second.count, host->first);
    else
        hosts_.erase(host);
}

// The oldest answered one of its channel.
void ReplayCache::forget(const Key &key) {
    const auto host = hosts_.find(key.sender.host);
    require(host != hosts_.end());
    const auto channel = host->second.answered.find(key.sender.channel);
    require(channel != host->second.answered.end() && channel->second.front() == key);
    channel->second.pop_front();
    if (channel->second.empty())
        host->second.answered.erase(channel);
    entries_.erase(key);
    count(host, -1);
}

// What was forgotten before, and may be there again by now, was answered at another time.
void ReplayCache::forget_old(int64_t now_ms) {
    while (!answered_.empty() && now_ms - answered_.front().first > KEPT_MS) {
        const auto [at_ms, key] = answered_.front();
        answered_.pop_front();
        const auto found = entries_.find(key);
        if (found != entries_.end() && found->second.is_answered && found->second.answered_ms == at_ms)
            forget(key);
    }
}

// Where there is no room at all, the host that has most of it gives some back.
bool ReplayCache::make_room(const Key &key) {
    if (const auto host = hosts_.find(key.sender.host); host != hosts_.end()) {
        const auto channel = host->second.answered.find(key.sender.channel);
        if (channel != host->second.answered.end() && channel->second.size() >= CHANNEL_ANSWERS_MAX)
            forget(Key(channel->second.front()));
        else if (host->second.count >= HOST_ENTRIES_MAX)
            return false;
    }
    if (entries_.size() < ENTRIES_MAX)
        return true;
    const auto &most = hosts_.at(by_count_.rbegin()->second);
    if (most.answered.empty())
        return false;
    forget(Key(most.answered.begin()->second.front()));
    return true;
}

ReplayCache::Verdict ReplayCache::begin(const Key &key, int64_t now_ms, const MessageBytes **reply) {
    forget_old(now_ms);
    const auto found = entries_.find(key);
    if (found != entries_.end()) {
        *reply = &found->second.reply;
        return found->second.is_answered ? Verdict::answered : Verdict::in_progress;
    }
    if (!make_room(key))
        return Verdict::too_many;
    entries_.emplace(key, Entry{});
    count(hosts_.try_emplace(key.sender.host).first, 1);
    return Verdict::is_new;
}

void ReplayCache::finish(const Key &key, int64_t now_ms, MessageBytes reply) {
    const auto found = entries_.find(key);
    if (found == entries_.end() || found->second.is_answered)
        return;
    found->second = {true, now_ms, std::move(reply)};
    answered_.emplace_back(now_ms, key);
    hosts_.at(key.sender.host).answered[key.sender.channel].push_back(key);
}

} // namespace velia::server
