// Daemons that are silent: what the others make of the jobs that they have together, and what becomes of it.
#include <tests/system/postgres/jobs_on_postgres.h>

#include <gmock/gmock.h>

#include <stdexcept>
#include <thread>

using namespace velia::system_test;
using testing::HasSubstr;

TEST_F(JobsOnPostgres, WhereOneDaemonHasGoneTheOthersMakeItsStarts) {
    note_starts();
    start_all(2);
    make_jobs(1);
    ASSERT_TRUE(eventually([&] { return lines(0) > 1; }, patience_s));
    sched_free_handle(&handle);
    kill_daemon(0);
    const int before = lines(0);
    EXPECT_TRUE(eventually([&] { return lines(0) > before + 3; }, patience_s)) << daemons[1]->output();
    start(0);
    ASSERT_EQ(sched_get_handle("alpha", &handle), TBS_ST_OK);
    ASSERT_TRUE(serves("alpha"));
    let_end();
    expect_each_start_once();
}

TEST_F(JobsOnPostgres, ARunThatWasToEndWhileItsDaemonWasAwayEndsWhenThatComesBack) {
    start_all(2);
    const auto id = create(NewJob("sleeps", {"-c", "sleep 600"}));
    ASSERT_EQ(run(id), TBS_ST_OK);
    ASSERT_TRUE(tells("beta", "--output jsonl job list beta", "\"running_since\":\""));
    sched_free_handle(&handle);
    kill_daemon(0);
    ASSERT_EQ(tool("beta", "job stop beta sleeps").status, 0);
    start(0);
    ASSERT_EQ(sched_get_handle("alpha", &handle), TBS_ST_OK);
    ASSERT_TRUE(serves("alpha"));
    EXPECT_TRUE(eventually(
        [&] { return number("SELECT count(*) FROM job_run WHERE ended <> 0 AND exit_status NOT IN (0, 255)") == 1; },
        patience_s))
        << everything_said();
}

TEST_F(JobsOnPostgres, ADaemonThatWasSuspendedForLongerThanTakeOverMakesNoStartOnceMore) {
    note_starts();
    start_all(2);
    const auto id = job_that_waits();
    const auto by_hand = create(NewJob("by hand"));
    ASSERT_EQ(run(id), TBS_ST_OK);
    make_jobs(3, "; sleep .3");
    ASSERT_TRUE(eventually([&] { return lines(0) > 1 && lines(2) > 1; }, patience_s));
    daemons[0]->signal(SIGSTOP);
    EXPECT_TRUE(daemons[1]->says("the daemon of alpha is away", patience_s)) << daemons[1]->output();
    const int before = lines(0);
    EXPECT_TRUE(eventually([&] { return lines(0) > before + 2; }, patience_s)) << "beta makes them";
    daemons[0]->signal(SIGCONT);
    EXPECT_TRUE(eventually([&] { return run(by_hand) == TBS_ST_OK; }, patience_s)) << "it takes part again";
    site.write("go", "");
    EXPECT_TRUE(daemons[0]->says("Others have given up the run of job " + std::to_string(id), patience_s));
    EXPECT_TRUE(eventually([&] { return status_of(id) == 3; }, patience_s))
        << "the end of the run that was given up is told";
    EXPECT_TRUE(daemons[1]->says("whose end was not known has ended at host alpha: status 3", patience_s));
    let_end();
    expect_each_start_once();
}

TEST_F(JobsOnPostgres, NobodyIsGivenUpSinceTheDatabaseWasAway) {
    constexpr int take_over_s = 15;
    restart_with(take_over_s);
    start_all(2);
    const auto id = job_that_waits();
    ASSERT_EQ(run(id), TBS_ST_OK);
    ASSERT_TRUE(tells("beta", "--output jsonl job list beta", "\"running_since\":\""));
    database.stop();
    daemons[0]->signal(SIGSTOP);
    const time_t behind = time(nullptr) + take_over_s;
    EXPECT_TRUE(eventually([&] { return time(nullptr) > behind; }, patience_s));
    database.start();
    EXPECT_TRUE(eventually(
        [&] { return number("SELECT count(*) FROM job_daemon WHERE seen > now() - interval '5 seconds'") == 1; },
        patience_s))
        << "beta is back, and asks what is new";
    EXPECT_EQ(tool("beta", "job create beta new --task script --days 1").status, 0) << "it has taken what is new";
    daemons[0]->signal(SIGCONT);
    EXPECT_TRUE(eventually(
        [&] { return number("SELECT count(*) FROM job_daemon WHERE seen > now() - interval '5 seconds'") == 2; },
        patience_s));
    site.write("go", "");
    EXPECT_TRUE(eventually([&] { return status_of(id) == 3; }, patience_s)) << everything_said();
    EXPECT_EQ(daemons[1]->count("is away.\n"), 0U) << daemons[1]->output();
    EXPECT_EQ(daemons[0]->count("given up"), 0U);
}

TEST_F(JobsOnPostgres, ADaemonThatWaitsForTheDatabaseTellsThatItLives) {
    constexpr int change_s = 10;
    start_all(2);
    const auto id = job_that_waits();
    ASSERT_EQ(run(id), TBS_ST_OK);
    database.run(
        "CREATE FUNCTION wait() RETURNS trigger LANGUAGE plpgsql AS $$ BEGIN PERFORM pg_sleep(" +
        std::to_string(change_s) +
        "); RETURN NULL; END $$; CREATE TRIGGER wait AFTER INSERT ON job FOR EACH ROW EXECUTE FUNCTION wait()");
    std::thread creating([&] { tool("alpha", "job create alpha other --task script --days 1"); });
    const std::string waits = "(SELECT count(*) FROM pg_stat_activity WHERE wait_event = 'PgSleep') > 0";
    EXPECT_TRUE(eventually([&] { return database.ask("SELECT " + waits) == "t"; }, patience_s));
    const std::string then = database.ask("SELECT clock_timestamp() + interval '4 seconds'");
    EXPECT_TRUE(eventually(
        [&] {
            return database.ask("SELECT seen > '" + then + "' AND " + waits +
                                " FROM job_daemon WHERE host = 'alpha'") == "t";
        },
        patience_s));
    creating.join();
    site.write("go", "");
    EXPECT_TRUE(eventually([&] { return status_of(id) == 3; }, patience_s)) << everything_said();
    EXPECT_EQ(daemons[0]->count("given up"), 0U) << everything_said();
}

TEST_F(JobsOnPostgres, ALockOfSomebodyElsesThatKeepsADaemonFromItsJobsIsTold) {
    std::thread holding([&] {
        try {
            database.run("BEGIN; LOCK TABLE job_daemon; SELECT pg_sleep(60)");
        } catch (const std::runtime_error &) { // it is ended below
        }
    });
    EXPECT_TRUE(daemons[0]->says("a statement took longer than it may", patience_s)) << daemons[0]->output();
    database.run("SELECT pg_terminate_backend(pid) FROM pg_stat_activity WHERE wait_event = 'PgSleep'");
    holding.join();
    const auto id = create(NewJob("works again"));
    EXPECT_TRUE(eventually([&] { return run(id) == TBS_ST_OK; }, patience_s)) << daemons[0]->output();
}

TEST_F(JobsOnPostgres, ARunThatWasToEndBeforeItBeganIsNotMade) {
    const auto id = create(NewJob("first"));
    const auto follower = create(NewJob("second", {"-c", adds_line(0)}).after(id));
    sched_free_handle(&handle);
    kill_daemon(0);
    database.run("INSERT INTO job_run SELECT " + std::to_string(follower) +
                 ", 1000, changes, 0, 'alpha', 0, 0, '', '', 1 FROM scheduler");
    start(0);
    ASSERT_EQ(sched_get_handle("alpha", &handle), TBS_ST_OK);
    EXPECT_TRUE(eventually([&] { return status_of(follower) == 255; }, patience_s)) << daemons[0]->output();
    EXPECT_EQ(number("SELECT count(*) FROM job_owed"), 0);
    EXPECT_THAT(tool("alpha", "job history alpha second").output, HasSubstr("ended before it began"));
    ASSERT_TRUE(eventually([&] { return run(id) == TBS_ST_OK; }, patience_s));
    EXPECT_TRUE(eventually([&] { return lines(0) > 0; }, patience_s));
    EXPECT_EQ(lines(0), 1) << "that of the first, and none of before";
}

TEST_F(JobsOnPostgres, ARunWhoseDaemonStaysAwayIsToldEndedAndItsFollowersGoOn) {
    start_all(2);
    const auto id = create(NewJob("sleeps", {"-c", "sleep 600"}));
    create(NewJob("follows", {"-c", adds_line(0)}).after(id));
    ASSERT_EQ(run(id), TBS_ST_OK);
    ASSERT_TRUE(tells("beta", "job list beta", "follows"));
    sched_free_handle(&handle);
    kill_daemon(0);
    EXPECT_TRUE(daemons[1]->says("the daemon of alpha is away", patience_s)) << daemons[1]->output();
    EXPECT_TRUE(eventually([&] { return lines(0) == 1; }, patience_s)) << daemons[1]->output();
    EXPECT_EQ(number("SELECT exit_status FROM job_run WHERE job = " + std::to_string(id)), 255);
    start(0);
    ASSERT_EQ(sched_get_handle("alpha", &handle), TBS_ST_OK);
    ASSERT_TRUE(serves("alpha"));
    EXPECT_TRUE(eventually([&] { return terminate(id, last_run(id).started) == TBS_ST_OK; }, patience_s))
        << daemons[0]->output();
    EXPECT_TRUE(eventually(
        [&] { return number("SELECT exit_status FROM job_run WHERE job = " + std::to_string(id)) != 255; }, patience_s))
        << "the late end is told";
    EXPECT_EQ(lines(0), 1);
}
