// Changes that are put together, and what becomes of those of which one fails.
#include <tests/unit/store/store_fixture.h>

using namespace velia::server;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

using StoreTogether = StoreTest;
VELIA_FOR_EACH_STORE(StoreTogether);

struct Enough {};

} // namespace

TEST_P(StoreTogether, AllOfItIsThere) {
    store->together([&] {
        ASSERT_EQ(add(named("a")), Store::AddResult::added);
        ASSERT_EQ(add(named("b"), RGY_DB_DOMAINS), Store::AddResult::added);
        store->set_setting("s", "v");
    });
    reopen();
    EXPECT_THAT(all(RGY_DB_REGIONS), SizeIs(1));
    EXPECT_THAT(all(RGY_DB_DOMAINS), SizeIs(1));
    EXPECT_EQ(store->setting("s"), "v");
}

TEST_P(StoreTogether, NothingMayBeDone) {
    const uint64_t before = store->changes();
    EXPECT_FALSE(renews_stamps(RGY_DB_REGIONS, [&] { store->together([] {}); }));
    EXPECT_EQ(store->changes(), before);
}

TEST_P(StoreTogether, EachStepSeesThoseBefore) {
    store->together([&] {
        ASSERT_EQ(add(named("a")), Store::AddResult::added);
        EXPECT_EQ(add(named("a")), Store::AddResult::exists);
        EXPECT_THAT(found("-name", "a"), SizeIs(1));
        EXPECT_EQ(store->count(RGY_DB_REGIONS), 1u);
        ASSERT_EQ(change(1, named("b")), Store::ChangeResult::changed);
        EXPECT_THAT(all(), ElementsAre(Record{1, "-name=b;"}));
        EXPECT_TRUE(remove(1));
        EXPECT_THAT(all(), IsEmpty());
        store->set_setting("s", "v");
        EXPECT_EQ(store->setting("s"), "v");
    });
}

TEST_P(StoreTogether, EachStepHasStampsOfItsOwn) {
    store->together([&] {
        const auto before = pair(RGY_DB_REGIONS);
        ASSERT_EQ(add(named("a")), Store::AddResult::added);
        EXPECT_EQ(store->add(RGY_DB_REGIONS, before, "b", "b", {}), Store::AddResult::stale);
        EXPECT_EQ(add(named("b")), Store::AddResult::added);
    });
    EXPECT_THAT(all(), SizeIs(2));
}

TEST_P(StoreTogether, EachStepIsCounted) {
    const uint64_t before = store->changes();
    store->together([&] {
        ASSERT_EQ(add(named("a")), Store::AddResult::added);
        ASSERT_EQ(add(named("b")), Store::AddResult::added);
        EXPECT_EQ(store->changes(), before + 2);
    });
    EXPECT_EQ(store->changes(), before + 2);
}

TEST_P(StoreTogether, AStepThatIsRefusedTakesNothingElseBack) {
    store->together([&] {
        ASSERT_EQ(add(named("a")), Store::AddResult::added);
        EXPECT_EQ(add(named("a")), Store::AddResult::exists);
        EXPECT_EQ(store->add(RGY_DB_REGIONS, {}, "b", "b", {}), Store::AddResult::stale);
        EXPECT_FALSE(remove(9));
        EXPECT_EQ(change(9, named("c")), Store::ChangeResult::absent);
        ASSERT_EQ(add(named("d")), Store::AddResult::added);
    });
    EXPECT_THAT(all(), ElementsAre(Record{1, "-name=a;"}, Record{2, "-name=d;"}));
}

TEST_P(StoreTogether, WhatAnErrorLeavesHasNotBeenChanged) {
    add_all({"a"});
    const uint64_t changes = store->changes();
    EXPECT_FALSE(renews_stamps(RGY_DB_REGIONS, [&] {
        EXPECT_THROW(store->together([&] {
            ASSERT_TRUE(remove(1));
            ASSERT_EQ(add(named("b")), Store::AddResult::added);
            store->set_setting("s", "v");
            throw StoreError("no");
        }),
                     StoreError);
    }));
    EXPECT_THAT(all(), ElementsAre(Record{1, "-name=a;"}));
    EXPECT_THAT(found("-name", "a"), SizeIs(1));
    EXPECT_EQ(store->count(RGY_DB_REGIONS), 1u);
    EXPECT_EQ(store->setting("s"), "");
    EXPECT_EQ(store->changes(), changes);
}

TEST_P(StoreTogether, WhatAnythingElseLeavesHasNotBeenChangedEither) {
    EXPECT_THROW(store->together([&] {
        ASSERT_EQ(add(named("a")), Store::AddResult::added);
        throw Enough();
    }),
                 Enough);
    EXPECT_THAT(all(), IsEmpty());
}

TEST_P(StoreTogether, TheStoreGoesOnBehindAnError) {
    EXPECT_THROW(store->together([] { throw StoreError("no"); }), StoreError);
    EXPECT_EQ(add(named("a")), Store::AddResult::added);
    store->together([&] { EXPECT_EQ(add(named("b")), Store::AddResult::added); });
    reopen();
    EXPECT_THAT(all(), SizeIs(2));
}

TEST_P(StoreTogether, NumbersThatWereTakenBackAreOfNobody) {
    EXPECT_THROW(store->together([&] {
        ASSERT_EQ(add(named("a")), Store::AddResult::added);
        throw Enough();
    }),
                 Enough);
    add_all({"b"});
    const uint64_t id = all().back().id;
    EXPECT_TRUE(remove(id));
    EXPECT_THAT(all(), IsEmpty());
}

TEST_P(StoreTogether, SkippedNumbersThatWereTakenBackAreNotSkipped) {
    EXPECT_THROW(store->together([&] {
        store->skip_numbers(100);
        throw Enough();
    }),
                 Enough);
    add_all({"a"});
    EXPECT_LT(all().back().id, 100u);
}

TEST_P(StoreTogether, WhatIsPutTogetherWithinIsAStep) {
    store->together([&] {
        ASSERT_EQ(add(named("a")), Store::AddResult::added);
        store->together([&] { ASSERT_EQ(add(named("b")), Store::AddResult::added); });
        ASSERT_EQ(add(named("c")), Store::AddResult::added);
    });
    reopen();
    EXPECT_THAT(all(), SizeIs(3));
}

TEST_P(StoreTogether, AStepThatIsThrownOutOfIsTakenBackAlone) {
    store->together([&] {
        ASSERT_EQ(add(named("a")), Store::AddResult::added);
        const auto pair_before = pair(RGY_DB_REGIONS);
        const uint64_t changes_before = store->changes();
        EXPECT_THROW(store->together([&] {
            ASSERT_EQ(add(named("b")), Store::AddResult::added);
            store->set_setting("s", "v");
            throw Enough();
        }),
                     Enough);
        EXPECT_TRUE(is_same(pair(RGY_DB_REGIONS), pair_before));
        EXPECT_EQ(store->changes(), changes_before);
        ASSERT_EQ(add(named("c")), Store::AddResult::added);
    });
    reopen();
    EXPECT_THAT(found("-name", "a"), SizeIs(1));
    EXPECT_THAT(found("-name", "b"), IsEmpty());
    EXPECT_THAT(found("-name", "c"), SizeIs(1));
    EXPECT_EQ(store->count(RGY_DB_REGIONS), 2u);
    EXPECT_EQ(store->setting("s"), "");
}

TEST_P(StoreTogether, StepsThatWereMadeGoWithTheWhole) {
    EXPECT_THROW(store->together([&] {
        store->together([&] { ASSERT_EQ(add(named("a")), Store::AddResult::added); });
        throw Enough();
    }),
                 Enough);
    EXPECT_THAT(all(), IsEmpty());
    EXPECT_EQ(store->count(RGY_DB_REGIONS), 0u);
}

TEST_P(StoreTogether, StepsMayBeWithinSteps) {
    store->together([&] {
        store->together([&] {
            ASSERT_EQ(add(named("a")), Store::AddResult::added);
            EXPECT_THROW(store->together([&] {
                ASSERT_EQ(add(named("b")), Store::AddResult::added);
                throw Enough();
            }),
                         Enough);
        });
        ASSERT_EQ(add(named("c")), Store::AddResult::added);
    });
    EXPECT_THAT(all(), SizeIs(2));
    EXPECT_THAT(found("-name", "b"), IsEmpty());
}

TEST_P(StoreTogether, ADatabaseIsReplacedAsAStep) {
    add_all({"a"});
    EXPECT_THROW(store->together([&] {
        store->replace(RGY_DB_REGIONS, std::nullopt, {{7, "-name=g;"}});
        EXPECT_THAT(all(), ElementsAre(Record{7, "-name=g;"}));
        throw Enough();
    }),
                 Enough);
    EXPECT_THAT(all(), ElementsAre(Record{1, "-name=a;"}));
}

TEST_P(StoreTogether, ManyChangesOfSeveralDatabasesAreOne) {
    store->together([&] {
        for (int i = 0; i < 60; ++i)
            ASSERT_EQ(add(named(std::to_string(i)), static_cast<rgy_db_t>(i) % RGY_DB_ALL), Store::AddResult::added);
    });
    for (rgy_db_t db = 0; db < RGY_DB_ALL; ++db)
        EXPECT_EQ(store->count(db), 5u);
}
