// Real daemons that have their jobs together in a real database: each start is made by one of them, whichever of them
// dies, and what one knows the others know.
#include <tests/system/postgres/jobs_on_postgres.h>

#include <gmock/gmock.h>

#include <cstdlib>
#include <random>

#include <unistd.h>

using namespace velia::system_test;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

namespace {

int wanted(int usual) {
    const char *text = getenv("VELIA_TEST_KILLS");
    return text != nullptr ? atoi(text) : usual;
}

} // namespace

TEST_F(JobsOnPostgres, OfThreeDaemonsOneMakesEachStart) {
    note_starts();
    start_all(3);
    make_jobs(4, "; sleep .7"); // more at once than one may run
    EXPECT_TRUE(eventually([&] { return number("SELECT count(*) FROM made") >= 20; }, patience_s));
    let_end();
    expect_each_start_once();
    EXPECT_GT(number("SELECT count(DISTINCT host) FROM made"), 1) << "all of them take part";
}

TEST_F(JobsOnPostgres, WhatOneDaemonMakesChangesAndDeletesTheOthersShow) {
    start_all(2);
    EXPECT_EQ(tool("alpha", "job create alpha nightly --task script --days 1 -- -c true").status, 0);
    EXPECT_TRUE(tells("beta", "job list beta", "nightly"));
    EXPECT_EQ(tool("beta", "job create beta nightly --task script --days 1").status, 1) << "the name is taken";
    NewJob changed("daily");
    EXPECT_EQ(
        with_job(1,
                 [&](sched_job_h_t job) { return sched_job_set_properties(handle, job, changed.record(), &err_mask); }),
        TBS_ST_OK);
    EXPECT_TRUE(tells("beta", "job list beta", "daily"));
    EXPECT_EQ(tool("beta", "job delete beta daily").status, 0);
    EXPECT_TRUE(eventually([&] { return !exists(1); }, patience_s));
    EXPECT_THAT(tool("alpha", "job history alpha --changes").output, HasSubstr("deleted"));
}

TEST_F(JobsOnPostgres, KilledAtRandomMomentsTheyMakeNoStartTwice) {
    constexpr int moment_max_us = 150000;
    note_starts();
    start_all(2);
    make_jobs(3);
    const int kills = wanted(20);
    std::mt19937 random(std::random_device{}());
    for (int i = 0; i < kills && !HasFatalFailure(); ++i) {
        usleep(static_cast<useconds_t>(random() % moment_max_us)); // any moment is as good
        const size_t victim = random() % 2;
        kill_daemon(victim);
        start(victim);
    }
    sched_free_handle(&handle);
    ASSERT_EQ(sched_get_handle("alpha", &handle), TBS_ST_OK);
    ASSERT_TRUE(serves("alpha"));
    let_end();
    expect_each_start_once();
    EXPECT_GT(number("SELECT count(*) FROM made"), 0);
    RecordProperty("seen", std::to_string(kills) + " kills, " + database.ask("SELECT count(*) FROM made") + " runs");
}

TEST_F(JobsOnPostgres, AJobThatRunsAnywhereIsNotStartedTwiceAndIsEndedFromAnywhere) {
    start_all(2);
    const auto id = create(NewJob("sleeps", {"-c", "sleep 600"}));
    ASSERT_EQ(run(id), TBS_ST_OK);
    EXPECT_EQ(tool("beta", "job run beta sleeps").status, 1);
    EXPECT_TRUE(tells("beta", "--output jsonl job list beta", "\"running_since\":\""));
    EXPECT_THAT(tool("beta", "job logs beta sleeps").output, HasSubstr("is at host alpha"));
    EXPECT_EQ(tool("beta", "job stop beta sleeps").status, 0);
    EXPECT_NE(ran(id).status, 0U);
    EXPECT_TRUE(tells("beta", "--output jsonl job list beta", "\"running_since\":null"));
}

// It is made long after the daemon has given up to ask after it.
TEST_F(JobsOnPostgres, AStartWhoseCommitIsNeverAnsweredIsMadeOnce) {
    constexpr int commit_s = 32;
    start_all(2);
    note_starts();
    database.run("CREATE SEQUENCE commits; CREATE FUNCTION wait() RETURNS trigger LANGUAGE plpgsql AS $$ BEGIN "
                 "IF nextval('commits') = 1 THEN PERFORM pg_sleep(" +
                 std::to_string(commit_s) +
                 "); END IF; RETURN NULL; END $$; "
                 "CREATE CONSTRAINT TRIGGER wait AFTER INSERT ON job_run DEFERRABLE INITIALLY DEFERRED FOR EACH ROW "
                 "EXECUTE FUNCTION wait()");
    const std::string script = "-- -c 'echo >>" + site.path("runs0") + "'";
    ASSERT_EQ(tool("alpha", "job create alpha once --task script --now " + script).status, 0);
    EXPECT_TRUE(eventually([&] { return lines(0) == 1; }, commit_s + patience_s)) << everything_said();
    EXPECT_TRUE(eventually([&] { return number("SELECT count(*) FROM job_run WHERE ended <> 0") == 1; }, patience_s));
    EXPECT_EQ(number("SELECT exit_status FROM job_run"), 0) << "what had not begun is begun, and not told ended";
    EXPECT_EQ(number("SELECT count(*) FROM made"), 1);
    EXPECT_EQ(lines(0), 1);
}

TEST_F(JobsOnPostgres, WhatFollowsAJobIsStartedOnceForEachOfItsRuns) {
    constexpr int rounds = 8;
    note_starts();
    start_all(2);
    const auto id = create(NewJob("first"));
    const auto follower = create(NewJob("second", {"-c", adds_line(0)}).after(id));
    ASSERT_TRUE(tells("beta", "job list beta", "second"));
    for (int round = 1; round <= rounds; ++round) {
        ASSERT_TRUE(eventually([&] { return run(id) == TBS_ST_OK; }, patience_s));
        ASSERT_TRUE(
            eventually([&] { return lines(0) >= round && number("SELECT count(*) FROM job_run WHERE ended = 0") == 0; },
                       patience_s))
            << everything_said();
    }
    const int changes = number("SELECT changes FROM scheduler");
    EXPECT_EQ(create(NewJob("last")) != 0, true);
    EXPECT_TRUE(tells("beta", "job list beta", "last")) << "both have heard of all";
    EXPECT_GT(number("SELECT changes FROM scheduler"), changes);
    EXPECT_TRUE(eventually([&] { return number("SELECT count(*) FROM job_run WHERE ended = 0") == 0; }, patience_s));
    EXPECT_EQ(number("SELECT count(*) FROM made WHERE job = " + std::to_string(follower)), rounds);
    EXPECT_EQ(lines(0), rounds);
}

TEST_F(JobsOnPostgres, AJobThatHasJustBegunAtAnotherDaemonIsNotDeletedWithoutForce) {
    constexpr int rounds = 10; // in most of them beta has not heard of the run
    start_all(2);
    const auto id = create(NewJob("sleeps", {"-c", "sleep 600"}));
    ASSERT_TRUE(tells("beta", "job list beta", "sleeps"));
    sched_h_t of_beta = nullptr;
    ASSERT_EQ(sched_get_handle("beta", &of_beta), TBS_ST_OK);
    const auto remove_at_beta = [&](tbs_boolean_t is_forced) {
        std::swap(handle, of_beta);
        const auto done = remove(id, is_forced);
        std::swap(handle, of_beta);
        return done;
    };
    for (int round = 0; round < rounds; ++round) {
        ASSERT_EQ(run(id), TBS_ST_OK);
        ASSERT_EQ(remove_at_beta(0), TBS_ST_TRY_AGAIN);
        ASSERT_TRUE(exists(id));
        const time_t started = running_since(id);
        ASSERT_NE(started, 0) << "its run goes on";
        ASSERT_EQ(terminate(id, started), TBS_ST_OK);
        ASSERT_TRUE(eventually([&] { return running_since(id) == 0; }, patience_s));
    }
    ASSERT_EQ(run(id), TBS_ST_OK);
    EXPECT_EQ(remove_at_beta(1), TBS_ST_OK);
    EXPECT_TRUE(eventually([&] { return !exists(id); }, patience_s));
    sched_free_handle(&of_beta);
}

// As with a host that was frozen: it comes back with what it knew.
// All daemons are silent then, and one of them is the first to be back.
// As where its daemon died just before it made the process.
TEST_F(JobsOnPostgres, WhoMayDoWhatIsSetForAll) {
    start_all(2);
    ASSERT_THAT(tool("beta", "acl show beta").output, Not(HasSubstr("run")));
    ASSERT_EQ(tool("alpha", "acl set alpha everyone=read,run").status, 0);
    EXPECT_TRUE(tells("beta", "acl show beta", "run"));
}

TEST_F(JobsOnPostgres, WhileTheDatabaseIsAwayJobsAreListedAndNothingIsLost) {
    note_starts();
    const auto id = create(NewJob("waits", {"-c", "while [ ! -e " + site.path("go") + " ]; do sleep .1; done; echo > " +
                                                      site.path("gone") + "; exit 3"}));
    make_jobs(1);
    ASSERT_EQ(run(id), TBS_ST_OK);
    ASSERT_TRUE(eventually([&] { return lines(0) > 0; }, patience_s));
    database.stop();
    EXPECT_EQ(create(NewJob("new")), 0U);
    EXPECT_EQ(status, TBS_ST_TRY_AGAIN);
    EXPECT_THAT(tool("alpha", "job list alpha").output, HasSubstr("waits"));
    site.write("go", "");
    EXPECT_TRUE(daemons[0]->says("database is away", patience_s));
    EXPECT_TRUE(eventually([&] { return std::filesystem::exists(site.path("gone")); }, patience_s));
    const time_t behind = time(nullptr) + 2;
    EXPECT_TRUE(eventually([&] { return time(nullptr) > behind; }, patience_s)) << "starts become due";
    EXPECT_NE(running_since(id), 0) << "its end is on no disk";
    database.start();
    EXPECT_EQ(ran(id).status, 3U);
    const int before = lines(0);
    EXPECT_TRUE(eventually([&] { return lines(0) > before + 1; }, patience_s)) << daemons[0]->output();
    let_end();
    ids = {ids[0]};
    EXPECT_EQ(number("SELECT count(*) - count(DISTINCT due) FROM made WHERE due <> 0"), 0);
    EXPECT_EQ(lines(0), number("SELECT count(*) FROM made WHERE job = " + std::to_string(ids[0])));
    EXPECT_EQ(daemons[0]->count("database is away"), 1U) << daemons[0]->output();
}

TEST_F(JobsOnPostgres, ADaemonThatStartsWithoutItsDatabaseServesJobsWhenThatComes) {
    const auto id = create(NewJob("kept"));
    sched_free_handle(&handle);
    daemons[0]->signal(SIGTERM);
    daemons[0]->wait();
    database.stop();
    start(0);
    EXPECT_NE(tool("alpha", "job list alpha").status, 0);
    database.start();
    EXPECT_TRUE(tells("alpha", "job list alpha", "kept")) << daemons[0]->output();
    EXPECT_NE(id, 0U);
}

TEST_F(JobsOnPostgres, ASecondDaemonOfAHostsNameKeepsTheFirstFromAll) {
    note_starts();
    make_jobs(1);
    database.run("UPDATE job_daemon SET generation = generation + 1");
    EXPECT_TRUE(daemons[0]->says("another daemon serves the jobs under the name of this host", patience_s));
    const int before = number("SELECT count(*) FROM made");
    EXPECT_EQ(create(NewJob("new")) != 0, true) << "changes are not what it is kept from";
    EXPECT_EQ(run(ids[0]), TBS_ST_TRY_AGAIN);
    EXPECT_EQ(number("SELECT count(*) FROM made"), before);
    EXPECT_EQ(daemons[0]->count("another daemon serves"), 1U);
}

TEST_F(JobsOnPostgres, TheDefaultScheduleIsMadeOnceByAll) {
    site.write("schedule.def", "Job.Begin\nJob.Name: nightly\nJob.Schedule.Daily.Frequency: 1\n"
                               "Job.Schedule.StartDate: 2100-01-01\nJob.Task: 1\nJob.End\n");
    configure("option schedule " + site.path("schedule.def") + "\n");
    start_all(3);
    for (const std::string host : {"beta", "gamma"})
        EXPECT_TRUE(tells(host, "job list " + host, "nightly"));
    EXPECT_EQ(number("SELECT count(*) FROM job"), 1);
    EXPECT_EQ(tool("beta", "job delete beta nightly").status, 0);
    kill_daemon(2);
    start(2);
    ASSERT_TRUE(serves("gamma"));
    EXPECT_THAT(tool("gamma", "job list gamma").output, Not(HasSubstr("nightly"))) << "it was deleted";
}

TEST_F(JobsOnPostgres, JobsMoveIntoTheDatabaseAndBack) {
    const auto move = [&](const std::string &to) {
        return run_apart(site, {RVZD_SERVER, "--config", site.path("rvzd_server.conf"), "--move-jobs", to});
    };
    const auto end = [&] {
        daemons[0]->signal(SIGTERM);
        ASSERT_EQ(daemons[0]->wait(patience_s), 0);
    };
    end();
    site.configure(std::string(trusted_hosts) + tasks);
    start(0);
    const auto id = create(NewJob("nightly", {"-c", "exit 3"}));
    ASSERT_EQ(run(id), TBS_ST_OK);
    ASSERT_EQ(ran(id).status, 3U);
    EXPECT_NE(move(database.conninfo()).status, 0) << "a daemon runs";
    end();
    EXPECT_NE(move("sqlite").status, 0) << "there they are";
    configure("");
    start(0);
    EXPECT_TRUE(daemons[0]->says("1 jobs in", patience_s)) << "they are not served";
    end();
    site.configure(std::string(trusted_hosts) + tasks);
    database.run("INSERT INTO job_daemon (host, generation, seen, boot) VALUES ('beta', 1, now(), '')");
    const Outcome refused_there = move(database.conninfo());
    EXPECT_NE(refused_there.status, 0);
    EXPECT_THAT(refused_there.output + refused_there.errors, HasSubstr("the daemon of host beta told"));
    EXPECT_EQ(number("SELECT count(*) FROM job"), 0);
    EXPECT_TRUE(std::filesystem::exists(site.path("host/priv/scheduler.db"))) << "it is served from there as before";
    database.run("DELETE FROM job_daemon WHERE host = 'beta'");
    const Outcome there = move(database.conninfo());
    ASSERT_EQ(there.status, 0) << there.errors;
    EXPECT_THAT(there.output, HasSubstr("1 jobs and 1 runs are in postgresql"));
    configure("");
    start(0);
    EXPECT_EQ(last_run(id).status, 3U);
    EXPECT_EQ(daemons[0]->count("are not served"), 0U);
    EXPECT_GT(create(NewJob("new")), id);
    ASSERT_EQ(run(id), TBS_ST_OK);
    end();
    EXPECT_NE(move("postgresql").status, 0);
    database.run("INSERT INTO job_daemon (host, generation, seen, boot) VALUES ('beta', 1, now(), '')");
    const Outcome refused = move("sqlite");
    EXPECT_NE(refused.status, 0);
    EXPECT_THAT(refused.output + refused.errors, HasSubstr("the daemon of host beta told"));
    EXPECT_EQ(number("SELECT count(*) FROM job"), 2);
    database.run("UPDATE job_daemon SET seen = now() - interval '6 seconds' WHERE host = 'beta'"); // take-over is 5
    const Outcome back = move("sqlite");
    ASSERT_EQ(back.status, 0) << back.errors;
    EXPECT_THAT(back.output, HasSubstr("2 jobs and"));
    EXPECT_EQ(number("SELECT count(*) FROM job"), 0) << "another daemon would run them once more";
    site.configure(std::string(trusted_hosts) + tasks);
    start(0);
    EXPECT_TRUE(exists(id));
    EXPECT_TRUE(eventually([&] { return last_run(id).status == 3 && running_since(id) == 0; }, patience_s));
}

TEST_F(JobsOnPostgres, HostsOfJobsAreToldPieceByPiece) {
    start_all(2);
    ASSERT_EQ(tool("alpha", "job create alpha bound --task script --host beta --days 1").status, 0);
    const auto idle = create(NewJob("idle"));
    const auto ended = create(NewJob("ended"));
    const auto waits = job_that_waits();
    ASSERT_EQ(run(ended), TBS_ST_OK);
    ASSERT_EQ(ran(ended).status, 0U);
    ASSERT_EQ(run(waits), TBS_ST_OK);
    const auto hosts_behind = [&](sched_job_id_t after, uint32_t count_max) {
        uint32_t count = 0;
        sched_job_host_t *found = nullptr;
        EXPECT_EQ(sched_get_job_hosts(handle, after, count_max, &count, &found), TBS_ST_OK);
        std::vector<std::string> all;
        for (uint32_t i = 0; i < count; ++i)
            all.push_back(std::to_string(found[i].job_id) + ":" + found[i].host + ":" + found[i].run_host);
        sched_free_job_hosts(handle, count, &found);
        return all;
    };
    const sched_job_id_t bound = idle - 1;
    const std::string of_bound = std::to_string(bound) + ":beta:";
    const std::string of_ended = std::to_string(ended) + "::alpha";
    const std::string of_waits = std::to_string(waits) + "::alpha";
    EXPECT_THAT(hosts_behind(0, 10), ElementsAre(of_bound, of_ended, of_waits)) << "not of one that ran nowhere";
    EXPECT_THAT(hosts_behind(0, 1), ElementsAre(of_bound));
    EXPECT_THAT(hosts_behind(bound, 1), ElementsAre(of_ended));
    EXPECT_THAT(hosts_behind(ended, 10), ElementsAre(of_waits));
    EXPECT_THAT(hosts_behind(waits, 10), IsEmpty());
    site.write("go", "");
}

TEST_F(JobsOnPostgres, AJobThatHasToRunAtAHostRunsThereAndWaitsForIt) {
    note_starts();
    start_all(2);
    const std::string script = "-- -c 'echo >>" + site.path("runs0") + "'";
    const Outcome made = tool("alpha", "job create alpha bound --task script --host beta --days 1 " + script);
    ASSERT_EQ(made.status, 0) << made.output;
    EXPECT_TRUE(eventually([&] { return lines(0) == 1; }, patience_s)) << everything_said();
    EXPECT_EQ(database.ask("SELECT DISTINCT host FROM made"), "beta");
    EXPECT_EQ(number("SELECT count(*) FROM job_change"), 1) << "it was made in one step, with its host";
    EXPECT_THAT(tool("alpha", "--output jsonl job list alpha --hosts").output, HasSubstr("\"host\":\"beta\""));
    EXPECT_TRUE(tells("alpha", "--output jsonl job show alpha bound", "\"run_host\":\"beta\""));
    EXPECT_EQ(tool("alpha", "job run alpha bound").status, 1) << "it is run by hand there";
    kill_daemon(1);
    NewJob each_second("bound", {"-c", adds_line(0)});
    each_second.every_second();
    EXPECT_EQ(with_job(1,
                       [&](sched_job_h_t job) {
                           return sched_job_set_properties(handle, job, each_second.record(), &err_mask);
                       }),
              TBS_ST_OK);
    EXPECT_TRUE(daemons[0]->says("waits for a daemon of host beta", patience_s)) << daemons[0]->output();
    EXPECT_EQ(lines(0), 1);
    EXPECT_EQ(tool("alpha", "job edit alpha bound --host any").status, 0);
    EXPECT_TRUE(eventually([&] { return lines(0) > 2; }, patience_s)) << daemons[0]->output();
    EXPECT_EQ(daemons[0]->count("waits for a daemon of host beta"), 1U);
    EXPECT_EQ(database.ask("SELECT count(*) - count(DISTINCT due) FROM made WHERE due <> 0"), "0");
    EXPECT_EQ(tool("alpha", "job edit alpha none --host beta").status, 1);
}
