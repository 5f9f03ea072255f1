/*
 * The scheduler subsystem's message table, for any program that prints from it through imsg_print. Many of its rows are
 * the scheduler service's.
 *
 *     imsg_print(IMSG_ERROR, &_sched_rvzd_msg_table, SCHED_MSG_CANNOT_CONNECT, host);
 *
 * Positions never move. A position at or above the table's count is a programming error.
 */
#ifndef VELIAXDR_SCHED_MESSAGES_H
#define VELIAXDR_SCHED_MESSAGES_H

#include <support/imsg.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

extern const imsg_table_t _sched_rvzd_msg_table;

/* Positions that the library's own code prints. */
enum {
    SCHED_MSG_NO_TASK_ID = 0,
    SCHED_MSG_NO_ACCESS_TO_CREATE = 1,
    SCHED_MSG_INVALID_JOB = 2,
    SCHED_MSG_CANNOT_RUN = 3,
    SCHED_MSG_CANNOT_GET_PROPERTIES = 4,
    SCHED_MSG_WAITING_FOR_START = 5,
    SCHED_MSG_JOB_FAILED = 6,
    SCHED_MSG_JOB_OUTPUT = 7,
    SCHED_MSG_JOB_IS_RUNNING = 8,
    SCHED_MSG_CANNOT_DELETE = 9,
    SCHED_MSG_JOB_COMPLETED = 10,
    SCHED_MSG_CANNOT_CONNECT = 11,
    SCHED_MSG_NO_JOB_ID_TEXT = 12,
    SCHED_MSG_NO_TASK_ID_TEXT = 13,
    SCHED_MSG_CANNOT_LOOK_UP_JOB = 54,
    SCHED_MSG_CANNOT_LOOK_UP_TASK = 55,
    SCHED_MSG_NOT_YET_KNOWN = 81,
    SCHED_MSG_SCHEDULE_COMPLETED = 82,
    SCHED_MSG_CANNOT_GENERATE_PROPERTY = 83,
    SCHED_MSG_PROBLEM_ARGS = 84,
    SCHED_MSG_PROBLEM_ARG = 85,
    SCHED_MSG_LAST_DATE = 86,
    SCHED_MSG_FIRST_START = 87,
    SCHED_MSG_LAST_START = 88,
    SCHED_MSG_RESTART_FREQUENCY = 89,
    SCHED_MSG_MONTHLY_FREQUENCY = 90,
    SCHED_MSG_DAY_NUMBER = 91,
    SCHED_MSG_DAY_ORDINAL = 92,
    SCHED_MSG_DAY_OF_WEEK_KIND = 93,
    SCHED_MSG_DAY_KIND = 94,
    SCHED_MSG_WEEKLY_FREQUENCY = 95,
    SCHED_MSG_DAYS_OF_WEEK = 96,
    SCHED_MSG_DAILY_FREQUENCY = 97,
    SCHED_MSG_NO_JOB_TO_FOLLOW = 98,
    SCHED_MSG_CANNOT_LOOK_UP_FOLLOWED = 99,
    SCHED_MSG_SCHEDULE_KIND = 100,
    SCHED_MSG_EVENT_MASK = 101,
    SCHED_MSG_DELIVERY_MASK = 102,
    SCHED_MSG_NIL_NAME = 103,
    SCHED_MSG_DUPLICATE_NAME = 104,
    SCHED_MSG_UNKNOWN_TASK = 105,
    SCHED_MSG_PREDEFINED_NAME = 106,
    SCHED_MSG_NIL_TASK = 107,
    SCHED_MSG_NOW = 139,
    SCHED_MSG_START_TIME_ORDER = 148,
    SCHED_MSG_NO_ACCESS_TO_READ = 149,
    SCHED_MSG_TOO_MANY_FAILURES = 150,
};

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
