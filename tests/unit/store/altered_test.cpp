// A database that answers what this program never put there: each time a clear error, and nothing else comes of it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>

#include <server/registry/moved.h>
#include <server/registry/postgres.h>
#include <server/registry/postgres_store.h>
#include <tests/postgres/server.h>

using namespace velia::server;
using testing::HasSubstr;

namespace {

constexpr rgy_db_t db = RGY_DB_REGIONS;

void add(Store &store, const std::string &name) {
    ASSERT_EQ(store.add(db, store.stamps(db).pair, name, "-name=" + name + ";", {{"-name", name}}),
              Store::AddResult::added);
}
void read_all(Store &store) {
    store.scan({db, "", "", ""}, 0, [](uint64_t, const Record *) { return true; });
}
void find(Store &store) {
    store.scan({db, "", "-name", "a"}, 0, [](uint64_t, const Record *) { return true; });
}
void read_stamps(Store &store) {
    store.stamps(db);
}
void count(Store &store) {
    store.count(db);
}
void change_something(Store &store) {
    add(store, "other");
}
void read_settings(Store &store) {
    store.set_setting("x", "y");
    store.settings();
}
void take_all(Store &store) {
    counts_of(store);
    store.last_number();
    store.changes();
}

struct Alteration {
    const char *name;
    const char *sql;
    void (*work)(Store &store);
    const char *words;
};
void PrintTo(const Alteration &alteration, std::ostream *out) {
    *out << alteration.name;
}

// A table in whose place stands a view that answers as its maker likes.
#define IN_PLACE_OF(TABLE, QUERY) "ALTER TABLE " TABLE " RENAME TO former_" TABLE "; CREATE VIEW " TABLE " AS " QUERY

constexpr const char *altered = "not as this program has made them";
constexpr const char *missing = "a value is missing";
constexpr const char *malformed_uuid = "malformed uuid";
constexpr const char *malformed_number = "malformed number";

constexpr Alteration alterations[] = {
    {"AColumnIsGone", "ALTER TABLE entry DROP COLUMN text", read_all, altered},
    {"ATableIsGone", "DROP TABLE item", find, altered},
    {"AColumnHasAnotherType", "ALTER TABLE entry ALTER region TYPE integer USING 1", read_all, altered},
    {"NumbersAreNarrow", IN_PLACE_OF("stamp", "SELECT db, dtm, svr_dtm, 1::integer AS entries FROM former_stamp"),
     count, malformed_number},
    {"NumbersAreTexts", IN_PLACE_OF("stamp", "SELECT db, dtm, svr_dtm, 'many'::text AS entries FROM former_stamp"),
     count, malformed_number},
    {"NumbersAreNegative", "UPDATE stamp SET entries = -1", count, "negative number"},
    {"NumbersAreNull", "ALTER TABLE stamp ALTER entries DROP NOT NULL; UPDATE stamp SET entries = NULL", count,
     missing},
    {"StampsAreGone", "DELETE FROM stamp", read_stamps, missing},
    {"StampsAreNull", "ALTER TABLE stamp ALTER svr_dtm DROP NOT NULL; UPDATE stamp SET svr_dtm = NULL", read_stamps,
     missing},
    {"StampsAreShort", "UPDATE stamp SET dtm = 'x'", read_stamps, malformed_uuid},
    {"StampsAreLong", "UPDATE stamp SET dtm = repeat('x', 1000)::bytea", read_stamps, malformed_uuid},
    {"TheNameIsNoUuid", "UPDATE registry SET name = ''", read_stamps, malformed_uuid},
    {"TheRegistrysRowIsGone", "DELETE FROM registry", change_something, "answers less"},
    {"TheRegistryHasTwoRows",
     "ALTER TABLE registry DROP CONSTRAINT registry_pkey, DROP CONSTRAINT registry_one_check; "
     "INSERT INTO registry SELECT * FROM registry",
     change_something, "the registry's row is gone"},
    {"CountersAreNegative", "UPDATE registry SET last_number = -5", change_something, "counters are damaged"},
    {"CountersAreAtTheirEnd", "UPDATE registry SET last_number = 9223372036854775807", change_something,
     "counters are damaged"},
    {"ChangesAreNegative", "UPDATE registry SET changes = -1", take_all, "negative number"},
    {"CountersAreNull", "ALTER TABLE registry ALTER changes DROP NOT NULL; UPDATE registry SET changes = NULL",
     change_something, missing},
    {"AnEntryIsTooLong", "UPDATE entry SET text = repeat('x', 5000000)::bytea", read_all,
     "longer than an entry may be"},
    {"ALongEntryIsFound", "UPDATE entry SET text = repeat('x', 1048577)::bytea", find, "longer than an entry may be"},
    {"NumbersComeTwice",
     IN_PLACE_OF("entry", "SELECT e.* FROM former_entry AS e, generate_series(1, 3) ORDER BY random()"), read_all,
     "not in their order"},
    {"ASettingIsNull", "ALTER TABLE setting ALTER value DROP NOT NULL; INSERT INTO setting VALUES ('z', NULL)",
     read_settings, missing},
};

struct DatabaseOfOthers : testing::Test {
    DatabaseOfOthers() {
        static int number = 0;
        const std::string schema = "altered" + std::to_string(++number);
        velia::postgres_test::server().run("CREATE SCHEMA " + schema);
        conninfo = velia::postgres_test::server().conninfo() + "options='-c search_path=" + schema + "'";
    }

    void run(const std::string &sql) const {
        Postgres database(conninfo);
        database.connect();
        database.run(sql);
    }

    std::string conninfo;
};

struct Altered : DatabaseOfOthers, testing::WithParamInterface<Alteration> {};

} // namespace

TEST_P(Altered, IsAnErrorWithWords) {
    bool is_new = false;
    const auto store = open_postgres_store(conninfo, is_new);
    add(*store, "a");
    run(GetParam().sql);
    try {
        GetParam().work(*store);
        FAIL() << "nothing was wrong";
    } catch (const StoreBusy &error) {
        FAIL() << "not to be tried again: " << error.what();
    } catch (const StoreError &error) {
        EXPECT_THAT(error.what(), HasSubstr(GetParam().words));
    }
}

INSTANTIATE_TEST_SUITE_P(Tables, Altered, testing::ValuesIn(alterations),
                         [](const testing::TestParamInfo<Alteration> &row) { return row.param.name; });

TEST_F(DatabaseOfOthers, AnEntryThatIsTooLongCanBeRemoved) {
    bool is_new = false;
    const auto store = open_postgres_store(conninfo, is_new);
    add(*store, "a");
    run("UPDATE entry SET text = repeat('x', 5000000)::bytea");
    Record removed;
    EXPECT_TRUE(store->remove(db, 1, removed));
    EXPECT_EQ(store->count(db), 0u);
}

TEST_F(DatabaseOfOthers, AnAnswerThatIsNoneIsRefusedAndTheConnectionWithIt) {
    Postgres database(conninfo);
    database.connect();
    EXPECT_THROW(database.run("COPY pg_class TO STDOUT"), StoreError);
    EXPECT_FALSE(database.is_connected());
    database.connect();
    EXPECT_EQ(database.run("SELECT 1").text(0, 0), "1");
    EXPECT_THROW(database.run("SELECT 1").text(1, 0), StoreError);
    EXPECT_THROW(database.run("SELECT 1").text(0, 1), StoreError);
    EXPECT_THROW(database.run("SELECT NULL").text(0, 0), StoreError);
}

// Searches visit them a few at a time, whatever the region.
TEST_F(DatabaseOfOthers, ManyEntriesOfOneRegionAreReadInPieces) {
    constexpr uint64_t many = 20'000;
    bool is_new = false;
    const auto store = open_postgres_store(conninfo, is_new);
    run("INSERT INTO entry SELECT i, 4, 'r', '', '-title=x;' FROM generate_series(1, " + std::to_string(many) +
        ") AS i; UPDATE stamp SET entries = " + std::to_string(many) + " WHERE db = 4");
    uint64_t visited = 0;
    store->scan({db, "other", "", ""}, 0, [&](uint64_t, const Record *record) {
        EXPECT_EQ(record, nullptr);
        return ++visited < 100;
    });
    EXPECT_EQ(visited, 100u);
    visited = 0;
    store->scan({db, "r", "", ""}, 0, [&](uint64_t, const Record *) { return ++visited > 0; });
    EXPECT_EQ(visited, many);
}
