#include "round_trip.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <limits>

#include <netinet/in.h>

#include "clock.h"

namespace velia::support::transport {

namespace {

constexpr int64_t first_us = us_per_s; // while nothing has been measured
constexpr int64_t shortest_us = 200 * us_per_ms;
// The doubling ends here: a request is one datagram, which crowds no road, and a call that has lost five of them in a
// row still has the time to be answered.
constexpr int64_t doubled_up_to_us = us_per_s;
constexpr int64_t clock_grain_us = us_per_ms;
constexpr size_t places = 64;

// Each half may be written by another thread in between: the key is stored with the measure, so that one which does not
// belong to it counts for nothing.
struct Place {
    std::atomic<uint64_t> mixed_key; // with the measure
    std::atomic<uint64_t> measure;
};

Place peers[places];

uint64_t mixed(uint64_t word) {
    constexpr uint64_t multiplier = 0x9e3779b97f4a7c15;
    word = (word ^ word >> 32) * multiplier;
    return word ^ word >> 29;
}

uint64_t key_of(const sockaddr *peer) {
    uint64_t key = peer->sa_family;
    if (peer->sa_family == AF_INET) {
        const auto *ipv4 = reinterpret_cast<const sockaddr_in *>(peer);
        return mixed(mixed(key ^ uint64_t{ipv4->sin_addr.s_addr} << 32) ^ ipv4->sin_port);
    }
    const auto *ipv6 = reinterpret_cast<const sockaddr_in6 *>(peer);
    for (const uint32_t word : ipv6->sin6_addr.s6_addr32)
        key = mixed(key ^ uint64_t{word} << 16);
    return mixed(key ^ ipv6->sin6_port);
}

uint64_t packed(const RoundTrip &measured) {
    return uint64_t{measured.smoothed_us} << 32 | measured.variation_us;
}

uint32_t as_word(int64_t number) {
    return static_cast<uint32_t>(std::clamp<int64_t>(number, 1, std::numeric_limits<uint32_t>::max()));
}

} // namespace

void RoundTrip::measured(int64_t round_trip_us) {
    const int64_t sample = std::max<int64_t>(round_trip_us, 1);
    if (smoothed_us == 0) {
        smoothed_us = as_word(sample);
        variation_us = as_word(sample / 2);
        return;
    }
    const int64_t smoothed = smoothed_us;
    const int64_t variation = variation_us;
    variation_us = as_word((3 * variation + std::abs(smoothed - sample)) / 4);
    smoothed_us = as_word((7 * smoothed + sample) / 8);
}

int64_t RoundTrip::time_out_us() const {
    if (smoothed_us == 0)
        return first_us;
    const int64_t measured_us = smoothed_us + std::max<int64_t>(clock_grain_us, int64_t{4} * variation_us);
    return std::max(measured_us, shortest_us);
}

RoundTrip remembered_round_trip(const sockaddr *peer) {
    const uint64_t key = key_of(peer);
    const Place &place = peers[key % places];
    const uint64_t measure = place.measure.load(std::memory_order_relaxed);
    if ((place.mixed_key.load(std::memory_order_relaxed) ^ measure) != key)
        return {};
    return {static_cast<uint32_t>(measure >> 32), static_cast<uint32_t>(measure)};
}

void remember_round_trip(const sockaddr *peer, const RoundTrip &measured) {
    const uint64_t key = key_of(peer);
    Place &place = peers[key % places];
    place.measure.store(packed(measured), std::memory_order_relaxed);
    place.mixed_key.store(key ^ packed(measured), std::memory_order_relaxed);
}

Repetition::Repetition(const RoundTrip &measured, int64_t longest_us)
    : interval_us_(std::min(measured.time_out_us(), longest_us)),
      longest_us_(std::min(std::max(interval_us_, doubled_up_to_us), longest_us)) {}

int64_t Repetition::next_us() {
    const int64_t interval_us = interval_us_;
    interval_us_ = std::min(2 * interval_us_, longest_us_);
    return interval_us;
}

} // namespace velia::support::transport
