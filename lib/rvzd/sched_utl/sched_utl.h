// What the utilities share: how they print.
#pragma once

#include <support/imsg.h>
#include <veliaxdr/sched_messages.h>

namespace velia::sched_utl {

inline const char *text_or_empty(const char *text) {
    return text != nullptr ? text : "";
}

template <class... Arguments>
void print_message(int severity, int position, Arguments... arguments) {
    imsg_print(severity, &_sched_rvzd_msg_table, position, arguments...);
}

template <class... Arguments>
void print_line(const char *format, Arguments... arguments) {
    imsg_print(IMSG_PLAIN, format, IMSG_FORMAT, arguments...);
}

struct TimeOfDay {
    int hours;
    int minutes;
    int seconds;
};

// By signed arithmetic, so that a time that is not given shows as one below zero.
inline TimeOfDay time_of_day(uint32_t seconds_after_midnight) {
    constexpr int minute = 60;
    constexpr int hour = 60 * minute;
    const auto seconds = static_cast<int32_t>(seconds_after_midnight);
    return {seconds / hour, seconds % hour / minute, seconds % minute};
}

} // namespace velia::sched_utl
