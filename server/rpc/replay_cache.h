// Datagrams come twice: clients send a call again until they hear of it. A call that is still being worked on is
// dropped when it comes again; one that was answered is answered with the same bytes for as long as its client may send
// it, and is not run twice. Each host has a share of the room, so that nobody makes it forget what another was told.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <set>
#include <unordered_map>

#include <server/rpc/call_header.h>
#include <server/rpc/caller.h>
#include <server/rpc/reply.h>

namespace velia::server {

class ReplayCache {
public:
    enum {
        KEPT_MS = 30000,         // clients ask for 25 seconds at most, and a datagram may be late
        CHANNEL_ANSWERS_MAX = 4, // a socket has one call in hand: of those before it, only late copies can come
        HOST_ENTRIES_MAX = 4096,
        ENTRIES_MAX = 16384,
    };

    enum class Verdict { is_new, in_progress, answered, too_many };

    // The identity of a call: who sent it, and its bytes, of which the transaction number is a part.
    struct Key {
        Sender sender; // for the shares
        std::array<uint64_t, 2> address = {};
        uint64_t length = 0;
        uint64_t hash = 0;

        auto operator<=>(const Key &) const = default;
    };
    static Key key_of(const Caller &caller, Bytes message);

    // Takes note of a call; with `answered` the reply is *reply, valid until the next call of this object. Too many:
    // the call is neither known nor noted, since its host has as many as it may.
    Verdict begin(const Key &key, int64_t now_ms, const MessageBytes **reply);

    void finish(const Key &key, int64_t now_ms, MessageBytes reply);

    size_t size() const { return entries_.size(); }

private:
    struct Entry {
        bool is_answered = false;
        int64_t answered_ms = 0;
        MessageBytes reply;
    };
    struct Host {
        size_t count = 0;
        std::map<uint64_t, std::deque<Key>> answered; // of each channel, oldest first
    };
    using Hosts = std::map<Sender::Host, Host>;

    void count(Hosts::iterator host, ptrdiff_t change);
    void forget(const Key &key);
    void forget_old(int64_t now_ms);
    bool make_room(const Key &key);

    struct HashOfKey {
        size_t operator()(const Key &key) const { return key.hash ^ key.sender.host[1] ^ key.sender.channel << 32; }
    };

    std::unordered_map<Key, Entry, HashOfKey> entries_;
    std::deque<std::pair<int64_t, Key>> answered_; // in the order of time; of those that were forgotten before, some
    Hosts hosts_;
    std::set<std::pair<size_t, Sender::Host>> by_count_;
};

} // namespace velia::server
