// What clnt_control asks and sets, and what the makers of clients refuse.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <mutex>

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <support/ks.h>

#include "../rpc_server.h"

namespace {

constexpr uint32_t program = 390600;
constexpr uint32_t version = 3;

template <class Value>
Value asked(CLIENT *client, u_int request) {
    Value value = {};
    EXPECT_TRUE(clnt_control(client, request, reinterpret_cast<char *>(&value)));
    return value;
}

template <class Value>
bool set(CLIENT *client, u_int request, Value value) {
    return clnt_control(client, request, reinterpret_cast<char *>(&value)) != 0;
}

class Control : public testing::TestWithParam<int> {
protected:
    Control()
        : server_(AF_INET, GetParam(), [this](const rpc_msg &call, XDR *arguments, XDR *results) {
              const std::lock_guard lock(lock_);
              seen_ = call;
              return RpcServer::echo(call, arguments, results);
          }) {
        client_ = is_udp() ? ks_clntudp_create_sockaddr(server_.address(), program, version, 2, 500'000, &socket_fd_)
                           : ks_clnttcp_create_sockaddr(server_.address(), program, version, &socket_fd_, 0, 0);
    }
    ~Control() override {
        clnt_destroy(client_);
        close(socket_fd_);
    }
    static bool is_udp() { return GetParam() == SOCK_DGRAM; }
    clnt_stat call() {
        uint32_t reply = 0;
        return call_echo(client_, 1, &reply);
    }

    rpc_msg seen() {
        const std::lock_guard lock(lock_);
        return seen_;
    }

    std::mutex lock_;
    rpc_msg seen_ = {}; // by the server's thread
    RpcServer server_;
    int socket_fd_ = -1;
    CLIENT *client_ = nullptr;
};

INSTANTIATE_TEST_SUITE_P(Of, Control, testing::Values(SOCK_DGRAM, SOCK_STREAM),
                         [](const auto &test) { return test.param == SOCK_DGRAM ? "udp" : "tcp"; });

bool same(const timeval &left, const timeval &right) {
    return left.tv_sec == right.tv_sec && left.tv_usec == right.tv_usec;
}

} // namespace

TEST_P(Control, TellsDescriptorProgramAndVersion) {
    EXPECT_EQ(asked<int>(client_, CLGET_FD), socket_fd_);
    EXPECT_EQ(asked<uint32_t>(client_, CLGET_PROG), program);
    EXPECT_EQ(asked<uint32_t>(client_, CLGET_VERS), version);
}

TEST_P(Control, SetsProgramAndVersionOfTheNextCall) {
    EXPECT_TRUE(set<uint32_t>(client_, CLSET_PROG, program + 1));
    EXPECT_TRUE(set<uint32_t>(client_, CLSET_VERS, version + 1));
    ASSERT_EQ(call(), RPC_SUCCESS);
    EXPECT_EQ(seen().rm_call.cb_prog, program + 1);
    EXPECT_EQ(seen().rm_call.cb_vers, version + 1);
}

TEST_P(Control, TellsTheTransactionNumberOfTheLastCall) {
    ASSERT_EQ(call(), RPC_SUCCESS);
    EXPECT_EQ(asked<uint32_t>(client_, CLGET_XID), seen().rm_xid);
}

TEST_P(Control, SetsTheTransactionNumberOfTheNextCallAlone) {
    EXPECT_TRUE(set<uint32_t>(client_, CLSET_XID, 4711));
    ASSERT_EQ(call(), RPC_SUCCESS);
    EXPECT_EQ(seen().rm_xid, 4711u);
    ASSERT_EQ(call(), RPC_SUCCESS);
    const uint32_t next = seen().rm_xid;
    ASSERT_EQ(call(), RPC_SUCCESS);
    EXPECT_FALSE(next == 4711 && seen().rm_xid == 4711) << "once in 2^64 runs";
    EXPECT_FALSE(next == 4712 && seen().rm_xid == 4713) << "once in 2^64 runs";
}

TEST_P(Control, TimeOutOfTheClientGoesForEachCall) {
    RpcServer silent(AF_INET, GetParam(), [](const rpc_msg &, XDR *, XDR *) { return false; });
    EXPECT_TRUE(set<timeval>(client_, CLSET_TIMEOUT, {0, 20'000}));
    EXPECT_TRUE(same(asked<timeval>(client_, CLGET_TIMEOUT), {0, 20'000}));
    ks_sockaddr_storage_t address;
    sysutl_copy_sockaddr(&address, silent.address());
    const netbuf target = {sizeof address, sizeof(sockaddr_in), &address};
    ASSERT_TRUE(set<netbuf>(client_, CLSET_SVC_ADDR, target));
    EXPECT_EQ(call(), RPC_TIMEDOUT);
    EXPECT_FALSE(set<timeval>(client_, CLSET_TIMEOUT, {0, -5}));
    EXPECT_FALSE(set<timeval>(client_, CLSET_TIMEOUT, {0, 1'000'000}));
}

TEST_P(Control, OnlyDatagramsAreRepeated) {
    timeval interval = {};
    EXPECT_EQ(clnt_control(client_, CLGET_RETRY_TIMEOUT, reinterpret_cast<char *>(&interval)), is_udp());
    EXPECT_TRUE(!is_udp() || same(interval, {2, 500'000}));
    EXPECT_EQ(set<timeval>(client_, CLSET_RETRY_TIMEOUT, {1, 0}), is_udp());
    EXPECT_TRUE(!is_udp() || same(asked<timeval>(client_, CLGET_RETRY_TIMEOUT), {1, 0}));
    EXPECT_FALSE(set<timeval>(client_, CLSET_RETRY_TIMEOUT, {0, 0}));
}

TEST_P(Control, TellsTheAddressOfTheServer) {
    sockaddr_in address = asked<sockaddr_in>(client_, CLGET_SERVER_ADDR);
    EXPECT_EQ(memcmp(&address, server_.address(), sizeof address), 0);
    const netbuf buffer = asked<netbuf>(client_, CLGET_SVC_ADDR);
    ASSERT_EQ(buffer.len, sizeof address);
    EXPECT_EQ(memcmp(buffer.buf, &address, sizeof address), 0);
}

TEST_P(Control, TurnsToAnotherServer) {
    RpcServer other(AF_INET, GetParam());
    ks_sockaddr_storage_t address;
    sysutl_copy_sockaddr(&address, other.address());
    const netbuf target = {sizeof address, sizeof(sockaddr_in), &address};
    ASSERT_TRUE(set<netbuf>(client_, CLSET_SVC_ADDR, target));
    EXPECT_EQ(call(), RPC_SUCCESS);
    EXPECT_EQ(other.calls(), 1u);
    EXPECT_EQ(server_.calls(), 0u);
}

TEST_P(Control, TurnsToNoAddressThatIsNone) {
    ks_sockaddr_storage_t address = {};
    EXPECT_FALSE(set<netbuf>(client_, CLSET_SVC_ADDR, {0, 0, nullptr}));
    EXPECT_FALSE(set<netbuf>(client_, CLSET_SVC_ADDR, {sizeof address, sizeof(sockaddr_in), &address}));
    address.base.sa_family = AF_INET;
    EXPECT_FALSE(set<netbuf>(client_, CLSET_SVC_ADDR, {sizeof address, sizeof(sockaddr_in) - 1, &address}));
    EXPECT_EQ(call(), RPC_SUCCESS);
}

TEST_P(Control, RefusesWhatItDoesNotKnowAndWhatCarriesNothing) {
    uint32_t word = 0;
    EXPECT_FALSE(clnt_control(client_, 4711, reinterpret_cast<char *>(&word)));
    for (const u_int request : {CLGET_FD, CLGET_XID, CLSET_TIMEOUT, CLGET_SERVER_ADDR, CLSET_SVC_ADDR})
        EXPECT_FALSE(clnt_control(client_, request, nullptr)) << request;
}

TEST_P(Control, TheSocketCanBeTakenBack) {
    clnt_control(client_, CLSET_FD_CLOSE, nullptr);
    clnt_control(client_, CLSET_FD_NCLOSE, nullptr);
    const int kept = socket_fd_;
    clnt_destroy(client_);
    EXPECT_GE(fcntl(kept, F_GETFD), 0);
    int socket_fd = -1;
    client_ = ks_clntudp_create_sockaddr(server_.address(), program, version, 1, 0, &socket_fd);
    clnt_control(client_, CLSET_FD_CLOSE, nullptr);
}

TEST_P(Control, PrintersOfTheLibraryKnowTheClient) {
    ASSERT_EQ(call(), RPC_SUCCESS);
    EXPECT_STREQ(clnt_sperror(client_, "text"), "text: RPC: Success");
    clnt_abort(client_);
}

namespace {

struct Refusal {
    const char *name;
    int error_number;
    CLIENT *(*make)(const sockaddr *address, int *socket_fd);
};

CLIENT *udp(const sockaddr *address, int32_t seconds, int32_t microseconds, int *socket_fd) {
    return ks_clntudp_create_sockaddr(address, program, version, seconds, microseconds, socket_fd);
}

CLIENT *tcp(const sockaddr *address, uint32_t send_size, uint32_t receive_size, int *socket_fd) {
    return ks_clnttcp_create_sockaddr(address, program, version, socket_fd, send_size, receive_size);
}

int closed_descriptor() {
    const int opened = open("/dev/null", O_RDONLY | O_CLOEXEC);
    close(opened);
    return opened;
}

const Refusal refusals[] = {
    {"UdpUnknownFamily", EAFNOSUPPORT,
     [](const sockaddr *, int *fd) {
         const sockaddr address = {AF_UNIX, {}};
         return udp(&address, 1, 0, fd);
     }},
    {"TcpUnknownFamily", EAFNOSUPPORT,
     [](const sockaddr *, int *fd) {
         const sockaddr address = {AF_UNIX, {}};
         return tcp(&address, 0, 0, fd);
     }},
    {"IntervalOfZero", EINVAL, [](const sockaddr *address, int *fd) { return udp(address, 0, 0, fd); }},
    {"NegativeSeconds", EINVAL, [](const sockaddr *address, int *fd) { return udp(address, -1, 0, fd); }},
    {"NegativeMicroseconds", EINVAL, [](const sockaddr *address, int *fd) { return udp(address, 1, -1, fd); }},
    {"SendSize", EINVAL, [](const sockaddr *address, int *fd) { return tcp(address, UINT32_MAX, 0, fd); }},
    {"ReceiveSize", EINVAL, [](const sockaddr *address, int *fd) { return tcp(address, 0, UINT32_MAX, fd); }},
};

size_t open_descriptors() {
    size_t count = 0;
    DIR *folder = opendir("/proc/self/fd");
    while (readdir(folder) != nullptr)
        ++count;
    closedir(folder);
    return count;
}

class Refused : public testing::TestWithParam<Refusal> {};

INSTANTIATE_TEST_SUITE_P(Creation, Refused, testing::ValuesIn(refusals),
                         [](const auto &test) { return test.param.name; });

} // namespace

TEST_P(Refused, IsToldInWordsAndLeavesNothingOpen) {
    const RpcServer udp_server(AF_INET, SOCK_DGRAM);
    const size_t descriptors = open_descriptors();
    int socket_fd = -1;
    EXPECT_EQ(GetParam().make(udp_server.address(), &socket_fd), nullptr);
    EXPECT_EQ(socket_fd, -1);
    EXPECT_EQ(ks_rpc_get_createerr()->stat, RPC_SYSTEMERROR);
    EXPECT_EQ(ks_rpc_get_createerr()->error_number, GetParam().error_number);
    EXPECT_EQ(ks_clnt_spcreateerror("made"),
              std::string("made: RPC: Remote system error; ") + strerror(GetParam().error_number));
    EXPECT_EQ(open_descriptors(), descriptors);
}

TEST(Creation, RefusesADescriptorThatIsClosedOrNoFittingSocket) {
    const RpcServer udp_server(AF_INET, SOCK_DGRAM);
    const RpcServer tcp_server(AF_INET, SOCK_STREAM);
    const int closed = closed_descriptor();
    int socket_fd = closed;
    EXPECT_EQ(udp(udp_server.address(), 1, 0, &socket_fd), nullptr);
    EXPECT_EQ(ks_rpc_get_createerr()->error_number, EBADF);
    EXPECT_EQ(tcp(tcp_server.address(), 0, 0, &socket_fd), nullptr);
    EXPECT_EQ(ks_rpc_get_createerr()->error_number, EBADF);
    EXPECT_EQ(socket_fd, closed);
    socket_fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
    EXPECT_EQ(udp(udp_server.address(), 1, 0, &socket_fd), nullptr);
    EXPECT_EQ(ks_rpc_get_createerr()->error_number, ENOTSOCK);
    close(socket_fd);
    socket_fd = socket(AF_INET, SOCK_STREAM, 0);
    EXPECT_EQ(udp(udp_server.address(), 1, 0, &socket_fd), nullptr);
    EXPECT_EQ(ks_rpc_get_createerr()->error_number, EPROTOTYPE);
    EXPECT_GE(fcntl(socket_fd, F_GETFD), 0) << "it stays its owner's";
    close(socket_fd);
    socket_fd = socket(AF_INET, SOCK_DGRAM, 0);
    EXPECT_EQ(tcp(tcp_server.address(), 0, 0, &socket_fd), nullptr);
    EXPECT_EQ(ks_rpc_get_createerr()->error_number, EPROTOTYPE);
    close(socket_fd);
}

TEST(Creation, RefusesASocketOfTheOtherFamily) {
    const RpcServer udp_server(AF_INET6, SOCK_DGRAM);
    int socket_fd = socket(AF_INET, SOCK_DGRAM, 0);
    EXPECT_EQ(udp(udp_server.address(), 1, 0, &socket_fd), nullptr);
    EXPECT_EQ(ks_rpc_get_createerr()->error_number, EAFNOSUPPORT);
    close(socket_fd);
}
