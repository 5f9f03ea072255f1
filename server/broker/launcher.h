// How processes come and go; the broker's table reasons about them through this, so that tests need none.
#pragma once

#include <cstdint>
#include <string>

#include <server/broker/activity.h>
#include <server/config/service.h>

namespace velia::server {

struct LaunchResult {
    int32_t pid = 0; // 0: not started
    int message = 0; // row of the broker's table that says why, its word in `detail`
    std::string detail;
};

class Launcher {
public:
    virtual ~Launcher() = default;

    // Opens the service's sockets and runs its program on them.
    virtual LaunchResult launch(const Service &service) = 0;

    // Asks the process to go down, by its lifeline.
    virtual void cut_lifeline(int32_t pid) = 0;

    // Ends it at once; errno, or 0.
    virtual int kill_now(int32_t pid) = 0;

    // Whether a process of this number exists on this host.
    virtual bool exists(int32_t pid) = 0;

    // Whether it waits for its first call: none waits at these ports, and it has slept most of its life of `age_ms`.
    virtual bool waits_for_calls(int32_t pid, const std::vector<ServedPort> &ports, int64_t age_ms) = 0;
};

} // namespace velia::server
