// How long the answers of a peer take, as RFC 6298 measures it, and how long to wait for one before asking again.
#pragma once

#include <cstdint>

#include <sys/socket.h>

namespace velia::support::transport {

struct RoundTrip {
    uint32_t smoothed_us; // 0: none measured
    uint32_t variation_us;

    void measured(int64_t round_trip_us);
    int64_t time_out_us() const;
};

// What this process knows of the peers it has talked to, by address and port. A place may be taken by another peer, of
// which nothing is known then.
RoundTrip remembered_round_trip(const sockaddr *peer);
void remember_round_trip(const sockaddr *peer, const RoundTrip &measured);

// The intervals between the sendings of one request.
class Repetition {
public:
    Repetition(const RoundTrip &measured, int64_t longest_us);
    int64_t next_us(); // the interval before the next one

private:
    int64_t interval_us_;
    int64_t longest_us_;
};

} // namespace velia::support::transport
