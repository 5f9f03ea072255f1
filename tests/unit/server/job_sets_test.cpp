// Sets of jobs in the database, and sets of which pieces are still to come.
#include <server/scheduler/apply.h>
#include <server/scheduler/job_store.h>

#include <cstdlib>
#include <filesystem>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace velia::server;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

struct JobSets : testing::Test {
    JobSets() {
        std::string name = (std::filesystem::temp_directory_path() / "velia-sets-XXXXXX").string();
        directory = mkdtemp(name.data());
        reopen();
    }
    ~JobSets() override {
        store.reset();
        std::filesystem::remove_all(directory);
    }
    void reopen() {
        store.reset();
        store = open_job_store(directory / "scheduler.db");
    }

    std::vector<std::string> bodies() {
        std::vector<std::string> all;
        for (const auto &job : store->read().jobs)
            all.push_back(std::to_string(job.id) + job.body);
        return all;
    }
    uint64_t state() {
        JobsState state;
        for (const auto &job : store->read().jobs)
            state.add(job.id, job.body);
        return state.value();
    }
    static JobRow row(const std::string &body, sched_job_id_t id = 0) {
        JobRow row;
        row.id = id;
        row.body = body;
        return row;
    }
    JobSet set_of(std::vector<JobRow> added, std::vector<JobRow> changed = {},
                  std::vector<sched_job_id_t> removed = {}) {
        std::vector<ChangeRow> notes;
        for (const auto &row : added)
            notes.push_back({0, {}, "created", 0, row.body, ""});
        for (const auto &row : changed)
            notes.push_back({0, {}, "changed", row.id, row.body, "description"});
        for (const auto id : removed)
            notes.push_back({0, {}, "deleted", id, "gone", ""});
        return {state(),
                std::move(added),
                std::move(changed),
                std::move(removed),
                std::move(notes),
                [this](sched_job_id_t first) { told = first; }};
    }
    bool add(const std::string &body) {
        auto set = set_of({row(body)});
        return store->apply(set);
    }

    std::filesystem::path directory;
    std::unique_ptr<JobStore> store;
    sched_job_id_t told = 0;
};

StagedSet from_host(uint64_t number, std::optional<uint32_t> uid = {}) {
    StagedSet set;
    set.from = {number, 0};
    set.uid = uid;
    set.begun = 1000;
    return set;
}

} // namespace

TEST_F(JobSets, AreWrittenWhole) {
    auto set = set_of({row("a"), row("b")});
    EXPECT_TRUE(store->apply(set));
    EXPECT_EQ(told, 1U);
    EXPECT_EQ(set.added[1].id, 2U);
    auto second = set_of({row("d")}, {row("c", 2)}, {1});
    EXPECT_TRUE(store->apply(second));
    reopen();
    EXPECT_THAT(bodies(), ElementsAre("2c", "3d"));
}

TEST_F(JobSets, AreNotedInTheLogOfChangesOneByOne) {
    ASSERT_TRUE(add("a"));
    ASSERT_TRUE(add("b"));
    auto set = set_of({row("c")}, {row("A", 1)}, {2});
    ASSERT_TRUE(store->apply(set));
    const auto changes = store->changes(0, INT64_MAX, 10);
    ASSERT_EQ(changes.size(), 5u);
    EXPECT_EQ(changes[0].what + std::to_string(changes[0].job), "deleted2");
    EXPECT_EQ(changes[1].what + std::to_string(changes[1].job) + changes[1].fields, "changed1description");
    EXPECT_EQ(changes[2].what + std::to_string(changes[2].job) + changes[2].job_name, "created3c");
}

TEST_F(JobSets, TellNumbersBeforeAnythingIsWritten) {
    auto set = set_of({row("a"), row("b")});
    set.take_numbers = [&](sched_job_id_t first) { set.added[0].body = "behind " + std::to_string(first + 1); };
    EXPECT_TRUE(store->apply(set));
    EXPECT_THAT(bodies(), ElementsAre("1behind 2", "2b"));
}

TEST_F(JobSets, NeverGiveANumberTwice) {
    ASSERT_TRUE(add("a"));
    auto removal = set_of({}, {}, {1});
    EXPECT_TRUE(store->apply(removal));
    EXPECT_TRUE(add("b"));
    EXPECT_THAT(bodies(), ElementsAre("2b"));
}

TEST_F(JobSets, AreNotWrittenInAnotherState) {
    auto set = set_of({row("a")});
    ASSERT_TRUE(add("meanwhile"));
    EXPECT_FALSE(store->apply(set));
    EXPECT_THAT(bodies(), ElementsAre("1meanwhile"));
}

TEST_F(JobSets, AreNotWrittenInPart) {
    ASSERT_TRUE(add("a"));
    auto change = set_of({row("b")}, {row("c", 9)});
    EXPECT_FALSE(store->apply(change));
    auto removal = set_of({row("b")}, {row("c", 1)}, {9});
    EXPECT_FALSE(store->apply(removal));
    EXPECT_THAT(bodies(), ElementsAre("1a"));
}

TEST_F(JobSets, HaveAStateOfIdsAndBodies) {
    const auto state_of = [](std::initializer_list<std::pair<sched_job_id_t, const char *>> jobs) {
        JobsState state;
        for (const auto &[id, body] : jobs)
            state.add(id, body);
        return state.value();
    };
    EXPECT_EQ(state_of({{1, "a"}, {2, "b"}}), state_of({{1, "a"}, {2, "b"}}));
    EXPECT_NE(state_of({{1, "a"}, {2, "b"}}), state_of({{1, "a"}, {3, "b"}}));
    EXPECT_NE(state_of({{1, "a"}, {2, "b"}}), state_of({{1, "a"}, {2, "c"}}));
    EXPECT_NE(state_of({{1, "a"}}), state_of({}));
}

TEST(StagedSets, AreTheirSendersAlone) {
    StagedSets sets;
    const auto number = sets.begin(from_host(1, 5), 1000);
    ASSERT_NE(number, 0U);
    EXPECT_NE(sets.find(number, from_host(1, 5), 1001), nullptr);
    EXPECT_EQ(sets.find(number, from_host(2, 5), 1001), nullptr);
    EXPECT_EQ(sets.find(number, from_host(1, 6), 1001), nullptr);
    EXPECT_EQ(sets.find(number, from_host(1), 1001), nullptr);
    EXPECT_EQ(sets.find(number + 1, from_host(1, 5), 1001), nullptr);
    sets.forget(number);
    EXPECT_EQ(sets.find(number, from_host(1, 5), 1001), nullptr);
}

TEST(StagedSets, AreForgottenInTime) {
    StagedSets sets;
    const auto number = sets.begin(from_host(1), 1000);
    EXPECT_NE(sets.find(number, from_host(1), 1000 + StagedSets::seconds_max), nullptr);
    EXPECT_EQ(sets.find(number, from_host(1), 1001 + StagedSets::seconds_max), nullptr);
}

TEST(StagedSets, HaveTheirShareForEachHostAndForAll) {
    StagedSets sets;
    for (size_t i = 0; i < StagedSets::sets_of_host_max; ++i)
        EXPECT_NE(sets.begin(from_host(1), 1000), 0U);
    EXPECT_EQ(sets.begin(from_host(1), 1000), 0U);
    for (size_t i = StagedSets::sets_of_host_max; i < StagedSets::sets_max; ++i)
        EXPECT_NE(sets.begin(from_host(i), 1000), 0U);
    EXPECT_EQ(sets.begin(from_host(99), 1000), 0U);
    EXPECT_NE(sets.begin(from_host(1), 2000), 0U);
}
