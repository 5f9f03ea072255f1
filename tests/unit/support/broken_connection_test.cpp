// A TCP connection that the peer has broken: made anew, and no signal.
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

TEST_F(BrokenConnection, IsMadeAnewBeforeTheNextRequest) {
    uint32_t reply = 0;
    EXPECT_EQ(call_echo(client_, 8, &reply), RPC_SUCCESS);
    EXPECT_EQ(reply, 8u);
    EXPECT_EQ(server_.connections(), 2u);
    EXPECT_EQ(server_.calls(), 2u) << "no request goes out twice";
    EXPECT_FALSE(has_waiting_signal());
}

TEST_F(BrokenConnection, KeepsItsDescriptorAndItsPort) {
    const auto bound = [](int descriptor) {
        ks_sockaddr_storage_t address;
        socklen_t length = sizeof address;
        getsockname(descriptor, &address.base, &length);
        uint16_t found = 0;
        sysutl_sockaddr_get_port(&address.base, &found);
        return found;
    };
    ks_sockaddr_storage_t local;
    sysutl_sockaddr_any_init(AF_INET, &local);
    const int finder = socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_EQ(bind(finder, &local.base, sysutl_sockaddr_size(&local.base)), 0);
    const uint16_t port = bound(finder);
    close(finder);
    sysutl_sockaddr_set_port(&local.base, port);
    int socket_fd = socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_EQ(bind(socket_fd, &local.base, sysutl_sockaddr_size(&local.base)), 0);
    CLIENT *client = ks_clnttcp_create_sockaddr(server_.address(), program, 1, &socket_fd, 0, 0);
    ASSERT_NE(client, nullptr);
    uint32_t reply = 0;
    ASSERT_EQ(call_echo(client, 7, &reply), RPC_SUCCESS);
    server_.close_connections();
    EXPECT_EQ(call_echo(client, 8, &reply), RPC_SUCCESS);
    EXPECT_EQ(bound(socket_fd), port);
    clnt_destroy(client);
    close(socket_fd);
}

TEST_F(BrokenConnection, LeavesTheSignalAsTheProcessHasIt) {
    uint32_t reply = 0;
    call_echo(client_, 8, &reply);
    struct sigaction action;
    sigaction(SIGPIPE, nullptr, &action);
    EXPECT_EQ(action.sa_handler, SIG_DFL);
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    EXPECT_EQ(sigismember(&mask, SIGPIPE), 0);
}

TEST_F(BrokenConnection, ClientThatOpenedItsOwnSocketConnectsAnewToo) {
    int socket_fd = -1;
    CLIENT *client = sysutl_clnttcp_create_ext(server_.address(), program, 1, &socket_fd, 0, 0);
    ASSERT_NE(client, nullptr);
    uint32_t reply = 0;
    ASSERT_EQ(call_echo(client, 7, &reply), RPC_SUCCESS);
    server_.close_connections();
    EXPECT_EQ(call_echo(client, 8, &reply), RPC_SUCCESS);
    clnt_destroy(client);
}
