// Peers that send what no client would: each gets the answer that is due, or none, and others are served all the while.
#include <gtest/gtest.h>

#include <random>

#include <tests/system/support/client.h>
#include <tests/system/support/daemon.h>
#include <tests/system/support/raw.h>

using namespace velia::system_test;

namespace {

constexpr uint32_t program = 390600;
constexpr uint32_t xid = 0xabcd0001;

// Words of a reply behind its xid and direction.
constexpr size_t reply_stat_word = 2;
constexpr size_t accept_stat_word = 5;
constexpr size_t reject_stat_word = 3;

uint32_t accept_stat_of(const Site &site, const Bytes &message) {
    const auto reply = datagram_reply(site, message);
    if (!reply || reply->size() < 24 || word_at(*reply, 0) != xid || word_at(*reply, reply_stat_word) != MSG_ACCEPTED)
        return UINT32_MAX;
    return word_at(*reply, accept_stat_word);
}

// Credentials of any flavor and body.
Bytes with_credentials(uint32_t flavor, const Bytes &body) {
    Bytes bytes;
    for (const uint32_t word :
         {xid, 0U, 2U, uint32_t{RVZD_PROGRAM}, uint32_t{RVZD_VERSION}, 0U, flavor, static_cast<uint32_t>(body.size())})
        put_word(bytes, word);
    bytes.insert(bytes.end(), body.begin(), body.end());
    put_word(bytes, 0);
    put_word(bytes, 0);
    return bytes;
}

struct Hostile : testing::Test {
    Site site;
    std::unique_ptr<Daemon> daemon;

    void serve(const std::string &configuration) {
        site.configure(configuration);
        daemon = std::make_unique<Daemon>(site);
        ASSERT_TRUE(daemon->is_ready()) << daemon->output();
    }

    // The daemon is well if it serves, and, when it ends, has lost and leaked nothing.
    void TearDown() override {
        ASSERT_NE(daemon, nullptr);
        EXPECT_TRUE(serves_a_good_client(site)) << daemon->output();
        daemon->signal(SIGTERM);
        EXPECT_EQ(daemon->wait(), 0) << daemon->output();
    }
};

} // namespace

TEST_F(Hostile, EachWrongCallHasItsOwnAnswer) {
    serve("");
    EXPECT_EQ(accept_stat_of(site, call_message(xid, RVZD_PROGRAM, RVZD_VERSION, 0)), uint32_t{SUCCESS});
    EXPECT_EQ(accept_stat_of(site, call_message(xid, RVZD_PROGRAM + 1, RVZD_VERSION, 0)), uint32_t{PROG_UNAVAIL});
    for (const uint32_t procedure : {6U, 12U, 25U, 35U, 70U, 72U, 99U, UINT32_MAX})
        EXPECT_EQ(accept_stat_of(site, call_message(xid, RVZD_PROGRAM, RVZD_VERSION, procedure)),
                  uint32_t{PROC_UNAVAIL})
            << procedure;
    EXPECT_EQ(accept_stat_of(site, call_message(xid, RVZD_PROGRAM, RVZD_VERSION, RVZD_PROC_CONTACT)),
              uint32_t{GARBAGE_ARGS});
}

TEST_F(Hostile, AnotherVersionIsToldTheOneThatIsServed) {
    serve("");
    const auto reply = datagram_reply(site, call_message(xid, RVZD_PROGRAM, 2, 0));
    ASSERT_TRUE(reply);
    ASSERT_EQ(reply->size(), 32u);
    EXPECT_EQ(word_at(*reply, accept_stat_word), uint32_t{PROG_MISMATCH});
    EXPECT_EQ(word_at(*reply, accept_stat_word + 1), 3u);
    EXPECT_EQ(word_at(*reply, accept_stat_word + 2), 3u);
}

TEST_F(Hostile, AnotherRpcVersionAndUnreadableCredentialsAreRejected) {
    serve("");
    auto message = call_message(xid, RVZD_PROGRAM, RVZD_VERSION, 0);
    message[11] = 3; // RPC version
    auto reply = datagram_reply(site, message);
    ASSERT_TRUE(reply);
    EXPECT_EQ(word_at(*reply, reply_stat_word), uint32_t{MSG_DENIED});
    EXPECT_EQ(word_at(*reply, reject_stat_word), uint32_t{RPC_MISMATCH});

    reply = datagram_reply(site, with_credentials(AUTH_SYS, {1, 2, 3, 4}));
    ASSERT_TRUE(reply);
    EXPECT_EQ(word_at(*reply, reject_stat_word), uint32_t{AUTH_ERROR});
    EXPECT_EQ(word_at(*reply, reject_stat_word + 1), uint32_t{AUTH_BADCRED});

    reply = datagram_reply(site, with_credentials(6, {1, 2, 3, 4}));
    ASSERT_TRUE(reply);
    EXPECT_EQ(word_at(*reply, reject_stat_word + 1), uint32_t{AUTH_REJECTEDCRED});
}

TEST_F(Hostile, CallTruncatedAtAnyByteIsAnsweredOrDropped) {
    serve("");
    const auto whole = call_message(xid, RVZD_PROGRAM, RVZD_VERSION, RVZD_PROC_CONTACT, contact_arguments(6));
    const RawSocket socket(site, SOCK_DGRAM);
    for (size_t length = 0; length < whole.size(); ++length)
        ASSERT_TRUE(socket.send(Bytes(whole.begin(), whole.begin() + static_cast<ptrdiff_t>(length))));
    // Behind the header the call is known, and its arguments are garbage; before it there is nobody to answer.
    for (size_t length = 40; length < whole.size(); ++length) {
        const auto reply = socket.receive();
        ASSERT_TRUE(reply) << length;
        EXPECT_EQ(word_at(*reply, accept_stat_word), uint32_t{GARBAGE_ARGS});
    }
    EXPECT_FALSE(socket.receive(0.1));
}

TEST_F(Hostile, LengthWordsBeyondTheMessageAreGarbage) {
    serve(sample_line(program, "shared", "-"));
    Bytes arguments;
    for (const uint32_t word : {0U, 1U, 2U, program, 1U, 1U, 0U, 0U, 0U, 0U, 0xfffffff0U})
        put_word(arguments, word);
    EXPECT_EQ(accept_stat_of(site, call_message(xid, RVZD_PROGRAM, RVZD_VERSION, RVZD_PROC_FIND_SERVER, arguments)),
              uint32_t{GARBAGE_ARGS});
}

TEST_F(Hostile, RandomDatagramsDoNoHarm) {
    serve(sample_line(program, "shared", "-"));
    std::mt19937 random(42);
    const RawSocket socket(site, SOCK_DGRAM);
    const auto good = call_message(xid, RVZD_PROGRAM, RVZD_VERSION, RVZD_PROC_FIND_SERVER, Bytes(60));
    for (int i = 0; i < 3000; ++i) {
        Bytes bytes = good;
        if (i % 2 == 0)
            bytes.resize(random() % 1500);
        const size_t changes = i % 2 == 0 ? bytes.size() : 4;
        for (size_t change = 0; change < changes && !bytes.empty(); ++change)
            bytes[random() % bytes.size()] = static_cast<unsigned char>(random());
        socket.send(bytes);
    }
}

TEST_F(Hostile, StreamThatAnnouncesTooMuchIsClosedAtOnce) {
    serve("");
    const RawSocket socket(site, SOCK_STREAM);
    Bytes bytes;
    put_word(bytes, 0x7fffffff);
    ASSERT_TRUE(socket.send(bytes));
    EXPECT_TRUE(socket.is_closed_by_peer(2));
}

TEST_F(Hostile, StreamOfGarbageIsClosed) {
    serve("");
    std::mt19937 random(7);
    for (int i = 0; i < 50; ++i) {
        const RawSocket socket(site, SOCK_STREAM);
        Bytes bytes(1 + random() % 300);
        for (auto &byte : bytes)
            byte = static_cast<unsigned char>(random());
        bytes[0] = static_cast<unsigned char>(0x40 | bytes[0]); // announces much
        bytes.resize(std::max<size_t>(bytes.size(), 4));
        ASSERT_TRUE(socket.send(bytes));
        EXPECT_TRUE(socket.is_closed_by_peer(2));
    }
}

TEST_F(Hostile, RecordInOneByteFragmentsIsPutTogether) {
    serve("");
    const auto message = call_message(xid, RVZD_PROGRAM, RVZD_VERSION, 0);
    Bytes bytes;
    for (size_t i = 0; i < message.size(); ++i) {
        put_word(bytes, (i + 1 == message.size() ? 0x80000000U : 0U) | 1U);
        bytes.push_back(message[i]);
    }
    const RawSocket socket(site, SOCK_STREAM);
    ASSERT_TRUE(socket.send(bytes));
    const auto reply = socket.receive();
    ASSERT_TRUE(reply && reply->size() == 28);
    EXPECT_EQ(word_at(*reply, 1), xid);
}

TEST_F(Hostile, EmptyFragmentsWithoutEndAreClosed) {
    serve("");
    const RawSocket socket(site, SOCK_STREAM);
    Bytes bytes;
    for (int i = 0; i < 5000; ++i)
        put_word(bytes, 0);
    socket.send(bytes);
    EXPECT_TRUE(socket.is_closed_by_peer(2));
}

TEST_F(Hostile, RequestThatComesTooSlowlyIsCutOff) {
    serve("option request 1\n");
    const RawSocket slow(site, SOCK_STREAM);
    const auto record = as_record(call_message(xid, RVZD_PROGRAM, RVZD_VERSION, 0));
    // A byte now and then keeps it active, and does not help it.
    size_t sent = 0;
    EXPECT_TRUE(eventually(
        [&] {
            const bool is_closed = slow.is_closed_by_peer(0.05);
            if (!is_closed && sent < record.size() - 1)
                slow.send({record[sent++]});
            return is_closed;
        },
        5));
    EXPECT_GT(sent, 5u);
}

TEST_F(Hostile, ConnectionThatSaysNothingIsClosed) {
    serve("option request 1\n");
    const RawSocket silent(site, SOCK_STREAM);
    EXPECT_TRUE(silent.is_closed_by_peer(4));
}

TEST_F(Hostile, ServedConnectionIsClosedWhenIdle) {
    serve("option idle-connection 1\n");
    const RawSocket socket(site, SOCK_STREAM);
    ASSERT_TRUE(socket.send(as_record(call_message(xid, RVZD_PROGRAM, RVZD_VERSION, 0))));
    ASSERT_TRUE(socket.receive());
    EXPECT_TRUE(socket.is_closed_by_peer(4));
}

TEST_F(Hostile, FloodOfConnectionsTakesNoPlaceFromGoodClients) {
    serve("option connections 16\n");
    const RawSocket good(site, SOCK_STREAM);
    const auto ping = as_record(call_message(xid, RVZD_PROGRAM, RVZD_VERSION, 0));
    ASSERT_TRUE(good.send(ping));
    ASSERT_TRUE(good.receive());
    std::vector<RawSocket> flood;
    for (int i = 0; i < 200; ++i) {
        flood.emplace_back(site, SOCK_STREAM);
        ASSERT_TRUE(flood.back().is_connected());
        if (i % 20 == 0) {
            EXPECT_TRUE(serves_a_good_client(site)) << i;
        }
    }
    // One that was served before keeps its connection as well.
    ASSERT_TRUE(good.send(ping));
    const auto reply = good.receive();
    EXPECT_TRUE(reply && reply->size() == 28);
    size_t open = 0;
    for (const auto &socket : flood)
        open += socket.is_closed_by_peer(0.02) ? 0 : 1;
    EXPECT_LE(open, 16u);
}

TEST_F(Hostile, PeerThatTakesNoRepliesIsDropped) {
    serve("option request 1\n");
    const RawSocket socket(site, SOCK_STREAM);
    Bytes bytes;
    const auto ping = as_record(call_message(xid, RVZD_PROGRAM, RVZD_VERSION, 99));
    for (int i = 0; i < 2000; ++i)
        bytes.insert(bytes.end(), ping.begin(), ping.end());
    // Until the daemon's side is full, and on until it has had enough.
    EXPECT_TRUE(eventually([&] { return !socket.send(bytes); }, 20));
}

TEST_F(Hostile, CallSentAgainIsAnsweredAgainAndRunOnce) {
    serve(sample_line(program, "shared", "-"));
    Bytes arguments;
    for (const uint32_t word : {0U, 1U, 2U, program, 1U, 1U, 0U, 0U, 0U, 0U, 0U})
        put_word(arguments, word);
    const auto message = call_message(xid, RVZD_PROGRAM, RVZD_VERSION, RVZD_PROC_FIND_SERVER, arguments);
    const RawSocket socket(site, SOCK_DGRAM);
    for (int i = 0; i < 5; ++i)
        ASSERT_TRUE(socket.send(message));
    const auto first = socket.receive();
    ASSERT_TRUE(first);
    EXPECT_EQ(word_at(*first, accept_stat_word), uint32_t{SUCCESS});
    EXPECT_FALSE(socket.receive(0.2)) << "one answer for a call that was sent while it was worked on";
    ASSERT_TRUE(socket.send(message));
    EXPECT_EQ(socket.receive(), first);
    EXPECT_EQ(daemon->started(1).size(), 1u);
}
