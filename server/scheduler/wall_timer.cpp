#include <server/scheduler/wall_timer.h>

#include <algorithm>
#include <cstdint>
#include <sys/timerfd.h>

namespace velia::server {

namespace {

constexpr int64_t far_away = INT32_MAX * int64_t{4};

} // namespace

WallTimer::WallTimer(uv_loop_t *loop, std::function<void()> on_time)
    : on_time_(std::move(on_time)), fd_(timerfd_create(CLOCK_REALTIME, TFD_CLOEXEC | TFD_NONBLOCK)),
      poll_(loop, fd_.get(), event_target<&WallTimer::ring>(*this)) {
    poll_.watch(UV_READABLE);
    set(std::nullopt);
}

// A moment of zero would turn it off.
void WallTimer::set(std::optional<int64_t> moment) {
    itimerspec when = {};
    when.it_value.tv_sec = std::clamp<int64_t>(moment.value_or(far_away), 1, far_away);
    timerfd_settime(fd_.get(), TFD_TIMER_ABSTIME | TFD_TIMER_CANCEL_ON_SET, &when, nullptr);
}

void WallTimer::ring() {
    uint64_t count = 0;
    [[maybe_unused]] const ssize_t told = read(fd_.get(), &count, sizeof count); // ECANCELED: the clock was set
    on_time_();
}

} // namespace velia::server
