// The mark of a registry that has been moved elsewhere.
#include <tests/unit/store/store_fixture.h>

#include <filesystem>
#include <tests/unit/store/postgres_fixture.h>
#include <thread>

#include <server/registry/moved.h>

using namespace velia::server;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

using StoreMark = StoreTest;
VELIA_FOR_EACH_STORE(StoreMark);

// Into a store of each kind, from a file.
struct MovedStore : StoreTest {
    const std::string file =
        (std::filesystem::temp_directory_path() / ("velia-moved-" + std::to_string(getpid()) + ".db")).string();
    bool is_new_file = false;
    std::unique_ptr<Store> from = open_sqlite_store(file, is_new_file);

    ~MovedStore() override {
        from.reset();
        for (const char *suffix : {"", "-wal", "-shm", ".made"})
            std::filesystem::remove(file + suffix);
    }
    void expect_alike() {
        for (rgy_db_t db = 0; db < RGY_DB_ALL; ++db) {
            EXPECT_EQ(all(db), scan_of(*from, {db, "", "", ""})) << db;
            EXPECT_TRUE(is_same(pair(db), from->stamps(db).pair)) << db;
            EXPECT_EQ(store->count(db), from->count(db)) << db;
        }
        EXPECT_EQ(store->settings(), from->settings());
    }
};
VELIA_FOR_EACH_STORE(MovedStore);

struct ClosedDatabase : PostgresStoreTest {
    std::unique_ptr<Store> serving = open();
    bool is_new = false;
    std::unique_ptr<Store> moving = open_postgres_store(conninfo(), is_new, PostgresUse::moving);

    void SetUp() override {
        ASSERT_EQ(add(*serving, "a"), Store::AddResult::added);
        moving->set_moved_to("elsewhere");
    }
    template <class Body>
    static std::string refusal_of(Body &&body) {
        try {
            body();
        } catch (const StoreMoved &error) {
            return error.what();
        }
        return "";
    }
};

} // namespace

TEST_P(StoreMark, ThereIsNoneAtFirst) {
    EXPECT_EQ(store->moved_to(), "");
}

TEST_P(StoreMark, IsThereOnceItIsSet) {
    store->set_moved_to("the file of host \"alpha\"");
    EXPECT_EQ(store->moved_to(), "the file of host \"alpha\"");
}

TEST_P(StoreMark, IsNoneOfTheSettingsThatAreCopied) {
    store->set_setting("s", "v");
    store->set_moved_to("");
    EXPECT_EQ(store->settings().count("moved"), 0u);
    store->set_moved_to("elsewhere");
    EXPECT_EQ(store->settings().count("moved"), 0u);
}

TEST_P(StoreMark, IsUndoneWithWhatItIsPutTogetherWith) {
    EXPECT_THROW(store->together([&] {
        store->set_moved_to("elsewhere");
        throw StoreError("enough");
    }),
                 StoreError);
    EXPECT_EQ(store->moved_to(), "");
}

TEST_P(MovedStore, IsWhatItWasEachTimeThatItIsMovedAgain) {
    add_to(*from, named("a"));
    add_to(*from, named("b"), RGY_DB_DOMAINS);
    from->set_setting("s", "v");
    move_registry(*from, *store);
    expect_alike();
    add_to(*from, named("c"));
    const Entry other = named("d");
    ASSERT_EQ(from->change(RGY_DB_REGIONS, 1, other.identity, other.text, other.items), Store::ChangeResult::changed);
    from->set_setting("s", "w");
    EXPECT_EQ(move_registry(*from, *store).at(RGY_DB_REGIONS), 2u);
    expect_alike();
    Record removed;
    ASSERT_TRUE(from->remove(RGY_DB_DOMAINS, 2, removed));
    move_registry(*from, *store);
    expect_alike();
    EXPECT_THAT(found("-name", "a"), IsEmpty());
}

TEST_P(MovedStore, TakesThePlaceOfAnotherRegistry) {
    add_all({"x", "y"});
    add_all({"z"}, RGY_DB_DOMAINS);
    add_to(*from, named("a"));
    move_registry(*from, *store);
    expect_alike();
    EXPECT_THAT(found("-name", "z", RGY_DB_DOMAINS), IsEmpty());
}

// Whatever somebody did to it behind its stamps.
TEST_P(MovedStore, IsNotMovedWhereNotAllHasCome) {
    add_to(*from, named("a"));
    move_registry(*from, *store);
    const auto stamps = pair(RGY_DB_REGIONS);
    ASSERT_TRUE(remove(1));
    store->replace(RGY_DB_REGIONS, stamps, {});
    EXPECT_THROW(move_registry(*from, *store), StoreError);
}

TEST_F(ClosedDatabase, IsNeitherReadNorChangedByWhomeverServedIt) {
    EXPECT_THAT(refusal_of([&] { serving->stamps(RGY_DB_REGIONS); }), HasSubstr("the registry was moved to elsewhere"));
    EXPECT_THAT(refusal_of([&] { serving->set_setting("s", "v"); }), HasSubstr("the registry was moved to elsewhere"));
    Record removed;
    EXPECT_THAT(refusal_of([&] { serving->remove(RGY_DB_REGIONS, 1, removed); }), HasSubstr("moved to elsewhere"));
    EXPECT_EQ(ask("SELECT count(*) FROM entry"), "1");
}

TEST_F(ClosedDatabase, IsNotOpenedToBeServed) {
    EXPECT_THAT(refusal_of([&] { open(); }), HasSubstr("the registry was moved to elsewhere"));
}

TEST_F(ClosedDatabase, IsReadByWhoeverMovesIt) {
    EXPECT_EQ(count(*moving), 1u);
    EXPECT_EQ(moving->moved_to(), "elsewhere");
}

TEST_F(ClosedDatabase, IsServedAgainWhereTheMarkIsTakenAway) {
    moving->set_moved_to("");
    EXPECT_EQ(add(*serving, "b"), Store::AddResult::added);
    EXPECT_EQ(count(*serving), 2u);
}

// Whoever waits for the lock finds what was done under it.
TEST_F(ClosedDatabase, IsNotChangedByWhoeverWaitedForItToBeClosed) {
    moving->set_moved_to("");
    std::string refused;
    std::thread writer;
    moving->together([&] {
        moving->set_moved_to("elsewhere");
        writer = std::thread([&] { refused = refusal_of([&] { serving->set_setting("s", "v"); }); });
        EXPECT_TRUE(eventually([&] {
            return server.ask("SELECT count(*) FROM pg_stat_activity WHERE wait_event_type = 'Lock' AND datname = '" +
                              database + "'") == "1";
        }));
    });
    writer.join();
    EXPECT_THAT(refused, HasSubstr("moved to elsewhere"));
}

TEST_F(ClosedDatabase, OfAVersionBeforeThereWereMarksIsMadeOneOfThisVersion) {
    moving->set_moved_to("");
    run("ALTER TABLE registry DROP COLUMN moved; UPDATE registry SET version = 1");
    const auto opened = open();
    EXPECT_EQ(opened->moved_to(), "");
    EXPECT_EQ(add(*opened, "b"), Store::AddResult::added);
}
