// A store that is made what another one is: databases replaced, a registry begun anew, and everything saved in a file.
#include <tests/unit/store/store_fixture.h>

#include <filesystem>

using namespace velia::server;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

const rgy_dtm_pair_t given_stamps = {{{1, 2, 3}}, {{4, 5, 6}}};
constexpr rgy_db_t db = RGY_DB_REGIONS;

struct StoreCopying : StoreTest {
    void replace(Contents contents) { store->replace(db, given_stamps, std::move(contents)); }
};
VELIA_FOR_EACH_STORE(StoreCopying);

tbs_uuid_t registry_of(uint8_t number) {
    tbs_uuid_t registry = {};
    registry.bytes[3] = number;
    return registry;
}

} // namespace

TEST_P(StoreCopying, RecordsHaveTheNumbersThatTheyHaveElsewhere) {
    replace({{5, "-name=e;"}, {900, "-name=f;"}});
    EXPECT_THAT(all(), ElementsAre(Record{5, "-name=e;"}, Record{900, "-name=f;"}));
}

TEST_P(StoreCopying, StampsAreThoseThatAreGiven) {
    replace({{5, "-name=e;"}});
    EXPECT_TRUE(is_same(pair(db), given_stamps));
    reopen();
    EXPECT_TRUE(is_same(pair(db), given_stamps));
}

TEST_P(StoreCopying, WithoutStampsTheyAreNew) {
    EXPECT_TRUE(renews_stamps(db, [&] { store->replace(db, std::nullopt, {{5, "-name=e;"}}); }));
    EXPECT_FALSE(is_same(pair(db), {}));
}

TEST_P(StoreCopying, RecordsAreFoundByTheirItems) {
    replace({{5, "-name=e;-region=r1;"}});
    EXPECT_THAT(found("-name", "e"), ElementsAre(Record{5, "-name=e;-region=r1;"}));
    EXPECT_THAT(scan({db, "r2", "", ""}), ElementsAre(Record{5, "-"}));
}

TEST_P(StoreCopying, RecordsHaveTheirIdentities) {
    replace({{5, "-name=e;"}});
    EXPECT_EQ(store->add(db, given_stamps, "other", "-name=x;", {}), Store::AddResult::added);
    const std::string identity = identity_of(db, {{"-name", "e"}});
    EXPECT_EQ(store->add(db, pair(db), identity, "-name=e;", {}), Store::AddResult::exists);
}

TEST_P(StoreCopying, WhatIsNotThereElsewhereGoes) {
    add_all({"a", "b"});
    replace({{2, "-name=b;"}});
    EXPECT_THAT(all(), ElementsAre(Record{2, "-name=b;"}));
    EXPECT_THAT(found("-name", "a"), IsEmpty());
}

TEST_P(StoreCopying, WhatReadsOtherwiseElsewhereIsChanged) {
    add_all({"a", "b"});
    replace({{1, "-name=z;"}, {2, "-name=b;"}});
    EXPECT_THAT(all(), ElementsAre(Record{1, "-name=z;"}, Record{2, "-name=b;"}));
    EXPECT_THAT(found("-name", "a"), IsEmpty());
    EXPECT_THAT(found("-name", "z"), SizeIs(1));
}

TEST_P(StoreCopying, ADatabaseMayBecomeEmpty) {
    add_all({"a", "b"});
    replace({});
    EXPECT_THAT(all(), IsEmpty());
    EXPECT_EQ(store->count(db), 0u);
}

TEST_P(StoreCopying, OtherDatabasesStayAsTheyAre) {
    add_all({"a"}, RGY_DB_DOMAINS);
    EXPECT_FALSE(renews_stamps(RGY_DB_DOMAINS, [&] { replace({{5, "-name=e;"}}); }));
    EXPECT_THAT(all(RGY_DB_DOMAINS), SizeIs(1));
}

TEST_P(StoreCopying, EntriesAreCounted) {
    add_all({"a", "b", "c"});
    replace({{2, "-name=b;"}, {8, "-name=h;"}});
    EXPECT_EQ(store->count(db), 2u);
}

TEST_P(StoreCopying, TwoRecordsMaySwapTheirIdentities) {
    replace({{1, "-name=a;"}, {2, "-name=b;"}});
    replace({{1, "-name=b;"}, {2, "-name=a;"}});
    EXPECT_THAT(all(), ElementsAre(Record{1, "-name=b;"}, Record{2, "-name=a;"}));
}

TEST_P(StoreCopying, OfTwoRecordsOfOneIdentityTheLaterStays) {
    replace({{1, "-name=a;"}, {2, "-name=a;-x=y;"}});
    EXPECT_THAT(all(), ElementsAre(Record{2, "-name=a;-x=y;"}));
    EXPECT_EQ(store->count(db), 1u);
}

TEST_P(StoreCopying, ALaterBearerThatStandsHereKeepsItsIdentity) {
    replace({{7, "-name=a;"}});
    replace({{3, "-name=a;-x=y;"}, {7, "-name=a;"}});
    EXPECT_THAT(all(), ElementsAre(Record{7, "-name=a;"}));
}

TEST_P(StoreCopying, AMalformedRecordChangesNothing) {
    add_all({"a"});
    EXPECT_FALSE(renews_stamps(db, [&] { EXPECT_THROW(replace({{5, "-name=e;"}, {6, "no record"}}), StoreError); }));
    EXPECT_THAT(all(), ElementsAre(Record{1, "-name=a;"}));
}

TEST_P(StoreCopying, ANumberOfAnotherDatabaseChangesNothing) {
    add_all({"a"}, RGY_DB_DOMAINS);
    EXPECT_THROW(replace({{1, "-name=e;"}}), StoreError);
    EXPECT_THAT(all(RGY_DB_DOMAINS), SizeIs(1));
    EXPECT_THAT(all(db), IsEmpty());
    EXPECT_EQ(add(named("goes on")), Store::AddResult::added);
}

TEST_P(StoreCopying, NumbersGoOnBehindTheHighest) {
    replace({{5, "-name=e;"}, {900, "-name=f;"}});
    add_all({"new"});
    EXPECT_EQ(all().back().id, 901u);
}

TEST_P(StoreCopying, NumbersDoNotGoBack) {
    store->skip_numbers(100);
    replace({{5, "-name=e;"}});
    add_all({"new"});
    EXPECT_EQ(all().back().id, 101u);
}

TEST_P(StoreCopying, LargeNumbersAreKept) {
    constexpr uint64_t large = uint64_t{1} << 50;
    replace({{large, "-name=e;"}});
    EXPECT_THAT(all(), ElementsAre(Record{large, "-name=e;"}));
    EXPECT_THAT(scan({db, "", "", ""}, large - 1), SizeIs(1));
    EXPECT_TRUE(remove(large));
}

TEST_P(StoreCopying, ManyRecordsAreReplaced) {
    Contents contents;
    for (uint64_t id = 1; id <= 2500; ++id)
        contents[id] = "-name=" + std::to_string(id) + ";";
    replace(contents);
    EXPECT_EQ(store->count(db), 2500u);
    contents.erase(1);
    contents[2501] = "-name=2501;";
    contents[3] = "-name=three;";
    replace(contents);
    Contents read;
    for (const Record &record : all())
        read[record.id] = record.flex_text;
    EXPECT_EQ(read, contents);
}

TEST_P(StoreCopying, ARegistryThatIsBegunAnewIsEmptyAndHasTheName) {
    add_all({"a"}, RGY_DB_REGIONS);
    add_all({"b"}, RGY_DB_DOMAINS);
    store->begin_anew(registry_of(1));
    for (rgy_db_t each = 0; each < RGY_DB_ALL; ++each) {
        EXPECT_THAT(all(each), IsEmpty());
        EXPECT_EQ(store->count(each), 0u);
    }
    EXPECT_EQ(store->stamps(0).registry.bytes[3], 1);
}

TEST_P(StoreCopying, ARegistryThatIsBegunAnewHasNothingToBeFound) {
    add_all({"a"});
    store->begin_anew(registry_of(1));
    EXPECT_THAT(found("-name", "a"), IsEmpty());
    EXPECT_EQ(add(named("a")), Store::AddResult::added);
}

TEST_P(StoreCopying, ARegistryThatIsBegunAnewHasNewStampsEverywhere) {
    std::vector<rgy_dtm_pair_t> before;
    for (rgy_db_t each = 0; each < RGY_DB_ALL; ++each)
        before.push_back(pair(each));
    store->begin_anew(registry_of(1));
    for (rgy_db_t each = 0; each < RGY_DB_ALL; ++each)
        EXPECT_FALSE(is_same(pair(each), before[each]));
}

TEST_P(StoreCopying, ARegistryThatIsBegunAnewKeepsItsSettings) {
    store->set_setting("s", "v");
    store->begin_anew(registry_of(1));
    EXPECT_EQ(store->setting("s"), "v");
}

TEST_P(StoreCopying, ARegistryThatIsBegunAnewGivesNoNumberAgain) {
    add_all({"a", "b"});
    store->begin_anew(registry_of(1));
    add_all({"c"});
    EXPECT_THAT(all(), ElementsAre(Record{3, "-name=c;"}));
}

TEST_P(StoreCopying, ARegistryThatIsBegunAnewKeepsTheCopysName) {
    const auto before = store->stamps(0).copy;
    store->begin_anew(registry_of(1));
    reopen();
    const auto after = store->stamps(0);
    EXPECT_NE(tbs_uuid_eq(&after.copy, &before), 0);
    EXPECT_EQ(after.registry.bytes[3], 1);
}

TEST_P(StoreCopying, EverythingIsSavedInAFile) {
    const auto file = std::filesystem::temp_directory_path() / ("velia-saved-" + std::to_string(getpid()) + ".db");
    add_all({"a", "b"}, RGY_DB_REGIONS);
    add_all({"c"}, RGY_DB_DOMAINS);
    ASSERT_TRUE(remove(1));
    store->set_setting("password", "hash");
    store->save_to(file);
    {
        bool is_new_file = true;
        const auto saved = open_sqlite_store(file, is_new_file);
        EXPECT_FALSE(is_new_file);
        EXPECT_THAT(scan_of(*saved, {RGY_DB_REGIONS, "", "", ""}), ElementsAre(Record{2, "-name=b;"}));
        EXPECT_THAT(scan_of(*saved, {RGY_DB_DOMAINS, "", "-name", "c"}), ElementsAre(Record{3, "-name=c;"}));
        EXPECT_EQ(saved->setting("password"), "hash");
        EXPECT_TRUE(is_same(saved->stamps(RGY_DB_REGIONS).pair, pair(RGY_DB_REGIONS)));
        const auto registry = store->stamps(0).registry;
        const auto saved_registry = saved->stamps(0).registry;
        EXPECT_NE(tbs_uuid_eq(&saved_registry, &registry), 0);
        EXPECT_GE(saved->changes(), store->changes());
        EXPECT_EQ(add_to(*saved, named("d")), Store::AddResult::added);
        EXPECT_GT(scan_of(*saved, {RGY_DB_REGIONS, "", "-name", "d"}).at(0).id, 3u);
    }
    for (const char *suffix : {"", "-wal", "-shm", ".made"})
        std::filesystem::remove(file.string() + suffix);
}
