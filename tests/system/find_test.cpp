// Finding servers: started on demand, once, by whatever road, and what a client hears when that fails.
#include <gtest/gtest.h>

#include <ostream>

#include <arpa/inet.h>
#include <filesystem>
#include <set>
#include <string>

#include <tests/system/support/client.h>
#include <tests/system/support/daemon.h>

using namespace velia::system_test;

namespace {

constexpr uint32_t program = 390600;
constexpr size_t clients = 12;

uint16_t port_in(const Found &found) {
    return ntohs(found.address.addrs[0].ipv4.sin_port);
}

// The numbers of this process's descriptors; that of the listing itself is always the same one.
std::set<std::string> open_descriptors() {
    std::set<std::string> numbers;
    for (const auto &entry : std::filesystem::directory_iterator("/proc/self/fd"))
        numbers.insert(entry.path().filename());
    return numbers;
}

struct Road {
    const char *name;
    const char *host;
    rvzd_protocol_in_t transport;
    const char *daemon_option;
};

void PrintTo(const Road &road, std::ostream *out) {
    *out << road.name;
}

constexpr Road roads[] = {{"UdpIpv4", "alpha", RVZD_PROTOCOL_UDP, ""},
                          {"TcpIpv4", "alpha", RVZD_PROTOCOL_TCP, ""},
                          {"UdpIpv6", "six", RVZD_PROTOCOL_UDP, ""},
                          {"TcpIpv6", "six", RVZD_PROTOCOL_TCP, ""},
                          {"UdpBothFamilies", "both", RVZD_PROTOCOL_UDP, ""},
                          {"UdpOldDaemon", "alpha", RVZD_PROTOCOL_UDP, "option protocol 5\n"},
                          {"TcpOldDaemon", "alpha", RVZD_PROTOCOL_TCP, "option protocol 5\n"}};

class ConnectBy : public testing::TestWithParam<Road> {};

INSTANTIATE_TEST_SUITE_P(Roads, ConnectBy, testing::ValuesIn(roads),
                         [](const auto &road) { return std::string(road.param.name); });

} // namespace

TEST_P(ConnectBy, StartsTheServerAndGetsItsAnswer) {
    Site site;
    site.configure(GetParam().daemon_option + sample_line(program, "shared", "-"));
    Daemon daemon(site);
    ASSERT_TRUE(daemon.is_ready()) << daemon.output();
    EXPECT_EQ(echo(GetParam().host, program, GetParam().transport, "good day"), "good day") << daemon.output();
    EXPECT_EQ(echo(GetParam().host, program, GetParam().transport, "and again"), "and again");
    EXPECT_EQ(daemon.started(1).size(), 1u);
}

TEST_P(ConnectBy, LeavesNoDescriptorBehindItsClient) {
    Site site;
    site.configure(GetParam().daemon_option + sample_line(program, "shared", "-"));
    Daemon daemon(site);
    ASSERT_TRUE(daemon.is_ready()) << daemon.output();
    // The first connection also makes the handle to the broker, which stays.
    ASSERT_EQ(echo(GetParam().host, program, GetParam().transport, "first"), "first") << daemon.output();
    const auto before = open_descriptors();
    ASSERT_EQ(echo(GetParam().host, program, GetParam().transport, "again"), "again") << daemon.output();
    EXPECT_EQ(open_descriptors(), before);
}

TEST(Find, GivesBothFamiliesWhereHostAndServerHaveThem) {
    Site site;
    site.configure(sample_line(program, "shared", "-"));
    Daemon daemon(site);
    Handle handle("both");
    const auto found = find(handle, program);
    ASSERT_EQ(found.status, TBS_ST_OK) << daemon.output();
    ASSERT_EQ(found.address.addr_count, 2u);
    EXPECT_EQ(found.address.addrs[0].base.sa_family, AF_INET6);
    EXPECT_EQ(found.address.addrs[1].base.sa_family, AF_INET);
}

TEST(Find, OfManyClientsAtOnceStartsTheServerOnce) {
    Site site;
    site.configure(sample_line(program, "shared", "max=4"));
    Daemon daemon(site);
    ASSERT_TRUE(daemon.is_ready()) << daemon.output();
    std::vector<std::unique_ptr<Child>> processes;
    for (size_t i = 0; i < clients; ++i) {
        Child::Options options;
        options.output_file = site.path("client-" + std::to_string(i));
        const std::vector<std::string> words = {SYSTEM_CLIENT, "find", "alpha", std::to_string(program),
                                                i % 2 == 0 ? "udp" : "tcp"};
        processes.push_back(std::make_unique<Child>(words, options));
    }
    for (size_t i = 0; i < clients; ++i)
        EXPECT_EQ(processes[i]->wait(), 0) << site.read("client-" + std::to_string(i));
    EXPECT_EQ(daemon.started(1).size(), 1u) << daemon.output();
}

TEST(Find, OfAnUnknownServerIsNotFoundAndTold) {
    Site site;
    site.configure(sample_line(program, "shared", "-"));
    Daemon daemon(site);
    Handle handle;
    EXPECT_EQ(find(handle, program + 1, RVZD_PROTOCOL_UDP, 7, "/vault").status, TBS_ST_NOT_FOUND);
    EXPECT_TRUE(daemon.says("Request for unknown server 5F5C9.1.1  07070707-0707-0707-0707-070707070707@'/vault' "
                            "(client=127.0.0.1)"))
        << daemon.output();
}

TEST(Find, DedicatedServersAreOneForEachUuidAndPath) {
    Site site;
    site.configure(sample_line(program, "dedicated", "-"));
    Daemon daemon(site);
    Handle handle;
    const auto one = find(handle, program, RVZD_PROTOCOL_UDP, 1, "/vault/one");
    const auto other_path = find(handle, program, RVZD_PROTOCOL_UDP, 1, "/vault/two");
    const auto other_uuid = find(handle, program, RVZD_PROTOCOL_UDP, 2, "/vault/one");
    const auto again = find(handle, program, RVZD_PROTOCOL_UDP, 1, "/vault/one");
    ASSERT_EQ(one.status, TBS_ST_OK) << daemon.output();
    EXPECT_EQ((std::set{port_in(one), port_in(other_path), port_in(other_uuid)}.size()), 3u);
    EXPECT_EQ(port_in(again), port_in(one));
    EXPECT_EQ(daemon.started(3).size(), 3u);
}

TEST(Find, BusySharedServerGetsACompanionUpToTheMaximum) {
    Site site;
    site.configure(sample_line(program, "shared", "max=2", "--quiet-seconds 60"));
    Daemon daemon(site);
    Handle handle;
    EXPECT_EQ(echo("alpha", program, RVZD_PROTOCOL_UDP, "one"), "one"); // now the first is busy
    EXPECT_EQ(echo("alpha", program, RVZD_PROTOCOL_UDP, "two"), "two"); // and the second
    EXPECT_EQ(echo("alpha", program, RVZD_PROTOCOL_UDP, "three"), "three");
    EXPECT_TRUE(eventually([&] { return daemon.started().size() == 2; })) << daemon.output();
}

TEST(Find, OfAServerThatDiesOnStartupFailsAndIsTriedAgainLater) {
    Site site;
    site.configure(script_line(program, "shared", "-", "exit 3"));
    Daemon daemon(site);
    Handle handle;
    EXPECT_EQ(find(handle, program).status, TBS_ST_ERROR);
    EXPECT_TRUE(daemon.says("exited with status 3\n")) << daemon.output();
    EXPECT_TRUE(daemon.says("died on startup; marking it as \"down\".")) << daemon.output();
    // While it is down nobody starts it; then the next request does.
    EXPECT_EQ(find(handle, program).status, TBS_ST_ERROR);
    EXPECT_TRUE(
        eventually([&] { return find(handle, program).status == TBS_ST_ERROR && daemon.started().size() == 2; }));
}

TEST(Find, OfAServerThatNeverRegistersFailsAndKillsIt) {
    Site site;
    site.configure(script_line(program, "shared", "start=1", "exec sleep 1000"));
    Daemon daemon(site);
    Handle handle;
    EXPECT_EQ(find(handle, program).status, TBS_ST_ERROR);
    ASSERT_EQ(daemon.started(1).size(), 1u);
    EXPECT_TRUE(eventually([&] { return !is_alive(daemon.started().front()); }));
    EXPECT_TRUE(daemon.says("exited due to signal 9\n")) << daemon.output();
    EXPECT_TRUE(daemon.says("died on startup; marking it as \"down\"."));
}

TEST(Find, OfAProgramThatCannotBeExecutedFailsAndIsTold) {
    Site site;
    site.configure("udp shared 390600 1 - - - /nowhere/at-all\n");
    Daemon daemon(site);
    Handle handle;
    EXPECT_EQ(find(handle, program).status, TBS_ST_ERROR);
    EXPECT_TRUE(daemon.says("Scheduled command could not be executed:\n/nowhere/at-all: no such file or directory\n"))
        << daemon.output();
}

TEST(Find, OfAServerThatStartedAloneFollowsItsLife) {
    Site site;
    site.configure("");
    Daemon daemon(site);
    Handle handle;
    ASSERT_EQ(find(handle, program).status, TBS_ST_NOT_FOUND);
    Child::Options options;
    options.output_file = site.path("alone.out");
    options.environment = {"IVL_IP_VERSION=4"};
    Child server({SAMPLE_SERVER, "--alone", "--prog", std::to_string(program)}, options);
    ASSERT_TRUE(eventually([&] { return find(handle, program).status == TBS_ST_OK; })) << site.read("alone.out");
    EXPECT_EQ(echo("alpha", program, RVZD_PROTOCOL_UDP, "alone"), "alone");
    server.signal(9);
    server.wait();
    EXPECT_TRUE(daemon.says("Scrubbed pid=" + std::to_string(server.pid()), 12)) << daemon.output();
    EXPECT_EQ(find(handle, program).status, TBS_ST_NOT_FOUND);
}
