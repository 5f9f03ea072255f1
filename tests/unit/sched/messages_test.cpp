// The scheduler's message table, against an independent list of its rows.
#include <set>

#include <gtest/gtest.h>

#include <tests/unit/sched/expected_messages.h>
#include <veliaxdr/sched_messages.h>

namespace {

TEST(SchedulerMessages, TableSaysWhatItIs) {
    EXPECT_STREQ(_sched_rvzd_msg_table.catalog_name, "rvzd_lib");
    EXPECT_STREQ(_sched_rvzd_msg_table.subsystem_name, "scheduler");
    EXPECT_EQ(_sched_rvzd_msg_table.set, 1);
    EXPECT_EQ(_sched_rvzd_msg_table.count, 151);
}

TEST(SchedulerMessages, EveryPositionHasItsTextAndTheNumberBehindIt) {
    ASSERT_EQ(std::size(expected_scheduler_rows), _sched_rvzd_msg_table.count);
    for (size_t position = 0; position < _sched_rvzd_msg_table.count; ++position) {
        EXPECT_EQ(expected_scheduler_rows[position].position, position);
        EXPECT_EQ(_sched_rvzd_msg_table.numbers[position], position + 1);
        EXPECT_STREQ(_sched_rvzd_msg_table.texts[position], expected_scheduler_rows[position].text) << position;
    }
}

TEST(SchedulerMessages, NamedPositionsAreThoseThatTheLibraryPrints) {
    const std::set<int> named = {SCHED_MSG_CANNOT_CONNECT,
                                 SCHED_MSG_NO_TASK_ID,
                                 SCHED_MSG_NO_ACCESS_TO_CREATE,
                                 SCHED_MSG_INVALID_JOB,
                                 SCHED_MSG_CANNOT_RUN,
                                 SCHED_MSG_CANNOT_GET_PROPERTIES,
                                 SCHED_MSG_WAITING_FOR_START,
                                 SCHED_MSG_JOB_FAILED,
                                 SCHED_MSG_JOB_OUTPUT,
                                 SCHED_MSG_JOB_IS_RUNNING,
                                 SCHED_MSG_CANNOT_DELETE,
                                 SCHED_MSG_JOB_COMPLETED,
                                 SCHED_MSG_NO_JOB_ID_TEXT,
                                 SCHED_MSG_NO_TASK_ID_TEXT,
                                 SCHED_MSG_CANNOT_LOOK_UP_JOB,
                                 SCHED_MSG_CANNOT_LOOK_UP_TASK,
                                 SCHED_MSG_NOT_YET_KNOWN,
                                 SCHED_MSG_SCHEDULE_COMPLETED,
                                 SCHED_MSG_CANNOT_GENERATE_PROPERTY,
                                 SCHED_MSG_PROBLEM_ARGS,
                                 SCHED_MSG_PROBLEM_ARG,
                                 SCHED_MSG_LAST_DATE,
                                 SCHED_MSG_FIRST_START,
                                 SCHED_MSG_LAST_START,
                                 SCHED_MSG_RESTART_FREQUENCY,
                                 SCHED_MSG_MONTHLY_FREQUENCY,
                                 SCHED_MSG_DAY_NUMBER,
                                 SCHED_MSG_DAY_ORDINAL,
                                 SCHED_MSG_DAY_OF_WEEK_KIND,
                                 SCHED_MSG_DAY_KIND,
                                 SCHED_MSG_WEEKLY_FREQUENCY,
                                 SCHED_MSG_DAYS_OF_WEEK,
                                 SCHED_MSG_DAILY_FREQUENCY,
                                 SCHED_MSG_NO_JOB_TO_FOLLOW,
                                 SCHED_MSG_CANNOT_LOOK_UP_FOLLOWED,
                                 SCHED_MSG_SCHEDULE_KIND,
                                 SCHED_MSG_EVENT_MASK,
                                 SCHED_MSG_DELIVERY_MASK,
                                 SCHED_MSG_NIL_NAME,
                                 SCHED_MSG_DUPLICATE_NAME,
                                 SCHED_MSG_UNKNOWN_TASK,
                                 SCHED_MSG_PREDEFINED_NAME,
                                 SCHED_MSG_NIL_TASK,
                                 SCHED_MSG_SYNTAX_ERROR,
                                 SCHED_MSG_MULTILEVEL_UNGET,
                                 SCHED_MSG_UNEXPECTED_EOF,
                                 SCHED_MSG_EXPECTED_TAG,
                                 SCHED_MSG_MISSING_DATE,
                                 SCHED_MSG_ILLEGAL_DATE,
                                 SCHED_MSG_ILLEGAL_TIME_OF_DAY,
                                 SCHED_MSG_ILLEGAL_NUMBER,
                                 SCHED_MSG_MISSING_BOOLEAN,
                                 SCHED_MSG_ILLEGAL_BOOLEAN,
                                 SCHED_MSG_CREDENTIALS_NOT_READ,
                                 SCHED_MSG_MISSING_QUOTE,
                                 SCHED_MSG_ARGS_TWICE,
                                 SCHED_MSG_MALFORMED_ARGS,
                                 SCHED_MSG_ILLEGAL_EVENTS,
                                 SCHED_MSG_ILLEGAL_DELIVERY,
                                 SCHED_MSG_DESCRIPTION_TOO_LONG,
                                 SCHED_MSG_ILLEGAL_DAY,
                                 SCHED_MSG_ILLEGAL_DAYS_OF_WEEK,
                                 SCHED_MSG_FOLLOWED_TWICE,
                                 SCHED_MSG_SCHEDULE_TWICE,
                                 SCHED_MSG_TASK_TWICE,
                                 SCHED_MSG_DUPLICATE_JOB_ID,
                                 SCHED_MSG_DUPLICATE_JOB_NAME,
                                 SCHED_MSG_PROBLEM_IN_JOBS,
                                 SCHED_MSG_ILLEGAL_TASK_ID,
                                 SCHED_MSG_DUPLICATE_TASK_ID,
                                 SCHED_MSG_DUPLICATE_TASK_NAME,
                                 SCHED_MSG_PROBLEM_IN_TASKS,
                                 SCHED_MSG_NOW,
                                 SCHED_MSG_START_TIME_ORDER,
                                 SCHED_MSG_NO_ACCESS_TO_READ,
                                 SCHED_MSG_TOO_MANY_FAILURES};
    std::set<int> printed;
    for (const auto &row : expected_scheduler_rows)
        if (row.printed_by_library)
            printed.insert(row.position);
    EXPECT_EQ(named, printed);
}

} // namespace
