// Several daemons on one set of jobs: each start is begun by one of them, and each learns what the others did.
#include <server/scheduler/shared_job_store.h>

#include <atomic>
#include <thread>

#include <unistd.h>

#include <server/registry/store.h>
#include <tests/postgres/server.h>
#include <tests/unit/job_store/job_store_fixture.h>
#include <tests/unit/store/dropping_relay.h>

using namespace velia::server;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

using Refusal = RunStep::Refusal;
using What = RunStep::What;

namespace {

constexpr uint32_t patience_s = 1000;

struct SharedJobStores : testing::Test {
    sched_job_id_t add(const std::string &name = "job", sched_job_id_t follows = 0) {
        return alpha->add(job_row(name, follows), change_row("created"));
    }
    static RunStep beginning(sched_job_id_t job, int64_t started, int64_t due) {
        return run_step(What::begin, run_row(job, started, due));
    }
    static Refusal take(SharedJobStore &store, RunStep &step) {
        record_in(store, {&step});
        EXPECT_EQ(step.is_done, step.refusal == Refusal::none);
        return step.refusal;
    }
    static Refusal begin(SharedJobStore &store, sched_job_id_t job, int64_t started, int64_t due) {
        RunStep step = beginning(job, started, due);
        return take(store, step);
    }
    static Refusal end(SharedJobStore &store, const RunRow &run, int64_t ended, uint32_t status = 0,
                       What what = What::end) {
        RunStep step = run_step(what, run);
        step.run.ended = ended;
        step.run.exit_status = status;
        return take(store, step);
    }
    void let_die(const std::string &host) const {
        run("UPDATE job_daemon SET seen = now() - interval '1 hour' WHERE host = '" + host + "'");
    }
    void run(const std::string &sql) const {
        velia::postgres_test::server().run("SET search_path = " + schema() + "; " + sql);
    }
    std::string schema() const {
        return conninfo.substr(conninfo.rfind('=') + 1, conninfo.rfind('\'') - conninfo.rfind('=') - 1);
    }

    const std::string conninfo = new_jobs_conninfo();
    std::unique_ptr<SharedJobStore> alpha = open_postgres_job_store(conninfo, "alpha");
    int64_t clock_ms = 1; // of beta
    std::unique_ptr<SharedJobStore> beta = open_postgres_job_store(conninfo, "beta", [this] { return clock_ms; });
    int64_t seen = beta->follow(-1, patience_s).number;

    // What beta hears when it has asked for so long.
    JobNews listen(int seconds, int step_s = 10) {
        JobNews found;
        for (int second = 0; second <= seconds; second += step_s) {
            clock_ms += step_s * 1000;
            found = beta->follow(seen, 60);
        }
        return found;
    }

    JobNews news() {
        JobNews found = beta->follow(seen, patience_s);
        seen = found.number;
        return found;
    }
};

std::vector<sched_job_id_t> ids_in(const JobNews &news) {
    std::vector<sched_job_id_t> ids;
    for (const auto &job : news.contents.jobs)
        ids.push_back(job.id);
    return ids;
}

} // namespace

TEST_F(SharedJobStores, OfTwoThatWantAStartOneHasIt) {
    const auto job = add();
    EXPECT_EQ(begin(*alpha, job, 100, 90), Refusal::none);
    EXPECT_EQ(begin(*beta, job, 100, 90), Refusal::taken);
    EXPECT_EQ(begin(*beta, job, 100, 89), Refusal::taken) << "an older start";
    EXPECT_THAT(beta->read().runs, SizeIs(1));
    EXPECT_EQ(beta->read().runs.at(0).host, "alpha");
}

TEST_F(SharedJobStores, OfManyDaemonsAtOnceOneHasEachStart) {
    constexpr int daemons = 4;
    constexpr int64_t starts = 15; // fewer than runs are kept
    const auto job = add();
    std::atomic<int> begun = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < daemons; ++i)
        threads.emplace_back([&, i] {
            const auto store = open_postgres_job_store(conninfo, "host" + std::to_string(i));
            for (int64_t due = 101; due <= 100 + starts; ++due) {
                RunStep step = beginning(job, due, due);
                RunStep behind = beginning(job, due, due);
                record_in(*store, {&step, &behind});
                EXPECT_FALSE(behind.is_done);
                if (!step.is_done)
                    continue;
                ++begun;
                end(*store, step.run, due);
            }
        });
    for (auto &thread : threads)
        thread.join();
    const JobContents left = alpha->read();
    EXPECT_THAT(left.runs, SizeIs(static_cast<size_t>(begun)));
    int64_t last = 0;
    for (const auto &each : left.runs) {
        EXPECT_GT(each.due, last) << "one start twice";
        last = each.due;
    }
    EXPECT_EQ(left.jobs.at(0).considered, 100 + starts) << "none is left, made or passed over";
}

TEST_F(SharedJobStores, AStartDuringARunIsPassedOverByOne) {
    const auto job = add();
    ASSERT_EQ(begin(*alpha, job, 100, 90), Refusal::none);
    EXPECT_EQ(begin(*beta, job, 101, 91), Refusal::running);
    EXPECT_EQ(begin(*alpha, job, 101, 91), Refusal::taken) << "it was passed over";
    EXPECT_EQ(begin(*beta, job, 101, 0), Refusal::running) << "by hand";
    EXPECT_EQ(alpha->read().jobs.at(0).considered, 91);
}

TEST_F(SharedJobStores, AStartThatIsTooOldIsPassedOverByOne) {
    const auto job = add();
    RunStep ours = run_step(What::pass_over, run_row(job, 0, 90));
    RunStep theirs = ours;
    RunStep older = run_step(What::pass_over, run_row(job, 0, 80));
    EXPECT_EQ(take(*alpha, ours), Refusal::none);
    EXPECT_EQ(take(*beta, theirs), Refusal::taken) << "it would be told twice";
    EXPECT_EQ(take(*beta, older), Refusal::taken);
    EXPECT_EQ(beta->read().jobs.at(0).considered, 90);
}

TEST_F(SharedJobStores, NumbersOfJobsThatHaveGoneAreNotGivenToThoseThatAreMovedInLater) {
    add("first");
    const auto last = add("last");
    alpha->clear();
    JobStock stock;
    stock.contents.jobs = {job_row("moved")};
    stock.contents.jobs[0].id = stock.last_number = 1;
    alpha->put_all(stock);
    EXPECT_GT(add(), last);
}

TEST_F(SharedJobStores, AStartIsPassedOverForARunOnlyIfThatGoesOn) {
    const auto job = add();
    ASSERT_EQ(begin(*alpha, job, 100, 90), Refusal::none);
    RunStep while_it_runs = run_step(What::pass_over_running, run_row(job, 0, 91));
    EXPECT_EQ(take(*beta, while_it_runs), Refusal::none);
    ASSERT_EQ(end(*alpha, run_row(job, 100, 90), 110), Refusal::none);
    RunStep behind_it = run_step(What::pass_over_running, run_row(job, 0, 92));
    EXPECT_EQ(take(*beta, behind_it), Refusal::taken);
    EXPECT_EQ(begin(*beta, job, 120, 92), Refusal::none);
}

TEST_F(SharedJobStores, AnOwedStartIsPassedOverForARunOnlyIfThatGoesOn) {
    const auto followed = add("first");
    const auto follower = add("second", followed);
    ASSERT_EQ(begin(*alpha, followed, 100, 90), Refusal::none);
    ASSERT_EQ(begin(*alpha, follower, 100, 0), Refusal::none);
    ASSERT_EQ(end(*alpha, run_row(follower, 100, 0), 105), Refusal::none);
    ASSERT_EQ(end(*alpha, run_row(followed, 100, 90), 110), Refusal::none);
    RunStep behind_it = run_step(What::pass_over_running, run_row(follower, 0, 0));
    EXPECT_EQ(take(*beta, behind_it), Refusal::taken);
    EXPECT_THAT(beta->read().owed, ElementsAre(follower));
    run("UPDATE job_run SET ended = 0 WHERE job = " + std::to_string(follower));
    RunStep during_it = beginning(follower, 120, 0);
    during_it.is_owed = true;
    EXPECT_EQ(take(*beta, during_it), Refusal::running);
    EXPECT_THAT(beta->read().owed, ElementsAre(follower)) << "nobody has been told yet that it is passed over";
    RunStep while_it_runs = run_step(What::pass_over_running, run_row(follower, 0, 0));
    EXPECT_EQ(take(*beta, while_it_runs), Refusal::none);
    EXPECT_THAT(beta->read().owed, IsEmpty());
}

TEST_F(SharedJobStores, NoTwoRunsOfAJobHaveOneMoment) {
    const auto job = add();
    ASSERT_EQ(begin(*alpha, job, 100, 90), Refusal::none);
    ASSERT_EQ(end(*alpha, run_row(job, 100, 90), 100), Refusal::none);
    RunStep next = beginning(job, 95, 95);
    ASSERT_EQ(take(*beta, next), Refusal::none);
    EXPECT_EQ(next.run.started, 101) << "also where one clock is behind";
}

TEST_F(SharedJobStores, AJobThatWasChangedIsNotBegunAsItWas) {
    const auto job = add();
    JobRow changed = job_row("other");
    changed.id = job;
    ASSERT_TRUE(alpha->change(changed, change_row("changed")));
    RunStep as_it_was = beginning(job, 100, 90);
    as_it_was.mark = mark_of(body_of("job"));
    EXPECT_EQ(take(*beta, as_it_was), Refusal::taken);
    RunStep as_it_is = beginning(job, 100, 90);
    as_it_is.mark = mark_of(changed.body);
    EXPECT_EQ(take(*beta, as_it_is), Refusal::none);
}

TEST_F(SharedJobStores, AJobThatWasDeletedIsNotBegun) {
    const auto job = add();
    ASSERT_TRUE(alpha->remove(job, change_row("deleted")));
    EXPECT_EQ(begin(*beta, job, 100, 90), Refusal::taken);
}

TEST_F(SharedJobStores, AJobThatRunsIsDeletedOnlyByWhoeverEndsItsRun) {
    const auto job = add();
    ASSERT_EQ(begin(*alpha, job, 100, 90), Refusal::none);
    EXPECT_THROW(beta->remove_idle(job, change_row("deleted")), StoreBusy);
    EXPECT_THAT(alpha->read().runs, SizeIs(1));
    EXPECT_THAT(alpha->changes(job, INT64_MAX, 9), SizeIs(1)) << "nothing was noted";
    ASSERT_EQ(end(*alpha, run_row(job, 100, 90), 110), Refusal::none);
    EXPECT_TRUE(beta->remove_idle(job, change_row("deleted")));
    EXPECT_FALSE(beta->remove_idle(job, change_row("deleted")));
    const auto other = add("other");
    ASSERT_EQ(begin(*alpha, other, 100, 90), Refusal::none);
    EXPECT_TRUE(beta->remove(other, change_row("deleted")));
}

TEST_F(SharedJobStores, AJobGoesWithItsRunOnlyIfNobodyHasChangedItMeanwhile) {
    JobRow row = job_row("job");
    row.id = add();
    const auto goes = [&](uint64_t mark, int64_t changed_start) {
        static int64_t started = 100;
        EXPECT_EQ(begin(*alpha, row.id, ++started, 0), Refusal::none);
        RunStep ending = run_step(What::end, run_row(row.id, started, 0));
        ending.run.ended = started;
        ending.removal = change_row("deleted");
        ending.mark = mark;
        ending.changed_start = changed_start;
        EXPECT_EQ(take(*alpha, ending), Refusal::none);
        EXPECT_EQ(alpha->read().jobs.empty(), ending.removal.has_value()) << "it is told whether it went";
        return ending.removal.has_value();
    };
    EXPECT_FALSE(goes(mark_of(body_of("former")), row.changed_start));
    EXPECT_FALSE(goes(mark_of(row.body), row.changed_start - 1)) << "its schedule was given anew";
    EXPECT_THAT(alpha->read().runs, SizeIs(2)) << "the run has ended all the same";
    EXPECT_TRUE(goes(mark_of(row.body), row.changed_start));
}

TEST_F(SharedJobStores, AJobStaysWhoseRunWasGivenUpBefore) {
    const auto job = add();
    ASSERT_EQ(begin(*alpha, job, 100, 90), Refusal::none);
    beta->follow(seen, 60);
    let_die("alpha");
    ASSERT_EQ(end(*beta, run_row(job, 100, 90), 150, 255, What::lose), Refusal::none);
    RunStep late = run_step(What::end, run_row(job, 100, 90));
    late.run.ended = 190;
    late.removal = change_row("deleted");
    EXPECT_EQ(take(*alpha, late), Refusal::none);
    EXPECT_FALSE(late.removal.has_value()) << "or its daemon alone would forget it";
    EXPECT_THAT(alpha->read().jobs, SizeIs(1));
}

TEST_F(SharedJobStores, WhatFollowsIsAskedOfTheDatabaseWhenARunHasEnded) {
    const auto job = add();
    const auto other = add("other");
    const auto follower = add("follower", job);
    JobRow turned_away = job_row("turned away", job);
    turned_away.id = beta->add(turned_away, change_row("created"));
    turned_away.body = body_of("turned away", other);
    ASSERT_TRUE(beta->change(turned_away, change_row("changed")));
    ASSERT_EQ(begin(*alpha, job, 100, 90), Refusal::none);
    RunStep ending = run_step(What::end, run_row(job, 100, 90));
    ending.run.ended = 110;
    ending.owed = {turned_away.id}; // as alpha, which has not heard of either, believes
    EXPECT_EQ(take(*alpha, ending), Refusal::none);
    EXPECT_THAT(ending.owed, ElementsAre(follower));
    EXPECT_THAT(alpha->read().owed, ElementsAre(follower));
}

TEST_F(SharedJobStores, AJobThatWasMovedInUnderTheNumberOfOneThatHasGoneMayGo) {
    const auto job = add();
    ASSERT_TRUE(alpha->remove(job, change_row("deleted")));
    news();
    JobStock stock;
    stock.contents.jobs = {job_row("moved")};
    stock.contents.jobs[0].id = job;
    stock.last_number = job;
    alpha->put_all(stock);
    EXPECT_THAT(ids_in(news()), ElementsAre(job));
    EXPECT_TRUE(beta->remove(job, change_row("deleted")));
    EXPECT_THAT(news().gone, ElementsAre(job));
}

TEST_F(SharedJobStores, RunsThatComeOutOfAFileAreThoseOfTheHostThatMovesThem) {
    JobStock stock;
    stock.contents.jobs = {job_row("moved")};
    stock.contents.jobs[0].id = 1;
    stock.contents.runs = {run_row(1, 100, 90)};
    alpha->put_all(stock);
    ASSERT_THAT(beta->read().runs, SizeIs(1));
    EXPECT_EQ(beta->read().runs[0].host, "alpha");
}

TEST_F(SharedJobStores, OverANewConnectionAllIsHeard) {
    const auto job = add();
    news();
    const auto cut = [&] {
        velia::postgres_test::server().run("SELECT pg_terminate_backend(pid) FROM pg_stat_activity WHERE pid <> "
                                           "pg_backend_pid() AND backend_type = 'client backend'");
    };
    run("DELETE FROM job"); // as on a server that has not all of what the former one had, and as many changes
    EXPECT_THAT(news().contents.jobs, IsEmpty());
    EXPECT_FALSE(news().is_all);
    cut();
    const JobNews found = news();
    EXPECT_TRUE(found.is_all);
    EXPECT_TRUE(found.has_contents);
    EXPECT_THAT(ids_in(found), IsEmpty()) << job;
    EXPECT_FALSE(news().is_all) << "once";
}

TEST_F(SharedJobStores, AChangeOfAJobThatAnotherHasChangedIsToBeTriedAgain) {
    JobRow changed = job_row("ours");
    changed.id = add();
    changed.replaces = mark_of(body_of("job"));
    JobRow theirs = changed;
    theirs.body = body_of("theirs");
    ASSERT_TRUE(beta->change(theirs, change_row("changed")));
    EXPECT_THROW(alpha->change(changed, change_row("changed")), StoreBusy);
    EXPECT_EQ(alpha->read().jobs.at(0).body, theirs.body);
    changed.replaces = mark_of(theirs.body);
    EXPECT_TRUE(alpha->change(changed, change_row("changed")));
}

TEST_F(SharedJobStores, TwoJobsDoNotGetOneName) {
    add("one");
    EXPECT_THROW(beta->add(job_row("one"), change_row("created")), StoreBusy);
    JobRow renamed = job_row("one");
    renamed.id = beta->add(job_row("two"), change_row("created"));
    EXPECT_THROW(beta->change(renamed, change_row("changed")), StoreBusy);
    EXPECT_THAT(alpha->read().jobs, SizeIs(2));
    renamed.body = body_of("two");
    EXPECT_TRUE(beta->change(renamed, change_row("changed"))) << "its own";
}

TEST_F(SharedJobStores, JobsDoNotComeToFollowThemselves) {
    const auto first = add("first");
    const auto second = add("second", first);
    JobRow round = job_row("first", second);
    round.id = first;
    EXPECT_THROW(beta->change(round, change_row("changed")), StoreBusy);
    EXPECT_EQ(alpha->read().jobs.at(0).body, body_of("first"));
}

TEST_F(SharedJobStores, WhatOneChangesTheOthersHear) {
    const auto job = add();
    const auto other = add("other");
    JobNews found = news();
    EXPECT_FALSE(found.is_all);
    EXPECT_THAT(ids_in(found), ElementsAre(job, other));
    EXPECT_THAT(ids_in(news()), IsEmpty());
    ASSERT_EQ(begin(*alpha, job, 100, 90), Refusal::none);
    found = news();
    EXPECT_THAT(ids_in(found), ElementsAre(job));
    ASSERT_THAT(found.contents.runs, SizeIs(1));
    EXPECT_EQ(found.contents.runs[0].started, 100);
    EXPECT_EQ(found.contents.runs[0].host, "alpha");
    ASSERT_EQ(end(*alpha, run_row(job, 100, 90), 110, 3), Refusal::none);
    found = news();
    EXPECT_THAT(ids_in(found), ElementsAre(job));
    EXPECT_EQ(found.contents.runs.at(0).exit_status, 3U);
    alpha->set_acl("list", change_row("access"));
    EXPECT_EQ(news().contents.acl, "list");
    ASSERT_TRUE(alpha->remove(other, change_row("deleted")));
    found = news();
    EXPECT_THAT(ids_in(found), IsEmpty());
    EXPECT_THAT(found.gone, ElementsAre(other));
}

TEST_F(SharedJobStores, OfAChangedJobTheRunThatGoesOnIsToldAgain) {
    JobRow changed = job_row("other");
    changed.id = add();
    ASSERT_EQ(begin(*alpha, changed.id, 100, 90), Refusal::none);
    news();
    ASSERT_TRUE(alpha->change(changed, change_row("changed")));
    EXPECT_THAT(news().contents.runs, SizeIs(1));
}

TEST_F(SharedJobStores, WhoeverIsFarBehindOrComesFromAnotherTimeHearsAll) {
    const auto job = add();
    const JobNews all = beta->follow(-1, patience_s);
    EXPECT_TRUE(all.is_all);
    EXPECT_THAT(ids_in(all), ElementsAre(job));
    EXPECT_TRUE(beta->follow(all.number + 1, patience_s).is_all) << "the database was put back";
    run("UPDATE scheduler SET changes = changes + 200000");
    EXPECT_TRUE(beta->follow(all.number, patience_s).is_all);
}

TEST_F(SharedJobStores, AnOwedStartIsMadeOnce) {
    const auto followed = add("first");
    const auto follower = add("second", followed);
    ASSERT_EQ(begin(*alpha, followed, 100, 90), Refusal::none);
    ASSERT_EQ(end(*alpha, run_row(followed, 100, 90), 110, 0), Refusal::none);
    EXPECT_THAT(news().contents.owed, ElementsAre(follower));
    RunStep ours = beginning(follower, 111, 0);
    ours.is_owed = true;
    RunStep theirs = ours;
    EXPECT_EQ(take(*beta, ours), Refusal::none);
    ASSERT_EQ(end(*beta, ours.run, 112), Refusal::none);
    EXPECT_EQ(take(*alpha, theirs), Refusal::taken) << "it has ended, and is owed no more";
}

TEST_F(SharedJobStores, ARunWhoseDaemonIsGoneIsToldEndedOnce) {
    const auto job = add();
    const auto follower = add("second", job);
    ASSERT_EQ(begin(*alpha, job, 100, 90), Refusal::none);
    EXPECT_THAT(listen(60).lost, IsEmpty());
    EXPECT_EQ(end(*beta, run_row(job, 100, 90), 150, 255, What::lose), Refusal::taken) << "it lives";
    let_die("alpha");
    const JobNews found = listen(0);
    ASSERT_THAT(found.lost, SizeIs(1));
    EXPECT_EQ(found.lost[0].started, 100);
    EXPECT_EQ(end(*beta, found.lost[0], 150, 255, What::lose), Refusal::none);
    EXPECT_EQ(end(*beta, found.lost[0], 160, 255, What::lose), Refusal::taken);
    EXPECT_THAT(beta->read().owed, ElementsAre(follower));
    EXPECT_EQ(beta->read().runs.at(0).ended, 150);
}

TEST_F(SharedJobStores, WhoeverWasAwayItselfGivesUpNobodyBeforeItHasListenedForLong) {
    ASSERT_EQ(begin(*alpha, add(), 100, 90), Refusal::none);
    let_die("alpha"); // as where nobody has reached the database
    EXPECT_THAT(listen(40).lost, IsEmpty());
    EXPECT_THAT(listen(0, 31).lost, IsEmpty()) << "it was away once more, for half of the time";
    EXPECT_THAT(listen(40).lost, IsEmpty());
    EXPECT_THAT(listen(0).lost, SizeIs(1));
}

TEST_F(SharedJobStores, ARunOfAHostThatNobodyKnowsIsToldEnded) {
    const auto job = add();
    ASSERT_EQ(begin(*alpha, job, 100, 90), Refusal::none);
    run("DELETE FROM job_daemon WHERE host = 'alpha'");
    ASSERT_THAT(listen(60).lost, SizeIs(1));
    EXPECT_EQ(end(*beta, run_row(job, 100, 90), 150, 255, What::lose), Refusal::none);
}

TEST_F(SharedJobStores, ADaemonWhoseNameTheDatabaseForgotTakesItAgain) {
    const auto job = add();
    const auto later = open_postgres_job_store(conninfo, "alpha");
    run("UPDATE job_daemon SET generation = 0 WHERE host = 'alpha'"); // as on a standby that had not got it
    later->follow(-1, patience_s);
    EXPECT_EQ(begin(*later, job, 100, 90), Refusal::none);
    EXPECT_THROW(alpha->follow(-1, patience_s), StoreError) << "the former one does not";
    run("DELETE FROM job_daemon");
    later->follow(-1, patience_s);
    EXPECT_EQ(end(*later, run_row(job, 100, 90), 110), Refusal::none);
    EXPECT_EQ(begin(*later, job, 120, 115), Refusal::none);
}

TEST_F(SharedJobStores, ADaemonTellsThatItLivesAlsoWhileItsStoreWaits) {
    const auto life_of_former = alpha->life();
    const auto later = open_postgres_job_store(conninfo, "alpha");
    const auto life = later->life();
    let_die("alpha");
    life_of_former();
    EXPECT_THAT(beta->others_heard(60), IsEmpty()) << "it is not the daemon of the name any more";
    life();
    EXPECT_THAT(beta->others_heard(60), SizeIs(1));
}

TEST_F(SharedJobStores, AnEndThatComesLateIsToldAndStartsNothing) {
    const auto job = add();
    RunStep following = beginning(add("second", job), 151, 0);
    following.is_owed = true;
    ASSERT_EQ(begin(*alpha, job, 100, 90), Refusal::none);
    beta->follow(seen, 60);
    let_die("alpha");
    ASSERT_EQ(end(*beta, run_row(job, 100, 90), 150, 255, What::lose), Refusal::none);
    ASSERT_EQ(take(*beta, following), Refusal::none);
    EXPECT_EQ(end(*alpha, run_row(job, 100, 90), 190, 0), Refusal::none);
    EXPECT_EQ(beta->read().runs.at(0).exit_status, 0U);
    EXPECT_EQ(beta->read().runs.at(0).ended, 190);
    EXPECT_THAT(beta->read().owed, IsEmpty());
}

TEST_F(SharedJobStores, AJobIsBegunAtTheHostThatHasToRunIt) {
    const auto job = add();
    news();
    ASSERT_TRUE(beta->set_host(job, "alpha", change_row("changed")));
    EXPECT_THAT(ids_in(news()), ElementsAre(job));
    EXPECT_FALSE(beta->set_host(job + 1, "alpha", change_row("changed")));
    EXPECT_EQ(alpha->read().jobs.at(0).host, "alpha");
    EXPECT_EQ(alpha->changes(job, INT64_MAX, 1).at(0).what, "changed");
    EXPECT_EQ(begin(*beta, job, 100, 90), Refusal::taken);
    JobRow changed = job_row("job");
    changed.id = job;
    ASSERT_TRUE(beta->change(changed, change_row("changed")));
    EXPECT_EQ(begin(*beta, job, 100, 90), Refusal::taken) << "a change of what it is leaves the host be";
    EXPECT_EQ(begin(*alpha, job, 100, 90), Refusal::none);
}

TEST_F(SharedJobStores, WhoeverLivesIsNotAway) {
    const auto job = add();
    ASSERT_TRUE(beta->set_host(job, "alpha", change_row("changed")));
    EXPECT_THAT(beta->follow(seen, 60).hosts_away, IsEmpty());
    let_die("alpha");
    EXPECT_THAT(beta->follow(seen, 60).hosts_away, ElementsAre("alpha"));
    alpha->follow(-1, 60);
    EXPECT_THAT(beta->follow(seen, 60).hosts_away, IsEmpty());
    ASSERT_TRUE(beta->set_host(job, "nobody", change_row("changed")));
    EXPECT_THAT(beta->follow(seen, 60).hosts_away, ElementsAre("nobody")) << "of which there never was a daemon";
}

TEST_F(SharedJobStores, WhoeverWasHeardOfLatelyIsToldToOthers) {
    const auto names = [](const std::vector<HostHeard> &hosts) {
        std::vector<std::string> all;
        for (const auto &each : hosts)
            all.push_back(each.host);
        return all;
    };
    run("UPDATE job_daemon SET seen = now() - interval '300 seconds' WHERE host = 'alpha'");
    EXPECT_THAT(names(alpha->others_heard(60)), ElementsAre("beta"));
    EXPECT_THAT(names(beta->others_heard(60)), IsEmpty());
    ASSERT_THAT(names(beta->others_heard(patience_s)), ElementsAre("alpha"));
    EXPECT_GE(beta->others_heard(patience_s)[0].seconds, 300);
    EXPECT_LT(beta->others_heard(patience_s)[0].seconds, 300 + patience_s);
}

TEST_F(SharedJobStores, JobsThatAreElsewhereAreTakenAwayFromAll) {
    const auto job = add();
    const auto other = add("other", job);
    ASSERT_EQ(begin(*alpha, job, 100, 90), Refusal::none);
    news();
    alpha->clear();
    EXPECT_THAT(news().gone, ElementsAre(job, other));
    EXPECT_THAT(alpha->read().jobs, IsEmpty());
    EXPECT_THAT(alpha->read().runs, IsEmpty());
    EXPECT_GT(add(), other) << "no number is given twice";
}

TEST_F(SharedJobStores, AnotherDaemonOfTheNameKeepsTheFormerFromAll) {
    const auto job = add();
    const auto later = open_postgres_job_store(conninfo, "alpha");
    EXPECT_EQ(begin(*alpha, job, 100, 90), Refusal::taken);
    EXPECT_THROW(alpha->follow(-1, patience_s), StoreError);
    EXPECT_EQ(begin(*later, job, 100, 90), Refusal::none);
}

TEST_F(SharedJobStores, WhoeverWantsARunEndedTellsWhoseItIs) {
    const auto job = add();
    ASSERT_EQ(begin(*alpha, job, 100, 90), Refusal::none);
    news();
    EXPECT_TRUE(beta->ask_to_end(run_row(job, 100, 0)));
    EXPECT_FALSE(beta->ask_to_end(run_row(job, 101, 0)));
    const JobNews found = news();
    EXPECT_THAT(ids_in(found), ElementsAre(job)) << "a run is looked at with its job";
    ASSERT_THAT(found.contents.runs, SizeIs(1));
    EXPECT_TRUE(found.contents.runs[0].is_to_end);
}

TEST_F(SharedJobStores, ARunIsForgottenOnlyByItsHostAndWhileItHasNotEnded) {
    const auto job = add();
    ASSERT_EQ(begin(*alpha, job, 100, 90), Refusal::none);
    beta->forget(run_row(job, 100, 90), 89, false);
    EXPECT_THAT(alpha->read().runs, SizeIs(1));
    news();
    alpha->forget(run_row(job, 100, 90), 89, false);
    const JobNews forgotten = news();
    ASSERT_THAT(ids_in(forgotten), ElementsAre(job)) << "the others hear that it may be made";
    EXPECT_EQ(forgotten.contents.jobs[0].considered, 89);
    ASSERT_EQ(begin(*alpha, job, 100, 90), Refusal::none);
    ASSERT_EQ(end(*alpha, run_row(job, 100, 90), 110), Refusal::none);
    alpha->forget(run_row(job, 100, 90), 89, true);
    EXPECT_EQ(alpha->read().jobs.at(0).considered, 90) << "or it would be made twice";
    EXPECT_THAT(alpha->read().owed, IsEmpty()) << "the same";
}

TEST_F(SharedJobStores, ARunIsNotForgottenByAFormerDaemonOfItsHost) {
    const auto job = add();
    const auto later = open_postgres_job_store(conninfo, "alpha");
    ASSERT_EQ(begin(*later, job, 100, 90), Refusal::none);
    alpha->forget(run_row(job, 100, 90), 89, false);
    EXPECT_THAT(later->read().runs, SizeIs(1));
    later->forget(run_row(job, 100, 90), 89, false);
    EXPECT_THAT(later->read().runs, IsEmpty());
}

TEST_F(SharedJobStores, WhatWasDeletedOfTheDefaultScheduleIsNotMadeByAnother) {
    JobRow defined = job_row("job");
    defined.definition = "definition";
    const auto job = alpha->add(defined, change_row("created"));
    ASSERT_TRUE(alpha->remove(job, change_row("deleted")));
    EXPECT_THROW(beta->add(defined, change_row("created")), StoreBusy);
}

TEST_F(SharedJobStores, TheYoungestChangesAreKept) {
    alpha->set_acl("one", change_row("access", 1));
    alpha->set_acl("two", change_row("access", 2));
    run("UPDATE job_change SET number = " + std::to_string(changes_kept + 1) +
        " WHERE time = 2; "
        "UPDATE scheduler SET last_note = " +
        std::to_string(changes_kept + 1));
    alpha->set_acl("three", change_row("access", 3));
    const auto kept = alpha->changes(0, INT64_MAX, 10);
    ASSERT_EQ(kept.size(), 2U);
    EXPECT_EQ(kept.back().deed.when, 2);
}

TEST_F(SharedJobStores, OfANewerVersionAreLeftAlone) {
    run("UPDATE scheduler SET version = 99");
    EXPECT_THROW(open_postgres_job_store(conninfo, "alpha"), StoreError);
}

TEST_F(SharedJobStores, TablesThatAreGoneAreNotTakenForNoJobs) {
    run("DELETE FROM scheduler");
    EXPECT_THROW(beta->follow(-1, patience_s), StoreError);
    EXPECT_THROW(alpha->set_acl("one", change_row("access", 1)), StoreError);
}

TEST_F(SharedJobStores, ABeginningWhoseCommitIsNotAnsweredIsAskedAfter) {
    DroppingRelay relay(velia::postgres_test::server().directory());
    const auto cut = open_postgres_job_store(
        "host=" + relay.directory() + " dbname=postgres user=tester options='-c search_path=" + schema() + "'",
        "gamma");
    const auto job = add();
    RunStep made = beginning(job, 100, 90);
    relay.drop_next(DroppingRelay::Drops::answer_to_commit);
    EXPECT_EQ(take(*cut, made), Refusal::none);
    EXPECT_THAT(beta->read().runs, SizeIs(1));
    ASSERT_EQ(end(*cut, made.run, 110), Refusal::none);
    RunStep unmade = beginning(job, 120, 115);
    relay.drop_next(DroppingRelay::Drops::commit);
    EXPECT_THROW(record_in(*cut, {&unmade}), StoreAway);
    EXPECT_FALSE(unmade.is_done);
    EXPECT_EQ(begin(*beta, job, 120, 115), Refusal::none);
}

// Whatever the daemon is told, it is what the database has: else a start would be made twice, or by nobody.
TEST_F(SharedJobStores, CutOffAtAnyMessageOfABeginningItIsKnownWhetherItIsWrittenDown) {
    DroppingRelay relay(velia::postgres_test::server().directory());
    const auto cut = open_postgres_job_store(
        "host=" + relay.directory() + " dbname=postgres user=tester options='-c search_path=" + schema() + "'",
        "gamma");
    const auto job = add();
    int64_t due = 100;
    int lost = 0;
    int made = 0;
    bool was_cut = true;
    for (int piece = 1; was_cut && piece < 100; ++piece) {
        ++due;
        RunStep step = beginning(job, due, due);
        relay.drop_piece(piece);
        for (int pause = 0; pause < 1000 && !step.is_done && !relay.has_dropped_piece(); ++pause) {
            try {
                record_in(*cut, {&step});
            } catch (const StoreAway &) { // also for a while after a connection that was cut off
                usleep(10'000);
            }
        }
        was_cut = relay.has_dropped_piece();
        relay.drop_piece(-1);
        (step.is_done ? made : lost) += was_cut ? 1 : 0;
        EXPECT_EQ(beta->read().runs.size(), step.is_done ? 1U : 0U) << "cut at piece " << piece;
        EXPECT_EQ(begin(*beta, job, due, due), step.is_done ? Refusal::taken : Refusal::none) << "piece " << piece;
        run("DELETE FROM job_run");
    }
    EXPECT_FALSE(was_cut) << "there is an end to the messages";
    EXPECT_GT(made, 0) << "the commit had come";
    EXPECT_GT(lost, 0) << "it had not";
}
