// One clock for all that waits: the monotonic one, in microseconds.
#pragma once

#include <cstdint>
#include <ctime>

namespace velia::support::transport {

constexpr int64_t us_per_ms = 1000;
constexpr int64_t us_per_s = 1'000'000;

inline int64_t now_us() {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * us_per_s + now.tv_nsec / 1000;
}

} // namespace velia::support::transport
