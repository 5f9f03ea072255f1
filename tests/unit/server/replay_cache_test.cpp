// Datagrams that come twice.
#include <gtest/gtest.h>

#include <arpa/inet.h>

#include <server/rpc/replay_cache.h>

using namespace velia::server;

namespace {

using Verdict = ReplayCache::Verdict;

Caller caller(uint16_t port) {
    Caller made;
    made.peer.ipv4.sin_family = AF_INET;
    made.peer.ipv4.sin_port = htons(port);
    made.peer.ipv4.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return made;
}

MessageBytes message(const char *text) {
    return {text, text + strlen(text)};
}

class Replays : public testing::Test {
protected:
    static ReplayCache::Key key_of(uint32_t host, uint32_t port, uint32_t number) {
        Caller of_host = caller(static_cast<uint16_t>(port));
        of_host.peer.ipv4.sin_addr.s_addr = htonl(0x0a000000 + host);
        const auto text = message(std::to_string(number).c_str());
        return ReplayCache::key_of(of_host, Bytes(text));
    }

    Verdict begin(const ReplayCache::Key &of, int64_t now_ms = 0) { return cache.begin(of, now_ms, &reply); }

    ReplayCache cache;
    const MessageBytes *reply = nullptr;
    const MessageBytes call = message("call");
    const ReplayCache::Key key = ReplayCache::key_of(caller(1000), Bytes(call));
};

TEST_F(Replays, ACallIsRunOnceWhileItIsInProgress) {
    EXPECT_EQ(begin(key), Verdict::is_new);
    EXPECT_EQ(begin(key), Verdict::in_progress);
}

TEST_F(Replays, AnAnsweredCallGetsTheSameBytesAgain) {
    begin(key);
    cache.finish(key, 0, message("reply"));
    EXPECT_EQ(begin(key, 25000), Verdict::answered);
    EXPECT_EQ(*reply, message("reply"));
}

// The longest that clients ask is 25 seconds.
TEST_F(Replays, AnAnswerIsKeptForAsLongAsItsClientMayAskAgain) {
    begin(key);
    cache.finish(key, 0, message("reply"));
    EXPECT_EQ(begin(key, 30000), Verdict::answered);
    EXPECT_EQ(begin(key, 30001), Verdict::is_new);
}

TEST_F(Replays, TheFirstAnswerCounts) {
    begin(key);
    cache.finish(key, 0, message("first"));
    cache.finish(key, 0, message("second"));
    EXPECT_EQ(begin(key), Verdict::answered);
    EXPECT_EQ(*reply, message("first"));
}

TEST_F(Replays, AnotherSenderOrAnotherMessageIsAnotherCall) {
    begin(key);
    EXPECT_EQ(begin(ReplayCache::key_of(caller(1001), Bytes(call))), Verdict::is_new);
    const auto other = message("other");
    EXPECT_EQ(begin(ReplayCache::key_of(caller(1000), Bytes(other))), Verdict::is_new);
}

// Foreign look-ups do not make it forget what a client was told.
TEST_F(Replays, OtherHostsTakeNothingOfWhatOneWasTold) {
    begin(key);
    cache.finish(key, 0, message("reply"));
    for (uint32_t host = 1; host <= 8; ++host)
        for (uint32_t i = 0; i < ReplayCache::HOST_ENTRIES_MAX; ++i) {
            const auto foreign = key_of(host, i, 0);
            begin(foreign);
            cache.finish(foreign, 0, message("foreign"));
        }
    EXPECT_LE(cache.size(), size_t{ReplayCache::ENTRIES_MAX});
    EXPECT_EQ(begin(key), Verdict::answered);
}

TEST_F(Replays, AHostWhoseShareIsFullIsToldAndOthersAreServed) {
    for (uint32_t i = 0; i < ReplayCache::HOST_ENTRIES_MAX; ++i)
        ASSERT_EQ(begin(key_of(1, i, 0)), Verdict::is_new);
    EXPECT_EQ(begin(key_of(1, 7, 1)), Verdict::too_many);
    EXPECT_EQ(begin(key_of(1, 7, 0)), Verdict::in_progress);
    EXPECT_EQ(begin(key_of(2, 7, 0)), Verdict::is_new);
}

TEST_F(Replays, ASocketWithManyCallsForgetsItsOldestOnes) {
    constexpr uint32_t calls = 3 * ReplayCache::HOST_ENTRIES_MAX;
    for (uint32_t i = 0; i < calls; ++i) {
        ASSERT_EQ(begin(key_of(1, 0, i)), Verdict::is_new) << i;
        cache.finish(key_of(1, 0, i), 0, message("reply"));
    }
    EXPECT_EQ(cache.size(), size_t{ReplayCache::CHANNEL_ANSWERS_MAX});
    EXPECT_EQ(begin(key_of(1, 0, calls - 1)), Verdict::answered);
    EXPECT_EQ(begin(key_of(1, 0, 0)), Verdict::is_new);
}

TEST_F(Replays, WhatIsInProgressEverywhereLeavesNoRoom) {
    for (uint32_t i = 0; i < ReplayCache::ENTRIES_MAX; ++i)
        ASSERT_EQ(begin(key_of(i, 0, 0)), Verdict::is_new);
    EXPECT_EQ(begin(key), Verdict::too_many);
}

TEST_F(Replays, NothingIsLeftOfWhatIsOld) {
    for (uint32_t i = 0; i < 1000; ++i) {
        const auto old = key_of(i % 7, i % 5, i);
        begin(old, i);
        cache.finish(old, i, message("reply"));
    }
    begin(key, 100000);
    EXPECT_EQ(cache.size(), 1u);
}

} // namespace
