#include <server/registry/copy.h>
#include <tests/unit/server/registry_fixture.h>

using namespace velia::server;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr rgy_db_t db = RGY_DB_REGIONS;

tbs_uuid_t uuid_of(uint8_t byte) {
    tbs_uuid_t uuid = {};
    uuid.bytes[0] = byte;
    return uuid;
}

// A registry in memory, that breaks off at the database it is told to.
struct FakeSource : Source {
    std::array<Contents, RGY_DB_ALL> dbs;
    std::array<rgy_dtm_pair_t, RGY_DB_ALL> pairs = {};
    tbs_uuid_t registry = uuid_of(77);
    rgy_db_t broken_db = RGY_DB_ALL;
    bool is_in_change = false;
    int readings = 0;
    std::string hosts;

    Stamps stamps(rgy_db_t of) override { return {pairs[of], registry, uuid_of(78)}; }
    Reading read(rgy_db_t of) override {
        ++readings;
        if (of == broken_db)
            throw CopyError("broken");
        return {is_in_change ? std::nullopt : std::optional(pairs[of]), dbs[of]};
    }
    std::string backup_hosts() override { return hosts; }

    void set(Contents contents) {
        dbs[db] = std::move(contents);
        ++pairs[db].dtm.bytes[0];
    }
};

struct CopyTest : RegistryFixture {
    FakeSource source;
    int kept = 0;
    int told = 0;

    bool copy() {
        return copy_registry(
            source, *store, [this] { ++kept; }, [this] { ++told; });
    }
    std::vector<Record> records() { return registry->fetch(all_of(db), 0, {1000, 100000}).records; }
};

TEST_F(CopyTest, AFirstCopyTakesTheRegistrysNameNumbersAndStamps) {
    source.set({{3, "-name=a;"}, {9, "-name=b;"}});
    EXPECT_FALSE(registry->is_filled());
    EXPECT_TRUE(copy());
    EXPECT_THAT(records(), ElementsAre(Record{3, "-name=a;"}, Record{9, "-name=b;"}));
    const Stamps stamps = store->stamps(db);
    EXPECT_EQ(memcmp(&stamps.pair, &source.pairs[db], sizeof stamps.pair), 0);
    EXPECT_TRUE(tbs_uuid_eq(&stamps.registry, &source.registry));
    EXPECT_TRUE(registry->is_filled());
    EXPECT_EQ(kept, 0);
    EXPECT_EQ(told, 1);
}

TEST_F(CopyTest, WhatHasNotChangedIsNotReadAgain) {
    ASSERT_TRUE(copy());
    source.readings = 0;
    EXPECT_FALSE(copy());
    EXPECT_EQ(source.readings, 0);
    source.set({{1, "-name=a;"}});
    EXPECT_TRUE(copy());
    EXPECT_EQ(source.readings, 1);
    EXPECT_EQ(told, 2);
}

TEST_F(CopyTest, RecordsComeGoAndAreFoundByTheirItems) {
    source.set({{1, "-name=a;"}, {2, "-name=b;"}, {3, "-name=c;"}});
    ASSERT_TRUE(copy());
    source.set({{2, "-name=b;"}, {3, "-name=other;"}, {4, "-name=a;"}});
    ASSERT_TRUE(copy());
    EXPECT_THAT(records(), ElementsAre(Record{2, "-name=b;"}, Record{3, "-name=other;"}, Record{4, "-name=a;"}));
    EXPECT_THAT(texts_of({db, "", "-name", "c"}), IsEmpty());
    EXPECT_THAT(texts_of({db, "", "-name", "a"}), ElementsAre("-name=a;"));
}

TEST_F(CopyTest, OfTwoRecordsOfOneIdentityTheLaterOneStays) {
    source.set({{1, "-name=a;"}});
    ASSERT_TRUE(copy());
    source.set({{1, "-name=a;"}, {5, "-name=a;-title=new;"}, {6, "-name=b;"}});
    ASSERT_TRUE(copy());
    EXPECT_THAT(records(), ElementsAre(Record{5, "-name=a;-title=new;"}, Record{6, "-name=b;"}));
}

TEST_F(CopyTest, AReadingDuringAChangeIsTakenAndMadeGoodByTheNextOne) {
    source.is_in_change = true;
    source.set({{1, "-name=a;"}});
    ASSERT_TRUE(copy());
    EXPECT_THAT(records(), ElementsAre(Record{1, "-name=a;"}));
    source.is_in_change = false;
    EXPECT_TRUE(copy()) << "its stamps are not the master's";
    EXPECT_FALSE(copy());
}

TEST_F(CopyTest, ABrokenFirstCopyIsNoCopy) {
    source.set({{1, "-name=a;"}});
    source.broken_db = db + 1;
    EXPECT_THROW(copy(), CopyError);
    EXPECT_FALSE(registry->is_filled());
    source.broken_db = RGY_DB_ALL;
    EXPECT_TRUE(copy());
    EXPECT_TRUE(registry->is_filled());
}

TEST_F(CopyTest, ADatabaseIsReplacedWholeOrNotAtAll) {
    source.set({{1, "-name=a;"}});
    ASSERT_TRUE(copy());
    source.set({{2, "-name=b;"}, {3, "malformed"}});
    EXPECT_THROW(copy(), StoreError);
    EXPECT_THAT(records(), ElementsAre(Record{1, "-name=a;"}));
}

TEST_F(CopyTest, ARegistryThatIsNoCopyIsKeptBeforeItIsOverwritten) {
    ASSERT_EQ(add(db, "-name=mine;"), TBS_ST_OK);
    registry->become_master();
    source.set({{1, "-name=theirs;"}});
    ASSERT_TRUE(copy());
    EXPECT_EQ(kept, 1);
    EXPECT_THAT(records(), ElementsAre(Record{1, "-name=theirs;"}));
    source.registry = uuid_of(80); // the site's master is another one now
    ASSERT_TRUE(copy());
    EXPECT_EQ(kept, 2);
}

TEST_F(CopyTest, WhatCouldNotBeKeptIsNotOverwritten) {
    ASSERT_EQ(add(db, "-name=mine;"), TBS_ST_OK);
    registry->become_master();
    EXPECT_THROW(copy_registry(
                     source, *store, [] { throw StoreError("disk full"); }, [] {}),
                 StoreError);
    EXPECT_THAT(texts_of(all_of(db)), ElementsAre("-name=mine;"));
}

TEST_F(CopyTest, AKeptRegistryIsWhole) {
    ASSERT_EQ(add(db, "-name=mine;"), TBS_ST_OK);
    const std::string kept_file = file_name() + ".old";
    store->save_to(kept_file);
    ASSERT_EQ(add(db, "-name=later;"), TBS_ST_OK);
    store->save_to(kept_file);
    bool is_new_file = true;
    const auto kept_store = open_sqlite_store(kept_file, is_new_file);
    EXPECT_FALSE(is_new_file);
    EXPECT_EQ(kept_store->count(db), 2u);
    EXPECT_FALSE(std::filesystem::exists(kept_file + ".new"));
}

TEST_F(CopyTest, ANewMasterGivesNumbersBeyondThoseOfTheOldOne) {
    source.set({{7, "-name=a;"}});
    ASSERT_TRUE(copy());
    registry->become_master();
    ASSERT_EQ(add(db, "-name=b;"), TBS_ST_OK);
    EXPECT_EQ(records().back().id, 1'000'008u);
}

TEST_F(CopyTest, TheNumbersOfAnEmptyCopyAreSkippedToo) {
    registry->become_master();
    ASSERT_EQ(add(db, "-name=b;"), TBS_ST_OK);
    EXPECT_EQ(records().back().id, 1'000'001u);
}

TEST_F(CopyTest, TheListOfBackupHostsIsCopiedWithTheRest) {
    source.hosts = "beta";
    ASSERT_TRUE(copy());
    EXPECT_EQ(registry->backup_hosts(), "beta");
}

TEST(BackupList, NamesAHostBetweenBlanksCommasAndSemicolonsInWhateverCase) {
    EXPECT_TRUE(is_listed("alpha,beta;gamma", "beta"));
    EXPECT_TRUE(is_listed(" Beta ", "bETA"));
    EXPECT_TRUE(is_listed("alpha\tbeta", "beta"));
    EXPECT_FALSE(is_listed("alphabeta beta2", "beta"));
    EXPECT_FALSE(is_listed("be ta", "beta"));
}

TEST(BackupList, WithoutANameIsForEveryHost) {
    EXPECT_TRUE(is_listed("", "beta"));
    EXPECT_TRUE(is_listed(" ,; ", "beta"));
}

} // namespace
