// Positions in the scheduler's message table that only a scheduler prints.
#pragma once

#include <support/imsg.h>
#include <veliaxdr/sched_messages.h>

namespace velia::server {

enum SchedulerMessage : int {
    MSG_JOBS_OPEN_FAILED = 39,
    MSG_JOBS_LOADED = 66,
    MSG_JOBS_NOT_FUNCTIONAL = 67,
    MSG_JOB_STARTED = 77,
    MSG_JOB_NOT_RUN = 69,
    MSG_JOB_ENDED = 70,
    MSG_JOB_ENDED_WITH_MESSAGES = 71,
    MSG_JOB_FAILED = 72,
    MSG_JOB_FAILED_WITH_MESSAGES = 73,
    MSG_JOB_STILL_RUNNING = 76,
    MSG_JOB_PROBLEMS = 78,
    MSG_NOTIFICATION_FAILED = 44,
    MSG_JOB_STILL_RUNNING_SUPPRESSED = 145,
};

template <class... Arguments>
void print_scheduler(int severity, int position, Arguments... arguments) {
    imsg_print(severity, &_sched_rvzd_msg_table, position, arguments...);
}

} // namespace velia::server
