#include <server/loop/line_rate.h>

#include <algorithm>
#include <utility>

#include <server/loop/handles.h>
#include <support/imsg.h>

namespace velia::server {

bool LineRate::take(int64_t now_ms, uint64_t &left_out) {
    const int64_t full_ms = std::max(full_ms_, now_ms) + ms_a_line;
    if (full_ms - now_ms > LINES_AT_ONCE * ms_a_line) {
        ++left_out_;
        return false;
    }
    full_ms_ = full_ms;
    left_out = std::exchange(left_out_, 0);
    return true;
}

bool may_tell_of_stranger() {
    static LineRate rate;
    uint64_t left_out = 0;
    if (!rate.take(monotonic_ms(), left_out))
        return false;
    if (left_out != 0)
        imsg_print(IMSG_WARNING, "%llu more messages about calls were left out.\n", IMSG_FORMAT,
                   static_cast<unsigned long long>(left_out));
    return true;
}

} // namespace velia::server
