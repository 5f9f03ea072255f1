// Rings at a moment of the clock on the wall, and when that clock is set: what is due then has to be looked at anew.
#pragma once

#include <functional>
#include <optional>

#include <server/loop/handles.h>
#include <server/loop/unique_fd.h>

namespace velia::server {

class WallTimer {
public:
    WallTimer(uv_loop_t *loop, std::function<void()> on_time);

    // None: only when the clock is set.
    void set(std::optional<int64_t> moment);

private:
    void ring();

    std::function<void()> on_time_;
    UniqueFd fd_;
    PollHandle poll_;
};

} // namespace velia::server
