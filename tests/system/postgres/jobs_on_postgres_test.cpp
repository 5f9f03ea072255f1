// Real daemons that have their jobs together in a real database: each start is made by one of them, whichever of them
// dies, and what one knows the others know.
#include <gmock/gmock.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <random>
#include <thread>

#include <unistd.h>

#include <tests/postgres/server.h>
#include <tests/system/scheduler/scheduler_fixture.h>

using namespace velia::system_test;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

namespace {

constexpr double patience_s = 40;

int wanted(int usual) {
    const char *text = getenv("VELIA_TEST_KILLS");
    return text != nullptr ? atoi(text) : usual;
}

struct JobsOnPostgres : SchedulerFixture {
    velia::postgres_test::Server database;
    std::array<std::unique_ptr<Daemon>, 3> daemons;
    static constexpr std::array hosts = {"alpha", "beta", "gamma"};

    void SetUp() override {
        site.write("config/hosts.conf", "alpha 127.0.0.1\nbeta 127.0.0.2\ngamma 127.0.0.3\n");
        for (const std::string host : {"beta", "gamma"}) {
            for (const char *directory : {"/host/config", "/host/priv", "/host/data", "/log"})
                std::filesystem::create_directories(site.path(host + directory));
            std::filesystem::create_directory_symlink(site.path("config"), site.path(host + "/config"));
        }
        configure("");
        start(0);
        ASSERT_EQ(sched_get_handle("alpha", &handle), TBS_ST_OK);
        ASSERT_TRUE(serves("alpha"));
    }

    void configure(const std::string &more, int take_over_s = 5) const {
        site.configure(std::string(trusted_hosts) + tasks + "option jobs 3\noption take-over " +
                       std::to_string(take_over_s) + "\n" + more + "option store postgresql \"" + database.conninfo() +
                       "\"\n");
    }
    void start(size_t host) {
        Child::Options options;
        if (host != 0)
            options.environment = {"VELIA_ROOT=" + site.path(hosts.at(host)),
                                   std::string("VELIA_HOSTNAME=") + hosts.at(host)};
        daemons.at(host).reset();
        daemons.at(host) = std::make_unique<Daemon>(
            site, std::vector<std::string>{"--listen", "127.0.0." + std::to_string(host + 1)}, options);
        ASSERT_TRUE(daemons.at(host)->is_ready()) << daemons.at(host)->output();
    }
    void restart_with(int take_over_s) {
        sched_free_handle(&handle);
        kill_daemon(0);
        configure("", take_over_s);
        start(0);
        ASSERT_EQ(sched_get_handle("alpha", &handle), TBS_ST_OK);
        ASSERT_TRUE(serves("alpha"));
    }
    void start_all(size_t count) {
        for (size_t host = 1; host < count; ++host) {
            start(host);
            ASSERT_TRUE(serves(hosts.at(host)));
        }
    }
    void kill_daemon(size_t host) {
        daemons.at(host)->signal(SIGKILL);
        daemons.at(host)->wait();
    }

    // As somebody who is at that host.
    Outcome tool(const std::string &host, const std::string &words) const {
        std::vector<std::string> all = {"/bin/sh", "-c", std::string(VELIACTL) + " " + words + " 2>&1"};
        const std::string root = host == "alpha" ? site.root().string() : site.path(host);
        return run_apart(site, all, {"VELIA_ROOT=" + root, "VELIA_HOSTNAME=" + host});
    }
    bool tells(const std::string &host, const std::string &words, const std::string &part) const {
        return eventually([&] { return tool(host, words).output.find(part) != std::string::npos; }, patience_s);
    }
    bool serves(const std::string &host) const {
        return eventually([&] { return tool(host, "job list " + host).status == 0; }, patience_s);
    }

    // Each start that was written down, also of runs that are kept no more; what did not begin is taken back.
    void note_starts() const {
        database.run("CREATE TABLE made (job bigint, started bigint, due bigint, host text); "
                     "CREATE FUNCTION note() RETURNS trigger LANGUAGE plpgsql AS $$ BEGIN IF TG_OP = 'INSERT' THEN "
                     "INSERT INTO made VALUES (NEW.job, NEW.started, NEW.due, convert_from(NEW.host, 'UTF8')); "
                     "ELSIF OLD.ended = 0 THEN DELETE FROM made WHERE job = OLD.job AND started = OLD.started; END IF; "
                     "RETURN NULL; END $$; "
                     "CREATE TRIGGER note AFTER INSERT OR DELETE ON job_run FOR EACH ROW EXECUTE FUNCTION note()");
    }
    sched_job_id_t job_that_waits() {
        return create(NewJob("waits", {"-c", "while [ ! -e " + site.path("go") + " ]; do sleep .1; done; exit 3"}));
    }
    int status_of(sched_job_id_t id) const {
        return number("SELECT exit_status FROM job_run WHERE ended <> 0 AND job = " + std::to_string(id));
    }

    int number(const std::string &sql) const { return atoi(database.ask(sql).c_str()); }

    std::string adds_line(int job) const { return "echo >>" + site.path("runs" + std::to_string(job)); }
    int lines(int job) const {
        const std::string text = site.read("runs" + std::to_string(job));
        return static_cast<int>(std::count(text.begin(), text.end(), '\n'));
    }

    std::vector<sched_job_id_t> ids;
    void make_jobs(int count, const std::string &more = "") {
        for (int i = 0; i < count; ++i)
            ids.push_back(create(NewJob("job " + std::to_string(i), {"-c", adds_line(i) + more}).every_second()));
    }
    // Nothing is due any more, and nothing runs.
    void let_end() {
        for (size_t i = 0; i < ids.size(); ++i) {
            NewJob idle("job " + std::to_string(i), {"-c", "true"});
            EXPECT_TRUE(eventually(
                [&] {
                    return with_job(ids[i], [&](sched_job_h_t job) {
                               return sched_job_set_properties(handle, job, idle.record(), &err_mask);
                           }) == TBS_ST_OK;
                },
                patience_s));
        }
        EXPECT_TRUE(
            eventually([&] { return number("SELECT count(*) FROM job_run WHERE ended = 0") == 0; }, patience_s));
    }
    void expect_each_start_once() {
        EXPECT_EQ(number("SELECT count(*) - count(DISTINCT (job, due)) FROM made"), 0) << "a start was made twice";
        for (size_t i = 0; i < ids.size(); ++i)
            EXPECT_EQ(lines(static_cast<int>(i)),
                      number("SELECT count(*) FROM made WHERE job = " + std::to_string(ids[i])));
    }
    std::string everything_said() const {
        std::string all;
        for (const auto &each : daemons)
            all += each != nullptr ? each->output() + "\n----\n" : "";
        return all;
    }
};

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

// As with a host that was frozen: it comes back with what it knew.
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

// All daemons are silent then, and one of them is the first to be back.
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
    database.run("CREATE FUNCTION wait() RETURNS trigger LANGUAGE plpgsql AS $$ BEGIN PERFORM pg_sleep(" +
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

// As where its daemon died just before it made the process.
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
