// What a system that fails leaves of a call: sends that fail, peers that go in the middle of a record.
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <deque>
#include <thread>

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <support/ks.h>
#include <support/transport/out_buffer.h>

#include "../rpc_server.h"

namespace {

constexpr uint32_t program = 390600;

// Of the next sends of this thread; 0: it is made.
thread_local std::deque<int> send_errors;

class Faults : public testing::TestWithParam<int> {
protected:
    Faults() : server_(AF_INET, GetParam()) {
        client_ = GetParam() == SOCK_DGRAM
                      ? ks_clntudp_create_sockaddr(server_.address(), program, 1, 3, 0, &socket_fd_)
                      : ks_clnttcp_create_sockaddr(server_.address(), program, 1, &socket_fd_, 0, 0);
    }
    ~Faults() override {
        send_errors.clear();
        clnt_destroy(client_);
        close(socket_fd_);
    }
    clnt_stat call(timeval time_out = {20, 0}) {
        uint32_t reply = 0;
        return call_echo(client_, 1, &reply, time_out);
    }
    int error_number() const {
        rpc_err error = {};
        clnt_geterr(client_, &error);
        return error.re_errno;
    }

    RpcServer server_;
    int socket_fd_ = -1;
    CLIENT *client_ = nullptr;
};

class DatagramFaults : public Faults {};
class StreamFaults : public Faults {};

const auto name = [](const testing::TestParamInfo<int> &) { return "x"; };
INSTANTIATE_TEST_SUITE_P(Udp, DatagramFaults, testing::Values(SOCK_DGRAM), name);
INSTANTIATE_TEST_SUITE_P(Tcp, StreamFaults, testing::Values(SOCK_STREAM), name);

} // namespace

extern "C" {

ssize_t __real_send(int fd, const void *bytes, size_t size, int flags);
ssize_t __wrap_send(int fd, const void *bytes, size_t size, int flags);

ssize_t __wrap_send(int fd, const void *bytes, size_t size, int flags) {
    if (send_errors.empty())
        return __real_send(fd, bytes, size, flags);
    const int error_number = send_errors.front();
    send_errors.pop_front();
    if (error_number == 0)
        return __real_send(fd, bytes, size, flags);
    errno = error_number;
    return -1;
}
}

TEST_P(DatagramFaults, ASystemWithoutRoomIsALostDatagram) {
    for (const int error_number : {EAGAIN, ENOBUFS, EINTR}) {
        send_errors = {error_number};
        EXPECT_EQ(call(), RPC_SUCCESS) << error_number;
    }
    EXPECT_EQ(server_.calls(), 3u);
}

TEST_P(DatagramFaults, ANetworkThatTakesNothingIsToldAtOnce) {
    send_errors = {ENETUNREACH};
    EXPECT_EQ(call(), RPC_CANTSEND);
    EXPECT_EQ(error_number(), ENETUNREACH);
    EXPECT_EQ(server_.calls(), 0u);
}

TEST_P(DatagramFaults, ARefusalOfAnEarlierCallIsNotThisOnes) {
    send_errors = {ECONNREFUSED};
    EXPECT_EQ(call(), RPC_SUCCESS);
}

TEST_P(DatagramFaults, ARefusalOfTheRequestIsToldAtOnce) {
    send_errors = {ECONNREFUSED, ECONNREFUSED};
    EXPECT_EQ(call(), RPC_CANTRECV);
    EXPECT_EQ(error_number(), ECONNREFUSED);
}

TEST_P(DatagramFaults, ARefusalOfARepetitionEndsTheCall) {
    send_errors = {ENOBUFS, ECONNREFUSED};
    EXPECT_EQ(call(), RPC_CANTRECV);
    EXPECT_EQ(error_number(), ECONNREFUSED);
}

TEST_P(DatagramFaults, ARepetitionThatCannotBeSentDoesNotEndTheCall) {
    send_errors = {ENOBUFS, ENETUNREACH};
    EXPECT_EQ(call(), RPC_SUCCESS);
}

TEST_P(StreamFaults, AConnectionThatEndsBeforeTheFirstByteIsMadeAnew) {
    ASSERT_EQ(call(), RPC_SUCCESS);
    send_errors = {EPIPE};
    EXPECT_EQ(call(), RPC_SUCCESS);
    EXPECT_EQ(server_.connections(), 2u);
    EXPECT_EQ(server_.calls(), 2u);
}

TEST_P(StreamFaults, AConnectionIsMadeAnewOnceInACall) {
    ASSERT_EQ(call(), RPC_SUCCESS);
    send_errors = {EPIPE, EPIPE};
    EXPECT_EQ(call(), RPC_CANTSEND);
    EXPECT_EQ(error_number(), EPIPE);
    EXPECT_EQ(call(), RPC_SUCCESS) << "the next call connects";
}

TEST_P(StreamFaults, ASendThatIsInterruptedGoesOn) {
    send_errors = {EINTR, EAGAIN};
    EXPECT_EQ(call(), RPC_SUCCESS);
    EXPECT_EQ(server_.connections(), 1u);
}

namespace {

// A listener on a port that it gives up and takes again.
class Listener {
public:
    Listener() {
        sysutl_sockaddr_any_init(AF_INET, &address_);
        auto *ipv4 = reinterpret_cast<sockaddr_in *>(&address_);
        ipv4->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        listen_here();
        socklen_t length = sizeof *ipv4;
        EXPECT_EQ(getsockname(socket_, &address_.base, &length), 0);
    }
    ~Listener() { go(); }
    void go() {
        if (socket_ >= 0)
            close(socket_);
        socket_ = -1;
    }
    void listen_here() {
        const int on = 1;
        socket_ = socket(AF_INET, SOCK_STREAM, 0);
        setsockopt(socket_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        EXPECT_EQ(bind(socket_, &address_.base, sizeof(sockaddr_in)), 0);
        EXPECT_EQ(listen(socket_, 4), 0);
    }
    const sockaddr *address() const { return &address_.base; }

    // Takes the next connection and its call, and answers with as much of the reply's record as is wanted.
    void answer(size_t bytes) const {
        const int connection = accept(socket_, nullptr, nullptr);
        char call[1000] = {};
        EXPECT_GT(recv(connection, call, sizeof call, 0), 0);
        uint32_t record[8] = {htonl(0x80000000 | 28), 0, htonl(REPLY), 0, 0, 0, 0, htonl(4711)};
        memcpy(&record[1], call + 4, sizeof record[1]);
        EXPECT_EQ(send(connection, record, bytes, MSG_NOSIGNAL), static_cast<ssize_t>(bytes));
        close(connection);
    }

private:
    int socket_ = -1;
    ks_sockaddr_storage_t address_ = {};
};

} // namespace

TEST(VanishedServer, IsToldAndFoundAgainByTheSameClient) {
    Listener listener;
    int socket_fd = -1;
    CLIENT *client = ks_clnttcp_create_sockaddr(listener.address(), program, 1, &socket_fd, 0, 0);
    ASSERT_NE(client, nullptr);
    std::thread first([&] { listener.answer(32); });
    uint32_t reply = 0;
    EXPECT_EQ(call_echo(client, 1, &reply), RPC_SUCCESS);
    first.join();
    listener.go();
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(call_echo(client, 1, &reply), RPC_CANTSEND);
        rpc_err error = {};
        clnt_geterr(client, &error);
        EXPECT_EQ(error.re_errno, ECONNREFUSED);
    }
    listener.listen_here();
    std::thread second([&] { listener.answer(32); });
    EXPECT_EQ(call_echo(client, 1, &reply), RPC_SUCCESS);
    EXPECT_EQ(reply, 4711u);
    second.join();
    clnt_destroy(client);
    close(socket_fd);
}

TEST(CutReply, IsAnErrorOfItsCallAlone) {
    for (const size_t cut : {0, 2, 4, 10, 31}) {
        const Listener listener;
        int socket_fd = -1;
        CLIENT *client = ks_clnttcp_create_sockaddr(listener.address(), program, 1, &socket_fd, 0, 0);
        ASSERT_NE(client, nullptr);
        std::thread server([&] {
            listener.answer(cut);
            listener.answer(32);
        });
        uint32_t reply = 0;
        EXPECT_EQ(call_echo(client, 1, &reply), RPC_CANTRECV) << cut;
        EXPECT_EQ(call_echo(client, 1, &reply), RPC_SUCCESS) << cut;
        EXPECT_EQ(reply, 4711u);
        server.join();
        clnt_destroy(client);
        close(socket_fd);
    }
}

// Routines that count behind what they write go back to write the count.
TEST(OutBuffer, IsSetBackAndWrittenOver) {
    using namespace velia::support::transport;
    OutBuffer buffer = {nullptr, 0, 0, 100};
    XDR stream;
    encode_into(&stream, buffer);
    uint32_t word = 1;
    ASSERT_TRUE(xdr_u_int(&stream, &word));
    const u_int behind_first = xdr_getpos(&stream);
    ASSERT_TRUE(xdr_u_int(&stream, &word));
    EXPECT_FALSE(xdr_setpos(&stream, 9)) << "nothing is there";
    ASSERT_TRUE(xdr_setpos(&stream, behind_first));
    word = 2;
    ASSERT_TRUE(xdr_u_int(&stream, &word));
    EXPECT_EQ(buffer.used, 8u);
    EXPECT_EQ(std::string(buffer.bytes, 8), std::string("\0\0\0\1\0\0\0\2", 8));
    release(buffer);
}

TEST(OutBuffer, HoldsAsMuchAsTheTransportCarriesAndNoMore) {
    using namespace velia::support::transport;
    OutBuffer buffer = {nullptr, 0, 0, 5000};
    XDR stream;
    encode_into(&stream, buffer);
    const std::string bytes(5000, 'x');
    EXPECT_TRUE(xdr_opaque(&stream, const_cast<char *>(bytes.data()), 5000));
    EXPECT_EQ(std::string(buffer.bytes, buffer.used), bytes);
    uint32_t word = 1;
    EXPECT_FALSE(xdr_u_int(&stream, &word));
    EXPECT_FALSE(xdr_opaque(&stream, const_cast<char *>(bytes.data()), 1));
    release(buffer);
}
