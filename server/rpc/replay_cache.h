// Datagrams come twice: clients send a call again until they hear of it. A call that is still being worked on is
// dropped when it comes again; one that was answered lately gets the same bytes again, and is not run twice.
#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <unordered_map>

#include <server/rpc/call_header.h>
#include <server/rpc/caller.h>
#include <server/rpc/reply.h>

namespace velia::server {

class ReplayCache {
public:
    using Key = std::string;

    enum { ENTRIES_MAX = 512, KEPT_MS = 10000 };

    enum class Verdict { is_new, in_progress, answered, too_many };

    // The identity of a call: the address and port that sent it, and its bytes, of which the transaction number is a
    // part.
    static Key key_of(const Caller &caller, Bytes message);

    // Takes note of a call; with `answered` the reply is *reply, valid until the next call of this object.
    Verdict begin(const Key &key, int64_t now_ms, const MessageBytes **reply);

    void finish(const Key &key, int64_t now_ms, MessageBytes reply);

private:
    struct Entry {
        bool is_answered = false;
        MessageBytes reply;
    };
    struct Ended {
        const Key *key; // that of the entry, where it stays
        int64_t at_ms;
    };

    void forget_old(int64_t now_ms);

    std::unordered_map<Key, Entry> entries_;
    std::deque<Ended> ended_; // answered entries, oldest first
};

} // namespace velia::server
