// What the files of the printers share.
#pragma once

#include <rvzd/sched_utl/sched_utl.h>
#include <veliaxdr/sched_wire.h>

namespace velia::sched_utl {

// What stands for a date of a schedule that means now. Not to be freed.
const char *now_text();

inline void print_tagged(const char *tag, const char *value) {
    print_line("    %s %s\n", tag, value);
}

inline void print_quoted(const char *tag, const char *value) {
    print_line("    %s \"%s\"\n", tag, value);
}

inline void print_number(const char *tag, uint32_t value) {
    print_line("    %s %u\n", tag, value);
}

inline void print_remark(const char *tag, const char *value) {
    print_line("    # %s %s\n", tag, value);
}

// A text of any number of lines between two tags; nothing for an empty one.
void print_block(const char *begin_tag, const char *text, const char *end_tag);

void print_schedule(sched_h_t handle, sched_schedule_t &schedule);

} // namespace velia::sched_utl
