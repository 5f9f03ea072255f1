// What a store tells of itself, and how its records are visited.
#include <tests/unit/store/store_fixture.h>

#include <utility>

using namespace velia::server;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

using StoreReading = StoreTest;
VELIA_FOR_EACH_STORE(StoreReading);

const std::string uuid_text = "0b5f8a52-7d1a-4c39-9d54-1a2b3c4d5e6f";
const std::string bare_uuid_text = "0B5F8A527D1A4C399D541A2B3C4D5E6F";
constexpr size_t many = 2500; // more than any store fetches at once

std::vector<std::string> numbered_names(size_t count) {
    std::vector<std::string> names;
    for (size_t i = 1; i <= count; ++i)
        names.push_back(std::to_string(i));
    return names;
}

Entry owned(const std::string &tag, const std::string &owner) {
    return nameless({{"-tag", tag}, {"-owner", owner}}, tag);
}

Entry in_region(const std::string &text, const std::string &region) {
    return nameless({{"-tag", "t"}, {"-region", region}}, text);
}

} // namespace

TEST_P(StoreReading, OneThatIsMadeSaysSoOnce) {
    EXPECT_TRUE(is_new);
    reopen();
    EXPECT_FALSE(is_new);
}

TEST_P(StoreReading, ANewOneHasNamesForTheRegistryAndTheCopy) {
    const Stamps stamps = store->stamps(0);
    const tbs_uuid_t null = {};
    EXPECT_EQ(tbs_uuid_eq(&stamps.registry, &null), 0);
    EXPECT_EQ(tbs_uuid_eq(&stamps.copy, &null), 0);
    EXPECT_EQ(tbs_uuid_eq(&stamps.copy, &stamps.registry), 0);
}

TEST_P(StoreReading, TheNamesAreTheSameForAllDatabases) {
    const Stamps first = store->stamps(0);
    for (rgy_db_t db = 1; db < RGY_DB_ALL; ++db) {
        const Stamps stamps = store->stamps(db);
        EXPECT_NE(tbs_uuid_eq(&stamps.registry, &first.registry), 0);
        EXPECT_NE(tbs_uuid_eq(&stamps.copy, &first.copy), 0);
    }
}

TEST_P(StoreReading, StampsAndNamesAreThoseOfBeforeAfterReopening) {
    const Stamps before = store->stamps(RGY_DB_REGIONS);
    reopen();
    const Stamps after = store->stamps(RGY_DB_REGIONS);
    EXPECT_EQ(memcmp(&before, &after, sizeof before), 0);
}

TEST_P(StoreReading, NoTwoDatabasesShareStamps) {
    for (rgy_db_t db = 0; db < RGY_DB_ALL; ++db)
        for (rgy_db_t other = 0; other < db; ++other)
            EXPECT_FALSE(is_same(pair(db), pair(other)));
}

TEST_P(StoreReading, TheTwoStampsOfAPairDiffer) {
    const auto stamps = pair(RGY_DB_REGIONS);
    EXPECT_NE(memcmp(&stamps.dtm, &stamps.svr_dtm, sizeof stamps.dtm), 0);
}

TEST_P(StoreReading, ADatabaseThatThereIsNotHasNoStampsAndNoEntries) {
    EXPECT_TRUE(is_same(pair(RGY_DB_ALL), {}));
    EXPECT_EQ(store->count(RGY_DB_ALL), 0u);
    EXPECT_THAT(all(RGY_DB_ALL), IsEmpty());
}

TEST_P(StoreReading, ItIsInPlace) {
    EXPECT_TRUE(store->is_in_place());
}

TEST_P(StoreReading, AnEmptyDatabaseIsVisitedNowhere) {
    EXPECT_THAT(all(), IsEmpty());
    EXPECT_THAT(found("-name", "a"), IsEmpty());
}

TEST_P(StoreReading, RecordsComeInTheOrderOfTheirNumbers) {
    add_all({"c", "a", "b"});
    EXPECT_THAT(all(), ElementsAre(Record{1, "-name=c;"}, Record{2, "-name=a;"}, Record{3, "-name=b;"}));
}

TEST_P(StoreReading, AScanGoesOnBehindANumber) {
    add_all({"a", "b", "c"});
    EXPECT_THAT(scan({RGY_DB_REGIONS, "", "", ""}, 1), ElementsAre(Record{2, "-name=b;"}, Record{3, "-name=c;"}));
}

TEST_P(StoreReading, AScanGoesOnBehindANumberThatIsGone) {
    add_all({"a", "b", "c"});
    ASSERT_TRUE(remove(2));
    EXPECT_THAT(scan({RGY_DB_REGIONS, "", "", ""}, 2), ElementsAre(Record{3, "-name=c;"}));
}

TEST_P(StoreReading, BehindTheLastNumberThereIsNothing) {
    add_all({"a", "b"});
    EXPECT_THAT(scan({RGY_DB_REGIONS, "", "", ""}, 2), IsEmpty());
    EXPECT_THAT(scan({RGY_DB_REGIONS, "", "", ""}, 1'000'000), IsEmpty());
}

TEST_P(StoreReading, AVisitorThatHasEnoughIsAskedNoMore) {
    add_all({"a", "b", "c"});
    int visits = 0;
    store->scan({RGY_DB_REGIONS, "", "", ""}, 0, [&](uint64_t, const Record *) { return ++visits < 2; });
    EXPECT_EQ(visits, 2);
}

TEST_P(StoreReading, AVisitorThatHasEnoughOfAnItemIsAskedNoMore) {
    for (const char *tag : {"a", "b", "c"})
        ASSERT_EQ(add(owned(tag, "u")), Store::AddResult::added);
    int visits = 0;
    store->scan({RGY_DB_REGIONS, "", "-owner", "u"}, 0, [&](uint64_t, const Record *) { return ++visits < 2; });
    EXPECT_EQ(visits, 2);
}

TEST_P(StoreReading, AnotherScanBeginsAnewBehindOneThatWasCut) {
    add_all({"a", "b", "c"});
    store->scan({RGY_DB_REGIONS, "", "", ""}, 0, [](uint64_t, const Record *) { return false; });
    EXPECT_THAT(all(), SizeIs(3));
}

TEST_P(StoreReading, AVisitorThatThrowsEndsTheScanAndNothingElse) {
    add_all({"a", "b", "c"});
    const auto throw_at_once = [](uint64_t, const Record *) -> bool { throw StoreError("enough"); };
    EXPECT_THROW(store->scan({RGY_DB_REGIONS, "", "", ""}, 0, throw_at_once), StoreError);
    EXPECT_THROW(store->scan({RGY_DB_REGIONS, "", "-name", "a"}, 0, throw_at_once), StoreError);
    EXPECT_THAT(all(), SizeIs(3));
    EXPECT_EQ(add(named("d")), Store::AddResult::added);
}

TEST_P(StoreReading, AVisitorMayAskForOtherThings) {
    add_all({"a", "b", "c"});
    store->set_setting("s", "v");
    int visits = 0;
    store->scan({RGY_DB_REGIONS, "", "", ""}, 0, [&](uint64_t, const Record *) {
        EXPECT_EQ(store->setting("s"), "v");
        EXPECT_EQ(store->count(RGY_DB_REGIONS), 3u);
        EXPECT_FALSE(is_same(pair(RGY_DB_REGIONS), {}));
        EXPECT_THAT(found("-name", "b"), SizeIs(1));
        ++visits;
        return true;
    });
    EXPECT_EQ(visits, 3);
}

TEST_P(StoreReading, OfManyRecordsEachIsVisitedOnce) {
    add_all(numbered_names(many));
    std::vector<uint64_t> expected(many);
    for (size_t i = 0; i < many; ++i)
        expected[i] = i + 1;
    std::vector<uint64_t> visited;
    for (const Record &record : all())
        visited.push_back(record.id);
    EXPECT_EQ(visited, expected);
}

TEST_P(StoreReading, OfManyRecordsWithAnItemEachIsVisitedOnce) {
    store->together([&] {
        for (size_t i = 1; i <= many; ++i)
            ASSERT_EQ(add(owned(std::to_string(i), i % 2 == 0 ? "even" : "odd")), Store::AddResult::added);
    });
    uint64_t last = 0;
    size_t visits = 0;
    for (const Record &record : found("-owner", "even")) {
        EXPECT_EQ(record.id, last + 2);
        last = record.id;
        ++visits;
    }
    EXPECT_EQ(visits, many / 2);
}

TEST_P(StoreReading, OfManyRecordsTheLastIsFoundBehindAllOthers) {
    add_all(numbered_names(many));
    EXPECT_THAT(found("-name", std::to_string(many)), ElementsAre(Record{many, "-name=2500;"}));
    EXPECT_THAT(scan({RGY_DB_REGIONS, "", "", ""}, many - 1), ElementsAre(Record{many, "-name=2500;"}));
}

TEST_P(StoreReading, ManyRecordsOfOtherRegionsAreVisitedToo) {
    store->together([&] {
        for (size_t i = 1; i <= many; ++i)
            ASSERT_EQ(add(in_region("x", i == many ? "west" : "east")), Store::AddResult::added);
    });
    const auto visited = scan({RGY_DB_REGIONS, "west", "", ""});
    ASSERT_THAT(visited, SizeIs(many));
    EXPECT_EQ(visited.front(), (Record{1, "-"}));
    EXPECT_EQ(visited.back(), (Record{many, "x"}));
}

TEST_P(StoreReading, AScanWithStampsVisitsTheSameAndTellsThoseOfItsDatabase) {
    add_all(numbered_names(many));
    ASSERT_EQ(add(in_region("west", "west")), Store::AddResult::added);
    ASSERT_EQ(add(in_region("east", "east")), Store::AddResult::added);
    for (const Selection &selection : std::vector<Selection>{{RGY_DB_REGIONS, "", "", ""},
                                                             {RGY_DB_REGIONS, "west", "", ""},
                                                             {RGY_DB_REGIONS, "", "-name", "7"},
                                                             {RGY_DB_REGIONS, "", "-name", "none"},
                                                             {RGY_DB_DOMAINS, "", "", ""}})
        for (const uint64_t after : {uint64_t{0}, uint64_t{1}, uint64_t{many}, uint64_t{many + 2}}) {
            std::vector<Record> records;
            const Stamps stamps = store->scan_with_stamps(selection, after, [&](uint64_t id, const Record *record) {
                records.push_back(record != nullptr ? *record : Record{id, "-"});
                return true;
            });
            const Stamps expected = store->stamps(selection.db);
            EXPECT_EQ(records, scan(selection, after));
            EXPECT_TRUE(is_same(stamps.pair, expected.pair));
            EXPECT_TRUE(tbs_uuid_eq(&stamps.registry, &expected.registry));
            EXPECT_TRUE(tbs_uuid_eq(&stamps.copy, &expected.copy));
        }
}

TEST_P(StoreReading, AScanWithStampsIsEndedByItsVisitorInAnyPiece) {
    add_all(numbered_names(many));
    for (const uint64_t enough : {uint64_t{1}, uint64_t{50}, uint64_t{51}, uint64_t{many}}) {
        uint64_t visits = 0;
        store->scan_with_stamps({RGY_DB_REGIONS, "", "", ""}, 0,
                                [&](uint64_t, const Record *) { return ++visits < enough; });
        EXPECT_EQ(visits, enough);
    }
}

// A change amid the visits is seen, or not; the stamps are of before it either way.
TEST_P(StoreReading, NothingThatIsVisitedIsOlderThanTheStampsOfItsScan) {
    add_all(numbered_names(many));
    const auto before = pair(RGY_DB_REGIONS);
    const auto other = open();
    bool is_changed = false;
    const Stamps stamps = store->scan_with_stamps({RGY_DB_REGIONS, "", "", ""}, 0, [&](uint64_t, const Record *) {
        if (!std::exchange(is_changed, true)) {
            EXPECT_EQ(add_to(*other, named("new")), Store::AddResult::added);
        }
        return true;
    });
    EXPECT_TRUE(is_same(stamps.pair, before));
    EXPECT_FALSE(is_same(pair(RGY_DB_REGIONS), before));
}

TEST_P(StoreReading, RecordsOfOtherDatabasesAreNotVisited) {
    add_all({"a"}, RGY_DB_REGIONS);
    add_all({"b"}, RGY_DB_DOMAINS);
    EXPECT_THAT(all(RGY_DB_REGIONS), ElementsAre(Record{1, "-name=a;"}));
    EXPECT_THAT(all(RGY_DB_DOMAINS), ElementsAre(Record{2, "-name=b;"}));
    EXPECT_THAT(found("-name", "a", RGY_DB_DOMAINS), IsEmpty());
}

TEST_P(StoreReading, AnItemIsFoundByItsWholeValue) {
    ASSERT_EQ(add(owned("one", "u")), Store::AddResult::added);
    ASSERT_EQ(add(owned("one2", "u")), Store::AddResult::added);
    EXPECT_THAT(found("-tag", "one"), ElementsAre(Record{1, "one"}));
    EXPECT_THAT(found("-tag", "on"), IsEmpty());
    EXPECT_THAT(found("-tag", "ONE"), IsEmpty());
    EXPECT_THAT(found("-tag", ""), IsEmpty());
}

TEST_P(StoreReading, AnItemIsFoundByItsWholeKey) {
    ASSERT_EQ(add(owned("one", "u")), Store::AddResult::added);
    EXPECT_THAT(found("-ta", "one"), IsEmpty());
    EXPECT_THAT(found("-tag2", "one"), IsEmpty());
    EXPECT_THAT(found("tag", "one"), IsEmpty());
    EXPECT_THAT(found("-owner", "one"), IsEmpty());
}

TEST_P(StoreReading, AKeyAndItsValueAreNotTakenForEachOther) {
    ASSERT_EQ(add(nameless({{"-a", "bc"}})), Store::AddResult::added);
    EXPECT_THAT(found("-ab", "c"), IsEmpty());
    EXPECT_THAT(found("-", "abc"), IsEmpty());
    EXPECT_THAT(found("-a", "bc"), SizeIs(1));
}

TEST_P(StoreReading, RecordsThatShareAnItemAreAllFound) {
    for (const char *tag : {"a", "b", "c"})
        ASSERT_EQ(add(owned(tag, "u")), Store::AddResult::added);
    EXPECT_THAT(found("-owner", "u"), ElementsAre(Record{1, "a"}, Record{2, "b"}, Record{3, "c"}));
}

TEST_P(StoreReading, AScanByAnItemGoesOnBehindANumber) {
    for (const char *tag : {"a", "b", "c"})
        ASSERT_EQ(add(owned(tag, "u")), Store::AddResult::added);
    EXPECT_THAT(scan({RGY_DB_REGIONS, "", "-owner", "u"}, 1), ElementsAre(Record{2, "b"}, Record{3, "c"}));
    EXPECT_THAT(scan({RGY_DB_REGIONS, "", "-owner", "u"}, 3), IsEmpty());
}

TEST_P(StoreReading, AUuidIsFoundByItsOneSpellingAndByItsOwn) {
    ASSERT_EQ(add(nameless({{"-view_uuid", bare_uuid_text}})), Store::AddResult::added);
    EXPECT_THAT(found("-view_uuid", uuid_text), SizeIs(1));
    EXPECT_THAT(found("-view_uuid", bare_uuid_text), SizeIs(1));
}

TEST_P(StoreReading, AUuidInItsOneSpellingIsFoundOnce) {
    ASSERT_EQ(add(nameless({{"-view_uuid", uuid_text}})), Store::AddResult::added);
    EXPECT_THAT(found("-view_uuid", uuid_text), SizeIs(1));
    EXPECT_THAT(found("-view_uuid", bare_uuid_text), IsEmpty());
}

TEST_P(StoreReading, WithoutAKeyTheValueIsNoMatter) {
    add_all({"a", "b"});
    EXPECT_THAT(scan({RGY_DB_REGIONS, "", "", "a"}), SizeIs(2));
}

TEST_P(StoreReading, ARegionLeavesOutTheRecordsOfOthersOneByOne) {
    ASSERT_EQ(add(in_region("a", "r1")), Store::AddResult::added);
    ASSERT_EQ(add(in_region("b", "r2")), Store::AddResult::added);
    ASSERT_EQ(add(in_region("c", "r1")), Store::AddResult::added);
    EXPECT_THAT(scan({RGY_DB_REGIONS, "r1", "", ""}), ElementsAre(Record{1, "a"}, Record{2, "-"}, Record{3, "c"}));
}

TEST_P(StoreReading, ARegionLeavesOutOfWhatAnItemSelects) {
    ASSERT_EQ(add(in_region("a", "r1")), Store::AddResult::added);
    ASSERT_EQ(add(in_region("b", "r2")), Store::AddResult::added);
    EXPECT_THAT(scan({RGY_DB_REGIONS, "r2", "-tag", "t"}), ElementsAre(Record{1, "-"}, Record{2, "b"}));
}

TEST_P(StoreReading, ARecordWithoutARegionIsOfEveryOne) {
    ASSERT_EQ(add(nameless({{"-tag", "t"}}, "a")), Store::AddResult::added);
    EXPECT_THAT(scan({RGY_DB_REGIONS, "r1", "", ""}), ElementsAre(Record{1, "a"}));
    EXPECT_THAT(scan({RGY_DB_REGIONS, "r1", "-tag", "t"}), ElementsAre(Record{1, "a"}));
}

TEST_P(StoreReading, ARegionIsItsWholeName) {
    ASSERT_EQ(add(in_region("a", "r1")), Store::AddResult::added);
    EXPECT_THAT(scan({RGY_DB_REGIONS, "r", "", ""}), ElementsAre(Record{1, "-"}));
    EXPECT_THAT(scan({RGY_DB_REGIONS, "r11", "", ""}), ElementsAre(Record{1, "-"}));
    EXPECT_THAT(scan({RGY_DB_REGIONS, "R1", "", ""}), ElementsAre(Record{1, "-"}));
}

TEST_P(StoreReading, WithoutARegionAllRecordsCome) {
    ASSERT_EQ(add(in_region("a", "r1")), Store::AddResult::added);
    ASSERT_EQ(add(in_region("b", "r2")), Store::AddResult::added);
    EXPECT_THAT(all(), ElementsAre(Record{1, "a"}, Record{2, "b"}));
}

TEST_P(StoreReading, EntriesAreCountedOfEachDatabase) {
    add_all({"a", "b", "c"}, RGY_DB_REGIONS);
    add_all({"d"}, RGY_DB_DOMAINS);
    EXPECT_EQ(store->count(RGY_DB_REGIONS), 3u);
    EXPECT_EQ(store->count(RGY_DB_DOMAINS), 1u);
    EXPECT_EQ(store->count(RGY_DB_VIEW_TAG), 0u);
}

TEST_P(StoreReading, RecordsAndTheirItemsAreThereAfterReopening) {
    ASSERT_EQ(add(in_region("a", "r1")), Store::AddResult::added);
    reopen();
    EXPECT_THAT(all(), ElementsAre(Record{1, "a"}));
    EXPECT_THAT(found("-tag", "t"), SizeIs(1));
    EXPECT_THAT(scan({RGY_DB_REGIONS, "r2", "", ""}), ElementsAre(Record{1, "-"}));
    EXPECT_EQ(store->count(RGY_DB_REGIONS), 1u);
}

TEST_P(StoreReading, ACheckpointChangesNothing) {
    add_all({"a"});
    const auto before = pair(RGY_DB_REGIONS);
    store->checkpoint();
    EXPECT_TRUE(is_same(pair(RGY_DB_REGIONS), before));
    EXPECT_THAT(all(), SizeIs(1));
}
