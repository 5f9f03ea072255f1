// A job as sites have them: a description, two arguments, a notification to one address.
#pragma once

#include <veliaxdr/sched_wire.h>

namespace bench {

inline char *text(const char *constant) {
    return const_cast<char *>(constant);
}

// It lends its texts; schedule and arguments are the caller's to change.
inline sched_job_rw_properties_t usual_job() {
    static char *args[] = {text("-all"), text("/var/storage/views/build7")};
    static char *recipients[] = {text("builders@example.com")};
    static sched_notify_info_t notification = {0x14, 0x1, 1, recipients};
    sched_job_rw_properties_t job = {};
    job.name = text("nightly cleaning of views");
    job.description = text("Removes what nobody has used for a week.\n");
    job.schedule.kind = SCHED_KIND_WEEKLY;
    job.schedule.u.weekly = {{{1700000000, 0}, {3600, 7200, 600}}, 1, 0x1f};
    job.task = 7;
    job.arg_count = 2;
    job.args = args;
    job.notify_count = 1;
    job.notify = &notification;
    return job;
}

} // namespace bench
