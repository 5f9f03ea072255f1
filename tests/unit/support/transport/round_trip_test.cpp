// When a request goes out again.
#include <gtest/gtest.h>

#include <vector>

#include <arpa/inet.h>
#include <netinet/in.h>

#include <support/transport/round_trip.h>

using namespace velia::support::transport;

namespace {

constexpr int64_t ms = 1000;
constexpr int64_t s = 1000 * ms;

RoundTrip measured(std::initializer_list<int64_t> samples_us) {
    RoundTrip round_trip = {};
    for (const int64_t sample : samples_us)
        round_trip.measured(sample);
    return round_trip;
}

std::vector<int64_t> intervals_ms(const RoundTrip &round_trip, int64_t longest_us) {
    Repetition repetition(round_trip, longest_us);
    std::vector<int64_t> intervals;
    for (int i = 0; i < 6; ++i)
        intervals.push_back(repetition.next_us() / ms);
    return intervals;
}

sockaddr_in ipv4(const char *text, uint16_t port) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    inet_pton(AF_INET, text, &address.sin_addr);
    return address;
}

RoundTrip remembered(const sockaddr_in &peer) {
    return remembered_round_trip(reinterpret_cast<const sockaddr *>(&peer));
}

void remember(const sockaddr_in &peer, const RoundTrip &round_trip) {
    remember_round_trip(reinterpret_cast<const sockaddr *>(&peer), round_trip);
}

} // namespace

TEST(RoundTrip, IsASecondWhileNothingIsMeasured) {
    EXPECT_EQ(measured({}).time_out_us(), s);
}

TEST(RoundTrip, OfOneMeasureIsThatAndFourTimesItsHalf) {
    EXPECT_EQ(measured({400 * ms}).time_out_us(), 1200 * ms);
}

TEST(RoundTrip, FollowsLaterMeasuresByAnEighthAndTheirDifferenceByAQuarter) {
    const RoundTrip round_trip = measured({400 * ms, 800 * ms});
    EXPECT_EQ(round_trip.smoothed_us, 450 * ms);
    EXPECT_EQ(round_trip.variation_us, 250 * ms);
    EXPECT_EQ(round_trip.time_out_us(), 1450 * ms);
    EXPECT_EQ(measured({800 * ms, 400 * ms}).variation_us, 400 * ms);
}

TEST(RoundTrip, IsNeverBefore200Milliseconds) {
    EXPECT_EQ(measured({20}).time_out_us(), 200 * ms);
    EXPECT_EQ(measured({0}).time_out_us(), 200 * ms);
}

TEST(RoundTrip, OfASteadyPeerLeavesRoomForTheClock) {
    RoundTrip round_trip = {};
    for (int i = 0; i < 200; ++i)
        round_trip.measured(500 * ms);
    EXPECT_EQ(round_trip.time_out_us(), 501 * ms);
}

TEST(Repetition, DoublesUpToASecond) {
    EXPECT_EQ(intervals_ms(measured({20}), 3 * s), (std::vector<int64_t>{200, 400, 800, 1000, 1000, 1000}));
}

TEST(Repetition, StaysAtTheMeasureOfASlowPeer) {
    EXPECT_EQ(intervals_ms(measured({400 * ms}), 3 * s), (std::vector<int64_t>{1200, 1200, 1200, 1200, 1200, 1200}));
}

TEST(Repetition, IsNeverLongerThanTheCreatorsInterval) {
    EXPECT_EQ(intervals_ms(measured({}), 20 * ms), (std::vector<int64_t>{20, 20, 20, 20, 20, 20}));
    EXPECT_EQ(intervals_ms(measured({20}), 500 * ms), (std::vector<int64_t>{200, 400, 500, 500, 500, 500}));
    EXPECT_EQ(intervals_ms(measured({2 * s}), 3 * s), (std::vector<int64_t>{3000, 3000, 3000, 3000, 3000, 3000}));
}

TEST(KnownPeers, AreKnownByAddressAndPort) {
    const sockaddr_in peer = ipv4("192.0.2.1", 371);
    remember(peer, measured({400 * ms}));
    EXPECT_EQ(remembered(peer).smoothed_us, 400 * ms);
    EXPECT_EQ(remembered(ipv4("192.0.2.1", 372)).smoothed_us, 0u);
    EXPECT_EQ(remembered(ipv4("192.0.2.2", 371)).smoothed_us, 0u);
}

TEST(KnownPeers, WithIpv6AddressesAreToldApart) {
    sockaddr_in6 peer = {};
    peer.sin6_family = AF_INET6;
    inet_pton(AF_INET6, "2001:db8::1", &peer.sin6_addr);
    remember_round_trip(reinterpret_cast<const sockaddr *>(&peer), measured({400 * ms}));
    EXPECT_EQ(remembered_round_trip(reinterpret_cast<const sockaddr *>(&peer)).smoothed_us, 400 * ms);
    inet_pton(AF_INET6, "2001:db8::2", &peer.sin6_addr);
    EXPECT_EQ(remembered_round_trip(reinterpret_cast<const sockaddr *>(&peer)).smoothed_us, 0u);
}

TEST(KnownPeers, ThatShareAPlaceAreNotTakenForEachOther) {
    for (uint16_t port = 1; port < 1000; ++port)
        remember(ipv4("192.0.2.9", port), measured({port * ms}));
    int known = 0;
    for (uint16_t port = 1; port < 1000; ++port) {
        const uint32_t smoothed_us = remembered(ipv4("192.0.2.9", port)).smoothed_us;
        EXPECT_TRUE(smoothed_us == 0 || smoothed_us == port * ms) << port;
        known += smoothed_us != 0;
    }
    EXPECT_GT(known, 0);
}
