// Clients and a daemon over a network that harms what it carries, and with a daemon that stands still now and then. The
// same with more of everything: ./dev relay --check.
#include <gtest/gtest.h>

#include <csignal>
#include <thread>

#include <tests/system/support/rounds.h>

using namespace velia::system_test;
using velia::relay::Event;

namespace {

constexpr int processes = 8;

struct Abuse : testing::Test {
    Site site;
    std::unique_ptr<Daemon> daemon;

    void SetUp() override {
        daemon = daemon_for_rounds(site);
        ASSERT_TRUE(daemon->is_ready()) << daemon->output();
    }

    velia::relay::Plan plan(const velia::relay::Harms &harms) const {
        velia::relay::Plan plan;
        plan.server = velia::relay::parse_address(std::to_string(site.port()));
        plan.harms = harms;
        return plan;
    }

    static void tell(const RoundFigures &figures) {
        RecordProperty("calls", static_cast<int>(figures.calls.size()));
        RecordProperty("failed", static_cast<int>(figures.failed));
        RecordProperty("median_us", static_cast<int>(figures.duration_us(0.5)));
        RecordProperty("longest_us", static_cast<int>(figures.duration_us(1)));
    }
};

struct AbuseOver : Abuse, testing::WithParamInterface<const char *> {};

INSTANTIATE_TEST_SUITE_P(Over, AbuseOver, testing::Values("udp", "tcp"),
                         [](const auto &transport) { return std::string(transport.param); });

} // namespace

TEST_F(Abuse, OfDatagramsAFifthLostDoubledAndReorderedEveryCallIsAnsweredOnce) {
    constexpr int rounds = 4;
    velia::relay::Harms harms = {};
    harms.dropped = harms.doubled = harms.reordered = 0.2;
    harms.corrupted = 0.01;
    const velia::relay::RelayThread relay(plan(harms));
    Rounds clients(site, {"udp", relay.port(), processes, rounds});
    ASSERT_TRUE(clients.wait(120)) << clients.output();
    const auto figures = clients.figures();
    tell(figures);
    EXPECT_EQ(figures.failed, 0u) << clients.output();
    EXPECT_EQ(figures.added, size_t{processes * rounds});
    EXPECT_EQ(figures.missing, 0u);
    EXPECT_EQ(figures.doubled, 0u);
    for (const auto event : {Event::dropped, Event::doubled, Event::reordered, Event::corrupted})
        EXPECT_GT(relay.tally()[event], 0u) << relay.tally().text();
}

TEST_F(Abuse, OfConnectionsCutAndDribbledNoCutCostsMoreThanOneCall) {
    constexpr int rounds = 12;
    velia::relay::Harms harms = {};
    harms.cut = 0.1;
    harms.dribbled = 0.2;
    harms.delay_ms_max = 5;
    const velia::relay::RelayThread relay(plan(harms));
    Rounds clients(site, {"tcp", relay.port(), processes, rounds});
    ASSERT_TRUE(clients.wait(120)) << clients.output();
    const auto figures = clients.figures();
    tell(figures);
    EXPECT_LE(figures.failed, relay.tally()[Event::cut]) << clients.output();
    EXPECT_EQ(figures.added, size_t{processes * rounds});
    EXPECT_EQ(figures.missing, 0u);
    EXPECT_EQ(figures.doubled, 0u);
    for (const auto event : {Event::cut, Event::dribbled, Event::delayed})
        EXPECT_GT(relay.tally()[event], 0u) << relay.tally().text();
}

TEST_P(AbuseOver, WhileTheDaemonStandsStillCallsFailAndTheFirstOnesAfterItAreAnswered) {
    Rounds clients(site, {GetParam(), site.port(), 4, 1'000'000, 700});
    std::vector<Stop> stops;
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(clients.answered_since(monotonic_us(), 20)) << clients.output();
        stops.push_back(clients.stop_until_failed(*daemon, 8));
    }
    ASSERT_TRUE(clients.answered_since(monotonic_us(), 20)) << clients.output();
    clients.stop();
    ASSERT_TRUE(clients.wait(60)) << clients.output();
    const auto figures = clients.figures();
    tell(figures);
    EXPECT_EQ(figures.failed_outside(stops), 0u) << clients.output();
    EXPECT_GE(figures.failed, 8u * stops.size());
    EXPECT_EQ(figures.missing, 0u);
    EXPECT_EQ(figures.doubled, 0u);
    EXPECT_GT(figures.added, 0u);
}
