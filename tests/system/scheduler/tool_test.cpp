// veliactl against the scheduler of a real daemon.
#include "tool_fixture.h"

using namespace velia::system_test;

TEST_F(SchedulerTool, MakesAJobAndShowsIt) {
    EXPECT_EQ(json("job create alpha nightly --task script --days 1 --first 02:30 --time-limit 9 "
                   "--description 'two words' -- -c true"),
              "{\"action\":\"created\",\"id\":1,\"name\":\"nightly\"}\n");
    const std::string shown = json("job show alpha nightly");
    for (const char *part : {"\"id\":1", "\"name\":\"nightly\"", "\"description\":\"two words\"", "\"task\":1",
                             "\"arguments\":[\"-c\",\"true\"]", "\"time_limit_s\":9", "\"running_since\":null"})
        EXPECT_NE(shown.find(part), std::string::npos) << part << " in " << shown;
    EXPECT_EQ(json("job show alpha 1"), shown);
    EXPECT_NE(json("job list alpha").find("\"name\":\"nightly\""), std::string::npos);
}

TEST_F(SchedulerTool, ADryRunMakesNothing) {
    EXPECT_EQ(json("job create alpha dry --task script --days 1 --dry-run"),
              "{\"action\":\"would create\",\"id\":null,\"name\":\"dry\"}\n");
    EXPECT_EQ(tool("job show alpha dry").status, 1);
}

TEST_F(SchedulerTool, KindsOfSchedulesAreThoseOfTheScheduler) {
    for (const char *schedule : {"--weeks 2 --on Mon,Fri", "--months 1 --on 31", "--months 1 --on 'Last Weekday'",
                                 "--now", "--days 3 --first 08:00 --again 00:30 --until 12:00"})
        EXPECT_EQ(tool(std::string("job create alpha name --task script --dry-run ") + schedule).status, 0) << schedule;
    for (const char *schedule : {"--weeks 2", "--weeks 2 --on 31", "--months 1", "--months 1 --on 'Fifth Mon'",
                                 "--months 1 --on 'Last Holiday'", "--days 1 --on Mon", "--days 1 --first 25:00",
                                 "--days 1 --first 8", "", "--days 1 --now"})
        EXPECT_EQ(tool(std::string("job create alpha name --task script --dry-run ") + schedule).status, 2) << schedule;
    EXPECT_EQ(tool("job create alpha name --task script --months 1 --on 32").status, 1);
}

TEST_F(SchedulerTool, AJobMayFollowAnother) {
    create(NewJob("first"));
    EXPECT_EQ(tool("job create alpha second --task script --after first").status, 0);
    EXPECT_EQ(tool("job create alpha third --task script --after none").status, 1);
    EXPECT_EQ(tool("job create alpha fourth --task none --after first").status, 1);
}

TEST_F(SchedulerTool, ARunThatIsWaitedForGivesItsOutputAndItsStatus) {
    create(NewJob("fails", {"-c", "echo oh; exit 3"}));
    const Told told = tool("job run alpha fails --wait --output jsonl");
    EXPECT_EQ(told.status, 3);
    EXPECT_NE(told.text.find("oh\n"), std::string::npos);
    EXPECT_NE(told.text.find("\"status\":3"), std::string::npos);
    EXPECT_EQ(tool("job run alpha none --wait").status, 1);
}

TEST_F(SchedulerTool, StopsARunAndDeletesItsJob) {
    const auto id = create(NewJob("sleeps", {"-c", "sleep 100"}));
    EXPECT_EQ(tool("job stop alpha sleeps").status, 1);
    EXPECT_EQ(json("job run alpha sleeps --dry-run"),
              "{\"action\":\"would run\",\"id\":1,\"name\":\"sleeps\",\"started\":null,\"status\":null}\n");
    EXPECT_EQ(tool("job run alpha sleeps").status, 0);
    EXPECT_EQ(tool("job run alpha sleeps").status, 1);
    EXPECT_EQ(tool("job stop alpha sleeps --dry-run").status, 0);
    EXPECT_NE(running_since(id), 0);
    EXPECT_EQ(tool("job stop alpha sleeps").status, 0);
    EXPECT_EQ(ran(id).status, 128U + SIGTERM);
    EXPECT_EQ(tool("job delete alpha sleeps --dry-run").status, 0);
    EXPECT_TRUE(exists(id));
    EXPECT_EQ(tool("job delete alpha sleeps").status, 0);
    EXPECT_FALSE(exists(id));
}

TEST_F(SchedulerTool, TellsTheNextRunsWithTheirShifts) {
    NewJob job("next");
    job.rw.schedule.u.daily.common.lifetime = {4109918400 - 86400, 4109918400 + 2 * 86400}; // around 2100-03-28
    job.rw.schedule.u.daily.common.start_times = {9000, 9000, 0};
    create(job);
    const Told told = tool("job next alpha next 5 --zone Europe/Berlin --output jsonl");
    EXPECT_EQ(told.status, 0);
    EXPECT_NE(told.text.find("\"wall\":\"2100-03-28T03:00:00+02:00\",\"note\":\"moved\""), std::string::npos)
        << told.text;
    EXPECT_EQ(tool("job next alpha next --zone No/Such").status, 2);
}

TEST_F(SchedulerTool, TasksAndTheAccessListAreShown) {
    EXPECT_NE(json("task list alpha").find("{\"id\":2,\"name\":\"missing\",\"program\":\"/no/such/program\""),
              std::string::npos);
    EXPECT_EQ(json("acl show alpha"), "{\"kind\":\"everyone\",\"identity\":null,\"permissions\":[\"read\"]}\n");
    EXPECT_EQ(tool("acl set alpha user:root=read,run --dry-run").status, 0);
    EXPECT_NE(json("acl show alpha").find("everyone"), std::string::npos);
    const std::string both = "{\"kind\":\"user\",\"identity\":\"root\",\"permissions\":[\"read\",\"run\"]}\n"
                             "{\"kind\":\"group\",\"identity\":\"0\",\"permissions\":[\"change\"]}\n";
    EXPECT_EQ(json("acl set alpha user:root=read,run group:0=change"), both);
    EXPECT_EQ(json("acl show alpha"), both);
    EXPECT_EQ(tool("acl set alpha everyone=fly").status, 2);
    EXPECT_EQ(tool("acl set alpha nobody=read").status, 2);
    EXPECT_EQ(tool("acl set alpha user:no-such-user-at-all=read").status, 1);
}

TEST_F(SchedulerTool, WithoutASchedulerSaysSo) {
    kill_daemon();
    EXPECT_EQ(tool("job list alpha").status, 3);
    EXPECT_EQ(tool("acl show alpha").status, 3);
    EXPECT_EQ(tool("task list alpha").status, 3);
}
