#include "limits.h"

#include <algorithm>
#include <limits>

#include <support/ks.h>

#include "clock.h"

namespace velia::support::transport {

namespace {

constexpr int64_t never = std::numeric_limits<int64_t>::max();
constexpr int64_t longest_us = int64_t{366} * 24 * 3600 * us_per_s;

thread_local int64_t thread_limit = never;
thread_local int64_t patience_us = never; // never: the limit is not one of silence

int64_t limit_of(int64_t milliseconds) {
    return std::min(milliseconds, longest_us / us_per_ms) * us_per_ms;
}

} // namespace

int64_t duration_us(const timeval &time) {
    if (time.tv_sec < 0 || time.tv_usec < 0)
        return 0;
    if (time.tv_sec >= longest_us / us_per_s)
        return longest_us;
    return std::min<int64_t>(time.tv_sec * us_per_s + time.tv_usec, longest_us);
}

int64_t deadline_after(int64_t duration_us) {
    return std::min(now_us() + duration_us, thread_limit);
}

bool has_limit() {
    return thread_limit != never;
}

void note_answer() {
    if (patience_us != never)
        thread_limit = now_us() + patience_us;
}

} // namespace velia::support::transport

using namespace velia::support::transport;

void ks_set_deadline(int64_t milliseconds) {
    patience_us = never;
    thread_limit = milliseconds < 0 ? never : now_us() + limit_of(milliseconds);
}

void ks_set_patience(int64_t milliseconds) {
    ks_set_deadline(milliseconds);
    if (milliseconds >= 0)
        patience_us = limit_of(milliseconds);
}

int64_t ks_deadline_left(void) {
    if (thread_limit == never)
        return -1;
    const int64_t left_us = thread_limit - now_us();
    return left_us > 0 ? (left_us + us_per_ms - 1) / us_per_ms : 0;
}
