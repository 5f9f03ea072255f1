// What every store of jobs has to do: what was written is there, whole.
#include <server/registry/store.h>
#include <server/scheduler/moved_jobs.h>
#include <tests/unit/job_store/job_store_fixture.h>

using namespace velia::server;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

namespace {

struct JobStores : JobStoreTest {};
VELIA_FOR_EACH_JOB_STORE(JobStores);

} // namespace

TEST_P(JobStores, KeepEachFieldOfAJob) {
    const auto id = store->add(row(), change("created"));
    reopen();
    const auto jobs = store->read().jobs;
    ASSERT_EQ(jobs.size(), 1U);
    const JobRow &read = jobs[0];
    EXPECT_EQ(read.id, id);
    EXPECT_EQ(read.body, "body");
    EXPECT_EQ(read.owner, 1000U);
    EXPECT_EQ(read.created.who + read.created.where, "annahere");
    EXPECT_EQ(read.changed.who + read.changed.where, "benthere");
    EXPECT_EQ(read.created.when, 5);
    EXPECT_EQ(read.changed.when, 6);
    EXPECT_EQ(read.considered, 7);
    EXPECT_EQ(read.changed_start, 8);
    EXPECT_TRUE(read.is_predefined);
}

TEST_P(JobStores, ChangeAndRemoveWhatIsThere) {
    JobRow changed = row();
    changed.id = store->add(row(), change("created"));
    changed.body = "other";
    changed.owner.reset();
    EXPECT_TRUE(store->change(changed, change("changed")));
    EXPECT_EQ(store->read().jobs[0].body, "other");
    EXPECT_EQ(store->read().jobs[0].owner, std::nullopt);
    EXPECT_EQ(store->read().jobs[0].created.who, "anna");
    EXPECT_TRUE(store->remove(changed.id, change("deleted")));
    EXPECT_FALSE(store->remove(changed.id, change("deleted")));
    EXPECT_FALSE(store->change(changed, change("changed")));
    EXPECT_THAT(store->read().jobs, IsEmpty());
}

TEST_P(JobStores, RemoveAJobThatIsIdleOnlyIfNoRunOfItGoesOn) {
    const auto id = store->add(row(), change("created"));
    const auto other = store->add(row(), change("created"));
    store->begin(run(id, 100, 90));
    EXPECT_THROW(store->remove_idle(id, change("deleted")), StoreBusy);
    EXPECT_EQ(store->read().runs.size(), 1U);
    EXPECT_EQ(store->changes(id, INT64_MAX, 9).size(), 1U) << "nothing was noted";
    EXPECT_TRUE(store->remove_idle(other, change("deleted"))) << "that is another's";
    store->end(run(id, 100, 90), {}, std::nullopt);
    EXPECT_THROW(store->remove_idle(id, change("deleted")), StoreBusy) << "an end without a time is none";
    RunRow ended = run(id, 100, 90);
    ended.ended = 110;
    store->end(ended, {}, std::nullopt);
    EXPECT_TRUE(store->remove_idle(id, change("deleted")));
    EXPECT_FALSE(store->remove_idle(id, change("deleted")));
    EXPECT_EQ(store->changes(id, INT64_MAX, 1).front().what, "deleted");
}

TEST_P(JobStores, NeverGiveANumberTwice) {
    const auto id = store->add(row(), change("created"));
    store->remove(id, change("deleted"));
    reopen();
    EXPECT_GT(store->add(row(), change("created")), id);
}

TEST_P(JobStores, AChangeTakesBackNothingThatWasConsidered) {
    JobRow changed = row();
    changed.id = store->add(row(), change("created"));
    RunStep later = step(RunStep::What::pass_over, run(changed.id, 0, 50));
    RunStep earlier = step(RunStep::What::pass_over, run(changed.id, 0, 40));
    record({&later, &earlier});
    EXPECT_EQ(considered(), 50);
    store->change(changed, change("changed"));
    EXPECT_EQ(considered(), 50);
}

TEST_P(JobStores, ARunThatBeginsIsThereBeforeItsEnd) {
    const auto id = store->add(row(), change("created"));
    store->begin(run(id, 100, 90));
    reopen();
    auto runs = store->read().runs;
    ASSERT_EQ(runs.size(), 1U);
    EXPECT_EQ(runs[0].started, 100);
    EXPECT_EQ(runs[0].due, 90);
    EXPECT_EQ(runs[0].ended, 0);
    EXPECT_EQ(considered(), 90);
    RunRow ended = runs[0];
    ended.ended = 110;
    ended.exit_status = 3;
    ended.process_id = "44";
    ended.messages = "out";
    store->end(ended, {}, std::nullopt);
    runs = store->read().runs;
    ASSERT_EQ(runs.size(), 1U);
    EXPECT_EQ(runs[0].ended, 110);
    EXPECT_EQ(runs[0].exit_status, 3U);
    EXPECT_EQ(runs[0].process_id + runs[0].messages, "44out");
}

TEST_P(JobStores, OneThatDidNotBeginMayBeMadeAgain) {
    const auto id = store->add(row(), change("created"));
    store->begin(run(id, 100, 90));
    store->forget(run(id, 100, 90), 89, false);
    EXPECT_THAT(store->read().runs, IsEmpty());
    EXPECT_THAT(store->read().owed, IsEmpty());
    EXPECT_EQ(considered(), 89);
}

TEST_P(JobStores, OneThatWasOwedAndDidNotBeginIsOwedAgain) {
    const auto first = store->add(job_row("first"), change("created"));
    const auto second = store->add(job_row("second", first), change("created"));
    store->begin(run(first, 100, 90));
    store->end(run(first, 100, 90), {second}, std::nullopt);
    store->begin(run(second, 110, 0));
    store->forget(run(second, 110, 0), 0, true);
    reopen();
    EXPECT_EQ(store->read().runs.size(), 1U);
    EXPECT_THAT(store->read().owed, ElementsAre(second));
}

TEST_P(JobStores, AnOwedStartMayBePassedOver) {
    const auto first = store->add(job_row("first"), change("created"));
    const auto second = store->add(job_row("second", first), change("created"));
    store->begin(run(first, 100, 90));
    store->end(run(first, 100, 90), {second}, std::nullopt);
    RunStep pass_over = step(RunStep::What::pass_over, run(second, 0, 0));
    record({&pass_over});
    EXPECT_THAT(store->read().owed, IsEmpty());
}

TEST_P(JobStores, AnEndOwesItsFollowersAStartUntilTheyBegin) {
    const auto first = store->add(job_row("first"), change("created"));
    const auto second = store->add(job_row("second", first), change("created"));
    store->begin(run(first, 100, 90));
    store->end(run(first, 100, 90), {second, 77}, std::nullopt);
    EXPECT_THAT(store->read().owed, ElementsAre(second));
    store->begin(run(second, 110, 0));
    EXPECT_THAT(store->read().owed, IsEmpty());
}

TEST_P(JobStores, AJobMayGoWithItsLastRunAndItsRunsWithIt) {
    const auto id = store->add(row(), change("created"));
    store->begin(run(id, 100, 90));
    store->end(run(id, 100, 90), {}, change("deleted"));
    EXPECT_THAT(store->read().jobs, IsEmpty());
    EXPECT_THAT(store->read().runs, IsEmpty());
    EXPECT_EQ(store->changes(id, INT64_MAX, 1).at(0).what, "deleted");
}

TEST_P(JobStores, AStepThatFailsLeavesTheOthersBe) {
    const auto id = store->add(row(), change("created"));
    RunStep good = step(RunStep::What::begin, run(id, 100, 90));
    RunStep of_no_job = step(RunStep::What::begin, run(id + 1, 100, 90));
    RunStep again = step(RunStep::What::begin, run(id, 100, 90));
    RunStep behind = step(RunStep::What::pass_over, run(id, 0, 95));
    record({&of_no_job, &good, &again, &behind});
    EXPECT_FALSE(of_no_job.is_done);
    EXPECT_TRUE(good.is_done);
    EXPECT_FALSE(again.is_done);
    EXPECT_TRUE(behind.is_done);
    reopen();
    EXPECT_EQ(store->read().runs.size(), 1U);
    EXPECT_EQ(considered(), 95);
}

// As when the disk is full: the failure of one is the end of the transaction.
TEST_P(JobStores, RememberTheDefinitionsOfJobsThatWereDeletedHoweverThatWas) {
    JobRow defined = row();
    const auto add = [&](const char *definition) {
        defined.definition = definition;
        return store->add(defined, change("created"));
    };
    const auto first = add("one");
    const auto last = add("two");
    const auto in_set = add("three");
    add("stays");
    const auto nobodys = add("");
    EXPECT_EQ(store->read().jobs.at(0).definition, "one");
    store->remove(first, change("deleted"));
    store->remove(nobodys, change("deleted"));
    store->begin(run(last, 100, 90));
    store->end(run(last, 100, 90), {}, change("deleted"));
    JobSet set;
    JobsState state;
    for (const auto &job : store->read().jobs)
        state.add(job.id, job.body);
    set.state = state.value();
    set.removed = {in_set};
    set.notes = {change("deleted")};
    set.take_numbers = [](sched_job_id_t) {};
    ASSERT_TRUE(store->apply(set));
    reopen();
    EXPECT_THAT(store->read().dropped, UnorderedElementsAre("one", "two", "three"));
    store->forget_dropped({"one", "nothing"});
    reopen();
    EXPECT_THAT(store->read().dropped, UnorderedElementsAre("two", "three"));
}

TEST_P(JobStores, KeepTheYoungestRuns) {
    const auto id = store->add(row(), change("created"));
    for (int64_t started = 1; started <= runs_kept + 5; ++started) {
        RunRow ended = run(id, started, 0);
        store->begin(ended);
        ended.ended = started;
        store->end(ended, {}, std::nullopt);
    }
    const auto runs = store->read().runs;
    ASSERT_EQ(runs.size(), static_cast<size_t>(runs_kept));
    EXPECT_EQ(runs.front().started, 6);
}

TEST_P(JobStores, KeepTheAccessList) {
    EXPECT_EQ(store->read().acl, "");
    store->set_acl("one", change("access"));
    store->set_acl("two", change("access"));
    reopen();
    EXPECT_EQ(store->read().acl, "two");
}

TEST_P(JobStores, LogEachChangeWithWhatItDoes) {
    auto changed = row();
    changed.id = store->add(row(), change("created", 1));
    const auto other = store->add(row(), change("created", 2));
    store->change(changed, change("changed", 3));
    store->set_acl("one", change("access", 4));
    store->remove(changed.id, change("deleted", 5));
    EXPECT_FALSE(store->remove(changed.id, change("deleted", 6)));
    reopen();
    const auto all = store->changes(0, INT64_MAX, 10);
    std::vector<std::string> told;
    for (const auto &each : all)
        told.push_back(std::to_string(each.deed.when) + each.what + std::to_string(each.job));
    EXPECT_THAT(told, ElementsAre("5deleted1", "4access0", "3changed1", "2created2", "1created1"));
    EXPECT_EQ(all[2].deed.who + all[2].deed.where + all[2].job_name + all[2].fields, "annaherenf");
    EXPECT_EQ(store->changes(0, all[1].number, 2).front().deed.when, 3);
    EXPECT_EQ(store->changes(changed.id, INT64_MAX, 10).size(), 3U);
    EXPECT_EQ(store->changes(changed.id, all[2].number, 10).size(), 1U);
    EXPECT_EQ(store->changes(other, INT64_MAX, 10).size(), 1U);
    EXPECT_EQ(store->changes(0, INT64_MAX, 2).size(), 2U);
}

TEST_P(JobStores, RecordStepsOfManyRunsTogetherInTheirOrder) {
    const auto first = store->add(job_row("first"), change("created"));
    const auto second = store->add(job_row("second", first), change("created"));
    store->begin(run(first, 100, 90));
    RunStep end = step(RunStep::What::end, run(first, 100, 90));
    end.run.ended = 110;
    end.owed = {second};
    RunStep begin = step(RunStep::What::begin, run(second, 120, 115));
    RunStep pass_over = step(RunStep::What::pass_over, run(first, 0, 200));
    record({&end, &begin, &pass_over});
    EXPECT_TRUE(end.is_done && begin.is_done && pass_over.is_done);
    reopen();
    const auto read = store->read();
    EXPECT_EQ(read.runs.at(0).ended, 110);
    EXPECT_EQ(read.runs.at(1).due, 115);
    EXPECT_EQ(read.jobs.at(0).considered, 200);
    EXPECT_THAT(read.owed, IsEmpty()) << "the follower has begun behind that";
}

TEST_P(JobStores, MakeASetWholeOrNotAtAll) {
    const auto kept = store->add(row(), change("created"));
    const auto gone = store->add(row(), change("created"));
    JobSet set;
    set.state = state() + 1;
    set.added = {row(), row()};
    set.changed = {row()};
    set.changed[0].id = kept;
    set.changed[0].body = "other";
    set.removed = {gone};
    set.notes = {change("created"), change("created"), change("changed"), change("deleted")};
    set.take_numbers = [&](sched_job_id_t first) { set.added[1].body = "behind " + std::to_string(first); };
    EXPECT_FALSE(store->apply(set)) << "the jobs are in another state";
    EXPECT_EQ(store->read().jobs.size(), 2U);
    set.state = state();
    set.removed = {gone + 100};
    EXPECT_FALSE(store->apply(set)) << "one of them is not there";
    EXPECT_EQ(store->read().jobs.at(0).body, "body");
    set.removed = {gone};
    ASSERT_TRUE(store->apply(set));
    reopen();
    const auto jobs = store->read().jobs;
    ASSERT_EQ(jobs.size(), 3U);
    EXPECT_EQ(jobs[0].body, "other");
    EXPECT_EQ(jobs[1].id, set.added[0].id);
    EXPECT_EQ(jobs[2].body, "behind " + std::to_string(jobs[1].id));
    EXPECT_EQ(store->changes(gone, INT64_MAX, 1).at(0).what, "deleted");
}

TEST_P(JobStores, MakeASetOfMoreThanGoInOneStatementWhole) {
    constexpr size_t count = 2500;
    JobSet set;
    set.state = state();
    for (size_t i = 0; i < count; ++i) {
        set.added.push_back(job_row("job " + std::to_string(i)));
        set.added.back().considered = static_cast<int64_t>(i);
        set.notes.push_back(change("created", static_cast<int64_t>(i)));
    }
    set.take_numbers = [](sched_job_id_t) {};
    ASSERT_TRUE(store->apply(set));
    reopen();
    const auto jobs = store->read().jobs;
    ASSERT_EQ(jobs.size(), count);
    for (size_t i = 0; i < count; ++i) {
        ASSERT_EQ(jobs[i].id, set.added[i].id);
        ASSERT_EQ(jobs[i].body, body_of("job " + std::to_string(i)));
        ASSERT_EQ(jobs[i].considered, static_cast<int64_t>(i));
        ASSERT_EQ(jobs[i].changed.who, set.added[i].changed.who);
        const auto notes = store->changes(jobs[i].id, INT64_MAX, 2);
        ASSERT_EQ(notes.size(), 1U);
        ASSERT_EQ(notes[0].deed.when, static_cast<int64_t>(i));
    }
    EXPECT_EQ(jobs[0].owner, set.added[0].owner);
    EXPECT_EQ(jobs[0].created.when, set.added[0].created.when);
    EXPECT_TRUE(jobs[0].is_predefined);
    EXPECT_EQ(store->changes(0, INT64_MAX, 1).at(0).job, jobs.back().id) << "the youngest is the last of the set";
}

TEST_P(JobStores, KeepWhichStartOfTheSystemItIs) {
    EXPECT_EQ(store->read().boot, "");
    store->set_boot("one");
    reopen();
    EXPECT_EQ(store->read().boot, "one");
}

// By each kind into each.
TEST_P(JobStores, GoWholeIntoAnother) {
    JobRow defined = job_row("kept");
    defined.definition = "definition";
    const auto kept = store->add(defined, change("created", 1));
    const auto follower = store->add(job_row("follower", kept), change("created", 1));
    defined.definition = "gone";
    defined.body = body_of("gone");
    const auto gone = store->add(defined, change("created", 2));
    store->remove(gone, change("deleted", 3));
    store->begin(run(kept, 100, 90));
    RunRow ended = run(kept, 100, 90);
    ended.ended = 110;
    ended.exit_status = 3;
    ended.messages = "out";
    store->end(ended, {follower}, std::nullopt);
    store->set_acl("list", change("access", 4));
    const JobStock stock = stock_of(*store);
    EXPECT_EQ(stock.last_number, gone);
    for (const auto &kind : job_store_kinds()) {
        const auto other_place = kind.make_place();
        const auto other = other_place->open();
        other->set_acl("former", change("access"));
        other->put_all(stock);
        const JobContents there = other->read();
        ASSERT_EQ(there.jobs.size(), 2U) << kind.name;
        EXPECT_EQ(there.jobs[0].id, kept);
        EXPECT_EQ(there.jobs[0].body, body_of("kept"));
        EXPECT_EQ(there.jobs[0].owner, 1000U);
        EXPECT_EQ(there.jobs[0].considered, 90);
        EXPECT_EQ(there.jobs[0].definition, "definition");
        ASSERT_EQ(there.runs.size(), 1U);
        EXPECT_EQ(there.runs[0].exit_status, 3U);
        EXPECT_EQ(there.runs[0].messages, "out");
        EXPECT_THAT(there.owed, ElementsAre(follower));
        EXPECT_THAT(there.dropped, ElementsAre("gone"));
        EXPECT_EQ(there.acl, "list");
        EXPECT_EQ(stock_of(*other).notes.size(), stock.notes.size());
        EXPECT_EQ(stock_of(*other).notes.front().deed.when, 4);
        EXPECT_THROW(other->put_all(stock), StoreError) << "there are jobs";
        EXPECT_GT(other->add(row(), change("created")), gone);
        EXPECT_GT(other->changes(0, INT64_MAX, 1).at(0).number, stock.notes.front().number);
    }
}
