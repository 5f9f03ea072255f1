// Reaching a daemon: every transport and address family, both protocol generations.
#include <gtest/gtest.h>

#include <ostream>

#include <tests/system/support/client.h>
#include <tests/system/support/daemon.h>

using namespace velia::system_test;

namespace {

struct Road {
    const char *name;
    const char *host;
    rvzd_protocol_in_t transport;
};

void PrintTo(const Road &road, std::ostream *out) {
    *out << road.name;
}

constexpr Road roads[] = {{"UdpIpv4", "alpha", RVZD_PROTOCOL_UDP},
                          {"TcpIpv4", "alpha", RVZD_PROTOCOL_TCP},
                          {"UdpIpv6", "six", RVZD_PROTOCOL_UDP},
                          {"TcpIpv6", "six", RVZD_PROTOCOL_TCP},
                          {"UdpOtherLoopbackAddress", "beta", RVZD_PROTOCOL_UDP}};

class ContactBy : public testing::TestWithParam<Road> {};

INSTANTIATE_TEST_SUITE_P(Roads, ContactBy, testing::ValuesIn(roads),
                         [](const auto &road) { return std::string(road.param.name); });

} // namespace

TEST_P(ContactBy, TellsProtocolSix) {
    Site site;
    site.configure("");
    Daemon daemon(site);
    ASSERT_TRUE(daemon.is_ready()) << daemon.output();
    Handle handle(GetParam().host, GetParam().transport);
    ASSERT_EQ(handle.status(), TBS_ST_OK);
    EXPECT_EQ(rvzd_get_server_protocol_version(handle.get()), 6u);
}

TEST_P(ContactBy, TellsProtocolFiveOfAnOldDaemon) {
    Site site;
    site.configure("option protocol 5\n");
    Daemon daemon(site);
    ASSERT_TRUE(daemon.is_ready()) << daemon.output();
    Handle handle(GetParam().host, GetParam().transport);
    ASSERT_EQ(handle.status(), TBS_ST_OK);
    EXPECT_EQ(rvzd_get_server_protocol_version(handle.get()), 5u);
}

TEST(Contact, OfNobodyFailsAndIsTold) {
    Site site;
    testing::internal::CaptureStderr();
    rvzd_handle_t *handle = nullptr;
    EXPECT_EQ(rvzd_get_handle_proto("alpha", RVZD_PROTOCOL_TCP, &handle), TBS_ST_ERROR);
    EXPECT_EQ(handle, nullptr);
    EXPECT_NE(testing::internal::GetCapturedStderr().find("Unable to contact rvzd_server on host 'alpha'"),
              std::string::npos);
}

TEST(Contact, GoesOnlyWhereTheDaemonListens) {
    Site site;
    site.configure("");
    Daemon daemon(site, {"--listen", "127.0.0.2"});
    ASSERT_TRUE(daemon.is_ready()) << daemon.output();
    EXPECT_EQ(Handle("beta", RVZD_PROTOCOL_TCP).status(), TBS_ST_OK);
    EXPECT_EQ(Handle("alpha", RVZD_PROTOCOL_TCP).status(), TBS_ST_ERROR);
}

TEST(Contact, TwoDaemonsShareOneMachineUnderTwoAddresses) {
    Site site;
    site.configure("");
    Daemon first(site, {"--listen", "127.0.0.1"});
    std::filesystem::create_directories(site.path("beta/host/config"));
    Child::Options beta;
    beta.environment = {"VELIA_ROOT=" + site.path("beta")};
    Daemon second(site, {"--listen", "127.0.0.2", "--port", std::to_string(site.port())}, beta);
    ASSERT_TRUE(first.is_ready() && second.is_ready());
    EXPECT_EQ(Handle("alpha").status(), TBS_ST_OK);
    EXPECT_EQ(Handle("beta").status(), TBS_ST_OK);
}
