// What the printers write, character by character.
#include <tests/unit/sched/fixture.h>
#include <tests/unit/sched/job.h>
#include <veliaxdr/sched_print.h>

using testing::HasSubstr;
using testing::Not;

namespace {

class Printing : public SchedulerTest {
protected:
    Printing() {
        setenv("TZ", "UTC", 1);
        tzset();
        job.ro.job_id = 17;
        job.ro.created = {Job::text("anna"), Job::text("extra"), Job::text("alpha"), 86400};
        job.ro.last_modified = {Job::text("ben"), nullptr, Job::text("beta"), 2 * 86400};
        job.ro.next_run_time = 3 * 86400;
        answer_task_name("build all");
    }

    // Four texts are made once and kept, and four of flags by the support layer; nothing else is.
    ~Printing() override {
        EXPECT_LE(world.live_blocks(), before.blocks + 8);
        before.blocks = world.live_blocks();
    }

    void answer_task_name(const char *name, tbs_status_t status_ = TBS_ST_OK) {
        answer(row::sched_task_id_to_name, sched_task_name_reply_t{status_, 0, const_cast<char *>(name)});
    }

    // All that was written at severity 0.
    std::string printed() {
        std::string text;
        for (const auto &each : world.take_messages())
            text += each.severity == IMSG_PLAIN ? each.text : "[" + std::to_string(each.severity) + "]" + each.text;
        return text;
    }
    std::string print_job() {
        job.rw = source.rw;
        status = sched_utl_print_job_props(scheduler, &job);
        return printed();
    }

    Job source;
    sched_job_properties_t job = {};
    tbs_status_t status = -1;
};

TEST_F(Printing, OfADailyJob) {
    EXPECT_EQ(print_job(), "Job.Begin\n"
                           "    # Job.Id: 17\n"
                           "    Job.Name: nightly\n"
                           "    Job.Schedule.Daily.Frequency: 1\n"
                           "    Job.Schedule.StartDate: <now>\n"
                           "    Job.Schedule.FirstStartTime: 01:00:00\n"
                           "    Job.Schedule.StartTimeRestartFrequency: 00:10:00\n"
                           "    Job.Schedule.LastStartTime: 02:00:00\n"
                           "    Job.DeleteWhenCompleted: FALSE\n"
                           "    # Job.Task: 7\n"
                           "    Job.Task: \"build all\"\n"
                           "    Job.Args: \n"
                           "    Job.Created: 1970-01-02 00:00:00 by anna@alpha\n"
                           "    Job.LastModified: 1970-01-03 00:00:00 by ben@beta\n"
                           "    Job.NextRunTime: 1970-01-04 00:00:00\n"
                           "Job.End\n");
    EXPECT_EQ(status, TBS_ST_OK);
    auto request = last_request(row::sched_task_id_to_name);
    EXPECT_EQ(request.size, 80u);
    release(row::sched_task_id_to_name, request);
}

TEST_F(Printing, OfAllThatAJobMayHave) {
    source.rw.name = Job::text("nightly build");
    source.rw.description = Job::text("one\ntwo");
    source.set_weekly().common = {{86400, 2 * 86400}, {SCHED_TIME_NOT_GIVEN, 0, 0}};
    source.rw.delete_when_completed = 1;
    source.rw.run_control.max_run_time = 90;
    source.add_args();
    source.add_notifications();
    job.ro.predefined = 1;
    job.ro.running_status = {Job::text("44"), 86400};
    job.ro.next_run_time = 0;
    job.ro.last_completion = {Job::text("43"), 86400, 2 * 86400, 255, Job::text("out\n")};
    EXPECT_EQ(print_job(), "Job.Begin\n"
                           "    # Job.Id: 17\n"
                           "    Job.Name: \"nightly build\"\n"
                           "    Job.Description.Begin:\n"
                           "one\ntwo\n"
                           "    Job.Description.End:\n"
                           "    Job.Schedule.Weekly.Frequency: 2\n"
                           "    Job.Schedule.Weekly.Days: Mon,Fri\n"
                           "    Job.Schedule.StartDate: 1970-01-02\n"
                           "    Job.Schedule.LastDate: 1970-01-03\n"
                           "    Job.Schedule.FirstStartTime: 00:00:-1\n"
                           "    Job.DeleteWhenCompleted: TRUE\n"
                           "Job.RunControl.MaxRunTime: 90 sec\n"
                           "    # Job.Task: 7\n"
                           "    Job.Task: \"build all\"\n"
                           "    Job.Args: -all \"two words\"\n"
                           "    Job.NotifyInfo.OnEvents: JobBegin,JobEndFail\n"
                           "    Job.NotifyInfo.Using: email\n"
                           "    Job.NotifyInfo.Recipients: anna,ben\n"
                           "    Job.NotifyInfo.OnEvents: JobModified\n"
                           "    Job.NotifyInfo.Using: email\n"
                           "    Job.NotifyInfo.Recipients: \n"
                           "    Job.Created: 1970-01-02 00:00:00 by anna@alpha\n"
                           "    Job.LastModified: 1970-01-03 00:00:00 by ben@beta\n"
                           "    Job.Predefined: TRUE\n"
                           "    Job.RunningStatus.ProcessId: 44\n"
                           "    Job.RunningStatus.Started: 1970-01-02 00:00:00\n"
                           "    Job.NextRunTime: <not yet known>\n"
                           "    Job.LastCompletionInfo.ProcessId: 43\n"
                           "    Job.LastCompletionInfo.Started: 1970-01-02 00:00:00\n"
                           "    Job.LastCompletionInfo.Ended: 1970-01-03 00:00:00\n"
                           "    Job.LastCompletionInfo.ExitStatus: 0xff\n"
                           "    Job.LastCompletionInfo.Messages.Begin:\n"
                           "out\n"
                           "    Job.LastCompletionInfo.Messages.End:\n"
                           "Job.End\n");
}

TEST_F(Printing, NameWithATabIsQuotedToo) {
    source.rw.name = Job::text("a\tb");
    EXPECT_THAT(print_job(), HasSubstr("    Job.Name: \"a\tb\"\n"));
    source.rw.name = nullptr;
    EXPECT_THAT(print_job(), HasSubstr("    Job.Name: \n"));
}

TEST_F(Printing, DescriptionThatEndsALineGetsNoFurtherOne) {
    source.rw.description = Job::text("one\n");
    EXPECT_THAT(print_job(), HasSubstr("    Job.Description.Begin:\none\n    Job.Description.End:\n"));
    source.rw.description = Job::text("");
    EXPECT_THAT(print_job(), Not(HasSubstr("Description")));
}

TEST_F(Printing, TextsArePrintedAsTheyStand) {
    source.rw.description = Job::text("100 %s\n");
    EXPECT_THAT(print_job(), HasSubstr("100 %s\n"));
}

TEST_F(Printing, OfMonthlyDays) {
    source.set_monthly_day(31);
    EXPECT_THAT(print_job(), HasSubstr("    Job.Schedule.Monthly.Frequency: 3\n"
                                       "    Job.Schedule.Monthly.Day: 31\n"
                                       "    Job.Schedule.StartDate: <now>\n"));
    source.set_monthly_kind(5, 10);
    EXPECT_THAT(print_job(), HasSubstr("    Job.Schedule.Monthly.Day: Last Day\n    Job.Schedule.StartDate"));
    source.set_monthly_kind(0, 0);
    EXPECT_THAT(print_job(), HasSubstr("Day: <uninitialized> <uninitialized>\n"));
    for (const auto &[ordinal, kind] : {std::pair(6, 11), std::pair(7, 12), std::pair(-1, -1)}) {
        source.set_monthly_kind(ordinal, kind);
        EXPECT_THAT(print_job(), HasSubstr("Day: <unrecognized> <unrecognized>\n")) << ordinal;
    }
}

TEST_F(Printing, OfAMonthlyDayThatThereIsNotSaysSoInPlaceOfTheRest) {
    source.set_monthly_day().day_spec_kind = 2;
    EXPECT_THAT(print_job(), HasSubstr("    Job.Schedule.Monthly.Frequency: 3\n"
                                       "Invalid day kind specification \"2\".\n"
                                       "    Job.DeleteWhenCompleted: FALSE\n"));
}

TEST_F(Printing, OfAScheduleThatThereIsNotSaysSo) {
    source.rw.schedule.kind = 9;
    EXPECT_THAT(print_job(), HasSubstr("    Job.Name: nightly\n"
                                       "Illegal schedule kind specification \"9\".\n"
                                       "    Job.DeleteWhenCompleted: FALSE\n"));
}

TEST_F(Printing, OfASequentialJobNamesTheOneItFollows) {
    sched_job_handle followed = {9};
    sched_job_h_t handle = &followed;
    Job other;
    sched_job_properties_t properties = {};
    properties.rw = other.rw;
    properties.rw.name = Job::text("first of all");
    answer(row::sched_job_lookup_by_id, sched_job_reply_t{TBS_ST_OK, &handle});
    answer(row::sched_job_get_properties, sched_properties_reply_t{TBS_ST_OK, &properties});
    source.set_sequential();
    job.ro.next_run_time = 0;
    const auto text = print_job();
    EXPECT_THAT(text, HasSubstr("    # Job.Schedule.Sequential.FollowsJob: 9\n"
                                "    Job.Schedule.Sequential.FollowsJob: \"first of all\"\n"
                                "    Job.DeleteWhenCompleted: FALSE\n"));
    EXPECT_THAT(text, Not(HasSubstr("NextRunTime")));
    job.ro.next_run_time = -1;
    EXPECT_THAT(print_job(), HasSubstr("    Job.NextRunTime: <schedule completed>\n"));
}

TEST_F(Printing, FollowedJobThatCannotBeLookedUpIsAMissingLine) {
    source.set_sequential();
    answer(row::sched_job_lookup_by_id, sched_job_reply_t{TBS_ST_NOT_FOUND, nullptr});
    EXPECT_THAT(print_job(), HasSubstr("    # Job.Schedule.Sequential.FollowsJob: 9\n    Job.DeleteWhenCompleted"));
    sched_job_handle followed = {9};
    sched_job_h_t handle = &followed;
    answer(row::sched_job_lookup_by_id, sched_job_reply_t{TBS_ST_OK, &handle});
    answer(row::sched_job_get_properties, sched_properties_reply_t{TBS_ST_NO_ACCESS, nullptr});
    EXPECT_THAT(print_job(), HasSubstr("    # Job.Schedule.Sequential.FollowsJob: 9\n    Job.DeleteWhenCompleted"));
    EXPECT_EQ(status, TBS_ST_OK);
}

TEST_F(Printing, TaskWhoseNameIsNotHadIsAMissingLine) {
    answer_task_name("", TBS_ST_NOT_FOUND);
    EXPECT_THAT(print_job(), HasSubstr("    # Job.Task: 7\n    Job.Args: \n"));
    EXPECT_EQ(status, TBS_ST_OK);
}

TEST_F(Printing, ArgumentsThatCannotStandOnALineAreToldOneByOneAndTheRestFollows) {
    source.add_args();
    source.args[1] = Job::text("two\nlines");
    const auto text = print_job();
    EXPECT_EQ(status, TBS_ST_ERROR);
    EXPECT_THAT(text, HasSubstr("    Job.Task: \"build all\"\n"
                                "[6]Unable to generate the \"Job.Args:\" property string.\n"
                                "[6]The problem args are:\n"
                                "arg[0]: \"-all\"\n"
                                "arg[1]: \"two\nlines\"\n"
                                "    Job.Created: "));
    EXPECT_THAT(text, HasSubstr("Job.End\n"));
}

TEST_F(Printing, OfOutcomesOfJobsAndOfRuns) {
    sched_job_completion_info_t info = {};
    EXPECT_EQ(sched_utl_print_completion_info(nullptr, 1, &info), TBS_ST_OK);
    EXPECT_EQ(printed(), "");
    info.started = 86400;
    sched_utl_print_completion_info(nullptr, 0, &info);
    EXPECT_EQ(printed(), "    RunningJob.CompletionInfo.ProcessId: \n"
                         "    RunningJob.CompletionInfo.Started: 1970-01-02 00:00:00\n");
    info = {Job::text("43"), 86400, 2 * 86400, 16, Job::text("text")};
    sched_utl_print_completion_info(nullptr, 0, &info);
    EXPECT_EQ(printed(), "    RunningJob.CompletionInfo.ProcessId: 43\n"
                         "    RunningJob.CompletionInfo.Started: 1970-01-02 00:00:00\n"
                         "    RunningJob.CompletionInfo.Ended: 1970-01-03 00:00:00\n"
                         "    RunningJob.CompletionInfo.ExitStatus: 0x10\n"
                         "    RunningJob.CompletionInfo.Messages.Begin:\n"
                         "text\n"
                         "    RunningJob.CompletionInfo.Messages.End:\n");
}

TEST_F(Printing, OfATask) {
    sched_task_properties_t task = {};
    task.task_id = 4000000000u;
    task.name = Job::text("build");
    task.pathname = Job::text("/opt/build all");
    task.run_as.user = CREDUTL_NO_ID;
    EXPECT_EQ(sched_utl_print_task_properties(&task), TBS_ST_OK);
    EXPECT_EQ(printed(), "Task.Begin\n"
                         "    Task.Id: 4000000000\n"
                         "    Task.Name: \"build\"\n"
                         "    Task.Pathname: \"/opt/build all\"\n"
                         "Task.End\n");
    task.ui.ui_info = Job::text("shown");
    task.run_as = {1000, 100, 1, {4}};
    sched_utl_print_task_properties(&task);
    EXPECT_THAT(printed(), HasSubstr("    Task.Pathname: \"/opt/build all\"\n"
                                     "    Task.UIInfo: \"shown\"\n"
                                     "    Task.RunAsCredentials: uid=1000 gid=100 groups=4\n"
                                     "Task.End\n"));
}

TEST_F(Printing, TimesOfTheNextRun) {
    EXPECT_STREQ(sched_utl_next_run_time_to_str(0), "<not yet known>");
    EXPECT_STREQ(sched_utl_next_run_time_to_str(-1), "<schedule completed>");
    EXPECT_STREQ(sched_utl_next_run_time_to_str(1), "1970-01-01 00:00:01");
    const size_t blocks = world.live_blocks();
    sched_utl_next_run_time_to_str(0);
    EXPECT_EQ(world.live_blocks(), blocks) << "made once";
}

TEST_F(Printing, TextsThatCannotBeKeptAreThereAllTheSame) {
    world.fail_allocation(1, sim::World::Failing::all_further);
    EXPECT_STREQ(sched_utl_next_run_time_to_str(0), "<not yet known>");
    EXPECT_STREQ(sched_utl_next_run_time_to_str(-1), "<schedule completed>");
    EXPECT_STREQ(sched_utl_www_to_str(nullptr, &job.ro.created), "<no memory>");
    world.fail_allocation(0);
}

TEST_F(Printing, WithoutABufferWhoAndWhereIsTraced) {
    world.verbosity = 1;
    world.traced = {"scheduler:1"};
    world.fail_allocation(1);
    EXPECT_STREQ(sched_utl_www_to_str(nullptr, &job.ro.created), "<no memory>");
    world.fail_allocation(0);
    EXPECT_EQ(printed(), "[8]sched_utl_www_to_str: no memory\n");
}

TEST_F(Printing, WhoAndWhereNeverGoBehindTheirBuffer) {
    const std::string longest(1 << 20, 'x');
    sched_www_info_t www = {const_cast<char *>(longest.c_str()), nullptr, Job::text("alpha"), 0};
    const char *text = sched_utl_www_to_str(nullptr, &www);
    EXPECT_EQ(strlen(text), 511u);
    EXPECT_EQ(sched_utl_www_to_str(nullptr, &job.ro.created), text) << "one buffer";
    EXPECT_STREQ(text, "1970-01-02 00:00:00 by anna@alpha");
    www = {};
    EXPECT_STREQ(sched_utl_www_to_str(nullptr, &www), "1970-01-01 00:00:00 by @");
}

} // namespace
