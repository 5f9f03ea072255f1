// The bounds on TCP connections: how many, how long without a complete request, and whose place a newcomer gets. Real
// sockets on loopback, and a loop that the test runs.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <array>
#include <functional>
#include <optional>
#include <sched.h>
#include <sys/socket.h>

#include <server/rpc/tcp_endpoint.h>
#include <tests/unit/server/open_guard.h>

using namespace velia::server;

namespace {

constexpr uint32_t program = 390512;
constexpr uint32_t ping = 0;
constexpr uint32_t long_work = 1;
constexpr uint32_t large_reply = 2;
constexpr uint32_t long_list = 3;
constexpr size_t long_list_bytes = 5'000'000;
constexpr int64_t deadline_ms = 20000;

class Connections : public testing::Test {
protected:
    Connections() {
        uv_loop_init(&loop);
        UniqueFd listening(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0));
        sockaddr_in local = {};
        local.sin_family = AF_INET;
        local.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(bind(listening.get(), reinterpret_cast<sockaddr *>(&local), sizeof local), 0);
        EXPECT_EQ(listen(listening.get(), 16), 0);
        socklen_t length = sizeof address;
        getsockname(listening.get(), reinterpret_cast<sockaddr *>(&address), &length);
        listener = std::move(listening);
    }
    ~Connections() override {
        endpoint.reset();
        uv_run(&loop, UV_RUN_DEFAULT);
        EXPECT_EQ(uv_loop_close(&loop), 0);
    }

    void serve(const ConnectionLimits &limits) { endpoint.emplace(&loop, std::move(listener), dispatcher, limits); }

    // Runs the loop until the condition holds; false when it does not come to hold.
    bool run_until(const std::function<bool()> &condition) {
        const int64_t end_ms = monotonic_ms() + deadline_ms;
        while (!condition()) {
            if (monotonic_ms() > end_ms)
                return false;
            uv_run(&loop, UV_RUN_NOWAIT);
            sched_yield();
        }
        return true;
    }

    UniqueFd connect_peer() { return connect_peer_from(1); }
    // From a host of its own: 127.0.0.`host`.
    UniqueFd connect_peer_from(uint32_t host) {
        UniqueFd fd(socket(AF_INET, SOCK_STREAM, 0));
        sockaddr_in local = {};
        local.sin_family = AF_INET;
        local.sin_addr.s_addr = htonl(INADDR_LOOPBACK + host - 1);
        EXPECT_EQ(bind(fd.get(), reinterpret_cast<sockaddr *>(&local), sizeof local), 0);
        EXPECT_EQ(connect(fd.get(), reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
        return fd;
    }
    // A peer whose first request was answered.
    UniqueFd served_peer() { return served_peer_from(1); }
    UniqueFd served_peer_from(uint32_t host) {
        UniqueFd fd = connect_peer_from(host);
        complete_request(fd);
        return fd;
    }
    // Asks, and reads nothing, until no reply leaves the daemon any more.
    void fill_with_replies(const UniqueFd &fd) {
        const auto call = with_record_mark(call_message(large_reply));
        size_t before = 0;
        do {
            before = large_replies;
            for (int i = 0; i < 16; ++i)
                send(fd.get(), call.data(), call.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
            let_pass(200); // of a busy machine, too, none leaves any more
        } while (large_replies != before);
    }
    void let_pass(int64_t time_ms) {
        const int64_t now_ms = monotonic_ms();
        EXPECT_TRUE(run_until([&] { return monotonic_ms() > now_ms + time_ms; }));
    }
    // What was not taken may still be read.
    void expect_gone(const UniqueFd &fd) {
        EXPECT_TRUE(run_until([&] {
            std::array<char, 65536> bytes;
            const ssize_t count = recv(fd.get(), bytes.data(), bytes.size(), MSG_DONTWAIT);
            return count == 0 || (count < 0 && errno == ECONNRESET);
        }));
    }
    void complete_request(const UniqueFd &fd) {
        send_call(fd, ping);
        EXPECT_TRUE(run_until([&] { return take_reply(fd); }));
    }
    void begin_long_work(const UniqueFd &fd) {
        const size_t before = unanswered.size();
        send_call(fd, long_work);
        EXPECT_TRUE(run_until([&] { return unanswered.size() > before; }));
    }

    static void send_bytes(const UniqueFd &fd, const MessageBytes &bytes) {
        EXPECT_EQ(send(fd.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
    }
    static MessageBytes call_message(uint32_t procedure) {
        MessageBytes message;
        for (const uint32_t word : {7u, 0u, 2u, program, 3u, procedure, 0u, 0u, 0u, 0u})
            for (const int shift : {24, 16, 8, 0})
                message.push_back(static_cast<unsigned char>(word >> shift));
        return message;
    }
    static void send_call(const UniqueFd &fd, uint32_t procedure) {
        send_bytes(fd, with_record_mark(call_message(procedure)));
    }
    static bool take_reply(const UniqueFd &fd) {
        char bytes[256];
        return recv(fd.get(), bytes, sizeof bytes, MSG_DONTWAIT) > 0;
    }
    static bool is_closed(const UniqueFd &fd) {
        char byte;
        const ssize_t count = recv(fd.get(), &byte, 1, MSG_DONTWAIT | MSG_PEEK);
        return count == 0 || (count < 0 && errno == ECONNRESET);
    }
    void expect_closed(const UniqueFd &fd) {
        EXPECT_TRUE(run_until([&] { return is_closed(fd); }));
    }
    void let_a_moment_pass() {
        const int64_t now_ms = monotonic_ms();
        EXPECT_TRUE(run_until([&] { return monotonic_ms() > now_ms + 1; }));
    }

    static ConnectionLimits limits(uint32_t most = 16, int64_t request_ms = 60000, int64_t idle_ms = 60000) {
        return {request_ms, idle_ms, most};
    }

    uv_loop_t loop;
    sockaddr_in address = {};
    UniqueFd listener;
    std::vector<ReplySink> unanswered;
    static bool refuse(void * /*owner*/, XDR & /*arguments*/, const Call &call) {
        call.sink(encode_refusal(call.xid, GARBAGE_ARGS));
        return true;
    }
    static bool leave_unanswered(void *owner, XDR & /*arguments*/, const Call &call) {
        static_cast<Connections *>(owner)->unanswered.push_back(call.sink);
        return true;
    }
    static bool answer_at_length(void *owner, XDR & /*arguments*/, const Call &call) {
        ++static_cast<Connections *>(owner)->large_replies;
        call.sink(MessageBytes(60000, 0));
        return true;
    }
    static bool answer_with_a_list(void * /*owner*/, XDR & /*arguments*/, const Call &call) {
        MessageBytes bytes(long_list_bytes, 1);
        bytes.back() = 2;
        call.sink(std::move(bytes));
        return true;
    }
    // Takes what comes while the loop runs, until so much has.
    MessageBytes take(const UniqueFd &fd, size_t size) {
        MessageBytes taken;
        std::array<unsigned char, 65536> piece;
        EXPECT_TRUE(run_until([&] {
            const ssize_t count = recv(fd.get(), piece.data(), piece.size(), MSG_DONTWAIT);
            if (count > 0)
                taken.insert(taken.end(), piece.begin(), piece.begin() + count);
            return taken.size() >= size;
        }));
        return taken;
    }
    // Of connections from this host over IP.
    static Sender::Host this_host() {
        ks_sockaddr_storage_t address = {};
        address.ipv4.sin_family = AF_INET;
        address.ipv4.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        return host_of(address);
    }
    size_t large_replies = 0;
    Dispatcher dispatcher{program,
                          3,
                          server_tests::open_guard,
                          {{ping, false, false, this, refuse},
                           {long_work, false, false, this, leave_unanswered},
                           {large_reply, false, false, this, answer_at_length},
                           {long_list, false, false, this, answer_with_a_list}}};
    std::optional<TcpEndpoint> endpoint;
};

TEST_F(Connections, AListThatIsLongerThanWhatMayBeUnsentComesWholeAndOthersAreServedMeanwhile) {
    serve(limits());
    const UniqueFd peer = served_peer();
    const UniqueFd other = served_peer();
    send_call(peer, long_list);
    complete_request(other);
    const auto record = take(peer, 4 + long_list_bytes);
    ASSERT_EQ(record.size(), 4 + long_list_bytes);
    EXPECT_EQ(MessageBytes(record.begin(), record.begin() + 4), record_mark(long_list_bytes));
    EXPECT_EQ(record[4], 1);
    EXPECT_EQ(record.back(), 2);
    complete_request(peer);
}

TEST_F(Connections, LongListsThatNobodyTakesFillTheShareOfTheirHostAloneUntilTheirPeersGo) {
    serve(limits(64));
    std::vector<UniqueFd> hoarders;
    while (has_room_for_long_reply(this_host()) && hoarders.size() < 40) {
        hoarders.push_back(served_peer());
        send_call(hoarders.back(), long_list);
        let_pass(5);
    }
    EXPECT_FALSE(has_room_for_long_reply(this_host()));
    EXPECT_GE(hoarders.size(), long_replies_of_host_max / long_list_bytes);
    EXPECT_TRUE(has_room_for_long_reply({7, 7}));
    hoarders.clear();
    EXPECT_TRUE(run_until([&] { return has_room_for_long_reply(this_host()); }));
}

TEST_F(Connections, NewcomerGetsThePlaceOfAPeerThatNeverCompletedARequest) {
    serve(limits(2));
    const UniqueFd good = served_peer();
    const UniqueFd silent = connect_peer();
    const UniqueFd newcomer = served_peer();
    expect_closed(silent);
    EXPECT_FALSE(is_closed(good));
    EXPECT_FALSE(is_closed(newcomer));
}

TEST_F(Connections, NewcomerGetsThePlaceOfTheLongestIdle) {
    serve(limits(2));
    const UniqueFd first = served_peer();
    let_a_moment_pass();
    const UniqueFd second = served_peer();
    let_a_moment_pass();
    complete_request(first);
    const UniqueFd newcomer = served_peer();
    expect_closed(second);
    EXPECT_FALSE(is_closed(first));
}

TEST_F(Connections, PeersForWhomWorkIsBeingDoneKeepTheirPlaces) {
    serve(limits(2));
    const UniqueFd first = served_peer();
    const UniqueFd second = served_peer();
    begin_long_work(first);
    begin_long_work(second);
    const UniqueFd newcomer = connect_peer();
    expect_closed(newcomer);
    EXPECT_FALSE(is_closed(first));
    EXPECT_FALSE(is_closed(second));
}

// Whoever reads nothing may send what he likes: he makes no progress.
TEST_F(Connections, NewcomerGetsThePlaceOfOneThatTakesNoReplies) {
    serve(limits(2));
    const UniqueFd good = served_peer();
    const UniqueFd hoarder = served_peer();
    fill_with_replies(hoarder);
    begin_long_work(good);
    let_pass(1100);
    const UniqueFd newcomer = served_peer();
    expect_gone(hoarder);
    EXPECT_FALSE(is_closed(good));
    EXPECT_FALSE(is_closed(newcomer));
}

TEST_F(Connections, WhoTakesNoRepliesIsDroppedInTimeWhateverHeSends) {
    serve(limits(16, 300));
    const UniqueFd hoarder = served_peer();
    fill_with_replies(hoarder);
    const auto calls = with_record_mark(call_message(large_reply));
    EXPECT_TRUE(run_until([&] {
        const ssize_t sent = send(hoarder.get(), calls.data(), 4, MSG_NOSIGNAL | MSG_DONTWAIT);
        return sent < 0 && errno != EAGAIN;
    }));
}

TEST_F(Connections, WhoTakesNoRepliesIsNotWorkedForAnyFurther) {
    serve(limits());
    const UniqueFd hoarder = served_peer();
    fill_with_replies(hoarder);
    const size_t before = large_replies;
    const UniqueFd other = served_peer();
    complete_request(other);
    EXPECT_EQ(large_replies, before);
}

// Of those of one host the longest without progress goes, not one of a host that has few.
TEST_F(Connections, NewcomerGetsAPlaceOfTheHostThatHasMostOfThem) {
    serve(limits(4));
    const UniqueFd only = served_peer_from(2);
    begin_long_work(only);
    std::vector<UniqueFd> many;
    for (int i = 0; i < 3; ++i) {
        many.push_back(served_peer());
        begin_long_work(many.back());
        let_a_moment_pass();
    }
    const UniqueFd newcomer = served_peer_from(3);
    expect_closed(many.front());
    EXPECT_FALSE(is_closed(only));
    EXPECT_FALSE(is_closed(many.back()));
    const UniqueFd another = connect_peer_from(1);
    expect_closed(another);
}

// It has only just come, and those of the others have completed something already.
TEST_F(Connections, OneThatHasJustComeIsNotDroppedForOneOfTheHostThatHasMost) {
    serve(limits(4));
    std::vector<UniqueFd> many;
    for (int i = 0; i < 3; ++i)
        many.push_back(served_peer());
    const UniqueFd fresh = connect_peer_from(2);
    EXPECT_TRUE(run_until([&, rounds = 0]() mutable { return ++rounds > 10; }));
    many.push_back(served_peer());
    expect_closed(many.front());
    complete_request(fresh);
}

// What came in one piece is worked on in turns, and the others have theirs in between.
TEST_F(Connections, ManyRequestsOfOneConnectionWaitForThoseOfOthers) {
    serve(limits());
    const UniqueFd greedy = served_peer();
    const UniqueFd modest = served_peer();
    MessageBytes calls;
    for (size_t i = 0; i < 40; ++i) {
        const auto call = with_record_mark(call_message(long_work));
        calls.insert(calls.end(), call.begin(), call.end());
    }
    send_bytes(greedy, calls);
    send_call(modest, ping);
    EXPECT_TRUE(run_until([&] { return take_reply(modest); }));
    EXPECT_LT(unanswered.size(), 10u);
    EXPECT_TRUE(run_until([&] { return unanswered.size() == 40; }));
}

TEST_F(Connections, AFloodOfSilentPeersKeepsNoClientOut) {
    serve(limits(4));
    std::vector<UniqueFd> silent;
    for (int i = 0; i < 50; ++i) {
        silent.push_back(connect_peer());
        uv_run(&loop, UV_RUN_NOWAIT);
    }
    const UniqueFd good = served_peer();
    EXPECT_FALSE(is_closed(good));
    EXPECT_TRUE(run_until([&] {
        return std::count_if(silent.begin(), silent.end(), [](const UniqueFd &fd) { return !is_closed(fd); }) <= 3;
    }));
}

TEST_F(Connections, PeerThatSendsNothingIsDroppedAfterTheTimeOfARequest) {
    serve(limits(16, 50));
    expect_closed(connect_peer());
}

TEST_F(Connections, RequestThatIsNotFinishedInTimeEndsItsConnection) {
    serve(limits(16, 50));
    const UniqueFd slow = served_peer();
    send_bytes(slow, {0x80, 0});
    expect_closed(slow);
}

TEST_F(Connections, IdlePeerIsDroppedAfterItsTimeAndOneWithWorkInProgressIsNot) {
    serve(limits(16, 60000, 50));
    const UniqueFd working = served_peer();
    begin_long_work(working);
    const UniqueFd idle = served_peer();
    expect_closed(idle);
    EXPECT_FALSE(is_closed(working));
    unanswered.front()(encode_refusal(7, GARBAGE_ARGS));
    EXPECT_TRUE(run_until([&] { return take_reply(working); }));
    expect_closed(working);
}

TEST_F(Connections, RecordLargerThanItsBoundEndsItsConnection) {
    serve(limits());
    const UniqueFd peer = connect_peer();
    send_bytes(peer, {0xff, 0xff, 0xff, 0xff});
    expect_closed(peer);
}

TEST_F(Connections, WhatIsNoCallEndsItsConnection) {
    serve(limits());
    const UniqueFd peer = served_peer();
    MessageBytes reply_message = call_message(ping);
    reply_message[7] = 1;
    send_bytes(peer, with_record_mark(reply_message));
    expect_closed(peer);
}

TEST_F(Connections, CallsOfOneConnectionInProgressHaveABound) {
    serve(limits());
    const UniqueFd peer = served_peer();
    constexpr size_t most = TcpConnection::CALLS_IN_PROGRESS_MAX;
    for (size_t i = 0; i < most; ++i)
        begin_long_work(peer);
    send_call(peer, long_work);
    const UniqueFd other = served_peer(); // the loop has gone round meanwhile
    EXPECT_EQ(unanswered.size(), most);
    unanswered.front()(encode_refusal(7, GARBAGE_ARGS));
    EXPECT_TRUE(run_until([&] { return unanswered.size() == most + 1; }));
}

TEST_F(Connections, AnswerToAPeerThatHasGoneGoesNowhere) {
    serve(limits());
    {
        const UniqueFd peer = served_peer();
        begin_long_work(peer);
    }
    served_peer();
    unanswered.front()(encode_refusal(7, GARBAGE_ARGS));
    EXPECT_FALSE(is_closed(served_peer()));
}

} // namespace
