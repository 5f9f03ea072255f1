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
    EXPECT_EQ(begin(key, 10000), Verdict::answered);
    EXPECT_EQ(*reply, message("reply"));
}

TEST_F(Replays, AnAnswerIsForgottenAfterTenSeconds) {
    begin(key);
    cache.finish(key, 0, message("reply"));
    EXPECT_EQ(begin(key, 10001), Verdict::is_new);
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

TEST_F(Replays, CallsInProgressHaveABound) {
    for (int i = 0; i < ReplayCache::ENTRIES_MAX; ++i)
        ASSERT_EQ(begin(std::to_string(i)), Verdict::is_new);
    EXPECT_EQ(begin("one more"), Verdict::too_many);
    EXPECT_EQ(begin("0"), Verdict::in_progress);
}

TEST_F(Replays, OldAnswersGiveWayToNewCalls) {
    for (int i = 0; i < 10 * ReplayCache::ENTRIES_MAX; ++i) {
        ASSERT_EQ(begin(std::to_string(i)), Verdict::is_new) << i;
        cache.finish(std::to_string(i), 0, message("reply"));
    }
    EXPECT_EQ(begin(std::to_string(10 * ReplayCache::ENTRIES_MAX - 1)), Verdict::answered);
    EXPECT_EQ(begin("0"), Verdict::is_new);
}

} // namespace
