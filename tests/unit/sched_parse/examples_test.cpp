// The files that people are shown are read, and say what they say they do.
#include <tests/unit/sched_parse/fixture.h>

namespace {

const std::string examples = DEFINITION_EXAMPLES "/";

using DefinitionExamples = DefinitionTest;

TEST_F(DefinitionExamples, OfJobsAreRead) {
    uint32_t task = 1;
    answer(row::sched_task_name_to_id, sched_task_id_reply_t{TBS_ST_OK, &task});
    path = examples + "views.jobs";
    ASSERT_EQ(read_jobs(), TBS_ST_OK);
    EXPECT_EQ(told(), "");
    ASSERT_EQ(job_count, 4u);
    const int32_t kinds[] = {SCHED_KIND_WEEKLY, SCHED_KIND_MONTHLY, SCHED_KIND_DAILY, SCHED_KIND_SEQUENTIAL};
    for (size_t i = 0; i < std::size(kinds); ++i)
        EXPECT_EQ(jobs[i].rw.schedule.kind, kinds[i]) << jobs[i].rw.name;
    EXPECT_EQ(jobs[0].rw.arg_count, 3u);
    EXPECT_EQ(jobs[0].rw.notify_count, 2u);
    EXPECT_EQ(jobs[0].rw.schedule.u.weekly.common.start_times.last_start_time, 3u * 3600);
    EXPECT_EQ(jobs[1].rw.schedule.u.monthly.day.kind.ordinal, 5);
    EXPECT_EQ(jobs[2].rw.schedule.u.daily.common.lifetime.last_date, SCHED_DATE_NOW);
    EXPECT_TRUE(jobs[2].rw.delete_when_completed);
    EXPECT_STREQ(followed[3], jobs[0].rw.name);
}

TEST_F(DefinitionExamples, OfTasksAreRead) {
    ASSERT_EQ(sched_utl_parse_task_properties(scheduler, (examples + "views.tasks").c_str(), &task_count, &tasks),
              TBS_ST_OK);
    EXPECT_EQ(told(), "");
    ASSERT_EQ(task_count, 2u);
    EXPECT_STREQ(tasks[0].name, "clean views");
    EXPECT_STREQ(tasks[1].pathname, "/usr/lib/velia/report");
}

} // namespace
