// Calls over UDP to peers that send what no good one would, and with strangers who answer in the peer's stead.
#include <gtest/gtest.h>

#include <cstdlib>
#include <set>

#include <tests/hostile/datagram_peer.h>

#include "hostile_call.h"
#include "test_site.h"

using namespace velia::hostile;

namespace {

using Call = DatagramPeer::Call;

class HostileDatagrams : public testing::TestWithParam<int> {};

INSTANTIATE_TEST_SUITE_P(Families, HostileDatagrams, testing::Values(AF_INET, AF_INET6),
                         [](const auto &family) { return family.param == AF_INET ? "Udp4" : "Udp6"; });

// One that is no answer to the call: of another transaction, from a stranger, or no reply at all.
void send_stray(const Call &call, size_t number) {
    static const uint32_t wrong_number = 0xbad;
    const auto transaction = transaction_of(call.request);
    const auto malformed = malformed_replies(call.request);
    switch (number % 3) {
    case 0:
        return call.send(reply_of(transaction + 1 + static_cast<uint32_t>(number), wrong_number));
    case 1:
        return call.send_from_stranger(reply_of(transaction, wrong_number), number);
    default:
        return call.send(malformed[number % malformed.size()]);
    }
}

size_t count_from_environment(const char *name, size_t usual) {
    const char *text = getenv(name);
    return text != nullptr ? strtoul(text, nullptr, 10) : usual;
}

} // namespace

// What the kernel's buffer cannot hold is lost, the reply among it, so one further request is due; and one a second
// where the peer takes so long to send all that.
TEST_P(HostileDatagrams, TenThousandStrayDatagramsBeforeTheReplyCostNothing) {
    DatagramPeer peer(GetParam(), [](const Call &call) {
        for (size_t i = 0; call.number == 0 && i < 10'000; ++i)
            send_stray(call, i);
        call.send(right_reply(call.request));
    });
    Caller caller(peer.address(), SOCK_DGRAM);
    const auto [stat, number, ms] = caller.call(4711);
    EXPECT_EQ(stat, RPC_SUCCESS);
    EXPECT_EQ(number, 4711u);
    EXPECT_LE(static_cast<int64_t>(peer.calls()), 2 + ms / 1000);
    RecordProperty("requests", static_cast<int>(peer.calls()));
}

// Strangers who know the number and are quicker than the peer. VELIA_FORGED_REPLIES is how many there are to be.
TEST_P(HostileDatagrams, NoForgedReplyIsTaken) {
    constexpr size_t forged_for_a_call = 20;
    const size_t calls = count_from_environment("VELIA_FORGED_REPLIES", 4000) / forged_for_a_call;
    DatagramPeer peer(GetParam(), [](const Call &call) {
        for (size_t i = 0; i < forged_for_a_call; ++i)
            call.send_from_stranger(reply_of(transaction_of(call.request), 0xbad), i);
        call.send(right_reply(call.request));
    });
    Caller caller(peer.address(), SOCK_DGRAM);
    size_t taken = 0;
    for (uint32_t i = 0; i < calls; ++i) {
        const auto outcome = caller.call(i);
        ASSERT_EQ(outcome.stat, RPC_SUCCESS) << i;
        taken += outcome.number != i ? 1 : 0;
    }
    EXPECT_EQ(taken, 0u) << "of " << calls * forged_for_a_call;
}

TEST_P(HostileDatagrams, MalformedRepliesArePassedOver) {
    DatagramPeer peer(GetParam(), [](const Call &call) {
        for (const auto &reply : malformed_replies(call.request))
            call.send(reply);
        call.send(right_reply(call.request));
    });
    Caller caller(peer.address(), SOCK_DGRAM);
    for (uint32_t i = 1; i <= 20; ++i) {
        const auto outcome = caller.call(i);
        EXPECT_EQ(outcome.stat, RPC_SUCCESS);
        EXPECT_EQ(outcome.number, i);
    }
    EXPECT_EQ(peer.calls(), 20u) << "none is sent again for them";
}

TEST_P(HostileDatagrams, APeerThatSendsStraysAloneIsGivenUpAtTheLimit) {
    DatagramPeer peer(GetParam(), [](const Call &call) {
        for (size_t i = 0; i < 300; ++i)
            send_stray(call, i);
    });
    Caller caller(peer.address(), SOCK_DGRAM);
    const auto outcome = caller.call(1, limit);
    EXPECT_EQ(outcome.stat, RPC_TIMEDOUT);
    EXPECT_GE(outcome.ms, 400);
    EXPECT_LT(outcome.ms, soon_ms);
}

TEST_P(HostileDatagrams, CopiesOfAReplyAndRepliesToCallsBeforeAreNotTakenForTheNext) {
    std::vector<Bytes> before;
    DatagramPeer peer(GetParam(), [&](const Call &call) {
        for (const auto &reply : before)
            call.send(reply);
        before.push_back(right_reply(call.request));
        for (int i = 0; i < 20; ++i)
            call.send(before.back());
    });
    Caller caller(peer.address(), SOCK_DGRAM);
    for (uint32_t i = 1; i <= 20; ++i) {
        const auto outcome = caller.call(i);
        EXPECT_EQ(outcome.stat, RPC_SUCCESS);
        EXPECT_EQ(outcome.number, i);
    }
}

TEST_P(HostileDatagrams, AReplyThatIsLateIsNotTakenForTheNextCall) {
    Bytes late;
    DatagramPeer peer(GetParam(), [&](const Call &call) {
        if (number_sent(call.request) == 1) {
            late = right_reply(call.request);
            return;
        }
        call.send(late);
        call.send(right_reply(call.request));
    });
    Caller caller(peer.address(), SOCK_DGRAM);
    EXPECT_EQ(caller.call(1, {0, 50'000}).stat, RPC_TIMEDOUT);
    const auto outcome = caller.call(2);
    EXPECT_EQ(outcome.stat, RPC_SUCCESS);
    EXPECT_EQ(outcome.number, 2u);
}

TEST_P(HostileDatagrams, TransactionNumbersAreNotToBeGuessedFromOneBefore) {
    std::vector<uint32_t> transactions;
    DatagramPeer peer(GetParam(), [&](const Call &call) {
        transactions.push_back(transaction_of(call.request));
        call.send(right_reply(call.request));
    });
    Caller caller(peer.address(), SOCK_DGRAM);
    for (uint32_t i = 0; i < 200; ++i)
        ASSERT_EQ(caller.call(i).stat, RPC_SUCCESS);
    std::set<uint32_t> steps;
    for (size_t i = 1; i < transactions.size(); ++i)
        steps.insert(transactions[i] - transactions[i - 1]);
    // Of 200 random numbers two steps are the same once in 200,000 runs.
    EXPECT_GE(steps.size() + 1, transactions.size() - 1);
}

// The port mapper that a client by name asks may be such a peer, too, and so may strangers who answer in its stead.
TEST(HostileMapper, StraysBeforeItsAnswerLeadToNoOtherPort) {
    const DatagramPeer server(AF_INET, [](const Call &call) { call.send(right_reply(call.request)); });
    uint16_t port = 0;
    sysutl_sockaddr_get_port(server.address(), &port);
    const DatagramPeer mapper(AF_INET, [port](const Call &call) {
        for (size_t i = 0; i < 100; ++i)
            send_stray(call, i);
        call.send(reply_of(transaction_of(call.request), ntohs(port)));
    });
    uint16_t mapper_port = 0;
    sysutl_sockaddr_get_port(mapper.address(), &mapper_port);
    const TestSite site;
    site.write("config/services.conf", "sunrpc " + std::to_string(ntohs(mapper_port)) + "/udp\n");
    site.write("config/hosts.conf", "pluto 127.0.0.1\n");
    CLIENT *client = ks_clnt_create("pluto", Caller::program, 1, "udp");
    ASSERT_NE(client, nullptr) << ks_clnt_spcreateerror("");
    uint32_t reply = 0;
    EXPECT_EQ(call_echo(client, 4711, &reply), RPC_SUCCESS);
    EXPECT_EQ(reply, 4711u);
    clnt_destroy(client);
}
