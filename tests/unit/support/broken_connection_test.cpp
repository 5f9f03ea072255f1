// A TCP connection that the peer has broken: an error of the call, and no signal.
#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <ctime>

#include <poll.h>
#include <unistd.h>

#include <support/ks.h>

#include "rpc_server.h"

namespace {

constexpr uint32_t program = 390600;

// The first call after the end of the connection still finds room to write; the peer's answer to it breaks the
// connection for good, and a later call gets to know by its write.
clnt_stat call_until_it_cannot_send(CLIENT *client) {
    clnt_stat stat = RPC_SUCCESS;
    uint32_t reply = 0;
    const time_t deadline = time(nullptr) + 20;
    while (stat != RPC_CANTSEND && time(nullptr) < deadline)
        stat = call_echo(client, 1, &reply);
    return stat;
}

bool has_waiting_signal() {
    sigset_t pending;
    sigpending(&pending);
    return sigismember(&pending, SIGPIPE) == 1;
}

class BrokenConnection : public testing::Test {
protected:
    void SetUp() override {
        signal(SIGPIPE, SIG_DFL);
        pthread_sigmask(SIG_SETMASK, nullptr, &mask_before_);
        client_ = ks_clnttcp_create_sockaddr(server_.address(), program, 1, &socket_fd_, 0, 0);
        ASSERT_NE(client_, nullptr);
        uint32_t reply = 0;
        ASSERT_EQ(call_echo(client_, 7, &reply), RPC_SUCCESS);
        server_.close_connections();
    }
    void TearDown() override {
        clnt_destroy(client_);
        close(socket_fd_);
        pthread_sigmask(SIG_SETMASK, &mask_before_, nullptr);
    }

    RpcServer server_{AF_INET, SOCK_STREAM};
    int socket_fd_ = -1;
    CLIENT *client_ = nullptr;
    sigset_t mask_before_ = {};
};

} // namespace

TEST_F(BrokenConnection, IsAnErrorOfTheCallAndRaisesNoSignal) {
    EXPECT_EQ(call_until_it_cannot_send(client_), RPC_CANTSEND);
    rpc_err error = {};
    clnt_geterr(client_, &error);
    EXPECT_EQ(error.re_errno, EPIPE);
    EXPECT_FALSE(has_waiting_signal());
}

TEST_F(BrokenConnection, LeavesTheSignalAsTheProcessHasIt) {
    call_until_it_cannot_send(client_);
    struct sigaction action;
    sigaction(SIGPIPE, nullptr, &action);
    EXPECT_EQ(action.sa_handler, SIG_DFL);
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    EXPECT_EQ(sigismember(&mask, SIGPIPE), 0);
}

TEST_F(BrokenConnection, LeavesASignalThatTheCallerHeldBackBefore) {
    sigset_t pipe_signal;
    sigemptyset(&pipe_signal);
    sigaddset(&pipe_signal, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipe_signal, nullptr);
    call_until_it_cannot_send(client_);
    EXPECT_FALSE(has_waiting_signal()) << "the call's own signal is taken off, though the caller holds it back";
    raise(SIGPIPE);
    call_until_it_cannot_send(client_);
    EXPECT_TRUE(has_waiting_signal());
    int taken = 0;
    sigwait(&pipe_signal, &taken);
}

TEST_F(BrokenConnection, ClientThatOpenedItsOwnSocketIsGuardedToo) {
    int socket_fd = -1;
    CLIENT *client = sysutl_clnttcp_create_ext(server_.address(), program, 1, &socket_fd, 0, 0);
    ASSERT_NE(client, nullptr);
    uint32_t reply = 0;
    ASSERT_EQ(call_echo(client, 7, &reply), RPC_SUCCESS);
    server_.close_connections();
    EXPECT_EQ(call_until_it_cannot_send(client), RPC_CANTSEND);
    clnt_destroy(client);
}
