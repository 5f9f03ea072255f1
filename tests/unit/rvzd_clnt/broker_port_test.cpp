#include <tests/unit/rvzd_clnt/broker_fixture.h>

#include <arpa/inet.h>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class BrokerPort : public BrokerTest {
protected:
    int port() {
        uint16_t network_port = 0;
        EXPECT_EQ(rvzd_get_port("alpha", &network_port, AF_INET), TBS_ST_OK);
        return ntohs(network_port);
    }
};

TEST_F(BrokerPort, IdentityIsReportedAsItIs) {
    const char *service;
    const char *protocol;
    const char *file;
    uint16_t well_known;
    rvzdsvr_get_server_socket(&service, &protocol, &file, &well_known);
    EXPECT_STREQ(service, "rvzd");
    EXPECT_STREQ(protocol, "udp");
    EXPECT_STREQ(file, ".rvzd_well_known_port");
    EXPECT_EQ(well_known, 371);
    const size_t locks = world.call_locks;
    EXPECT_EQ(rvzdsvr_get_server_type(), 0);
    EXPECT_EQ(world.call_locks, locks + 1);
    expect_lock_is_free();
}

TEST_F(BrokerPort, WithTheMarkerFileTheServiceDatabaseIsNeverConsulted) {
    world.write_file("host/priv/.rvzd_well_known_port", "");
    world.services["rvzd"] = 4000;
    EXPECT_EQ(port(), 371);
    EXPECT_THAT(world.lookups, IsEmpty());
}

TEST_F(BrokerPort, TheServiceEntryRvzdWinsOverIronvale) {
    world.services = {{"rvzd", 4000}, {"ironvale", 5000}};
    EXPECT_EQ(port(), 4000);
    EXPECT_THAT(world.lookups, ElementsAre("rvzd"));
}

TEST_F(BrokerPort, WithoutAnEntryForRvzdTheOneForIronvaleServes) {
    world.services = {{"ironvale", 5000}};
    EXPECT_EQ(port(), 5000);
    EXPECT_THAT(world.lookups, ElementsAre("rvzd", "ironvale"));
    EXPECT_THAT(world.take_messages(), IsEmpty());
}

TEST_F(BrokerPort, TheServicesAreLookedUpForTheBrokersTransport) {
    world.services = {{"ironvale", 5000}};
    port();
    EXPECT_THAT(world.lookup_socket_types, ElementsAre(SOCK_DGRAM, SOCK_DGRAM));
}

TEST_F(BrokerPort, WithoutAnyEntryItIsTheWellKnownOneWithAWarning) {
    world.services.clear();
    EXPECT_EQ(port(), 371);
    EXPECT_THAT(world.take_messages(), ElementsAre(message_of(IMSG_WARNING, _rvzd_rvzd_msg_table, 25, "rvzd", "udp",
                                                              gai_strerror(EAI_SERVICE), 371)));
}

TEST_F(BrokerPort, IsKeptForTheLifeOfTheProcess) {
    world.services = {{"rvzd", 4000}};
    port();
    world.services = {{"rvzd", 4001}};
    world.write_file("host/priv/.rvzd_well_known_port", "");
    EXPECT_EQ(port(), 4000);
    EXPECT_THAT(world.lookups, ElementsAre("rvzd"));
}

TEST_F(BrokerPort, ALookUpThatFailsIsToldAndAskedAgain) {
    for (const int code : {EAI_MEMORY, EAI_SYSTEM, EAI_AGAIN}) {
        world.resolver_errors = {{"rvzd", code}, {"ironvale", code}};
        EXPECT_EQ(port(), 371);
        EXPECT_THAT(world.take_messages(), ElementsAre(message_of(IMSG_WARNING, _rvzd_rvzd_msg_table, 25, "rvzd", "udp",
                                                                  gai_strerror(code), 371)));
    }
    world.resolver_errors.clear();
    EXPECT_EQ(port(), 3710);
}

TEST_F(BrokerPort, AnEntryForIronvaleIsNotKeptWhileTheOneForRvzdCannotBeRead) {
    world.services = {{"rvzd", 4000}, {"ironvale", 5000}};
    world.resolver_errors = {{"rvzd", EAI_MEMORY}};
    EXPECT_EQ(port(), 5000);
    world.resolver_errors.clear();
    EXPECT_EQ(port(), 4000);
}

TEST_F(BrokerPort, ThatNoEntryStandsIsAnAnswerAndKept) {
    world.services.clear();
    EXPECT_EQ(port(), 371);
    world.services = {{"rvzd", 4000}};
    EXPECT_EQ(port(), 371);
    EXPECT_THAT(world.lookups, ElementsAre("rvzd", "ironvale"));
}

TEST_F(BrokerPort, ARaiseLeavesNothingBehindButTheLock) {
    const auto before = sim::Holdings::now(world);
    uint16_t network_port;
    const int raises = sim::sweep_raises(
        world, [&] { rvzd_get_port(nullptr, &network_port, AF_INET); },
        [&](int number) {
            EXPECT_EQ(sim::Holdings::now(world), before) << number;
            EXPECT_EQ(sim::release_lock(rvzd_call_lock), 1);
        });
    EXPECT_GE(raises, 2);
}

} // namespace
