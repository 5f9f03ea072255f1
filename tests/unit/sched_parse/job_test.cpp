// What a definition of a job may say, but for its schedule.
#include <tests/unit/sched_parse/fixture.h>

namespace {

class JobDefinition : public DefinitionTest {
protected:
    const sched_job_properties_t &read(const std::string &lines) {
        expect_read(job(lines));
        return jobs[0];
    }
    void expect_line_refused(const std::string &lines, const std::string &problem, int line = 0) {
        expect_refused(job(lines), syntax_error(first_own_line + line, problem));
    }
};

TEST_F(JobDefinition, TagsAreTriedInThisOrder) {
    const char *tags[] = {"Job.Predefined:",
                          "Job.Id:",
                          "Job.NextRunTime:",
                          "Job.RunningStatus.",
                          "Job.LastCompletionInfo.",
                          "Job.Created:",
                          "Job.LastModified:",
                          "Job.Name:",
                          "Job.Description.",
                          "Job.Schedule.",
                          "Job.Task:",
                          "Job.Args:",
                          "Job.RunCntl.",
                          "Job.DeleteWhenCompleted:",
                          "Job.NotifyInfo."};
    ASSERT_EQ(num_top_tag_actions, std::size(tags));
    for (size_t i = 0; i < std::size(tags); ++i)
        EXPECT_STREQ(top_tag_actions[i].tag, tags[i]);
    for (const int ignored : {2, 3, 5, 6})
        EXPECT_EQ(top_tag_actions[ignored].action, nullptr);
}

TEST_F(JobDefinition, LinesStandInAnyOrder) {
    expect_read("Job.Begin\nJob.Task: 7\nJob.DeleteWhenCompleted: TRUE\nJob.Schedule.Daily.Frequency: 1\n"
                "Job.Id: 5\nJob.Name: nightly\nJob.End\n");
    EXPECT_EQ(jobs[0].ro.job_id, 5u);
}

TEST_F(JobDefinition, WithNothingElseHasTheseProperties) {
    const auto &job = read("");
    EXPECT_STREQ(job.rw.name, "nightly");
    EXPECT_EQ(job.rw.description, nullptr);
    EXPECT_EQ(job.rw.task, 7u);
    EXPECT_EQ(job.rw.arg_count, 0u);
    EXPECT_EQ(job.rw.notify_count, 0u);
    EXPECT_EQ(job.rw.run_control.max_run_time, 0u);
    EXPECT_FALSE(job.rw.delete_when_completed);
    EXPECT_FALSE(job.ro.predefined);
    EXPECT_EQ(job.ro.job_id, 0u);
    EXPECT_EQ(followed[0], nullptr);
}

TEST_F(JobDefinition, NameIsRequired) {
    EXPECT_EQ(read_jobs("Job.Begin\nJob.Schedule.Daily.Frequency: 1\nJob.Task: 7\nJob.End\n"), TBS_ST_INVALID_ARG);
    EXPECT_EQ(told(), "Job name must not be nil.\n" + bad_jobs);
}

TEST_F(JobDefinition, TaskIsRequired) {
    EXPECT_EQ(read_jobs("Job.Begin\nJob.Name: nightly\nJob.Schedule.Daily.Frequency: 1\nJob.End\n"),
              TBS_ST_INVALID_ARG);
    EXPECT_EQ(told(), "\"nil\" task id.\n" + bad_jobs);
}

TEST_F(JobDefinition, LaterNameReplacesTheFormer) {
    EXPECT_STREQ(read("Job.Name: \"by day\"\n").rw.name, "by day");
}

TEST_F(JobDefinition, IdIsANumber) {
    EXPECT_EQ(read("Job.Id: \t17 \n").ro.job_id, 17u);
    EXPECT_EQ(read("Job.Id: 17th\n").ro.job_id, 17u);
    expect_refused(job("Job.Id: none\n"), "Not a job id string \"none\".\n");
    expect_refused(job("Job.Id:\n"), "Not a job id string \"\".\n");
}

TEST_F(JobDefinition, WhatPrintersAddIsIgnored) {
    read("Job.NextRunTime: <not yet known>\nJob.RunningStatus.ProcessId: 4\nJob.RunningStatus.Started: now\n"
         "Job.Created: x\nJob.LastModified:\nJob.LastModified: twice\n");
}

TEST_F(JobDefinition, RunControlIsReadAndSetsNothing) {
    EXPECT_EQ(read("Job.RunCntl.MaxRunTime: 60\n").rw.run_control.max_run_time, 0u);
    expect_line_refused("Job.RunControl.MaxRunTime: 60 sec\n", "Expected tag \"Job.RunControl.MaxRunTime:\".");
}

// ---- description ----

std::string description(const std::string &lines) {
    return "Job.Description.Begin:\n" + lines + "Job.Description.End:\n";
}

TEST_F(JobDefinition, DescriptionKeepsItsLinesAsTheyStand) {
    EXPECT_STREQ(read(description("  one\n\n# no comment\n\ttwo  \nJob.Name: within\n")).rw.description,
                 "  one\n\n# no comment\n\ttwo  \nJob.Name: within\n");
    EXPECT_STREQ(jobs[0].rw.name, "nightly");
    EXPECT_EQ(read(description("")).rw.description, nullptr);
}

TEST_F(JobDefinition, DescriptionGoesOnInAFurtherBlock) {
    EXPECT_STREQ(read(description("one\n") + "Job.Id: 4\n" + description("two\n")).rw.description, "one\ntwo\n");
}

TEST_F(JobDefinition, DescriptionEndsAtItsEndTagAndNothingElse) {
    EXPECT_STREQ(
        read("Job.Description.Begin: words\nthe Job.Description.End:\njob.description.END:ed\n").rw.description,
        "the Job.Description.End:\n");
}

TEST_F(JobDefinition, DescriptionHas254CharactersAtMost) {
    EXPECT_EQ(read(description(std::string(254, 'd') + "\n")).rw.description, std::string(254, 'd') + "\n");
    expect_line_refused(description(std::string(255, 'd') + "\n"), "Exceeded maximum job description size (256).", 1);
    read(description(std::string(100, 'd') + "\n" + std::string(153, 'd') + "\n"));
    expect_line_refused(description(std::string(100, 'd') + "\n" + std::string(154, 'd') + "\n"),
                        "Exceeded maximum job description size (256).", 2);
}

TEST_F(JobDefinition, DescriptionBeginsWithItsBegin) {
    expect_line_refused("Job.Description.End:\n", "Expected tag \"Job.Description.Begin:\".");
    expect_line_refused("Job.Description.Text: x\n", "Expected tag \"Job.Description.Begin:\".");
    expect_refused("Job.Begin\nJob.Description.Begin:\nx\n", syntax_error(3, "Unexpected EOF."));
}

// ---- task ----

TEST_F(JobDefinition, TaskByItsNameIsLookedUp) {
    uint32_t id = 23;
    answer(row::sched_task_name_to_id, sched_task_id_reply_t{TBS_ST_OK, &id});
    expect_read("Job.Begin\nJob.Name: nightly\nJob.Schedule.Daily.Frequency: 1\nJob.Task: \"clean views\"\nJob.End\n");
    EXPECT_EQ(jobs[0].rw.task, 23u);
    auto request = last_request(row::sched_task_name_to_id);
    EXPECT_STREQ(request.name, "clean views");
    release(row::sched_task_name_to_id, request);
}

TEST_F(JobDefinition, TaskThatBeginsWithADigitIsAnId) {
    expect_read("Job.Begin\nJob.Name: nightly\nJob.Schedule.Daily.Frequency: 1\nJob.Task: 7 zip\nJob.End\n");
    EXPECT_EQ(jobs[0].rw.task, 7u);
    EXPECT_TRUE(world.peer.calls.empty());
}

TEST_F(JobDefinition, TaskIsGivenOnce) {
    expect_line_refused("Job.Task: 8\n", "Conflict: Task was already specified.");
    expect_refused("Job.Begin\nJob.Task: build\nJob.Task: 8\n",
                   syntax_error(3, "Conflict: Task was already specified."));
    expect_refused("Job.Begin\nJob.Task: \"build\n", syntax_error(2, "Quoted string is missing a terminating quote."));
}

TEST_F(JobDefinition, NameOfATaskIsCutTo255Characters) {
    uint32_t id = 23;
    answer(row::sched_task_name_to_id, sched_task_id_reply_t{TBS_ST_OK, &id});
    expect_read("Job.Begin\nJob.Name: n\nJob.Schedule.Daily.Frequency: 1\nJob.Task: " + std::string(300, 't') +
                "\nJob.End\n");
    auto request = last_request(row::sched_task_name_to_id);
    EXPECT_EQ(request.name, std::string(255, 't'));
    release(row::sched_task_name_to_id, request);
}

// ---- arguments ----

TEST_F(JobDefinition, ArgumentsAreWords) {
    const auto &job = read("Job.Args: -all \"two words\" three\\ four ''\n");
    ASSERT_EQ(job.rw.arg_count, 4u);
    EXPECT_STREQ(job.rw.args[0], "-all");
    EXPECT_STREQ(job.rw.args[1], "two words");
    EXPECT_STREQ(job.rw.args[2], "three four");
    EXPECT_STREQ(job.rw.args[3], "");
}

TEST_F(JobDefinition, ArgumentsAreGivenOnceUnlessThereAreNone) {
    EXPECT_EQ(read("Job.Args:\nJob.Args:  \nJob.Args: one\n").rw.arg_count, 1u);
    expect_line_refused("Job.Args: one\nJob.Args: two\n", "Task argument list was already specified.", 1);
}

TEST_F(JobDefinition, MalformedArgumentsAreTold) {
    for (const char *value : {"\"open", "'open", "end\\"})
        expect_line_refused(std::string("Job.Args: ") + value + "\n", "Malformed task argument list.");
}

// ---- notifications ----

std::string notification(const std::string &events, const std::string &recipients, const std::string &by = "email") {
    return "Job.NotifyInfo.OnEvents: " + events + "\nJob.NotifyInfo.Using: " + by +
           "\nJob.NotifyInfo.Recipients: " + recipients + "\n";
}

TEST_F(JobDefinition, NotificationsKeepTheOrderOfTheFile) {
    const auto &job = read(notification("JobBegin,jobendfail", "anna, ben ,carl@example.com") + "Job.Id: 4\n" +
                           notification("0x40", "") + notification(" JobEndOK ", "dora"));
    ASSERT_EQ(job.rw.notify_count, 3u);
    const sched_notify_info_t *notify = job.rw.notify;
    EXPECT_EQ(notify[0].events, 0x12u);
    EXPECT_EQ(notify[0].delivery, 0x1u);
    ASSERT_EQ(notify[0].recipient_count, 3);
    EXPECT_STREQ(notify[0].recipients[0], "anna");
    EXPECT_STREQ(notify[0].recipients[1], " ben ") << "blanks within the list stay";
    EXPECT_STREQ(notify[0].recipients[2], "carl@example.com");
    EXPECT_EQ(notify[1].events, 0x40u);
    EXPECT_EQ(notify[1].recipient_count, 0);
    EXPECT_EQ(notify[1].recipients, nullptr);
    EXPECT_EQ(notify[2].events, 0x4u);
    EXPECT_STREQ(notify[2].recipients[0], "dora");
}

TEST_F(JobDefinition, LinesOfANotificationHaveTheirOrder) {
    expect_line_refused("Job.NotifyInfo.Using: email\n", "Expected tag \"Job.NotifyInfo.OnEvents:\".");
    expect_line_refused("Job.NotifyInfo.OnEvents: JobBegin\nJob.NotifyInfo.Recipients: anna\n",
                        "Expected tag \"Job.NotifyInfo.Using:\".", 1);
    expect_line_refused("Job.NotifyInfo.OnEvents: JobBegin\n# between\nJob.NotifyInfo.Using: email\nJob.End\n",
                        "Expected tag \"Job.NotifyInfo.Recipients:\".", 3);
}

TEST_F(JobDefinition, MasksOfANotificationNameSomething) {
    for (const char *events : {"", "<none>", "JobBegan", "JobBegin,JobBegan"})
        expect_line_refused(notification(events, "anna"),
                            std::string("Illegal notify event mask string \"") + events + "\".");
    for (const char *by : {"", "<none>", "pigeon"})
        expect_line_refused(notification("JobBegin", "anna", by),
                            std::string("Illegal notify delivery mask string \"") + by + "\".", 1);
}

TEST_F(JobDefinition, MaskThatNoNotificationMayHaveFailsInTheChecks) {
    expect_refused(job(notification("0x400", "anna")), "Illegal notify event mask specification \"1024\".\n",
                   TBS_ST_INVALID_ARG);
}

TEST_F(JobDefinition, NotificationsAndRecipientsMayBeMany) {
    std::string lines;
    for (int i = 0; i < 40; ++i)
        lines += notification("JobBegin", "a,b,c,d,e,f,g,h,i,j,k,l,m,n,o,p,q");
    const auto &job = read(lines);
    ASSERT_EQ(job.rw.notify_count, 40u);
    for (uint32_t i = 0; i < 40; ++i) {
        ASSERT_EQ(job.rw.notify[i].recipient_count, 17);
        EXPECT_STREQ(job.rw.notify[i].recipients[16], "q");
    }
}

// ---- what is told of the last run ----

const std::string run_that_ended = "Job.LastCompletionInfo.ProcessId: 4\nJob.LastCompletionInfo.Started: x\n"
                                   "Job.LastCompletionInfo.Ended: y\nJob.LastCompletionInfo.ExitStatus: 0x0\n";

TEST_F(JobDefinition, LastRunIsReadAndDropped) {
    read(run_that_ended + "Job.Id: 4\n");
    EXPECT_EQ(jobs[0].ro.job_id, 4u) << "the line behind it is read as any other";
    EXPECT_EQ(jobs[0].ro.last_completion.started, 0);
    read(run_that_ended + "Job.LastCompletionInfo.Messages.Begin:\n# Job.End\n\nJob.Id: 5\n"
                          "Job.LastCompletionInfo.Messages.End:\nJob.DeleteWhenCompleted: TRUE\n");
    EXPECT_EQ(jobs[0].ro.job_id, 0u);
    EXPECT_TRUE(jobs[0].rw.delete_when_completed);
}

TEST_F(JobDefinition, LinesOfTheLastRunHaveTheirOrder) {
    expect_line_refused("Job.LastCompletionInfo.Started: x\n", "Expected tag \"Job.LastCompletionInfo.ProcessId:\".");
    expect_line_refused("Job.LastCompletionInfo.ProcessId: 4\nJob.LastCompletionInfo.Started: x\n",
                        "Expected tag \"Job.LastCompletionInfo.Ended:\".", 2);
    expect_refused("Job.Begin\n" + run_that_ended + "Job.LastCompletionInfo.Messages.Begin:\nx\n",
                   syntax_error(7, "Unexpected EOF."));
}

} // namespace
