// Runs of jobs: their output, their limits, their ends, and what becomes of them when the daemon goes.
#include <algorithm>
#include <cstring>
#include <ctime>
#include <set>

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "scheduler_fixture.h"

using namespace velia::system_test;

namespace {

struct SchedulerRuns : SchedulerFixture {
    NewJob script(const std::string &name, const std::string &text) { return NewJob(name, {"-c", text}); }
    struct Made {
        std::vector<int64_t> dues;
        size_t distinct_dues() const { return std::set<int64_t>(dues.begin(), dues.end()).size(); }
    };
    Made made_runs(sched_job_id_t id) const {
        Made made;
        sqlite3 *database = nullptr;
        sqlite3_open_v2(site.path("host/priv/scheduler.db").c_str(), &database, SQLITE_OPEN_READONLY, nullptr);
        const auto add = [](void *to, int, char **columns, char **) {
            static_cast<Made *>(to)->dues.push_back(atoll(columns[0]));
            return 0;
        };
        const std::string question = "SELECT due FROM run WHERE job = " + std::to_string(id);
        EXPECT_EQ(sqlite3_exec(database, question.c_str(), add, &made, nullptr), SQLITE_OK);
        sqlite3_close(database);
        return made;
    }
    size_t lines(const std::string &name) const {
        const std::string text = read(name);
        return static_cast<size_t>(std::count(text.begin(), text.end(), '\n'));
    }
};

bool is_alive(const std::string &pid_text) {
    const int pid = atoi(pid_text.c_str());
    return pid > 0 && kill(pid, 0) == 0;
}

} // namespace

TEST_F(SchedulerRuns, AJobForNowRunsAtOnceAndOnce) {
    const auto id = create(script("now", "echo ran; echo >>" + site.path("count")).now());
    ASSERT_NE(id, 0U);
    const Ran run = ran(id);
    EXPECT_EQ(run.status, 0U);
    EXPECT_EQ(run.messages, "ran\n");
    EXPECT_EQ(lines("count"), 1U);
    EXPECT_EQ(sched_utl_run_job_now("alpha", "script", "again", nullptr, 0), TBS_ST_OK);
}

TEST_F(SchedulerRuns, ExitStatusAndBothStreamsAreKept) {
    const auto id = create(script("fails", "echo out; echo err >&2; exit 3").now());
    const Ran run = ran(id);
    EXPECT_EQ(run.status, 3U);
    EXPECT_EQ(run.messages, "out\nerr\n");
    EXPECT_TRUE(daemon->says("Completed: FAILED (0x3) with messages"));
}

TEST_F(SchedulerRuns, OneThatASignalEndsHasItsNumber) {
    EXPECT_EQ(ran(create(script("killed", "kill -9 $$").now())).status, 128U + 9);
}

TEST_F(SchedulerRuns, AProgramThatIsMissingIsAFailedRun) {
    const Ran run = ran(create(NewJob("missing", {}, 2).now()));
    EXPECT_EQ(run.status, 127U);
    EXPECT_NE(run.messages.find("/no/such/program"), std::string::npos);
}

TEST_F(SchedulerRuns, ATaskThatThereIsNotIsAFailedRun) {
    EXPECT_EQ(ran(create(NewJob("no task", {}, 77).now())).status, 127U);
}

TEST_F(SchedulerRuns, OutputWithoutEndKeepsItsEndAndItsBound) {
    kill_daemon();
    restart(std::string(tasks) + "option job-output 1\n");
    const auto id = create(script("yes", "yes | head -c 5000000; echo the end").now());
    const Ran run = ran(id);
    EXPECT_EQ(run.messages.size(), 16384U);
    EXPECT_TRUE(run.messages.ends_with("the end\n"));
    struct stat file = {};
    const auto name = "host/priv/runs/" + std::to_string(id) + "." + std::to_string(run.started) + ".out";
    ASSERT_EQ(stat(site.path(name).c_str(), &file), 0);
    EXPECT_EQ(file.st_size, 1 << 20);
}

TEST_F(SchedulerRuns, ATimeLimitEndsTheWholeGroup) {
    NewJob job = script("long", "sleep 100 & echo $! >" + site.path("child") + "; wait").now();
    job.rw.run_control.max_run_time = 1;
    EXPECT_EQ(ran(create(job)).status, 128U + SIGTERM);
    EXPECT_FALSE(is_alive(read("child")));
}

TEST_F(SchedulerRuns, OneThatDoesNotHearTermIsKilled) {
    NewJob job = script("deaf", "trap '' TERM; while :; do sleep 0.1; done").now();
    job.rw.run_control.max_run_time = 1;
    EXPECT_EQ(ran(create(job)).status, 128U + SIGKILL);
}

TEST_F(SchedulerRuns, WhatAJobLeavesBehindIsEndedWithIt) {
    const std::string child = site.path("child");
    const auto id = create(script("leaves", "setsid sh -c 'echo $$ >" + child + "; exec sleep 100' & while [ ! -s " +
                                                child + " ]; do sleep 0.05; done; echo done")
                               .now());
    const Ran run = ran(id);
    EXPECT_EQ(run.status, 0U);
    EXPECT_EQ(run.messages, "done\n");
    EXPECT_FALSE(is_alive(read("child")));
}

TEST_F(SchedulerRuns, ARunMayBeEndedByHand) {
    const auto id = create(script("sleeps", "sleep 100"));
    time_t started = 0;
    ASSERT_EQ(run(id, &started), TBS_ST_OK);
    EXPECT_EQ(run(id), TBS_ST_ALREADY_EXISTS);
    EXPECT_EQ(running_since(id), started);
    EXPECT_EQ(terminate(id, started + 1), TBS_ST_NOT_FOUND);
    EXPECT_EQ(terminate(id, started), TBS_ST_OK);
    EXPECT_EQ(ran(id).status, 128U + SIGTERM);
    EXPECT_EQ(terminate(id, started), TBS_ST_NOT_FOUND);
}

TEST_F(SchedulerRuns, OfOneThatStillRunsNoOtherIsStarted) {
    const auto id = create(script("slow", "echo >>" + site.path("count") + "; sleep 100").every_second());
    EXPECT_TRUE(daemon->says("is still running -- skipping scheduled execution"));
    ASSERT_TRUE(eventually([&] { return running_since(id) != 0; })) << "it may be begun still";
    ASSERT_TRUE(eventually([&] { return lines("count") != 0; }));
    EXPECT_EQ(lines("count"), 1U);
    EXPECT_EQ(terminate(id, running_since(id)), TBS_ST_OK);
}

TEST_F(SchedulerRuns, StartsThatOneRunHoldsUpAreToldOnceAndCounted) {
    const auto id = create(
        script("slow", "echo >>" + site.path("count") + "; while [ ! -e " + site.path("go") + " ]; do sleep 0.05; done")
            .every_second());
    ASSERT_TRUE(daemon->says("is still running -- skipping scheduled execution"));
    ASSERT_TRUE(eventually([&] { return running_since(id) != 0; }));
    const time_t started = running_since(id);
    ASSERT_TRUE(eventually([&] { return time(nullptr) > started + 4; }));
    site.write("go", "");
    EXPECT_TRUE(daemon->says("duplicate \"Job still running\" messages suppressed for Job ID " + std::to_string(id)));
    const std::string output = daemon->output();
    const auto told = [&](const std::string &words) {
        size_t count = 0;
        for (auto at = output.find(words); at != std::string::npos; at = output.find(words, at + 1))
            ++count;
        return count;
    };
    EXPECT_LE(told("is still running -- skipping"), 2U) << "the second where it was being begun at the first";
    EXPECT_EQ(told("suppressed for Job ID"), 1U);
}

TEST_F(SchedulerRuns, NoMoreRunAtOnceThanMay) {
    kill_daemon();
    restart(std::string(tasks) + "option jobs 1\n");
    const auto first = create(script("first", "sleep 100"));
    ASSERT_EQ(run(first), TBS_ST_OK);
    const auto second = create(script("second", "echo second").now());
    EXPECT_EQ(run(create(script("third", "true"))), TBS_ST_TRY_AGAIN);
    EXPECT_EQ(running_since(second), 0);
    EXPECT_EQ(terminate(first, running_since(first)), TBS_ST_OK);
    EXPECT_EQ(ran(second).messages, "second\n");
}

TEST_F(SchedulerRuns, ASequentialJobFollowsHoweverTheOtherEnded) {
    const auto first = create(script("first", "exit 5"));
    const auto second = create(script("second", "echo second").after(first));
    ASSERT_NE(second, 0U);
    ASSERT_EQ(run(first), TBS_ST_OK);
    EXPECT_EQ(ran(second).messages, "second\n");
}

TEST_F(SchedulerRuns, AJobMayGoWithItsLastRun) {
    NewJob job = script("once", "echo >" + site.path("ran")).now();
    job.rw.delete_when_completed = 1;
    const auto id = create(job);
    EXPECT_TRUE(eventually([&] { return !exists(id); })) << daemon->output();
    EXPECT_EQ(read("ran"), "\n");
}

TEST_F(SchedulerRuns, TheProgramThatNotifiesHasSubjectRecipientsAndText) {
    const auto program = site.write("notify", "#!/bin/sh\n(echo \"$@\"; cat) >>" + site.path("told") + "\n");
    ASSERT_EQ(chmod(program.c_str(), 0755), 0);
    kill_daemon();
    restart(std::string(tasks) + "notify " + program + "\n");
    NewJob job = script("told", "echo oh; exit 4").now();
    char recipient[] = "anna";
    char *recipients[] = {recipient};
    sched_notify_info_t wanted = {0x10, 0x1, 1, recipients};
    job.rw.notify_count = 1;
    job.rw.notify = &wanted;
    const auto id = create(job);
    EXPECT_TRUE(eventually([&] { return read("told").ends_with("oh\n"); })) << read("told") << daemon->output();
    EXPECT_TRUE(read("told").starts_with("Job " + std::to_string(id) + " \"told\" ended with status 4 anna\n"))
        << read("told");
}

TEST_F(SchedulerRuns, ARunOutlivesItsDaemonAndItsEndIsFound) {
    const auto id =
        create(script("outlives", "while [ ! -e " + site.path("go") + " ]; do sleep 0.05; done; echo found; exit 7"));
    time_t started = 0;
    ASSERT_EQ(run(id, &started), TBS_ST_OK);
    kill_daemon();
    restart();
    EXPECT_EQ(running_since(id), started);
    EXPECT_EQ(run(id), TBS_ST_ALREADY_EXISTS);
    site.write("go", "");
    const Ran run = ran(id);
    EXPECT_EQ(run.started, started);
    EXPECT_EQ(run.status, 7U);
    EXPECT_EQ(run.messages, "found\n");
}

TEST_F(SchedulerRuns, AnEndWithoutADaemonIsFoundByTheNext) {
    const auto id = create(script("ends alone", "while [ ! -e " + site.path("go") + " ]; do sleep 0.05; done; exit 6"));
    time_t started = 0;
    ASSERT_EQ(run(id, &started), TBS_ST_OK);
    kill_daemon();
    site.write("go", "");
    const auto notes = "host/priv/runs/" + std::to_string(id) + "." + std::to_string(started) + ".run";
    ASSERT_TRUE(eventually([&] { return read(notes).find("ended ") != std::string::npos; }));
    restart();
    const Ran run = ran(id);
    EXPECT_EQ(run.status, 6U);
    EXPECT_EQ(run.started, started);
}

TEST_F(SchedulerRuns, AnAdoptedRunMayBeEndedByHand) {
    const auto id = create(script("adopted", "sleep 100"));
    time_t started = 0;
    ASSERT_EQ(run(id, &started), TBS_ST_OK);
    kill_daemon();
    restart();
    EXPECT_TRUE(eventually([&] { return terminate(id, started) == TBS_ST_OK; }));
    EXPECT_EQ(ran(id).status, 128U + SIGTERM);
}

TEST_F(SchedulerRuns, AKilledKeeperIsARunOfUnknownEnd) {
    const auto id = create(script("orphan", "echo $$ >" + site.path("pid") + "; sleep 100"));
    time_t started = 0;
    ASSERT_EQ(run(id, &started), TBS_ST_OK);
    ASSERT_TRUE(eventually([&] { return read("pid").ends_with("\n"); }));
    const auto notes = read("host/priv/runs/" + std::to_string(id) + "." + std::to_string(started) + ".run");
    kill(atoi(notes.c_str() + strlen("keeper ")), SIGKILL);
    const Ran run = ran(id);
    EXPECT_EQ(run.status, 255U);
    EXPECT_TRUE(eventually([&] { return !is_alive(read("pid")); }));
}

// As a daemon leaves it that is killed between writing a run down and making its process.
TEST_F(SchedulerRuns, ARunThatWasWrittenDownAndNotMadeIsMadeByTheNextDaemon) {
    const auto id = create(script("again", "echo >>" + site.path("count")).every_second());
    ASSERT_TRUE(eventually([&] { return lines("count") > 0; }));
    kill_daemon();
    const std::string number = std::to_string(id);
    const int64_t due = time(nullptr) - 2;
    change_database("DELETE FROM run WHERE job = " + number);
    change_database("UPDATE job SET considered = " + std::to_string(due + 100000) + " WHERE id = " + number);
    change_database("INSERT INTO run VALUES (" + number + ", 5, " + std::to_string(due) + ", 0, 0, x'', x'')");
    const size_t before = lines("count");
    restart();
    EXPECT_TRUE(eventually([&] { return lines("count") > before; })) << daemon->output();
}

TEST_F(SchedulerRuns, AStartBehindAnotherThatWasWrittenDownAndNotMadeIsMadeByTheNextDaemon) {
    const auto first = create(script("first", "true"));
    const auto second = create(script("second", "echo second").after(first));
    kill_daemon();
    change_database("INSERT INTO run VALUES (" + std::to_string(second) + ", 5, 0, 0, 0, x'', x'')");
    restart();
    EXPECT_EQ(ran(second).messages, "second\n");
}

TEST_F(SchedulerRuns, AStartBehindAnotherIsPassedOverForGoodWhileTheJobRuns) {
    const auto first = create(script("first", "true"));
    const auto second = create(script("second", "echo >>" + site.path("count") + "; while [ ! -e " + site.path("go") +
                                                    " ]; do sleep 0.05; done")
                                   .after(first));
    ASSERT_EQ(run(second), TBS_ST_OK);
    ASSERT_TRUE(eventually([&] { return lines("count") == 1; }));
    ASSERT_EQ(run(first), TBS_ST_OK);
    EXPECT_TRUE(daemon->says("is still running -- skipping scheduled execution"));
    site.write("go", "");
    ran(second);
    kill_daemon();
    restart();
    const auto third = create(script("third", "true"));
    ASSERT_EQ(run(third), TBS_ST_OK);
    ran(third); // what was owed would have begun before
    EXPECT_EQ(lines("count"), 1U);
}

// Its keeper has its file, and has not written yet who it is.
TEST_F(SchedulerRuns, OfAJobThatIsDeletedBeforeItsKeeperIsKnownTheRunIsEnded) {
    const auto id = create(script("deleted", "true"));
    kill_daemon();
    change_database("INSERT INTO run VALUES (" + std::to_string(id) + ", 5, 0, 0, 0, x'', x'')");
    const std::string notes = site.path("host/priv/runs/" + std::to_string(id) + ".5.run");
    const int file = open(notes.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, S_IRUSR | S_IWUSR);
    ASSERT_EQ(flock(file, LOCK_EX), 0);
    const pid_t keeper = fork();
    if (keeper == 0) {
        for (;;)
            pause();
    }
    restart();
    EXPECT_EQ(running_since(id), 5);
    EXPECT_EQ(remove(id, 1), TBS_ST_OK);
    const std::string line = "keeper " + std::to_string(keeper) + "\n";
    EXPECT_EQ(write(file, line.data(), line.size()), static_cast<ssize_t>(line.size()));
    int ended = 0;
    EXPECT_TRUE(eventually([&] { return waitpid(keeper, &ended, WNOHANG) == keeper; }, 30));
    EXPECT_TRUE(WIFSIGNALED(ended) && WTERMSIG(ended) == SIGTERM);
    close(file);
}

// The word of its process waits for no disk, and may have been lost with the power.
TEST_F(SchedulerRuns, ARunThatMayHaveBeenMadeBeforeTheHostWentDownIsNotMadeAgain) {
    const auto id = create(script("once", "echo >>" + site.path("count")));
    const std::string number = std::to_string(id);
    const auto begin = [&](int started) {
        change_database("INSERT INTO run VALUES (" + number + ", " + std::to_string(started) + ", " +
                        std::to_string(time(nullptr) - 2) + ", 0, 0, x'', x'')");
    };
    kill_daemon();
    begin(5);
    change_database("UPDATE setting SET value = 'of before' WHERE name = CAST('boot' AS BLOB)");
    restart();
    const Ran run = ran(id);
    EXPECT_EQ(run.started, 5);
    EXPECT_EQ(run.status, 255U);
    kill_daemon();
    begin(6);
    restart();
    EXPECT_EQ(last_run(id).started, 5) << "which is still the same start of the host";
    EXPECT_EQ(lines("count"), 0U);
}

TEST_F(SchedulerRuns, ARunWhoseKeeperWentWithItsDaemonEndsUnknown) {
    const auto id = create(script("gone", "true"));
    kill_daemon();
    const std::string number = std::to_string(id);
    change_database("INSERT INTO run VALUES (" + number + ", 5, 0, 0, 0, x'', x'')");
    site.write("host/priv/runs/" + number + ".5.run", "keeper 11\nprocess 12\n");
    restart();
    const Ran run = ran(id);
    EXPECT_EQ(run.started, 5);
    EXPECT_EQ(run.status, 255U);
    EXPECT_FALSE(run.messages.empty());
}

TEST_F(SchedulerRuns, OutputOfRunsThatAreForgottenGoes) {
    const auto id = create(script("gone", "echo out").now());
    const Ran run = ran(id);
    const auto output = "host/priv/runs/" + std::to_string(id) + "." + std::to_string(run.started) + ".out";
    EXPECT_EQ(read(output), "out\n");
    const auto notes = output.substr(0, output.rfind(".out")) + ".run";
    EXPECT_TRUE(eventually([&] { return read(notes).empty(); })) << "what is written down needs no notes";
    site.write("host/priv/runs/99.1.out", "of nobody");
    kill_daemon();
    restart();
    EXPECT_EQ(read(output), "out\n");
    EXPECT_EQ(read("host/priv/runs/99.1.out"), "");
    EXPECT_EQ(remove(id, 1), TBS_ST_OK);
    EXPECT_TRUE(eventually([&] { return read(output).empty(); }));
}

// The database has each run with the start for which it was made; the scripts leave a line each.
TEST_F(SchedulerRuns, KillsOfTheDaemonLoseNoJobAndRunNoneTwiceForOneTime) {
    std::vector<sched_job_id_t> ids;
    for (int i = 0; i < 3; ++i)
        ids.push_back(create(
            script("job " + std::to_string(i), "echo >>" + site.path("runs" + std::to_string(i))).every_second()));
    for (int i = 0; i < 5; ++i) {
        const size_t before = lines("runs0");
        EXPECT_TRUE(eventually([&] { return lines("runs0") > before; })) << daemon->output();
        kill_daemon();
        restart();
    }
    for (size_t i = 0; i < ids.size(); ++i) {
        EXPECT_TRUE(exists(ids[i]));
        NewJob idle = script("job " + std::to_string(i), "true");
        with_job(ids[i], [&](sched_job_h_t job) {
            EXPECT_EQ(sched_job_set_properties(handle, job, idle.record(), &err_mask), TBS_ST_OK);
            return 0;
        });
        ASSERT_TRUE(eventually([&] { return running_since(ids[i]) == 0; }));
        const Made made = made_runs(ids[i]);
        EXPECT_EQ(made.dues.size(), made.distinct_dues());
        EXPECT_EQ(lines("runs" + std::to_string(i)), made.dues.size());
    }
}
