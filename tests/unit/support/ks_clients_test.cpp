// RPC clients on given sockets and on their own, against a server of the test.
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <thread>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/tcp.h>
#include <sys/un.h>
#include <unistd.h>

#include <support/ks.h>

#include "message_recorder.h"
#include "rpc_server.h"

namespace {

constexpr uint32_t program = 390600;
constexpr uint32_t version = 3;

struct Road {
    const char *name;
    int family;
    int type;
};

bool is_open(int descriptor) {
    return fcntl(descriptor, F_GETFD) >= 0;
}

bool is_close_on_exec(int descriptor) {
    return (fcntl(descriptor, F_GETFD) & FD_CLOEXEC) != 0;
}

CLIENT *create(int type, const sockaddr *address, int *socket_fd) {
    return type == SOCK_DGRAM ? ks_clntudp_create_sockaddr(address, program, version, 3, 0, socket_fd)
                              : ks_clnttcp_create_sockaddr(address, program, version, socket_fd, 0, 0);
}

// An address on which nobody listens: one that a server has just left.
ks_sockaddr_storage_t deserted_address(int family, int type) {
    const RpcServer server(family, type);
    ks_sockaddr_storage_t address;
    sysutl_copy_sockaddr(&address, server.address());
    return address;
}

bool operator==(const ks_rpc_createerr_t &left, const std::pair<clnt_stat, int> &right) {
    return left.stat == right.first && left.error_number == right.second;
}

class RpcClient : public testing::TestWithParam<Road> {};

INSTANTIATE_TEST_SUITE_P(Roads, RpcClient,
                         testing::Values(Road{"Udp4", AF_INET, SOCK_DGRAM}, Road{"Udp6", AF_INET6, SOCK_DGRAM},
                                         Road{"Tcp4", AF_INET, SOCK_STREAM}, Road{"Tcp6", AF_INET6, SOCK_STREAM}),
                         [](const auto &road) { return road.param.name; });

} // namespace

TEST_P(RpcClient, CallsOnTheSocketGiven) {
    const auto [name, family, type] = GetParam();
    RpcServer server(family, type);
    const int given = socket(family, type, 0);
    int socket_fd = given;
    CLIENT *client = create(type, server.address(), &socket_fd);
    ASSERT_NE(client, nullptr);
    EXPECT_EQ(socket_fd, given);
    uint32_t reply = 0;
    EXPECT_EQ(call_echo(client, 4711, &reply), RPC_SUCCESS);
    EXPECT_EQ(reply, 4711u);
    clnt_destroy(client);
    EXPECT_TRUE(is_open(given)) << "the socket stays the caller's";
    close(given);
}

TEST_P(RpcClient, OpensASocketCloseOnExecWhereNoneIsGiven) {
    const auto [name, family, type] = GetParam();
    RpcServer server(family, type);
    int socket_fd = -1;
    CLIENT *client = create(type, server.address(), &socket_fd);
    ASSERT_NE(client, nullptr);
    ASSERT_GE(socket_fd, 0);
    EXPECT_TRUE(is_close_on_exec(socket_fd));
    uint32_t reply = 0;
    EXPECT_EQ(call_echo(client, 4711, &reply), RPC_SUCCESS);
    EXPECT_EQ(reply, 4711u);
    clnt_destroy(client);
    EXPECT_TRUE(is_open(socket_fd));
    close(socket_fd);
}

TEST_P(RpcClient, ClosesTheSocketOnceItHasBeenGivenIt) {
    const auto [name, family, type] = GetParam();
    RpcServer server(family, type);
    int socket_fd = -1;
    CLIENT *client = create(type, server.address(), &socket_fd);
    ASSERT_NE(client, nullptr);
    // The server shares this process's descriptors: once it has answered, it takes no further one.
    uint32_t reply = 0;
    ASSERT_EQ(call_echo(client, 4711, &reply), RPC_SUCCESS);
    clnt_control(client, CLSET_FD_CLOSE, nullptr);
    clnt_destroy(client);
    EXPECT_FALSE(is_open(socket_fd));
}

TEST_P(RpcClient, SendsProgramVersionAndTheNullAuthenticator) {
    const auto [name, family, type] = GetParam();
    std::atomic<rpcprog_t> seen_program = 0;
    std::atomic<rpcvers_t> seen_version = 0;
    std::atomic<enum_t> seen_flavour = -1;
    RpcServer server(family, type, [&](const rpc_msg &call, XDR *arguments, XDR *results) {
        seen_program = call.rm_call.cb_prog;
        seen_version = call.rm_call.cb_vers;
        seen_flavour = call.rm_call.cb_cred.oa_flavor;
        return RpcServer::echo(call, arguments, results);
    });
    int socket_fd = -1;
    CLIENT *client = create(type, server.address(), &socket_fd);
    ASSERT_NE(client, nullptr);
    uint32_t reply = 0;
    ASSERT_EQ(call_echo(client, 1, &reply), RPC_SUCCESS);
    EXPECT_EQ(seen_program, program);
    EXPECT_EQ(seen_version, version);
    EXPECT_EQ(seen_flavour, AUTH_NONE);
    clnt_destroy(client);
    close(socket_fd);
}

TEST_P(RpcClient, AddressOfAnotherFamilyIsAnErrorAndTakesNoSocket) {
    const auto [name, family, type] = GetParam();
    ks_sockaddr_storage_t address = {};
    address.base.sa_family = AF_UNIX;
    int socket_fd = -1;
    EXPECT_EQ(create(type, &address.base, &socket_fd), nullptr);
    EXPECT_EQ(socket_fd, -1);
    EXPECT_TRUE(*ks_rpc_get_createerr() == std::pair(RPC_SYSTEMERROR, EAFNOSUPPORT));
}

TEST_P(RpcClient, PortThatNobodyListensOnIsToldAtOnce) {
    const auto [name, family, type] = GetParam();
    const auto address = deserted_address(family, type);
    int socket_fd = -1;
    CLIENT *client = create(type, &address.base, &socket_fd);
    if (type == SOCK_STREAM) {
        EXPECT_EQ(client, nullptr);
        EXPECT_EQ(socket_fd, -1);
        EXPECT_TRUE(*ks_rpc_get_createerr() == std::pair(RPC_SYSTEMERROR, ECONNREFUSED));
        return;
    }
    // Over UDP the call hears of it, long before its time-out of 20 seconds.
    ASSERT_NE(client, nullptr);
    uint32_t reply = 0;
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(call_echo(client, 1, &reply), RPC_CANTRECV);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(10));
    rpc_err error = {};
    clnt_geterr(client, &error);
    EXPECT_EQ(error.re_errno, ECONNREFUSED);
    clnt_destroy(client);
    close(socket_fd);
}

TEST(TcpClient, LeavesASocketThatCouldNotBeConnectedToItsOwner) {
    const auto address = deserted_address(AF_INET, SOCK_STREAM);
    const int given = socket(AF_INET, SOCK_STREAM, 0);
    int socket_fd = given;
    EXPECT_EQ(ks_clnttcp_create_sockaddr(&address.base, program, version, &socket_fd, 0, 0), nullptr);
    EXPECT_EQ(socket_fd, given);
    EXPECT_TRUE(is_open(given));
    EXPECT_EQ(fcntl(given, F_GETFL) & O_NONBLOCK, 0) << "its mode is as before";
    close(given);
}

TEST(TcpClient, UsesAConnectionThatStands) {
    RpcServer server(AF_INET, SOCK_STREAM);
    int connected = socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_EQ(connect(connected, server.address(), sizeof(sockaddr_in)), 0);
    CLIENT *client = ks_clnttcp_create_sockaddr(server.address(), program, version, &connected, 0, 0);
    ASSERT_NE(client, nullptr);
    uint32_t reply = 0;
    EXPECT_EQ(call_echo(client, 1, &reply), RPC_SUCCESS);
    EXPECT_EQ(server.connections(), 1u);
    clnt_destroy(client);
    close(connected);
}

TEST(TcpClient, SendsSmallRequestsWithoutDelay) {
    RpcServer server(AF_INET, SOCK_STREAM);
    int socket_fd = -1;
    CLIENT *client = ks_clnttcp_create_sockaddr(server.address(), program, version, &socket_fd, 0, 0);
    ASSERT_NE(client, nullptr);
    int on = 0;
    socklen_t length = sizeof on;
    getsockopt(socket_fd, IPPROTO_TCP, TCP_NODELAY, &on, &length);
    EXPECT_NE(on, 0);
    clnt_destroy(client);
    close(socket_fd);
}

TEST(TcpClient, MadeWithItsOwnSocketClosesItAtTheEnd) {
    RpcServer server(AF_INET6, SOCK_STREAM);
    int socket_fd = 99;
    CLIENT *client = sysutl_clnttcp_create_ext(server.address(), program, version, &socket_fd, 0, 0);
    ASSERT_NE(client, nullptr);
    EXPECT_TRUE(is_close_on_exec(socket_fd));
    uint32_t reply = 0;
    EXPECT_EQ(call_echo(client, 5, &reply), RPC_SUCCESS);
    EXPECT_EQ(reply, 5u);
    clnt_destroy(client);
    EXPECT_FALSE(is_open(socket_fd));
}

TEST(TcpClient, MadeWithItsOwnSocketFailsWithNone) {
    const auto address = deserted_address(AF_INET, SOCK_STREAM);
    int socket_fd = 99;
    EXPECT_EQ(sysutl_clnttcp_create_ext(&address.base, program, version, &socket_fd, 0, 0), nullptr);
    EXPECT_EQ(socket_fd, -1);
    EXPECT_TRUE(*ks_rpc_get_createerr() == std::pair(RPC_SYSTEMERROR, ECONNREFUSED));
}

TEST(UdpClient, SendsARequestAgainAfterTheRetransmissionTime) {
    std::atomic<int> seen{0};
    RpcServer server(AF_INET, SOCK_DGRAM, [&](const rpc_msg &call, XDR *arguments, XDR *results) {
        return ++seen > 2 && RpcServer::echo(call, arguments, results);
    });
    int socket_fd = -1;
    CLIENT *client = ks_clntudp_create_sockaddr(server.address(), program, version, 0, 20'000, &socket_fd);
    ASSERT_NE(client, nullptr);
    uint32_t reply = 0;
    EXPECT_EQ(call_echo(client, 4711, &reply), RPC_SUCCESS);
    EXPECT_EQ(reply, 4711u);
    EXPECT_GE(server.calls(), 3u);
    clnt_destroy(client);
    close(socket_fd);
}

TEST(UdpClient, WaitsOnASocketThatWasNonBlocking) {
    RpcServer server(AF_INET, SOCK_DGRAM);
    int socket_fd = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK, 0);
    CLIENT *client = ks_clntudp_create_sockaddr(server.address(), program, version, 3, 0, &socket_fd);
    ASSERT_NE(client, nullptr);
    EXPECT_EQ(fcntl(socket_fd, F_GETFL) & O_NONBLOCK, 0);
    uint32_t reply = 0;
    EXPECT_EQ(call_echo(client, 4711, &reply), RPC_SUCCESS);
    clnt_destroy(client);
    close(socket_fd);
}

TEST(UdpClient, TakesTheLargestReplyOfTheBroker) {
    constexpr unsigned largest_reply = 8744;
    RpcServer server(AF_INET, SOCK_DGRAM, [](const rpc_msg &, XDR *, XDR *results) {
        std::string bytes(largest_reply, 'x');
        return xdr_opaque(results, bytes.data(), largest_reply) != FALSE;
    });
    int socket_fd = -1;
    CLIENT *client = ks_clntudp_create_sockaddr(server.address(), program, version, 3, 0, &socket_fd);
    ASSERT_NE(client, nullptr);
    struct Reply {
        char bytes[largest_reply];
    } reply = {};
    const auto xdr_reply = +[](XDR *stream, Reply *wanted) { return xdr_opaque(stream, wanted->bytes, largest_reply); };
    EXPECT_EQ(clnt_call(client, 1, reinterpret_cast<xdrproc_t>(reinterpret_cast<void *>(xdr_void)), nullptr,
                        reinterpret_cast<xdrproc_t>(reinterpret_cast<void *>(xdr_reply)),
                        reinterpret_cast<char *>(&reply), (timeval{20, 0})),
              RPC_SUCCESS);
    EXPECT_EQ(reply.bytes[largest_reply - 1], 'x');
    clnt_destroy(client);
    close(socket_fd);
}

TEST(CreationError, IsOfTheThread) {
    ks_sockaddr_storage_t of_no_family = {};
    int socket_fd = -1;
    ASSERT_EQ(ks_clnttcp_create_sockaddr(&of_no_family.base, program, version, &socket_fd, 0, 0), nullptr);
    std::thread([] {
        EXPECT_TRUE(*ks_rpc_get_createerr() == std::pair(RPC_SUCCESS, 0)) << "before the thread's first failure";
        const auto address = deserted_address(AF_INET, SOCK_STREAM);
        int others_socket_fd = -1;
        EXPECT_EQ(ks_clnttcp_create_sockaddr(&address.base, program, version, &others_socket_fd, 0, 0), nullptr);
        EXPECT_TRUE(*ks_rpc_get_createerr() == std::pair(RPC_SYSTEMERROR, ECONNREFUSED));
    }).join();
    EXPECT_TRUE(*ks_rpc_get_createerr() == std::pair(RPC_SYSTEMERROR, EAFNOSUPPORT));
}

TEST(CreationError, IsToldAsTextAndAsAMessage) {
    const auto address = deserted_address(AF_INET, SOCK_STREAM);
    int socket_fd = -1;
    ASSERT_EQ(ks_clnttcp_create_sockaddr(&address.base, program, version, &socket_fd, 0, 0), nullptr);
    const std::string text = "rpctcp_create: RPC: Remote system error; Connection refused";
    EXPECT_EQ(ks_clnt_spcreateerror("rpctcp_create"), text);
    MessageRecorder recorder;
    ks_clnt_pcreateerror("rpctcp_create");
    EXPECT_EQ(recorder.messages, (std::vector<PrintedMessage>{{IMSG_ERROR, "", nullptr, IMSG_FORMAT, text + "\n"}}));
}

TEST(CallError, IsToldAsAMessage) {
    RpcServer server(AF_INET, SOCK_DGRAM, [](const rpc_msg &, XDR *, XDR *) { return false; });
    int socket_fd = -1;
    CLIENT *client = ks_clntudp_create_sockaddr(server.address(), program, version, 3, 0, &socket_fd);
    ASSERT_NE(client, nullptr);
    uint32_t reply = 0;
    EXPECT_EQ(call_echo(client, 1, &reply, {0, 1000}), RPC_TIMEDOUT);
    MessageRecorder recorder;
    ks_clnt_perror(client, "rvzd_contact call failed");
    EXPECT_EQ(recorder.messages, (std::vector<PrintedMessage>{{IMSG_ERROR, "", nullptr, IMSG_FORMAT,
                                                               "rvzd_contact call failed: RPC: Timed out\n"}}));
    clnt_destroy(client);
    close(socket_fd);
}

TEST(CallError, WithoutAClientIsAFailureAllTheSame) {
    MessageRecorder recorder;
    ks_clnt_perror(nullptr, "rvzd_contact call failed");
    ASSERT_EQ(recorder.messages.size(), 1u);
    EXPECT_EQ(recorder.messages[0].text, "rvzd_contact call failed: RPC: Failed (unspecified error)\n");
}
