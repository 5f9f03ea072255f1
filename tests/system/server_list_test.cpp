// The table of a real daemon, walked by a real client: many servers, over both transports, in both protocol versions.
#include <gtest/gtest.h>

#include <ostream>
#include <sstream>

#include <tests/system/support/child.h>
#include <tests/system/support/client.h>
#include <tests/system/support/daemon.h>
#include <tests/system/support/population.h>
#include <veliaxdr/rvzd_servers.h>

using namespace velia::system_test;

namespace {

constexpr size_t many = 1000;

struct Walk {
    const char *name;
    const char *host;
    const char *transport;
    const char *daemon_option;
};

void PrintTo(const Walk &walk, std::ostream *out) {
    *out << walk.name;
}

constexpr Walk walks[] = {{"Udp", "alpha", "udp", ""},
                          {"Tcp", "alpha", "tcp", ""},
                          {"UdpOldDaemon", "alpha", "udp", "option protocol 5\n"},
                          {"TcpOldDaemon", "alpha", "tcp", "option protocol 5\n"}};

class WalkBy : public testing::TestWithParam<Walk> {};

INSTANTIATE_TEST_SUITE_P(Transports, WalkBy, testing::ValuesIn(walks),
                         [](const auto &walk) { return std::string(walk.param.name); });

// Paths of every length from nothing to beyond what one step of a walk carries with others.
std::string path_of(size_t number) {
    return number == 0 ? "" : "/" + std::string(number % 1023, 'v');
}

void populate(Population &population, size_t count) {
    const Handle handle("alpha", RVZD_PROTOCOL_TCP);
    ASSERT_EQ(handle.status(), TBS_ST_OK);
    for (size_t i = 0; i < count; ++i)
        ASSERT_EQ(population.add(handle.get(), path_of(i)), TBS_ST_OK) << i;
}

std::string line_of(const Population &population, size_t number, const std::string &address = "127.0.0.1") {
    return address + ":" + std::to_string(1000 + number) + " " + std::to_string(population.process_of(number)) + " " +
           path_of(number);
}

// How many servers the host has in its table; -1 when the walk fails.
int count_servers(const char *host, int32_t pid = -1, const char *name = nullptr) {
    const Handle handle(host, RVZD_PROTOCOL_TCP);
    llist_d_head_t servers;
    if (rvzd_list_matching_servers(handle.get(), -1, -1, -1, -1, nullptr, pid, name, &servers) != TBS_ST_OK)
        return -1;
    int count = 0;
    for (llist_d_head_t *at = servers.next; at != &servers; at = at->next)
        ++count;
    rvzd_destroy_server_entry_list(&servers);
    return count;
}

} // namespace

TEST_P(WalkBy, BringsEveryServerOnceInTheOrderOfRegistration) {
    Site site;
    site.configure(GetParam().daemon_option);
    Daemon daemon(site);
    ASSERT_TRUE(daemon.is_ready()) << daemon.output();
    Population population;
    populate(population, many);
    const auto outcome = run(site, {SYSTEM_CLIENT, "list", GetParam().host, "-1", GetParam().transport}, 60);
    EXPECT_EQ(outcome.status, 0) << outcome.output;
    std::istringstream lines(outcome.output);
    std::string line;
    for (size_t i = 0; i < many; ++i) {
        ASSERT_TRUE(std::getline(lines, line)) << i;
        ASSERT_EQ(line, line_of(population, i));
    }
    EXPECT_FALSE(std::getline(lines, line)) << line;
}

TEST(ServerTableOfADaemon, IsFilteredByTheClient) {
    Site site;
    site.configure("");
    Daemon daemon(site);
    Population population;
    populate(population, 40);
    const auto outcome =
        run(site, {SYSTEM_CLIENT, "list", "alpha", std::to_string(Population::first_program + 7), "udp"});
    EXPECT_EQ(outcome.output, line_of(population, 7) + "\n");
    EXPECT_EQ(count_servers("alpha", population.process_of(9)), 8);
    EXPECT_EQ(count_servers("alpha", -1, path_of(9).c_str()), 1);
    EXPECT_EQ(count_servers("alpha", -1, "/nowhere"), 0);
}

TEST(ServerTableOfADaemon, IsEmptyBeforeAnybodyRegisters) {
    Site site;
    site.configure(sample_line(390600, "shared", "-"));
    Daemon daemon(site);
    EXPECT_EQ(count_servers("alpha"), 0);
    EXPECT_EQ(echo("alpha", 390600, RVZD_PROTOCOL_UDP, "up"), "up");
    EXPECT_EQ(count_servers("alpha"), 2); // over both transports
}

TEST(ServerTableOfADaemon, LosesTheServersOfAProcessThatEnds) {
    Site site;
    site.configure("");
    Daemon daemon(site);
    Population staying;
    populate(staying, 8);
    {
        Population going;
        populate(going, 100);
        EXPECT_EQ(count_servers("alpha"), 108);
    }
    EXPECT_TRUE(eventually([] { return count_servers("alpha") == 8; }, 20)) << daemon.output();
    EXPECT_EQ(count_servers("alpha", staying.process_of(0)), 8);
}

TEST(ServerTableOfADaemon, OfAHostThatIsDownCannotBeWalked) {
    Site site;
    rvzd_handle_t *handle = nullptr;
    site.configure("");
    {
        Daemon daemon(site);
        ASSERT_TRUE(daemon.is_ready());
        ASSERT_EQ(rvzd_get_handle_proto("alpha", RVZD_PROTOCOL_TCP, &handle), TBS_ST_OK);
    }
    llist_d_head_t servers;
    EXPECT_EQ(rvzd_list_matching_servers(handle, -1, -1, -1, -1, nullptr, -1, nullptr, &servers), TBS_ST_ERROR);
    EXPECT_EQ(servers.next, &servers);
    rvzd_free_handle(handle);
}
