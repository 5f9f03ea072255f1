// The registry over its database: what is read, added, removed and refused.
#include <tests/unit/server/registry_fixture.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <fstream>

#include <server/registry/sqlite.h>

using namespace velia::server;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

using RegistryTest = RegistryFixture;

std::string bytes_of(const std::string &file_name) {
    std::ifstream file(file_name, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

const std::string uuid_text = "0b5f8a52-7d1a-4c39-9d54-1a2b3c4d5e6f";

} // namespace

TEST_F(RegistryTest, ANewRegistryHasTwelveEmptyDatabasesWithStampsOfTheirOwn) {
    EXPECT_TRUE(is_new);
    for (rgy_db_t db = 0; db < RGY_DB_ALL; ++db) {
        EXPECT_EQ(registry->count(db), 0u);
        for (rgy_db_t other = 0; other < db; ++other)
            EXPECT_FALSE(is_same(registry->stamps(db).pair, registry->stamps(other).pair));
    }
}

TEST_F(RegistryTest, WhatWasAddedIsThereAfterReopening) {
    ASSERT_EQ(add(RGY_DB_REGIONS, "-name=r1;"), TBS_ST_OK);
    const Stamps before = registry->stamps(RGY_DB_REGIONS);
    reopen();
    EXPECT_FALSE(is_new);
    EXPECT_THAT(texts_of(all_of(RGY_DB_REGIONS)), ElementsAre("-name=r1;"));
    const Stamps after = registry->stamps(RGY_DB_REGIONS);
    EXPECT_EQ(memcmp(&before, &after, sizeof before), 0);
}

TEST_F(RegistryTest, EachUpdateChangesTheStampsOfItsDatabaseAlone) {
    const auto regions = registry->stamps(RGY_DB_REGIONS).pair;
    const auto domains = registry->stamps(RGY_DB_DOMAINS).pair;
    ASSERT_EQ(add(RGY_DB_REGIONS, "-name=r1;"), TBS_ST_OK);
    const auto after_add = registry->stamps(RGY_DB_REGIONS).pair;
    EXPECT_FALSE(is_same(after_add, regions));
    EXPECT_TRUE(is_same(registry->stamps(RGY_DB_DOMAINS).pair, domains));
    ASSERT_EQ(registry->remove(RGY_DB_REGIONS, 1, user), TBS_ST_OK);
    EXPECT_FALSE(is_same(registry->stamps(RGY_DB_REGIONS).pair, after_add));
}

TEST_F(RegistryTest, AStaleStampIsRefusedAndNothingIsAdded) {
    const auto stale = registry->stamps(RGY_DB_REGIONS).pair;
    ASSERT_EQ(add(RGY_DB_REGIONS, "-name=r1;"), TBS_ST_OK);
    const auto current = registry->stamps(RGY_DB_REGIONS).pair;
    EXPECT_EQ(registry->add(RGY_DB_REGIONS, stale, "-name=r2;", user), TBS_ST_STALE_ID);
    EXPECT_EQ(registry->add(RGY_DB_REGIONS, {}, "-name=r2;", user), TBS_ST_STALE_ID);
    rgy_dtm_pair_t half_stale = current;
    half_stale.svr_dtm = stale.svr_dtm;
    EXPECT_EQ(registry->add(RGY_DB_REGIONS, half_stale, "-name=r2;", user), TBS_ST_STALE_ID);
    EXPECT_THAT(texts_of(all_of(RGY_DB_REGIONS)), ElementsAre("-name=r1;"));
    EXPECT_TRUE(is_same(registry->stamps(RGY_DB_REGIONS).pair, current));
}

TEST_F(RegistryTest, AnObjectIsThereOnceByItsUuidHoweverItIsWritten) {
    ASSERT_EQ(add(RGY_DB_VIEW_OBJECT, "-view_uuid=" + uuid_text + ";-hostname=a;"), TBS_ST_OK);
    std::string shouted = uuid_text;
    std::transform(shouted.begin(), shouted.end(), shouted.begin(), [](unsigned char c) { return std::toupper(c); });
    EXPECT_EQ(add(RGY_DB_VIEW_OBJECT, "-view_uuid=" + shouted + ";-hostname=b;"), TBS_ST_ALREADY_EXISTS);
    EXPECT_EQ(add(RGY_DB_VAULT_OBJECT, "-vault_replica=" + uuid_text + ";"), TBS_ST_OK);
}

TEST_F(RegistryTest, ATagIsThereOnceInEachRegion) {
    EXPECT_EQ(add(RGY_DB_VAULT_TAG, "-tag=/vaults/src;-region=r1;"), TBS_ST_OK);
    EXPECT_EQ(add(RGY_DB_VAULT_TAG, "-tag=/vaults/src;-region=r2;"), TBS_ST_OK);
    EXPECT_EQ(add(RGY_DB_VAULT_TAG, "-region=r1;-tag=/vaults/src;"), TBS_ST_ALREADY_EXISTS);
    EXPECT_EQ(add(RGY_DB_VIEW_TAG, "-tag=/vaults/src;-region=r1;"), TBS_ST_OK);
}

// A writer that looked before another one wrote, and asked for its stamps after it, has to look again.
TEST_F(RegistryTest, ASettingThatStandsMakesItsWriterStale) {
    ASSERT_EQ(add(RGY_DB_SITE_CONFIG, "-name=fl_site_name;-value=a;"), TBS_ST_OK);
    EXPECT_EQ(add(RGY_DB_SITE_CONFIG, "-name=fl_site_name;-value=b;"), TBS_ST_STALE_ID);
    EXPECT_EQ(add(RGY_DB_SITE_CONFIG, "-name=other;-value=b;"), TBS_ST_OK);
    EXPECT_EQ(registry->count(RGY_DB_SITE_CONFIG), 2u);
}

TEST_F(RegistryTest, TheOldFormOfASettingStandsBesideItsPairOnce) {
    ASSERT_EQ(add(RGY_DB_SITE_CONFIG, "-default_viewsize=2048000;"), TBS_ST_OK);
    EXPECT_EQ(add(RGY_DB_SITE_CONFIG, "-default_viewsize=2048001;"), TBS_ST_STALE_ID);
    EXPECT_EQ(add(RGY_DB_SITE_CONFIG, "-name=view_cache_size;-value=2048000;"), TBS_ST_OK);
    EXPECT_EQ(add(RGY_DB_SITE_CONFIG, "-name=view_cache_size;-value=2048001;"), TBS_ST_STALE_ID);
    EXPECT_EQ(add(RGY_DB_SITE_CONFIG, "-name=;-default_viewsize=2048001;"), TBS_ST_STALE_ID);
    EXPECT_EQ(add(RGY_DB_SITE_CONFIG, "-title=nobody's;"), TBS_ST_OK);
    EXPECT_EQ(add(RGY_DB_SITE_CONFIG, "-title=nobody's;"), TBS_ST_OK);
    EXPECT_EQ(add(RGY_DB_DOMAINS, "-default_viewsize=1;"), TBS_ST_OK);
    EXPECT_EQ(add(RGY_DB_DOMAINS, "-default_viewsize=1;"), TBS_ST_OK);
    EXPECT_EQ(registry->count(RGY_DB_SITE_CONFIG), 4u);
}

TEST_F(RegistryTest, WhatWasRemovedMayBeAddedAgainUnderAnotherNumber) {
    ASSERT_EQ(add(RGY_DB_REGIONS, "-name=r1;"), TBS_ST_OK);
    const auto first = registry->fetch(all_of(RGY_DB_REGIONS), 0, {1, 8000}).records.at(0);
    ASSERT_EQ(registry->remove(RGY_DB_REGIONS, first.id, user), TBS_ST_OK);
    EXPECT_THAT(texts_of(all_of(RGY_DB_REGIONS)), IsEmpty());
    EXPECT_EQ(registry->remove(RGY_DB_REGIONS, first.id, user), TBS_ST_NOT_FOUND);
    ASSERT_EQ(add(RGY_DB_REGIONS, "-name=r1;"), TBS_ST_OK);
    EXPECT_GT(registry->fetch(all_of(RGY_DB_REGIONS), 0, {1, 8000}).records.at(0).id, first.id);
}

TEST_F(RegistryTest, ANumberOfAnotherDatabaseIsNotRemoved) {
    ASSERT_EQ(add(RGY_DB_REGIONS, "-name=r1;"), TBS_ST_OK);
    EXPECT_EQ(registry->remove(RGY_DB_DOMAINS, 1, user), TBS_ST_NOT_FOUND);
    EXPECT_EQ(registry->count(RGY_DB_REGIONS), 1u);
}

TEST_F(RegistryTest, UpdatesNeedACallerWhoSaysWhoItIs) {
    const auto stamps = registry->stamps(RGY_DB_REGIONS).pair;
    for (const Caller &nobody : {Caller{}, caller_with_uid(65534), caller_with_uid(UINT32_MAX - 1)}) {
        EXPECT_EQ(registry->add(RGY_DB_REGIONS, stamps, "-name=r1;", nobody), TBS_ST_NO_ACCESS);
        EXPECT_EQ(registry->remove(RGY_DB_REGIONS, 1, nobody), TBS_ST_NO_ACCESS);
    }
    EXPECT_EQ(registry->add(RGY_DB_REGIONS, stamps, "-name=r1;", caller_with_uid(0)), TBS_ST_OK);
}

TEST_F(RegistryTest, MalformedTextsAreRefused) {
    for (const std::string text : {"", "x", "-a=", "-a=1", "-a=1;-b", "-a=1\n2;"})
        EXPECT_EQ(add(RGY_DB_REGIONS, text), TBS_ST_INVALID_ARG) << text;
    EXPECT_EQ(add(RGY_DB_REGIONS, "-name=" + std::string(4088, 'x') + ";"), TBS_ST_OK); // 4,095 characters
    EXPECT_EQ(add(RGY_DB_REGIONS, "-name=" + std::string(4089, 'y') + ";"), TBS_ST_INVALID_ARG);
}

TEST_F(RegistryTest, AnItemIsFoundByItsWholeValue) {
    ASSERT_EQ(add(RGY_DB_VIEW_TAG, "-tag=one;-owner=u;"), TBS_ST_OK);
    ASSERT_EQ(add(RGY_DB_VIEW_TAG, "-tag=one2;-owner=u;"), TBS_ST_OK);
    EXPECT_THAT(texts_of({RGY_DB_VIEW_TAG, "", "-tag", "one"}), ElementsAre("-tag=one;-owner=u;"));
    EXPECT_THAT(texts_of({RGY_DB_VIEW_TAG, "", "-owner", "u"}), SizeIs(2));
    EXPECT_THAT(texts_of({RGY_DB_VIEW_TAG, "", "-owner", "one"}), IsEmpty());
    EXPECT_THAT(texts_of({RGY_DB_VAULT_TAG, "", "-tag", "one"}), IsEmpty());
}

TEST_F(RegistryTest, OfAKeyThatStandsTwiceTheLaterValueIsFound) {
    ASSERT_EQ(add(RGY_DB_VIEW_TAG, "-tag=one;-tag=two;"), TBS_ST_OK);
    EXPECT_THAT(texts_of({RGY_DB_VIEW_TAG, "", "-tag", "one"}), IsEmpty());
    EXPECT_THAT(texts_of({RGY_DB_VIEW_TAG, "", "-tag", "two"}), SizeIs(1));
}

TEST_F(RegistryTest, AUuidIsFoundByItsOneSpellingAndByItsOwn) {
    const std::string bare = "0B5F8A527D1A4C399D541A2B3C4D5E6F";
    ASSERT_EQ(add(RGY_DB_VIEW_TAG, "-tag=t;-view_uuid=" + bare + ";"), TBS_ST_OK);
    EXPECT_THAT(texts_of({RGY_DB_VIEW_TAG, "", "-view_uuid", uuid_text}), SizeIs(1));
    EXPECT_THAT(texts_of({RGY_DB_VIEW_TAG, "", "-view_uuid", bare}), SizeIs(1));
}

TEST_F(RegistryTest, ARegionLeavesOutTheRecordsOfOthers) {
    ASSERT_EQ(add(RGY_DB_VIEW_TAG, "-tag=a;-region=r1;"), TBS_ST_OK);
    ASSERT_EQ(add(RGY_DB_VIEW_TAG, "-tag=a;-region=r2;"), TBS_ST_OK);
    ASSERT_EQ(add(RGY_DB_VIEW_TAG, "-tag=a;"), TBS_ST_OK);
    EXPECT_THAT(texts_of({RGY_DB_VIEW_TAG, "r1", "", ""}), ElementsAre("-tag=a;-region=r1;", "-tag=a;"));
    EXPECT_THAT(texts_of({RGY_DB_VIEW_TAG, "r2", "-tag", "a"}), ElementsAre("-tag=a;-region=r2;", "-tag=a;"));
    EXPECT_THAT(texts_of({RGY_DB_VIEW_TAG, "", "-tag", "a"}), SizeIs(3));
}

TEST_F(RegistryTest, ABatchEndingOnTheLastRecordSaysSo) {
    for (const std::string name : {"a", "b", "c", "d"})
        ASSERT_EQ(add(RGY_DB_REGIONS, "-name=" + name + ";"), TBS_ST_OK);
    const Batch first = registry->fetch(all_of(RGY_DB_REGIONS), 0, {2, 8000});
    EXPECT_THAT(first.records, SizeIs(2));
    EXPECT_NE(first.cursor, 0u);
    const Batch second = registry->fetch(all_of(RGY_DB_REGIONS), first.cursor, {2, 8000});
    EXPECT_THAT(second.records, SizeIs(2));
    EXPECT_EQ(second.cursor, 0u);
}

TEST_F(RegistryTest, AScanNeitherRepeatsNorMissesWhatStaysWhileOthersGo) {
    for (int i = 0; i < 10; ++i)
        ASSERT_EQ(add(RGY_DB_REGIONS, "-name=" + std::to_string(i) + ";"), TBS_ST_OK);
    const Batch first = registry->fetch(all_of(RGY_DB_REGIONS), 0, {4, 8000});
    ASSERT_EQ(registry->remove(RGY_DB_REGIONS, first.cursor, user), TBS_ST_OK);     // where the cursor stands
    ASSERT_EQ(registry->remove(RGY_DB_REGIONS, first.cursor + 1, user), TBS_ST_OK); // where it would go on
    const Batch rest = registry->fetch(all_of(RGY_DB_REGIONS), first.cursor, {100, 8000});
    EXPECT_THAT(rest.records, ElementsAre(Record{6, "-name=5;"}, Record{7, "-name=6;"}, Record{8, "-name=7;"},
                                          Record{9, "-name=8;"}, Record{10, "-name=9;"}));
    EXPECT_EQ(rest.cursor, 0u);
}

TEST_F(RegistryTest, ABatchIsCutToItsBytesAndResumed) {
    const std::string padding(1000, 'x');
    for (int i = 0; i < 20; ++i)
        ASSERT_EQ(add(RGY_DB_REGIONS, "-name=" + std::to_string(i) + padding + ";"), TBS_ST_OK);
    const Batch batch = registry->fetch(all_of(RGY_DB_REGIONS), 0, {1000, 8000});
    EXPECT_THAT(batch.records, SizeIs(7));
    size_t bytes = 0;
    for (const auto &record : batch.records)
        bytes += encoded_bytes(record);
    EXPECT_LE(bytes, 8000u);
    EXPECT_THAT(texts_of(all_of(RGY_DB_REGIONS)), SizeIs(20));
}

TEST_F(RegistryTest, ARecordThatAloneIsTooLargeStillComes) {
    ASSERT_EQ(add(RGY_DB_REGIONS, "-name=" + std::string(4000, 'x') + ";"), TBS_ST_OK);
    ASSERT_EQ(add(RGY_DB_REGIONS, "-name=b;"), TBS_ST_OK);
    const Batch batch = registry->fetch(all_of(RGY_DB_REGIONS), 0, {10, 100});
    EXPECT_THAT(batch.records, SizeIs(1));
    EXPECT_EQ(batch.cursor, 1u);
}

namespace {

// Many entries, without a commit to disk for each of them. Their names are their numbers, and only the last matches.
struct LongSearch : RegistryFixture {
    static constexpr int entries = 3 * REGISTRY_WORK_MAX;

    LongSearch() {
        Sqlite database(file_name());
        Transaction transaction(database);
        Statement insert(database, "INSERT INTO entry (db, region, identity, text) VALUES (?1, ?2, x'', ?3)");
        for (int i = 1; i <= entries; ++i)
            insert
                .with(uint32_t{RGY_DB_REGIONS}, std::string_view(i < entries ? "east" : "west"),
                      "-name=" + std::to_string(i) + ";")
                .run();
        transaction.commit();
    }

    static bool is_last(const Items &items) { return value_of(items, "-name") == std::to_string(entries); }

    // How many requests it takes, each of which has to come further, and what is found by all of them.
    int requests(const Selection &selection, const Filter &filter) {
        int count = 0;
        size_t found = 0;
        uint64_t cursor = 0;
        do {
            const Batch batch = registry->fetch(selection, cursor, {10, 8000}, filter);
            EXPECT_TRUE(batch.cursor == 0 || batch.cursor > cursor);
            cursor = batch.cursor;
            found += batch.records.size();
            ++count;
        } while (cursor != 0);
        EXPECT_EQ(found, 1u);
        return count;
    }
};

} // namespace

TEST_F(LongSearch, IsCutAndResumedByLooksAtRecordsOfOtherRegions) {
    EXPECT_EQ(requests({RGY_DB_REGIONS, "west", "", ""}, {}), 3);
}

TEST_F(LongSearch, IsCutSoonerWhereEachRecordIsTakenApart) {
    EXPECT_EQ(requests(all_of(RGY_DB_REGIONS), is_last), 27) << "which is work of nine looks";
}

TEST_F(LongSearch, IsCutSoonestWhereMuchIsTriedOnEachRecord) {
    EXPECT_EQ(requests(all_of(RGY_DB_REGIONS), {is_last, 991}), 3000);
    const Batch batch = registry->fetch(all_of(RGY_DB_REGIONS), 7, {10, 8000}, {is_last, 1'000'000});
    EXPECT_EQ(batch.cursor, 8u) << "a single record is more than one request may cost, and yet it goes on";
}

TEST_F(LongSearch, EntriesAreCountedAsTheyComeAndGo) {
    EXPECT_EQ(registry->count(RGY_DB_REGIONS), uint64_t{entries});
    ASSERT_EQ(add(RGY_DB_REGIONS, "-name=new;"), TBS_ST_OK);
    EXPECT_EQ(registry->count(RGY_DB_REGIONS), uint64_t{entries + 1});
    ASSERT_EQ(registry->remove(RGY_DB_REGIONS, 1, user), TBS_ST_OK);
    EXPECT_EQ(registry->count(RGY_DB_REGIONS), uint64_t{entries});
    store->replace(RGY_DB_REGIONS, std::nullopt, {{5, "-name=5;"}, {9, "-name=nine;"}});
    EXPECT_EQ(registry->count(RGY_DB_REGIONS), 2u);
    store->begin_anew({});
    EXPECT_EQ(registry->count(RGY_DB_REGIONS), 0u);
}

// As programs of before have left it.
TEST_F(LongSearch, EntriesOfARegistryWithoutTotalsAreCountedOnce) {
    registry.reset();
    store.reset();
    Sqlite(file_name()).run("DROP TRIGGER entry_added; DROP TRIGGER entry_removed; DROP TABLE total");
    reopen();
    EXPECT_FALSE(is_new);
    EXPECT_EQ(registry->count(RGY_DB_REGIONS), uint64_t{entries});
    ASSERT_EQ(add(RGY_DB_REGIONS, "-name=new;"), TBS_ST_OK);
    EXPECT_EQ(registry->count(RGY_DB_REGIONS), uint64_t{entries + 1});
}

TEST_F(RegistryTest, AttributesAreFoundByNameAndByValue) {
    EXPECT_TRUE(has_attribute("poolmap=/x,ro", "poolmap", "/x"));
    EXPECT_TRUE(has_attribute("poolmap=/x,ro", "poolmap", ""));
    EXPECT_TRUE(has_attribute("poolmap=/x,ro", "ro", ""));
    EXPECT_FALSE(has_attribute("poolmap=/x,ro", "ro", "/x"));
    EXPECT_FALSE(has_attribute("poolmap=/x,ro", "poolmap", "/y"));
    EXPECT_FALSE(has_attribute("poolmap=/x,ro", "rw", ""));
    EXPECT_FALSE(has_attribute("", "rw", ""));
}

TEST_F(RegistryTest, PatternsLookAtTheNamedItemOrAtWhatNamesTheEntry) {
    const Items tag = {{"-tag", "build7"}, {"-owner", "u"}};
    EXPECT_TRUE(matches_pattern(tag, "build*"));
    EXPECT_TRUE(matches_pattern(tag, "-owner=?"));
    EXPECT_TRUE(matches_pattern(tag, "-tag=build[0-9]"));
    EXPECT_FALSE(matches_pattern(tag, "u"));
    EXPECT_FALSE(matches_pattern(tag, "-region=*"));
    EXPECT_TRUE(matches_pattern({{"-name", "r1"}}, "r?"));
}

TEST_F(RegistryTest, ThePasswordIsKeptAsAHashAndChecked) {
    EXPECT_EQ(registry->check_password("secret"), TBS_ST_NOT_FOUND);
    registry->set_password("secret");
    EXPECT_EQ(registry->check_password("secret"), TBS_ST_OK);
    EXPECT_EQ(registry->check_password("secret2"), TBS_ST_NO_ACCESS);
    EXPECT_EQ(registry->check_password(""), TBS_ST_NO_ACCESS);
    EXPECT_EQ(store->setting("password").substr(0, 3), "$y$");
    reopen();
    EXPECT_EQ(registry->check_password("secret"), TBS_ST_OK);
    registry->set_password("");
    EXPECT_EQ(registry->check_password("secret"), TBS_ST_NOT_FOUND);
}

TEST_F(RegistryTest, TheBackupListIsKept) {
    EXPECT_EQ(registry->backup_hosts(), "");
    registry->set_backup_hosts("b1 b2");
    reopen();
    EXPECT_EQ(registry->backup_hosts(), "b1 b2");
}

TEST_F(RegistryTest, AFileThatIsNoRegistryIsRefusedAndLeftAsItIs) {
    const std::string other = file_name() + ".other";
    std::ofstream(other) << "this is no database, and it is long enough to be looked at as one, page by page";
    bool is_new_file = false;
    EXPECT_THROW(open_sqlite_store(other, is_new_file), StoreError);
    EXPECT_THROW(open_sqlite_store("/nonexistent/registry.db", is_new_file), StoreError);
    std::string line;
    std::getline(std::ifstream(other), line);
    EXPECT_EQ(line.substr(0, 7), "this is");
}

// A registry was there once, or it is somebody else's: nothing is served in its place.
TEST_F(RegistryTest, AnEmptyFileIsNoNewRegistry) {
    const std::string other = file_name() + ".other";
    std::ofstream(other).close();
    bool is_new_file = false;
    EXPECT_THROW(open_sqlite_store(other, is_new_file), StoreError);
    EXPECT_EQ(std::filesystem::file_size(other), 0u);
}

TEST_F(RegistryTest, ADatabaseOfSomethingElseIsRefusedAndLeftAsItIs) {
    const std::string other = file_name() + ".other";
    Sqlite(other).run("CREATE TABLE one (one INTEGER)");
    const std::string before = bytes_of(other);
    bool is_new_file = false;
    EXPECT_THROW(open_sqlite_store(other, is_new_file), StoreError);
    EXPECT_EQ(bytes_of(other), before);
}

// Also what its daemon, killed, has left in its log.
TEST_F(RegistryTest, ARegistryOfANewerVersionIsRefusedAndLeftAsItIs) {
    ASSERT_EQ(add(RGY_DB_REGIONS, "-name=r1;"), TBS_ST_OK);
    const std::string newer = file_name() + ".newer";
    Sqlite(file_name()).run("PRAGMA user_version = 2");
    for (const std::string suffix : {"", "-wal"})
        std::filesystem::copy_file(file_name() + suffix, newer + suffix);
    const std::string before = bytes_of(newer) + bytes_of(newer + "-wal");
    bool is_new_file = false;
    EXPECT_THROW(open_sqlite_store(newer, is_new_file), StoreError);
    EXPECT_EQ(bytes_of(newer) + bytes_of(newer + "-wal"), before);
}

TEST_F(RegistryTest, ARegistryThatWasNotFinishedHasNoName) {
    std::vector<std::string> names;
    for (const auto &entry : std::filesystem::directory_iterator(std::filesystem::path(file_name()).parent_path()))
        names.push_back(entry.path().filename());
    EXPECT_THAT(names,
                testing::UnorderedElementsAre("registry.db", "registry.db-wal", "registry.db-shm", "registry.db.made"));
}

// Nothing is served empty that was not.
TEST_F(RegistryTest, OneThatIsGoneIsNotBegunAnewUntilItsTraceIsRemoved) {
    const std::string other = file_name() + ".other";
    bool is_new_file = false;
    open_sqlite_store(other, is_new_file).reset();
    EXPECT_TRUE(is_new_file);
    std::filesystem::remove(other);
    try {
        open_sqlite_store(other, is_new_file);
        ADD_FAILURE() << "a new one was made";
    } catch (const StoreError &error) {
        EXPECT_THAT(error.what(), testing::HasSubstr("remove \"" + trace_of_registry(other) + "\""));
    }
    EXPECT_FALSE(std::filesystem::exists(other));
    std::filesystem::remove(trace_of_registry(other));
    open_sqlite_store(other, is_new_file).reset();
    EXPECT_TRUE(is_new_file);
}

TEST_F(RegistryTest, OneOfBeforeThereWereTracesLeavesOneWhenItIsOpened) {
    std::filesystem::remove(trace_of_registry(file_name()));
    reopen();
    EXPECT_TRUE(std::filesystem::exists(trace_of_registry(file_name())));
    EXPECT_FALSE(is_new);
}

// It would be acknowledged, and be gone with the file.
TEST_F(RegistryTest, NothingIsChangedWhenTheFileWasTakenAway) {
    ASSERT_EQ(add(RGY_DB_REGIONS, "-name=r1;"), TBS_ST_OK);
    const Stamps stamps = registry->stamps(RGY_DB_REGIONS);
    std::filesystem::rename(file_name(), file_name() + ".away");
    EXPECT_FALSE(store->is_in_place());
    EXPECT_THROW(registry->add(RGY_DB_REGIONS, stamps.pair, "-name=r2;", user), StoreError);
    EXPECT_THROW(registry->remove(RGY_DB_REGIONS, 1, user), StoreError);
    EXPECT_THROW(registry->set_backup_hosts("b"), StoreError);
    EXPECT_THROW(store->together([] {}), StoreError);
    EXPECT_THROW(store->replace(RGY_DB_REGIONS, std::nullopt, {}), StoreError);
    EXPECT_THAT(texts_of(all_of(RGY_DB_REGIONS)), ElementsAre("-name=r1;"));
    std::ofstream(file_name()) << "another";
    EXPECT_THROW(registry->add(RGY_DB_REGIONS, stamps.pair, "-name=r2;", user), StoreError);
    std::filesystem::rename(file_name() + ".away", file_name());
    EXPECT_EQ(registry->add(RGY_DB_REGIONS, stamps.pair, "-name=r2;", user), TBS_ST_OK);
}

TEST_F(RegistryTest, UpdatesTogetherAreOneOrNone) {
    const Stamps before = registry->stamps(RGY_DB_REGIONS);
    EXPECT_THROW(store->together([&] {
        EXPECT_EQ(add(RGY_DB_REGIONS, "-name=r1;"), TBS_ST_OK);
        EXPECT_EQ(add(RGY_DB_REGIONS, "-name=r1;"), TBS_ST_ALREADY_EXISTS);
        throw StoreError("the disk is full");
    }),
                 StoreError);
    EXPECT_THAT(texts_of(all_of(RGY_DB_REGIONS)), IsEmpty());
    EXPECT_TRUE(is_same(registry->stamps(RGY_DB_REGIONS).pair, before.pair));
    store->together([&] {
        EXPECT_EQ(add(RGY_DB_REGIONS, "-name=r1;"), TBS_ST_OK);
        EXPECT_EQ(registry->add(RGY_DB_REGIONS, before.pair, "-name=r2;", user), TBS_ST_STALE_ID);
        EXPECT_EQ(add(RGY_DB_REGIONS, "-name=r3;"), TBS_ST_OK);
    });
    reopen();
    EXPECT_THAT(texts_of(all_of(RGY_DB_REGIONS)), ElementsAre("-name=r1;", "-name=r3;"));
}

TEST_F(RegistryTest, OnlyItsOwnerReadsTheFile) {
    ASSERT_EQ(add(RGY_DB_REGIONS, "-name=r1;"), TBS_ST_OK);
    for (const std::string suffix : {"", "-wal", "-shm"}) {
        using std::filesystem::perms;
        const auto mode = std::filesystem::status(file_name() + suffix).permissions();
        EXPECT_EQ(mode & (perms::group_all | perms::others_all), perms::none) << suffix;
    }
}

TEST_F(RegistryTest, ASymbolicLinkInPlaceOfTheFileIsRefused) {
    const std::string link = file_name() + ".link";
    std::filesystem::create_symlink(file_name(), link);
    bool is_new_file = false;
    EXPECT_THROW(open_sqlite_store(link, is_new_file), StoreError);
}
