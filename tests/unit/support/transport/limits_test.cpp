// The calling thread's limit.
#include "silent_peers.h"

#include <cerrno>
#include <chrono>
#include <thread>

#include <support/transport/limits.h>

using namespace velia::support::transport;
using std::chrono::steady_clock;

namespace {

class Deadline : public Silence {};

INSTANTIATE_TEST_SUITE_P(Of, Deadline, testing::Values(SOCK_DGRAM, SOCK_STREAM), transport_name);

} // namespace

TEST_P(Deadline, EndsACallThatHasMoreTime) {
    ks_set_deadline(50);
    EXPECT_EQ(call(), RPC_TIMEDOUT);
    EXPECT_EQ(ks_deadline_left(), 0);
    EXPECT_EQ(server_.calls(), 1u);
}

TEST_P(Deadline, ThatHasPassedLetsNothingBegin) {
    ks_set_deadline(0);
    EXPECT_EQ(call(), RPC_TIMEDOUT);
    ks_set_deadline(-1);
    uint32_t reply = 0;
    EXPECT_EQ(call_echo(client_, 1, &reply, {0, 50'000}), RPC_TIMEDOUT);
    EXPECT_EQ(server_.calls(), 1u) << "of the second call alone";
}

TEST_P(Deadline, IsOfTheThread) {
    ks_set_deadline(0);
    std::thread([] { EXPECT_EQ(ks_deadline_left(), -1); }).join();
}

TEST(ThreadLimit, IsToldInMillisecondsRoundedUp) {
    EXPECT_EQ(ks_deadline_left(), -1);
    ks_set_deadline(60'000);
    EXPECT_GT(ks_deadline_left(), 50'000);
    EXPECT_LE(ks_deadline_left(), 60'000);
    ks_set_deadline(INT64_MAX);
    EXPECT_GT(ks_deadline_left(), 60'000);
    ks_set_deadline(-1);
    EXPECT_EQ(ks_deadline_left(), -1);
}

TEST(ThreadLimit, EndsAConnectionThatDoesNotComeAbout) {
    const FullListener listener;
    ks_set_deadline(50);
    int socket_fd = -1;
    EXPECT_EQ(ks_clnttcp_create_sockaddr(listener.address(), silent_program, 1, &socket_fd, 0, 0), nullptr);
    EXPECT_EQ(socket_fd, -1);
    EXPECT_EQ(ks_rpc_get_createerr()->error_number, ETIMEDOUT);
    ks_set_deadline(-1);
}

TEST(ThreadLimit, LeavesNoAttemptToConnectBehind) {
    const FullListener listener;
    const int socket_fd = socket(AF_INET, SOCK_STREAM, 0);
    ks_set_deadline(50);
    EXPECT_EQ(ks_connect(socket_fd, listener.address()), ETIMEDOUT);
    ks_set_deadline(-1);
    const RpcServer server(AF_INET, SOCK_STREAM);
    EXPECT_EQ(ks_connect(socket_fd, server.address()), 0) << "the socket is free for another address";
    close(socket_fd);
}

TEST(TimeOut, OfNoSenseIsNone) {
    EXPECT_EQ(duration_us({-1, 0}), 0);
    EXPECT_EQ(duration_us({0, -1}), 0);
    EXPECT_EQ(duration_us({2, 500'000}), 2'500'000);
    EXPECT_EQ(duration_us({INT64_MAX, 0}), duration_us({int64_t{366} * 24 * 3600, 0}));
}

TEST_P(Deadline, OfZeroSendsTheRequestAndWaitsForNothing) {
    uint32_t reply = 0;
    EXPECT_EQ(call_echo(client_, 1, &reply, {0, 0}), RPC_TIMEDOUT);
    for (const auto end = steady_clock::now() + std::chrono::seconds(20);
         server_.calls() == 0 && steady_clock::now() < end;)
        std::this_thread::yield();
    EXPECT_EQ(server_.calls(), 1u);
}

// Four answers take longer together than the patience is.
TEST(Patience, BeginsAnewWithEachAnswer) {
    constexpr auto of_an_answer = std::chrono::milliseconds(300);
    RpcServer slow(AF_INET, SOCK_DGRAM, [&](const rpc_msg &call, XDR *arguments, XDR *results) {
        std::this_thread::sleep_for(of_an_answer);
        return RpcServer::echo(call, arguments, results);
    });
    int socket_fd = -1;
    CLIENT *client = ks_clntudp_create_sockaddr(slow.address(), silent_program, 1, 60, 0, &socket_fd);
    ASSERT_NE(client, nullptr);
    ks_set_patience(1000);
    uint32_t reply = 0;
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(call_echo(client, 1, &reply, long_time), RPC_SUCCESS) << i;
    ks_set_deadline(-1);
    clnt_destroy(client);
    close(socket_fd);
}

TEST_P(Deadline, IsTheEndOfPatienceWithAPeerThatIsSilent) {
    ks_set_patience(50);
    EXPECT_EQ(call(), RPC_TIMEDOUT);
    EXPECT_EQ(call(), RPC_TIMEDOUT);
    EXPECT_EQ(server_.calls(), 1u) << "the second one has no time of its own";
}
