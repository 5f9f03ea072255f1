// Adding, removing and changing single records, the numbers they get, and what is counted of it.
#include <tests/unit/store/store_fixture.h>

using namespace velia::server;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

using StoreChanging = StoreTest;
VELIA_FOR_EACH_STORE(StoreChanging);

rgy_dtm_pair_t with_other_half(rgy_dtm_pair_t pair, bool is_server_half) {
    auto &half = is_server_half ? pair.svr_dtm : pair.dtm;
    reinterpret_cast<uint8_t *>(&half)[0] ^= 1;
    return pair;
}

} // namespace

TEST_P(StoreChanging, NumbersBeginAtOneAndGrowByOne) {
    add_all({"a", "b", "c"});
    EXPECT_THAT(all(), ElementsAre(Record{1, "-name=a;"}, Record{2, "-name=b;"}, Record{3, "-name=c;"}));
}

TEST_P(StoreChanging, NumbersAreSharedByAllDatabases) {
    add_all({"a"}, RGY_DB_REGIONS);
    add_all({"b"}, RGY_DB_DOMAINS);
    add_all({"c"}, RGY_DB_REGIONS);
    EXPECT_THAT(all(RGY_DB_REGIONS), ElementsAre(Record{1, "-name=a;"}, Record{3, "-name=c;"}));
}

TEST_P(StoreChanging, NumbersGoOnAfterReopening) {
    add_all({"a"});
    reopen();
    add_all({"b"});
    EXPECT_THAT(all(), ElementsAre(Record{1, "-name=a;"}, Record{2, "-name=b;"}));
}

TEST_P(StoreChanging, TheNumberOfTheLastRecordIsNotGivenAgainWhenItIsGone) {
    add_all({"a", "b"});
    ASSERT_TRUE(remove(2));
    add_all({"b"});
    EXPECT_THAT(all(), ElementsAre(Record{1, "-name=a;"}, Record{3, "-name=b;"}));
}

TEST_P(StoreChanging, TheNumberOfTheLastRecordIsNotGivenAgainAfterReopening) {
    add_all({"a"});
    ASSERT_TRUE(remove(1));
    reopen();
    add_all({"a"});
    EXPECT_THAT(all(), ElementsAre(Record{2, "-name=a;"}));
}

TEST_P(StoreChanging, ARefusedAddUsesNoNumberUp) {
    add_all({"a"});
    EXPECT_EQ(add(named("a")), Store::AddResult::exists);
    add_all({"b"});
    EXPECT_EQ(all().back().id, 2u);
}

TEST_P(StoreChanging, SkippedNumbersAreNotGiven) {
    add_all({"a"});
    store->skip_numbers(1'000'000);
    add_all({"b"});
    EXPECT_EQ(all().back().id, 1'000'002u);
}

TEST_P(StoreChanging, NumbersAreSkippedOfAnEmptyStoreToo) {
    store->skip_numbers(5);
    store->skip_numbers(5);
    add_all({"a"});
    EXPECT_THAT(all(), ElementsAre(Record{11, "-name=a;"}));
}

TEST_P(StoreChanging, SkippedNumbersStaySoAfterReopening) {
    store->skip_numbers(41);
    reopen();
    add_all({"a"});
    EXPECT_THAT(all(), ElementsAre(Record{42, "-name=a;"}));
}

TEST_P(StoreChanging, AnAddRenewsBothStampsOfItsDatabase) {
    const auto before = pair(RGY_DB_REGIONS);
    add_all({"a"});
    const auto after = pair(RGY_DB_REGIONS);
    EXPECT_NE(memcmp(&before.dtm, &after.dtm, sizeof before.dtm), 0);
    EXPECT_NE(memcmp(&before.svr_dtm, &after.svr_dtm, sizeof before.svr_dtm), 0);
}

TEST_P(StoreChanging, AnAddWithStampsOfBeforeIsStale) {
    const auto before = pair(RGY_DB_REGIONS);
    add_all({"a"});
    EXPECT_EQ(store->add(RGY_DB_REGIONS, before, "b", "b", {}), Store::AddResult::stale);
    EXPECT_THAT(all(), SizeIs(1));
}

TEST_P(StoreChanging, AnAddWithoutStampsIsStale) {
    EXPECT_EQ(store->add(RGY_DB_REGIONS, {}, "b", "b", {}), Store::AddResult::stale);
    EXPECT_THAT(all(), IsEmpty());
}

TEST_P(StoreChanging, AnAddWithStampsOfAnotherDatabaseIsStale) {
    EXPECT_EQ(store->add(RGY_DB_REGIONS, pair(RGY_DB_DOMAINS), "b", "b", {}), Store::AddResult::stale);
}

TEST_P(StoreChanging, AnAddWithAnotherFirstStampIsStale) {
    EXPECT_EQ(store->add(RGY_DB_REGIONS, with_other_half(pair(RGY_DB_REGIONS), false), "b", "b", {}),
              Store::AddResult::stale);
}

TEST_P(StoreChanging, AnAddWithAnotherSecondStampIsStale) {
    EXPECT_EQ(store->add(RGY_DB_REGIONS, with_other_half(pair(RGY_DB_REGIONS), true), "b", "b", {}),
              Store::AddResult::stale);
}

TEST_P(StoreChanging, AStaleAddOfWhatStandsIsStale) {
    const auto before = pair(RGY_DB_REGIONS);
    add_all({"a"});
    EXPECT_EQ(store->add(RGY_DB_REGIONS, before, "a", "a", {}), Store::AddResult::stale);
}

TEST_P(StoreChanging, ARefusedAddRenewsNoStamps) {
    add_all({"a"});
    EXPECT_FALSE(renews_stamps(RGY_DB_REGIONS, [&] { EXPECT_EQ(add(named("a")), Store::AddResult::exists); }));
    EXPECT_FALSE(renews_stamps(
        RGY_DB_REGIONS, [&] { EXPECT_EQ(store->add(RGY_DB_REGIONS, {}, "b", "b", {}), Store::AddResult::stale); }));
}

TEST_P(StoreChanging, ARefusedAddLeavesNoItems) {
    add_all({"a"});
    EXPECT_EQ(add({"a", "text", {{"-owner", "u"}}}), Store::AddResult::exists);
    EXPECT_EQ(store->add(RGY_DB_REGIONS, {}, "b", "text", {{"-owner", "u"}}), Store::AddResult::stale);
    EXPECT_THAT(found("-owner", "u"), IsEmpty());
    EXPECT_EQ(store->count(RGY_DB_REGIONS), 1u);
}

TEST_P(StoreChanging, AnIdentityIsThereOnceInADatabase) {
    add_all({"a"}, RGY_DB_REGIONS);
    EXPECT_EQ(add(named("a"), RGY_DB_REGIONS), Store::AddResult::exists);
    EXPECT_EQ(add(named("a"), RGY_DB_DOMAINS), Store::AddResult::added);
    EXPECT_EQ(add(named("A"), RGY_DB_REGIONS), Store::AddResult::added);
}

TEST_P(StoreChanging, RecordsWithoutAnIdentityMayBeAlike) {
    EXPECT_EQ(add(nameless({{"-a", "1"}})), Store::AddResult::added);
    EXPECT_EQ(add(nameless({{"-a", "1"}})), Store::AddResult::added);
    EXPECT_THAT(found("-a", "1"), SizeIs(2));
}

TEST_P(StoreChanging, AnIdentityIsFreeAgainWhenItsBearerIsGone) {
    add_all({"a"});
    ASSERT_TRUE(remove(1));
    EXPECT_EQ(add(named("a")), Store::AddResult::added);
}

TEST_P(StoreChanging, WhatIsRemovedIsGivenOutOnceMore) {
    add_all({"a", "b"});
    Record removed;
    ASSERT_TRUE(store->remove(RGY_DB_REGIONS, 2, removed));
    EXPECT_EQ(removed, (Record{2, "-name=b;"}));
    EXPECT_THAT(all(), ElementsAre(Record{1, "-name=a;"}));
}

TEST_P(StoreChanging, WhatIsRemovedIsNotFoundByItsItems) {
    add_all({"a"});
    ASSERT_TRUE(remove(1));
    EXPECT_THAT(found("-name", "a"), IsEmpty());
}

TEST_P(StoreChanging, ARemovalRenewsTheStampsOfItsDatabaseAlone) {
    add_all({"a"});
    const auto domains = pair(RGY_DB_DOMAINS);
    EXPECT_TRUE(renews_stamps(RGY_DB_REGIONS, [&] { ASSERT_TRUE(remove(1)); }));
    EXPECT_TRUE(is_same(pair(RGY_DB_DOMAINS), domains));
}

TEST_P(StoreChanging, ARecordThatThereIsNotIsNotRemoved) {
    add_all({"a"});
    Record removed = {7, "untouched"};
    EXPECT_FALSE(renews_stamps(RGY_DB_REGIONS, [&] {
        EXPECT_FALSE(store->remove(RGY_DB_REGIONS, 2, removed));
        EXPECT_FALSE(store->remove(RGY_DB_REGIONS, 0, removed));
        EXPECT_FALSE(store->remove(RGY_DB_REGIONS, UINT64_MAX, removed));
    }));
    EXPECT_EQ(removed, (Record{7, "untouched"}));
}

TEST_P(StoreChanging, ARecordIsRemovedOnce) {
    add_all({"a"});
    EXPECT_TRUE(remove(1));
    EXPECT_FALSE(remove(1));
    EXPECT_EQ(store->count(RGY_DB_REGIONS), 0u);
}

TEST_P(StoreChanging, ARecordOfAnotherDatabaseIsNotRemoved) {
    add_all({"a"}, RGY_DB_REGIONS);
    EXPECT_FALSE(remove(1, RGY_DB_DOMAINS));
    EXPECT_THAT(all(RGY_DB_REGIONS), SizeIs(1));
    EXPECT_THAT(found("-name", "a"), SizeIs(1));
}

TEST_P(StoreChanging, AChangedRecordKeepsItsNumber) {
    add_all({"a", "b", "c"});
    EXPECT_EQ(change(2, named("x")), Store::ChangeResult::changed);
    EXPECT_THAT(all(), ElementsAre(Record{1, "-name=a;"}, Record{2, "-name=x;"}, Record{3, "-name=c;"}));
}

TEST_P(StoreChanging, AChangedRecordIsFoundByItsNewItemsOnly) {
    add_all({"a"});
    ASSERT_EQ(change(1, named("x")), Store::ChangeResult::changed);
    EXPECT_THAT(found("-name", "a"), IsEmpty());
    EXPECT_THAT(found("-name", "x"), SizeIs(1));
}

TEST_P(StoreChanging, AChangedRecordIsOfItsNewRegion) {
    ASSERT_EQ(add(nameless({{"-region", "r1"}}, "a")), Store::AddResult::added);
    ASSERT_EQ(change(1, nameless({{"-region", "r2"}}, "b")), Store::ChangeResult::changed);
    EXPECT_THAT(scan({RGY_DB_REGIONS, "r1", "", ""}), ElementsAre(Record{1, "-"}));
    EXPECT_THAT(scan({RGY_DB_REGIONS, "r2", "", ""}), ElementsAre(Record{1, "b"}));
}

TEST_P(StoreChanging, AChangedRecordGivesItsFormerIdentityUp) {
    add_all({"a"});
    ASSERT_EQ(change(1, named("x")), Store::ChangeResult::changed);
    EXPECT_EQ(add(named("x")), Store::AddResult::exists);
    EXPECT_EQ(add(named("a")), Store::AddResult::added);
}

TEST_P(StoreChanging, ARecordMayKeepItsIdentity) {
    add_all({"a"});
    EXPECT_EQ(change(1, {"a", "other text", {{"-name", "a"}}}), Store::ChangeResult::changed);
    EXPECT_THAT(all(), ElementsAre(Record{1, "other text"}));
}

TEST_P(StoreChanging, ARecordMayLoseItsIdentity) {
    add_all({"a"});
    EXPECT_EQ(change(1, nameless({})), Store::ChangeResult::changed);
    EXPECT_EQ(add(named("a")), Store::AddResult::added);
}

TEST_P(StoreChanging, ARecordMayNotTakeTheIdentityOfAnother) {
    add_all({"a", "b"});
    EXPECT_FALSE(renews_stamps(RGY_DB_REGIONS, [&] { EXPECT_EQ(change(1, named("b")), Store::ChangeResult::exists); }));
    EXPECT_THAT(all(), ElementsAre(Record{1, "-name=a;"}, Record{2, "-name=b;"}));
    EXPECT_THAT(found("-name", "a"), SizeIs(1));
}

TEST_P(StoreChanging, ARecordMayTakeTheIdentityOfOneInAnotherDatabase) {
    add_all({"a"}, RGY_DB_REGIONS);
    add_all({"b"}, RGY_DB_DOMAINS);
    EXPECT_EQ(change(1, named("b"), RGY_DB_REGIONS), Store::ChangeResult::changed);
}

TEST_P(StoreChanging, ARecordThatThereIsNotIsNotChanged) {
    add_all({"a"});
    EXPECT_FALSE(renews_stamps(RGY_DB_REGIONS, [&] {
        EXPECT_EQ(change(2, named("x")), Store::ChangeResult::absent);
        EXPECT_EQ(change(0, named("a")), Store::ChangeResult::absent);
    }));
    EXPECT_THAT(all(), SizeIs(1));
}

TEST_P(StoreChanging, ARecordOfAnotherDatabaseIsNotChanged) {
    add_all({"a"}, RGY_DB_REGIONS);
    EXPECT_EQ(change(1, named("x"), RGY_DB_DOMAINS), Store::ChangeResult::absent);
    EXPECT_THAT(all(RGY_DB_REGIONS), ElementsAre(Record{1, "-name=a;"}));
    EXPECT_THAT(all(RGY_DB_DOMAINS), IsEmpty());
}

TEST_P(StoreChanging, AChangeRenewsTheStampsOfItsDatabaseAlone) {
    add_all({"a"});
    const auto domains = pair(RGY_DB_DOMAINS);
    EXPECT_TRUE(renews_stamps(RGY_DB_REGIONS, [&] { ASSERT_EQ(change(1, named("x")), Store::ChangeResult::changed); }));
    EXPECT_TRUE(is_same(pair(RGY_DB_DOMAINS), domains));
}

TEST_P(StoreChanging, AChangeToWhatStandsIsAChange) {
    add_all({"a"});
    EXPECT_TRUE(renews_stamps(RGY_DB_REGIONS, [&] { ASSERT_EQ(change(1, named("a")), Store::ChangeResult::changed); }));
}

TEST_P(StoreChanging, AChangeLeavesTheCountOfEntries) {
    add_all({"a", "b"});
    ASSERT_EQ(change(1, named("x")), Store::ChangeResult::changed);
    EXPECT_EQ(store->count(RGY_DB_REGIONS), 2u);
}

TEST_P(StoreChanging, AChangeOfTheLastRecordLeavesTheNextNumber) {
    add_all({"a"});
    ASSERT_EQ(change(1, named("x")), Store::ChangeResult::changed);
    add_all({"b"});
    EXPECT_EQ(all().back().id, 2u);
}

TEST_P(StoreChanging, WhatWasChangedIsSoAfterReopening) {
    add_all({"a"});
    ASSERT_EQ(change(1, named("x")), Store::ChangeResult::changed);
    reopen();
    EXPECT_THAT(all(), ElementsAre(Record{1, "-name=x;"}));
    EXPECT_THAT(found("-name", "x"), SizeIs(1));
}

TEST_P(StoreChanging, EntriesAreCountedAsTheyComeAndGo) {
    add_all({"a", "b", "c"});
    ASSERT_TRUE(remove(1));
    ASSERT_TRUE(remove(3));
    EXPECT_EQ(store->count(RGY_DB_REGIONS), 1u);
    reopen();
    EXPECT_EQ(store->count(RGY_DB_REGIONS), 1u);
}

TEST_P(StoreChanging, EachChangeIsCounted) {
    const uint64_t before = store->changes();
    add_all({"a"});
    EXPECT_EQ(store->changes(), before + 1);
    ASSERT_EQ(change(1, named("b")), Store::ChangeResult::changed);
    EXPECT_EQ(store->changes(), before + 2);
    ASSERT_TRUE(remove(1));
    EXPECT_EQ(store->changes(), before + 3);
    store->set_setting("s", "v");
    EXPECT_EQ(store->changes(), before + 4);
    store->replace(RGY_DB_REGIONS, std::nullopt, {{9, "-name=n;"}});
    EXPECT_EQ(store->changes(), before + 5);
}

TEST_P(StoreChanging, WhatIsRefusedIsNotCounted) {
    add_all({"a"});
    const uint64_t before = store->changes();
    EXPECT_EQ(add(named("a")), Store::AddResult::exists);
    EXPECT_EQ(store->add(RGY_DB_REGIONS, {}, "b", "b", {}), Store::AddResult::stale);
    EXPECT_EQ(change(5, named("b")), Store::ChangeResult::absent);
    EXPECT_FALSE(remove(5));
    EXPECT_EQ(store->changes(), before);
}

TEST_P(StoreChanging, ChangesAreCountedOnAfterReopening) {
    add_all({"a", "b"});
    const uint64_t before = store->changes();
    reopen();
    EXPECT_EQ(store->changes(), before);
    add_all({"c"});
    EXPECT_EQ(store->changes(), before + 1);
}

TEST_P(StoreChanging, TheVersionIsAnotherAfterEachChange) {
    const auto version = store->watch_version();
    uint64_t last = version->now();
    const auto is_another = [&] {
        const uint64_t before = last;
        last = version->now();
        return last != before;
    };
    add_all({"a"});
    EXPECT_TRUE(is_another());
    ASSERT_EQ(change(1, named("b")), Store::ChangeResult::changed);
    EXPECT_TRUE(is_another());
    ASSERT_TRUE(remove(1));
    EXPECT_TRUE(is_another());
    store->set_setting("s", "v");
    EXPECT_TRUE(is_another());
    store->begin_anew({});
    EXPECT_TRUE(is_another());
}
