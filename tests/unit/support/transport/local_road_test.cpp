// Calls to the broker of this host, which take its socket in the file system where there is one.
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <thread>

#include <arpa/inet.h>
#include <sys/wait.h>
#include <unistd.h>

#include <common/local_road.h>
#include <support/ks.h>

#include "../rpc_server.h"
#include "../test_site.h"

namespace {

constexpr uint32_t program = velia::local_road_program;
constexpr timeval usual_time = {20, 0};

struct ClientEnd {
    void operator()(CLIENT *client) const { clnt_destroy(client); }
};
using OwnedClient = std::unique_ptr<CLIENT, ClientEnd>;

ks_sockaddr_storage_t copy_of(const sockaddr *address) {
    ks_sockaddr_storage_t copy;
    sysutl_copy_sockaddr(&copy, address);
    return copy;
}

bool eventually(const std::function<bool()> &condition) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

// By the transport for which clients are made.
class LocalRoad : public testing::TestWithParam<int> {
protected:
    ~LocalRoad() override {
        if (socket_fd >= 0)
            close(socket_fd);
    }
    OwnedClient client(uint32_t of_program = program) {
        CLIENT *made = GetParam() == SOCK_DGRAM
                           ? ks_clntudp_create_sockaddr(over_ip.address(), of_program, 1, 3, 0, &socket_fd)
                           : ks_clnttcp_create_sockaddr(over_ip.address(), of_program, 1, &socket_fd, 0, 0);
        EXPECT_NE(made, nullptr);
        return OwnedClient(made);
    }
    ks_sockaddr_storage_t address() const { return copy_of(over_ip.address()); }
    static bool calls(const OwnedClient &client, uint32_t number) {
        uint32_t reply = 0;
        return call_echo(client.get(), number, &reply) == RPC_SUCCESS && reply == number;
    }

    TestSite site;
    RpcServer over_ip{AF_INET, GetParam()};
    int socket_fd = -1;
};

INSTANTIATE_TEST_SUITE_P(Of, LocalRoad, testing::Values(SOCK_DGRAM, SOCK_STREAM),
                         [](const auto &type) { return type.param == SOCK_DGRAM ? "udp" : "tcp"; });

} // namespace

TEST_P(LocalRoad, IsTakenByCallsToTheBrokerOfThisHost) {
    const RpcServer broker(site.path(""), address());
    const auto made = client();
    EXPECT_TRUE(calls(made, 7));
    EXPECT_TRUE(calls(made, 8));
    EXPECT_EQ(broker.calls(), 2u);
    EXPECT_EQ(broker.connections(), 1u);
    EXPECT_EQ(over_ip.calls(), 0u);
    EXPECT_EQ(over_ip.connections(), 0u);
}

TEST_P(LocalRoad, LeavesTheCallersDescriptorAsItIs) {
    const RpcServer broker(site.path(""), address());
    socket_fd = socket(AF_INET, GetParam() | SOCK_CLOEXEC, 0);
    sockaddr_in own = {};
    own.sin_family = AF_INET;
    own.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof own;
    ASSERT_EQ(bind(socket_fd, reinterpret_cast<sockaddr *>(&own), sizeof own), 0);
    ASSERT_EQ(getsockname(socket_fd, reinterpret_cast<sockaddr *>(&own), &length), 0);
    const int brought = socket_fd;
    auto made = client();
    EXPECT_TRUE(calls(made, 7));
    int told = -1;
    EXPECT_TRUE(clnt_control(made.get(), CLGET_FD, reinterpret_cast<char *>(&told)));
    EXPECT_EQ(told, brought);
    made.reset();
    sockaddr_in after = {};
    ASSERT_EQ(getsockname(brought, reinterpret_cast<sockaddr *>(&after), &length), 0) << "it is open";
    EXPECT_EQ(after.sin_port, own.sin_port);
}

TEST_P(LocalRoad, IsThatOfABrokerAtAllAddresses) {
    auto wildcard = address();
    wildcard.ipv4.sin_addr.s_addr = htonl(INADDR_ANY);
    const RpcServer broker(site.path(""), wildcard);
    EXPECT_TRUE(calls(client(), 7));
    EXPECT_EQ(broker.calls(), 1u);
}

TEST_P(LocalRoad, IsNotTakenToABrokerAtAnotherAddressOrPort) {
    auto other_address = address();
    other_address.ipv4.sin_addr.s_addr = htonl(INADDR_LOOPBACK + 1);
    auto other_port = address();
    other_port.ipv4.sin_port = static_cast<in_port_t>(~other_port.ipv4.sin_port);
    const RpcServer first(site.path(""), other_address);
    const RpcServer second(site.path(""), other_port);
    EXPECT_TRUE(calls(client(), 7));
    EXPECT_EQ(over_ip.calls(), 1u);
}

TEST_P(LocalRoad, IsNotTakenToOtherPrograms) {
    const RpcServer broker(site.path(""), address());
    EXPECT_TRUE(calls(client(program + 1), 7));
    EXPECT_EQ(over_ip.calls(), 1u);
}

TEST_P(LocalRoad, IsFoundInADirectoryWithALongName) {
    const std::string root = site.path(std::string(120, 'd'));
    const ScopedEnv environment("VELIA_ROOT", root.c_str());
    const RpcServer broker(root, address());
    EXPECT_TRUE(calls(client(), 7));
    EXPECT_EQ(broker.calls(), 1u);
}

TEST_P(LocalRoad, OutlivesItsConnection) {
    RpcServer broker(site.path(""), address());
    const auto made = client();
    EXPECT_TRUE(calls(made, 7));
    broker.close_connections();
    EXPECT_TRUE(calls(made, 8));
    EXPECT_EQ(broker.calls(), 2u);
    EXPECT_EQ(broker.connections(), 2u);
}

TEST_P(LocalRoad, ThatHasEndedGivesWayToTheTransportAndIsTakenAgainWhenItIsBack) {
    auto broker = std::make_unique<RpcServer>(site.path(""), address());
    const auto made = client();
    EXPECT_TRUE(calls(made, 7));
    broker.reset();
    EXPECT_TRUE(calls(made, 8));
    EXPECT_EQ(over_ip.calls(), 1u);
    broker = std::make_unique<RpcServer>(site.path(""), address());
    EXPECT_TRUE(eventually([&] { return calls(made, 9) && broker->calls() > 0; }));
}

TEST_P(LocalRoad, IsFoundByAClientThatWasThereBefore) {
    const auto made = client();
    EXPECT_TRUE(calls(made, 7));
    const RpcServer broker(site.path(""), address());
    EXPECT_TRUE(eventually([&] { return calls(made, 8) && broker.calls() > 0; }));
}

// As a datagram would be sent again; a call over a connection is not, since it may have been done.
TEST_P(LocalRoad, ThatEndsAmidACallRepeatsWhatMayBeRepeated) {
    std::atomic<int> asked = 0;
    RpcServer broker(site.path(""), address(), [&](const rpc_msg &call, XDR *arguments, XDR *results) {
        const bool is_first = asked++ == 0;
        return !is_first && RpcServer::echo(call, arguments, results);
    });
    const auto made = client();
    std::thread breaker([&] {
        eventually([&] { return asked == 1; });
        broker.close_connections();
    });
    uint32_t reply = 0;
    const clnt_stat outcome = call_echo(made.get(), 7, &reply, usual_time);
    breaker.join();
    EXPECT_EQ(outcome, GetParam() == SOCK_DGRAM ? RPC_SUCCESS : RPC_CANTRECV);
    EXPECT_EQ(broker.calls(), GetParam() == SOCK_DGRAM ? 2u : 1u);
}

TEST_P(LocalRoad, OfASilentBrokerEndsWithTheTimeOut) {
    const RpcServer broker(site.path(""), address(), [](const rpc_msg &, XDR *, XDR *) { return false; });
    uint32_t reply = 0;
    EXPECT_EQ(call_echo(client().get(), 7, &reply, {0, 50'000}), RPC_TIMEDOUT);
    EXPECT_EQ(broker.calls(), 1u);
}

TEST_P(LocalRoad, IsEachProcesssOwn) {
    const RpcServer broker(site.path(""), address());
    const auto made = client();
    EXPECT_TRUE(calls(made, 7));
    const pid_t child = fork();
    if (child == 0)
        _exit(calls(made, 8) ? EXIT_SUCCESS : EXIT_FAILURE);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(broker.connections(), 2u);
    EXPECT_TRUE(calls(made, 9));
    EXPECT_EQ(broker.connections(), 2u) << "the parent's has stayed";
}
