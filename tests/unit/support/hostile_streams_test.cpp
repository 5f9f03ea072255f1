// Calls over TCP to peers that say nothing, too little, too much or something else, and that break off at any point.
#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <functional>

#include <poll.h>
#include <sys/resource.h>

#include <tests/hostile/stream_peer.h>

#include "hostile_call.h"

using namespace velia::hostile;
using std::chrono::milliseconds;

namespace {

using Connection = StreamPeer::Connection;

// What a peer sends, on and on or once, in place of a reply.
struct Nonsense {
    const char *name;
    void (*send)(Connection &connection, const Bytes &request);
};

void send_on_and_on(Connection &connection, const Bytes &bytes, milliseconds pause = milliseconds(0)) {
    while (connection.send(bytes) && connection.pause(pause))
        continue;
}

const Bytes other_transaction(const Bytes &request) {
    return as_record(reply_of(transaction_of(request) + 1, 0xbad));
}

const Nonsense nonsense[] = {
    {"Nothing", [](Connection &, const Bytes &) {}},
    {"FourZeroBytes", [](Connection &connection, const Bytes &) { connection.send(mark(0, false)); }},
    {"OneByte", [](Connection &connection, const Bytes &) { connection.send(Bytes(1, '\x80')); }},
    {"DrippedReply",
     [](Connection &connection, const Bytes &request) {
         connection.drip(as_record(right_reply(request) + Bytes(4000, 'x')), milliseconds(20));
     }},
    {"DrippedEmptyFragments",
     [](Connection &connection, const Bytes &) { connection.drip(Bytes(4000, '\0'), milliseconds(20)); }},
    {"OtherTransactionNowAndThen",
     [](Connection &connection, const Bytes &request) {
         send_on_and_on(connection, other_transaction(request), milliseconds(5));
     }},
    {"OtherTransactionOnAndOn",
     [](Connection &connection, const Bytes &request) { send_on_and_on(connection, other_transaction(request)); }},
    {"EmptyRecordsNowAndThen",
     [](Connection &connection, const Bytes &) { send_on_and_on(connection, mark(0, true), milliseconds(5)); }},
    {"EmptyRecordsOnAndOn", [](Connection &connection, const Bytes &) { send_on_and_on(connection, mark(0, true)); }},
    {"EmptyFragmentsOnAndOn",
     [](Connection &connection, const Bytes &) {
         Bytes many;
         for (int i = 0; i < 1000; ++i)
             many += mark(0, false);
         send_on_and_on(connection, many);
     }},
    {"LongestFragmentAndNothing",
     [](Connection &connection, const Bytes &request) {
         connection.send(mark(0x7fffffff, true) + right_reply(request));
     }},
    {"FragmentsWithoutEnd",
     [](Connection &connection, const Bytes &request) {
         connection.send(mark(28, false) + right_reply(request));
         send_on_and_on(connection, mark(60'000, false) + Bytes(60'000, 'x'));
     }},
    {"MalformedReplies",
     [](Connection &connection, const Bytes &request) {
         for (const auto &reply : malformed_replies(request))
             connection.send(as_record(reply));
     }},
};

struct Case {
    int family;
    Nonsense nonsense;
};

std::vector<Case> all_cases() {
    std::vector<Case> cases;
    for (const int family : {AF_INET, AF_INET6})
        for (const auto &one : nonsense)
            cases.push_back({family, one});
    return cases;
}

class HostileStreams : public testing::TestWithParam<Case> {
protected:
    void SetUp() override { signal(SIGPIPE, SIG_DFL); }
};

INSTANTIATE_TEST_SUITE_P(Sent, HostileStreams, testing::ValuesIn(all_cases()), [](const auto &one) {
    return std::string(one.param.nonsense.name) + (one.param.family == AF_INET ? "Tcp4" : "Tcp6");
});

// Until the end of the connection has come as far as the client's socket.
void wait_for_end(int socket_fd) {
    pollfd ended = {socket_fd, POLLRDHUP, 0};
    poll(&ended, 1, 10'000);
}

std::atomic<bool> peer_has_given_up;

// Answers all calls of the connection rightly.
void answer(Connection &connection) {
    while (const auto request = connection.request())
        connection.send(as_record(right_reply(*request)));
}

// How a connection ends, and where.
struct Break {
    const char *name;
    void (*end)(Connection &connection);
};

const Break breaks[] = {{"Reset", [](Connection &connection) { connection.reset(); }},
                        {"Close", [](Connection &connection) { connection.close(); }}};

class BrokenOff : public testing::TestWithParam<Break> {
protected:
    void SetUp() override {
        signal(SIGPIPE, SIG_DFL);
        pthread_sigmask(SIG_SETMASK, nullptr, &mask_before_);
    }
    void TearDown() override {
        sigset_t mask;
        pthread_sigmask(SIG_SETMASK, nullptr, &mask);
        EXPECT_EQ(sigismember(&mask, SIGPIPE), sigismember(&mask_before_, SIGPIPE));
        sigpending(&mask);
        EXPECT_EQ(sigismember(&mask, SIGPIPE), 0);
    }
    sigset_t mask_before_ = {};
};

INSTANTIATE_TEST_SUITE_P(By, BrokenOff, testing::ValuesIn(breaks),
                         [](const auto &one) { return std::string(one.param.name); });

void expect_answered(Caller &caller, uint32_t number) {
    const auto outcome = caller.call(number);
    EXPECT_EQ(outcome.stat, RPC_SUCCESS);
    EXPECT_EQ(outcome.number, number);
}

void expect_broken(Caller &caller, uint32_t number) {
    const auto outcome = caller.call(number);
    EXPECT_TRUE(outcome.stat == RPC_CANTRECV || outcome.stat == RPC_CANTSEND) << clnt_sperrno(outcome.stat);
    EXPECT_LT(outcome.ms, soon_ms);
}

} // namespace

TEST_P(HostileStreams, AreGivenUpByTheLimit) {
    const auto send = GetParam().nonsense.send;
    StreamPeer peer(GetParam().family, [send](Connection &connection) {
        if (connection.number > 0)
            return answer(connection);
        if (const auto request = connection.request())
            send(connection, *request);
        connection.wait_for_its_end();
    });
    {
        Caller caller(peer.address(), SOCK_STREAM);
        ASSERT_TRUE(caller.is_made());
        const auto outcome = caller.call(1, limit);
        EXPECT_NE(outcome.stat, RPC_SUCCESS);
        EXPECT_LT(outcome.ms, soon_ms);
        RecordProperty("given_up_after_ms", static_cast<int>(outcome.ms));
    }
    Caller next(peer.address(), SOCK_STREAM);
    ASSERT_TRUE(next.is_made());
    expect_answered(next, 2);
}

// The right reply behind much else is taken, if it comes in time.
TEST(HostileStream, RightReplyBehindRecordsOfOthersIsTaken) {
    StreamPeer peer(AF_INET, [](Connection &connection) {
        while (const auto request = connection.request()) {
            for (int i = 0; i < 1000; ++i)
                connection.send(other_transaction(*request));
            connection.send(as_record(right_reply(*request)));
        }
    });
    Caller caller(peer.address(), SOCK_STREAM);
    for (uint32_t i = 1; i <= 5; ++i)
        expect_answered(caller, i);
    EXPECT_EQ(peer.connections(), 1u);
}

TEST(HostileStream, ReplyInFragmentsOfOneByteIsTaken) {
    StreamPeer peer(AF_INET, [](Connection &connection) {
        while (const auto request = connection.request())
            connection.send(as_fragments(right_reply(*request), 1));
    });
    Caller caller(peer.address(), SOCK_STREAM);
    for (uint32_t i = 1; i <= 5; ++i)
        expect_answered(caller, i);
}

TEST(HostileStream, ReplyThatIsLateIsNotTakenForTheNextCall) {
    StreamPeer peer(AF_INET, [](Connection &connection) {
        Bytes late;
        while (const auto request = connection.request()) {
            if (number_sent(*request) != 1)
                connection.send(late + as_record(right_reply(*request)));
            late = as_record(right_reply(*request));
        }
    });
    Caller caller(peer.address(), SOCK_STREAM);
    EXPECT_EQ(caller.call(1, {0, 50'000}).stat, RPC_TIMEDOUT);
    expect_answered(caller, 2);
    expect_answered(caller, 3);
}

// Of a record without an end no more is kept than has arrived, and that has a bound.
TEST(HostileStream, RecordWithoutAnEndTakesBoundedMemory) {
    StreamPeer peer(AF_INET, [](Connection &connection) {
        if (connection.request())
            send_on_and_on(connection, mark(60'000, false) + Bytes(60'000, 'x'));
    });
    Caller caller(peer.address(), SOCK_STREAM);
    rusage before = {};
    getrusage(RUSAGE_SELF, &before);
    EXPECT_NE(caller.call(1, {3, 0}).stat, RPC_SUCCESS);
    rusage after = {};
    getrusage(RUSAGE_SELF, &after);
    const auto grown_kib = after.ru_maxrss - before.ru_maxrss;
    RecordProperty("grown_kib", static_cast<int>(grown_kib));
    EXPECT_LT(grown_kib, 256 * 1024);
}

TEST_P(BrokenOff, BeforeTheFirstRequestIsMadeGood) {
    StreamPeer peer(AF_INET, [](Connection &connection) {
        connection.number == 0 ? GetParam().end(connection) : answer(connection);
    });
    Caller caller(peer.address(), SOCK_STREAM);
    ASSERT_TRUE(caller.is_made());
    wait_for_end(caller.socket_fd());
    expect_answered(caller, 1);
}

TEST_P(BrokenOff, BetweenTwoCallsIsMadeGood) {
    StreamPeer peer(AF_INET, [](Connection &connection) {
        if (const auto request = connection.request())
            connection.send(as_record(right_reply(*request)));
        if (connection.number < 3)
            return GetParam().end(connection);
        answer(connection);
    });
    Caller caller(peer.address(), SOCK_STREAM);
    for (uint32_t i = 1; i <= 4; ++i) {
        expect_answered(caller, i);
        if (i < 4)
            wait_for_end(caller.socket_fd());
    }
    EXPECT_EQ(peer.connections(), 4u);
}

TEST_P(BrokenOff, DuringACallIsAnErrorOfThatCallAlone) {
    StreamPeer peer(AF_INET, [](Connection &connection) {
        if (connection.number % 2 == 1)
            return answer(connection);
        connection.request();
        GetParam().end(connection);
    });
    Caller caller(peer.address(), SOCK_STREAM);
    expect_broken(caller, 1);
    expect_answered(caller, 2);
    expect_answered(caller, 3);
}

TEST_P(BrokenOff, WithinAReplyIsAnErrorOfThatCallAlone) {
    StreamPeer peer(AF_INET, [](Connection &connection) {
        const auto request = connection.request();
        if (!request)
            return;
        const auto reply = as_record(right_reply(*request));
        if (connection.number < reply.size()) {
            connection.send(reply.substr(0, connection.number));
            return GetParam().end(connection);
        }
        connection.send(reply);
        answer(connection);
    });
    Caller caller(peer.address(), SOCK_STREAM);
    const auto cuts = static_cast<uint32_t>(as_record(reply_of(1, 1)).size());
    for (uint32_t cut = 0; cut < cuts; ++cut)
        expect_broken(caller, cut);
    expect_answered(caller, cuts);
    EXPECT_EQ(peer.connections(), cuts + 1);
}

TEST_P(BrokenOff, TwiceOnlyOneAttemptIsMadeAnew) {
    StreamPeer peer(AF_INET, [](Connection &connection) {
        if (connection.number == 0)
            return GetParam().end(connection);
        connection.request();
        GetParam().end(connection);
    });
    Caller caller(peer.address(), SOCK_STREAM);
    wait_for_end(caller.socket_fd());
    expect_broken(caller, 1);
    EXPECT_EQ(peer.connections(), 2u);
}

// The peer is there no more, or takes no connection: the next call ends at once, or by its limit.
TEST(HostileStream, PeerThatHasGoneIsToldAtOnce) {
    velia::relay::Address address;
    auto peer = std::make_unique<StreamPeer>(AF_INET, [](Connection &connection) {
        if (const auto request = connection.request())
            connection.send(as_record(right_reply(*request)));
    });
    Caller caller(peer->address(), SOCK_STREAM);
    expect_answered(caller, 1);
    peer.reset();
    wait_for_end(caller.socket_fd());
    for (int i = 0; i < 3; ++i) {
        const auto outcome = caller.call(2);
        EXPECT_NE(outcome.stat, RPC_SUCCESS);
        EXPECT_LT(outcome.ms, soon_ms);
    }
}

TEST(HostileStream, ConnectionThatDoesNotComeAboutIsGivenUpByTheLimit) {
    auto peer = std::make_unique<StreamPeer>(AF_INET, [](Connection &connection) {
        if (const auto request = connection.request())
            connection.send(as_record(right_reply(*request)));
    });
    velia::relay::Address address;
    memcpy(&address.storage, peer->address(), sizeof(sockaddr_in));
    address.length = sizeof(sockaddr_in);
    Caller caller(peer->address(), SOCK_STREAM);
    expect_answered(caller, 1);
    peer.reset();
    wait_for_end(caller.socket_fd());
    const FullPort full(address);
    const auto outcome = caller.call(2, limit);
    EXPECT_NE(outcome.stat, RPC_SUCCESS);
    EXPECT_LT(outcome.ms, soon_ms);
}

TEST(HostileStream, ClientWhoseConnectionDoesNotComeAboutIsGivenUpByTheThreadsLimit) {
    const FullPort full(velia::relay::parse_address("127.0.0.1:0"));
    using namespace std::chrono;
    const auto begin = steady_clock::now();
    ks_set_deadline(400);
    const Caller caller(full.address(), SOCK_STREAM);
    ks_set_deadline(-1);
    EXPECT_FALSE(caller.is_made());
    EXPECT_EQ(ks_rpc_get_createerr()->error_number, ETIMEDOUT);
    EXPECT_LT(duration_cast<milliseconds>(steady_clock::now() - begin).count(), soon_ms);
}

// A request of more than the buffers on the way hold, to a peer that reads nothing; the next one is not the rest of it.
TEST(HostileStream, RequestThatThePeerDoesNotTakeIsGivenUpByTheLimit) {
    peer_has_given_up = false;
    StreamPeer peer(AF_INET, [](Connection &connection) {
        if (connection.number > 0)
            return answer(connection);
        while (!peer_has_given_up && connection.pause(milliseconds(5)))
            continue;
    });
    Caller caller(peer.address(), SOCK_STREAM);
    const auto outcome = caller.send_large(limit);
    peer_has_given_up = true;
    EXPECT_EQ(outcome.stat, RPC_TIMEDOUT);
    EXPECT_LT(outcome.ms, soon_ms);
    expect_answered(caller, 2);
}
