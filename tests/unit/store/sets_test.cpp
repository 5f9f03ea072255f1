// Sets of changes that come piece by piece.
#include <tests/unit/store/store_fixture.h>

using namespace velia::server;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using testing::SizeIs;

namespace {

using Steps = std::vector<std::pair<uint64_t, std::string>>;

tbs_uuid_t set_of(uint8_t number) {
    tbs_uuid_t set = {};
    set.bytes[0] = number;
    return set;
}

struct StoreSets : StoreTest {
    void stage(const tbs_uuid_t &set, const Steps &steps) {
        std::vector<rgy_change_t> changes;
        std::vector<std::string> texts;
        texts.reserve(steps.size());
        for (const auto &[id, text] : steps) {
            rgy_change_t change = {};
            change.entry_id = id;
            texts.push_back(text);
            change.flex_text = texts.back().empty() ? nullptr : texts.back().data();
            changes.push_back(change);
        }
        store->add_to_set(set, changes);
    }
    static Steps steps_in(Store &of, const tbs_uuid_t &set) {
        Steps steps;
        of.each_of_set(set, [&](uint64_t id, const std::string &text) {
            steps.emplace_back(id, text);
            return true;
        });
        return steps;
    }
    Steps steps_of(const tbs_uuid_t &set) { return steps_in(*store, set); }
};
VELIA_FOR_EACH_STORE(StoreSets);

struct Enough {};

} // namespace

TEST_P(StoreSets, OneThatThereIsNotIsEmpty) {
    EXPECT_THAT(steps_of(set_of(1)), IsEmpty());
    EXPECT_EQ(store->size_of_set(set_of(1)).changes, 0u);
    EXPECT_EQ(store->size_of_set(set_of(1)).bytes, 0u);
}

TEST_P(StoreSets, WhatWasStagedComesInItsOrder) {
    stage(set_of(1), {{3, "c"}, {1, "a"}});
    stage(set_of(1), {{2, "b"}});
    EXPECT_THAT(steps_of(set_of(1)), ElementsAre(Pair(3, "c"), Pair(1, "a"), Pair(2, "b")));
}

TEST_P(StoreSets, ChangesAndTheirBytesAreCounted) {
    stage(set_of(1), {{3, "ccc"}, {1, ""}});
    stage(set_of(1), {{2, "bb"}});
    EXPECT_EQ(store->size_of_set(set_of(1)).changes, 3u);
    EXPECT_EQ(store->size_of_set(set_of(1)).bytes, 5u);
}

TEST_P(StoreSets, AChangeWithoutATextHasTheEmptyOne) {
    stage(set_of(1), {{3, ""}});
    EXPECT_THAT(steps_of(set_of(1)), ElementsAre(Pair(3, "")));
}

TEST_P(StoreSets, NothingMayBeStaged) {
    stage(set_of(1), {});
    EXPECT_EQ(store->size_of_set(set_of(1)).changes, 0u);
    EXPECT_THAT(steps_of(set_of(1)), IsEmpty());
}

TEST_P(StoreSets, AVisitorThatHasEnoughIsAskedNoMore) {
    stage(set_of(1), {{1, "a"}, {2, "b"}, {3, "c"}});
    int visits = 0;
    store->each_of_set(set_of(1), [&](uint64_t, const std::string &) { return ++visits < 2; });
    EXPECT_EQ(visits, 2);
    EXPECT_THAT(steps_of(set_of(1)), SizeIs(3));
}

TEST_P(StoreSets, AVisitorMayChangeTheData) {
    stage(set_of(1), {{0, "a"}, {0, "b"}});
    store->together([&] {
        store->each_of_set(
            set_of(1), [&](uint64_t, const std::string &name) { return add(named(name)) == Store::AddResult::added; });
    });
    EXPECT_THAT(all(), SizeIs(2));
}

TEST_P(StoreSets, SetsAreApartFromEachOther) {
    stage(set_of(1), {{1, "a"}});
    stage(set_of(2), {{2, "b"}});
    stage(set_of(1), {{3, "c"}});
    EXPECT_THAT(steps_of(set_of(1)), ElementsAre(Pair(1, "a"), Pair(3, "c")));
    EXPECT_THAT(steps_of(set_of(2)), ElementsAre(Pair(2, "b")));
}

TEST_P(StoreSets, OneThatIsForgottenIsGone) {
    stage(set_of(1), {{1, "a"}});
    stage(set_of(2), {{2, "b"}});
    store->forget_set(set_of(1));
    EXPECT_THAT(steps_of(set_of(1)), IsEmpty());
    EXPECT_EQ(store->size_of_set(set_of(1)).changes, 0u);
    EXPECT_THAT(steps_of(set_of(2)), SizeIs(1));
}

TEST_P(StoreSets, OneThatThereIsNotMayBeForgotten) {
    store->forget_set(set_of(1));
    EXPECT_THAT(steps_of(set_of(1)), IsEmpty());
}

TEST_P(StoreSets, OneThatWasForgottenBeginsAnew) {
    stage(set_of(1), {{1, "a"}});
    store->forget_set(set_of(1));
    stage(set_of(1), {{2, "b"}});
    EXPECT_THAT(steps_of(set_of(1)), ElementsAre(Pair(2, "b")));
}

TEST_P(StoreSets, OfNineTheOldestIsForgotten) {
    for (uint8_t number = 1; number <= 9; ++number)
        stage(set_of(number), {{number, "a"}});
    EXPECT_EQ(store->size_of_set(set_of(1)).changes, 0u);
    for (uint8_t number = 2; number <= 9; ++number)
        EXPECT_EQ(store->size_of_set(set_of(number)).changes, 1u) << int{number};
}

TEST_P(StoreSets, OfEightNoneIsForgottenWhenOneGrows) {
    for (uint8_t number = 1; number <= 8; ++number)
        stage(set_of(number), {{number, "a"}});
    stage(set_of(8), {{9, "b"}});
    EXPECT_EQ(store->size_of_set(set_of(1)).changes, 1u);
    EXPECT_EQ(store->size_of_set(set_of(8)).changes, 2u);
}

TEST_P(StoreSets, TheyAreNoPartOfTheData) {
    const uint64_t changes = store->changes();
    EXPECT_FALSE(renews_stamps(RGY_DB_REGIONS, [&] { stage(set_of(1), {{0, "a"}}); }));
    EXPECT_THAT(all(), IsEmpty());
    EXPECT_EQ(store->changes(), changes);
}

TEST_P(StoreSets, TheyAreNotKeptOverReopening) {
    stage(set_of(1), {{0, "a"}});
    reopen();
    EXPECT_THAT(steps_of(set_of(1)), IsEmpty());
}

TEST_P(StoreSets, OtherStoresOnTheRegistryDoNotHaveThem) {
    const auto other = open();
    stage(set_of(1), {{0, "a"}});
    EXPECT_EQ(other->size_of_set(set_of(1)).changes, 0u);
    EXPECT_THAT(steps_in(*other, set_of(1)), IsEmpty());
}

TEST_P(StoreSets, WhatWasStagedAmidAnErrorIsTakenBack) {
    stage(set_of(1), {{1, "a"}});
    EXPECT_THROW(store->together([&] {
        stage(set_of(1), {{2, "b"}});
        stage(set_of(2), {{3, "c"}});
        throw Enough();
    }),
                 Enough);
    EXPECT_THAT(steps_of(set_of(1)), ElementsAre(Pair(1, "a")));
    EXPECT_EQ(store->size_of_set(set_of(1)).changes, 1u);
    EXPECT_THAT(steps_of(set_of(2)), IsEmpty());
}

TEST_P(StoreSets, WhatWasForgottenAmidAnErrorIsThereAgain) {
    stage(set_of(1), {{1, "a"}});
    EXPECT_THROW(store->together([&] {
        store->forget_set(set_of(1));
        throw Enough();
    }),
                 Enough);
    EXPECT_THAT(steps_of(set_of(1)), SizeIs(1));
}

TEST_P(StoreSets, WhatWasStagedTogetherWithOthersStays) {
    store->together([&] {
        stage(set_of(1), {{1, "a"}});
        store->together([&] { stage(set_of(1), {{2, "b"}}); });
    });
    EXPECT_THAT(steps_of(set_of(1)), SizeIs(2));
}

TEST_P(StoreSets, ManyChangesAreKept) {
    Steps steps;
    for (uint64_t i = 0; i < 5000; ++i)
        steps.emplace_back(i, std::to_string(i));
    stage(set_of(1), steps);
    EXPECT_EQ(steps_of(set_of(1)), steps);
}
