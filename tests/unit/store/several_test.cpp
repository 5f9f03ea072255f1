// Several stores on one registry, as the threads and the processes of a daemon have them.
#include <tests/unit/store/store_fixture.h>

#include <atomic>
#include <set>
#include <thread>

#include <sys/wait.h>
#include <unistd.h>

#include <server/registry/sqlite.h>

using namespace velia::server;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using testing::UnorderedElementsAre;

namespace {

struct StoreSeveral : StoreTest {
    std::unique_ptr<Store> other = place->open(is_new);
};
VELIA_FOR_EACH_STORE(StoreSeveral);

constexpr rgy_db_t db = RGY_DB_REGIONS;
constexpr int writers = 4;
constexpr int entries_of_writer = 20;

void run_in_threads(int count, const std::function<void(int)> &body) {
    std::vector<std::thread> threads;
    for (int i = 0; i < count; ++i)
        threads.emplace_back(body, i);
    for (auto &thread : threads)
        thread.join();
}

// What each of so many processes makes of the body.
enum Made : int { first, later, broken };
std::vector<int> in_processes(int count, const std::function<int()> &body) {
    std::vector<pid_t> processes;
    for (int i = 0; i < count; ++i)
        if (processes.push_back(fork()); processes.back() == 0) {
            int made = broken;
            try {
                made = body();
            } catch (const StoreError &error) {
                fprintf(stderr, "%s\n", error.what());
            }
            _exit(made);
        }
    std::vector<int> results;
    for (const pid_t process : processes) {
        int status = 0;
        waitpid(process, &status, 0);
        results.push_back(WIFEXITED(status) ? WEXITSTATUS(status) : int{broken});
    }
    return results;
}

} // namespace

TEST_P(StoreSeveral, TheSecondFindsTheRegistryMade) {
    EXPECT_FALSE(is_new);
    const Stamps ours = store->stamps(db);
    const Stamps theirs = other->stamps(db);
    EXPECT_EQ(memcmp(&ours, &theirs, sizeof ours), 0);
}

TEST_P(StoreSeveral, WhatOneHasAddedTheOthersSee) {
    add_all({"a"});
    EXPECT_THAT(scan_of(*other, {db, "", "-name", "a"}), SizeIs(1));
    EXPECT_EQ(other->count(db), 1u);
    EXPECT_TRUE(is_same(other->stamps(db).pair, pair(db)));
}

TEST_P(StoreSeveral, WhatOneHasRemovedTheOthersDoNotSee) {
    add_all({"a"});
    ASSERT_EQ(other->count(db), 1u);
    ASSERT_TRUE(remove(1));
    EXPECT_THAT(scan_of(*other, {db, "", "", ""}), IsEmpty());
    EXPECT_EQ(other->count(db), 0u);
}

TEST_P(StoreSeveral, SettingsAreShared) {
    store->set_setting("s", "v");
    EXPECT_EQ(other->setting("s"), "v");
    other->set_setting("s", "w");
    EXPECT_EQ(store->setting("s"), "w");
}

TEST_P(StoreSeveral, ChangesAreCountedOfAll) {
    const uint64_t before = store->changes();
    add_all({"a"});
    ASSERT_EQ(add_to(*other, named("b")), Store::AddResult::added);
    EXPECT_EQ(store->changes(), before + 2);
    EXPECT_EQ(other->changes(), before + 2);
}

TEST_P(StoreSeveral, NumbersAreGivenOnceByAll) {
    add_all({"a"});
    ASSERT_EQ(add_to(*other, named("b")), Store::AddResult::added);
    add_all({"c"});
    EXPECT_THAT(all(), ElementsAre(Record{1, "-name=a;"}, Record{2, "-name=b;"}, Record{3, "-name=c;"}));
}

TEST_P(StoreSeveral, StampsThatAnotherHasRenewedAreStale) {
    const auto before = pair(db);
    ASSERT_EQ(add_to(*other, named("a")), Store::AddResult::added);
    EXPECT_EQ(store->add(db, before, "b", "b", {}), Store::AddResult::stale);
}

TEST_P(StoreSeveral, AnIdentityThatAnotherHasGivenIsTaken) {
    ASSERT_EQ(add_to(*other, named("a")), Store::AddResult::added);
    EXPECT_EQ(add(named("a")), Store::AddResult::exists);
}

TEST_P(StoreSeveral, WhatIsNotDoneYetNobodyElseSees) {
    store->together([&] {
        add_all({"a"});
        EXPECT_THAT(scan_of(*other, {db, "", "", ""}), IsEmpty());
        EXPECT_EQ(other->count(db), 0u);
        EXPECT_FALSE(is_same(other->stamps(db).pair, pair(db)));
        EXPECT_EQ(other->setting("s"), "");
    });
    EXPECT_THAT(scan_of(*other, {db, "", "", ""}), SizeIs(1));
}

TEST_P(StoreSeveral, ARegistryThatAnotherHasBegunAnewHasItsName) {
    tbs_uuid_t registry = {};
    registry.bytes[0] = 9;
    other->begin_anew(registry);
    store->refresh();
    EXPECT_EQ(store->stamps(0).registry.bytes[0], 9);
}

TEST_P(StoreSeveral, TheVersionIsAnotherAfterAChangeOfAnother) {
    const auto version = store->watch_version();
    const uint64_t before = version->now();
    ASSERT_EQ(add_to(*other, named("a")), Store::AddResult::added);
    EXPECT_NE(version->now(), before);
}

TEST_P(StoreSeveral, WhoeverHasItForLongKeepsOthersFromChangesAndNothingElse) {
    add_all({"a"});
    wait_for_others(50);
    store->together([&] {
        add_all({"b"});
        EXPECT_THROW(add_to(*other, named("c")), StoreBusy);
        EXPECT_THROW(other->set_setting("s", "v"), StoreBusy);
        EXPECT_THROW(other->together([] {}), StoreBusy);
        EXPECT_THAT(scan_of(*other, {db, "", "", ""}), SizeIs(1));
    });
    EXPECT_EQ(add_to(*other, named("c")), Store::AddResult::added);
    wait_for_others(usual_wait_for_others_ms);
}

TEST_P(StoreSeveral, OneThatHadToGiveUpTriesAgain) {
    wait_for_others(50);
    store->together([&] { EXPECT_THROW(other->set_setting("s", "v"), StoreBusy); });
    wait_for_others(usual_wait_for_others_ms);
    other->set_setting("s", "v");
    EXPECT_EQ(store->setting("s"), "v");
}

TEST_P(StoreSeveral, OfWritersWithTheSameStampsOneSucceeds) {
    const auto stamps = pair(db);
    std::atomic<int> added = 0;
    run_in_threads(writers, [&](int writer) {
        const auto own = open();
        const std::string name = std::to_string(writer);
        const auto result = own->add(db, stamps, name, "-name=" + name + ";", {{"-name", name}});
        added += result == Store::AddResult::added ? 1 : 0;
        EXPECT_TRUE(result == Store::AddResult::added || result == Store::AddResult::stale);
    });
    EXPECT_EQ(added, 1);
    EXPECT_EQ(store->count(db), 1u);
}

TEST_P(StoreSeveral, OfWritersAtOnceNothingIsLostAndNothingIsThereTwice) {
    run_in_threads(writers, [&](int writer) {
        const auto own = open();
        for (int i = 0; i < entries_of_writer; ++i)
            while (add_to(*own, named(std::to_string(writer) + "-" + std::to_string(i))) == Store::AddResult::stale) {
            }
    });
    std::set<std::string> texts;
    uint64_t last = 0;
    for (const Record &record : all()) {
        EXPECT_GT(record.id, last);
        last = record.id;
        texts.insert(record.flex_text);
    }
    EXPECT_THAT(texts, SizeIs(writers * entries_of_writer));
    EXPECT_EQ(store->count(db), uint64_t{writers * entries_of_writer});
    EXPECT_EQ(last, uint64_t{writers * entries_of_writer});
}

TEST_P(StoreSeveral, OfWritersOfOneIdentityOneSucceeds) {
    std::atomic<int> added = 0;
    run_in_threads(writers, [&](int) {
        const auto own = open();
        Store::AddResult result;
        while ((result = add_to(*own, named("one"))) == Store::AddResult::stale) {
        }
        added += result == Store::AddResult::added ? 1 : 0;
    });
    EXPECT_EQ(added, 1);
    EXPECT_EQ(store->count(db), 1u);
}

TEST_P(StoreSeveral, OfRemoversOfOneRecordOneSucceeds) {
    add_all({"a"});
    std::atomic<int> removed = 0;
    run_in_threads(writers, [&](int) {
        const auto own = open();
        Record record;
        removed += own->remove(db, 1, record) ? 1 : 0;
    });
    EXPECT_EQ(removed, 1);
}

TEST_P(StoreSeveral, WritersOfSeveralDatabasesInAnyOrderDoNotHoldEachOtherUp) {
    run_in_threads(writers, [&](int writer) {
        const auto own = open();
        for (int i = 0; i < 5; ++i)
            own->together([&] {
                for (rgy_db_t step = 0; step < RGY_DB_ALL; ++step) {
                    const rgy_db_t of = writer % 2 == 0 ? step : RGY_DB_ALL - 1 - step;
                    EXPECT_EQ(add_to(*own, nameless({}), of), Store::AddResult::added);
                }
            });
    });
    for (rgy_db_t each = 0; each < RGY_DB_ALL; ++each)
        EXPECT_EQ(store->count(each), uint64_t{writers * 5});
}

TEST_P(StoreSeveral, OfProcessesAtOnceOneMakesTheRegistry) {
    const auto fresh = GetParam().make_place();
    const auto made = in_processes(writers, [&] {
        bool is_made_here = false;
        const auto own = fresh->open(is_made_here);
        const bool is_whole = !is_same(own->stamps(0).pair, {}) && own->count(RGY_DB_REGIONS) == 0;
        return !is_whole ? broken : is_made_here ? first : later;
    });
    EXPECT_THAT(made, UnorderedElementsAre(first, later, later, later));
}
