// What a store on PostgreSQL does when its database refuses, goes, comes back, or does not say what became of a commit.
#include <tests/unit/store/store_fixture.h>

#include <array>
#include <atomic>
#include <thread>

#include <server/registry/moved.h>
#include <server/registry/postgres_errors.h>
#include <server/registry/postgres_schema.h>
#include <server/registry/postgres_statements.h>
#include <server/registry/postgres_store.h>
#include <server/registry/registry.h>
#include <server/registry/sqlite.h>
#include <tests/unit/store/postgres_fixture.h>

using namespace velia::server;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using velia::postgres_test::Server;

namespace {

struct CodeRow {
    const char *code;
    Kind kind;
    const char *words;
};

} // namespace

TEST(PostgresErrors, EachCodeHasItsKindAndWords) {
    const std::array rows = {CodeRow{"28P01", Kind::refused, "the password is wrong: x"},
                             CodeRow{"28000", Kind::refused, "pg_hba.conf"},
                             CodeRow{"3D000", Kind::refused, "no database of this name"},
                             CodeRow{"42501", Kind::refused, "no right"},
                             CodeRow{"53100", Kind::refused, "disk is full"},
                             CodeRow{"53300", Kind::away, "no room for more"},
                             CodeRow{"55P03", Kind::busy, "lock"},
                             CodeRow{"57014", Kind::busy, "longer than it may"},
                             CodeRow{"40P01", Kind::busy, "in the way"},
                             CodeRow{"25006", Kind::away, "takes no changes"},
                             CodeRow{"25P03", Kind::away, "idle amid a transaction"},
                             CodeRow{"57P03", Kind::away, "coming up"},
                             CodeRow{"08006", Kind::away, "broke"},
                             CodeRow{"", Kind::away, "x"},
                             CodeRow{"XX000", Kind::refused, "the database says: x"}};
    for (const auto &[code, kind, expected] : rows) {
        std::string words;
        EXPECT_EQ(kind_of([code = code] { throw_postgres_error(code, "x"); }, &words), kind) << code;
        EXPECT_THAT(words, HasSubstr(expected)) << code;
    }
}

TEST(PostgresErrors, ACodeIsFoundInAnyLanguage) {
    const std::string words = "connection to server failed: FATAL:  28P01: no\nLOCATION:  auth_failed, auth.c:326\n";
    EXPECT_EQ(code_in(words), "28P01");
    EXPECT_EQ(first_message_in(words), "no");
    EXPECT_EQ(code_in("FATALE :  28P01: non"), "28P01");
    EXPECT_EQ(code_in("no server: no such file\n"), "");
    EXPECT_EQ(first_message_in("no server: no such file\nIs it there?\n"), "no server: no such file");
    EXPECT_EQ(first_message_in(""), "no answer");
    EXPECT_EQ(code_in("x:  28p01: small"), "");
}

TEST(PostgresErrors, AConnectionStringIsRightOrHasAFault) {
    EXPECT_EQ(fault_of_conninfo("host=a,b dbname=c target_session_attrs=read-write"), "");
    EXPECT_EQ(fault_of_conninfo("postgresql://a/b"), "");
    EXPECT_EQ(fault_of_conninfo(""), "it is empty");
    EXPECT_THAT(fault_of_conninfo("hots=a"), HasSubstr("hots"));
    EXPECT_THAT(fault_of_conninfo("host"), HasSubstr("missing"));
}

TEST(PostgresErrors, APasswordIsNotTold) {
    const std::string told = told_conninfo("host=a dbname=b user=c password=secret sslkey=d");
    EXPECT_THAT(told, HasSubstr("host=a"));
    EXPECT_THAT(told, HasSubstr("dbname=b"));
    EXPECT_THAT(told, testing::Not(HasSubstr("secret")));
    EXPECT_EQ(told_conninfo("not one"), "postgresql");
}

// A blank in it, or what is to be escaped, is easily forgotten.
TEST(PostgresErrors, OfAMalformedConnectionStringNoPasswordIsToldEither) {
    for (const char *conninfo : {"host=a password=my secret", "host=a password=my secret x=1",
                                 "host=a password=my sec\"ret", "postgresql://u:%secret@h", "postgresql://u:secret@[h",
                                 "postgresql://u:my/secret@h/d", "postgresql://u:secret@h/d?x"}) {
        const std::string fault = fault_of_conninfo(conninfo);
        EXPECT_FALSE(fault.empty()) << conninfo;
        for (const char *part : {"sec", "ret", "my"})
            EXPECT_THAT(fault, testing::Not(HasSubstr(part))) << conninfo;
    }
    EXPECT_EQ(fault_of_conninfo("postgresql://u@h/d?options=a/b@c"), "");
    EXPECT_EQ(fault_of_conninfo("host=/run/a user=b@c"), "");
}

TEST_F(PostgresStoreTest, AWrongPasswordIsToldAsThat) {
    run("CREATE ROLE " + clerk + " LOGIN SUPERUSER PASSWORD 'right'");
    server.set_access("local all tester trust\nlocal all all scram-sha-256\n");
    std::string words;
    EXPECT_EQ(opening(conninfo_as(clerk, "password=wrong"), &words), Kind::refused);
    EXPECT_THAT(words, HasSubstr("the password is wrong"));
    EXPECT_EQ(opening(conninfo_as(clerk, "password=right")), Kind::opened);
}

TEST_F(PostgresStoreTest, WhoMayNotComeInIsToldSo) {
    server.set_access("local all tester trust\n");
    std::string words;
    EXPECT_EQ(opening(conninfo_as("stranger"), &words), Kind::refused);
    EXPECT_THAT(words, HasSubstr("pg_hba.conf"));
}

TEST_F(PostgresStoreTest, ADatabaseThatThereIsNotIsToldAsThat) {
    std::string words;
    EXPECT_EQ(opening(conninfo() + "dbname=nowhere", &words), Kind::refused);
    EXPECT_THAT(words, HasSubstr("no database of this name"));
}

TEST_F(PostgresStoreTest, AUserWithoutRightsMakesNothing) {
    run("CREATE ROLE " + clerk + " LOGIN");
    std::string words;
    EXPECT_EQ(opening(conninfo_as(clerk), &words), Kind::refused);
    EXPECT_THAT(words, HasSubstr("no right"));
    EXPECT_EQ(ask("SELECT count(*) FROM pg_tables WHERE schemaname = 'public'"), "0");
}

TEST_F(PostgresStoreTest, AUserWithTheRightsOfThePageServes) {
    run("CREATE ROLE " + clerk + " LOGIN");
    run("ALTER DATABASE " + database + " OWNER TO " + clerk);
    const auto store = open(conninfo_as(clerk));
    EXPECT_EQ(add(*store, "a"), Store::AddResult::added);
}

TEST_F(PostgresStoreTest, ARegistryOfANewerVersionIsLeftAsItIs) {
    open();
    run("UPDATE registry SET version = 99");
    std::string words;
    EXPECT_EQ(opening(conninfo(), &words), Kind::refused);
    EXPECT_THAT(words, HasSubstr("newer version"));
    EXPECT_EQ(ask("SELECT version FROM registry"), "99");
}

// As by a newer daemon on another host, which was started first.
TEST_F(PostgresStoreTest, ARegistryThatANewerVersionHasTakenOverMeanwhileIsLeftAsItIs) {
    const auto store = open();
    ASSERT_EQ(add(*store, "a"), Store::AddResult::added);
    const auto stamps = store->stamps(RGY_DB_REGIONS).pair;
    const Entry entry = named("b");
    const auto add_b = [&] { store->add(RGY_DB_REGIONS, stamps, entry.identity, entry.text, entry.items); };
    const auto look_up = [&] {
        store->scan_with_stamps({RGY_DB_REGIONS, "", "-name", "a"}, 0, [](uint64_t, const Record *) { return true; });
    };
    const auto read_settings = [&] { store->settings(); };
    run("UPDATE registry SET version = 99");
    for (const bool is_connected_anew : {false, true}) {
        std::string words;
        EXPECT_EQ(kind_of(add_b, &words), Kind::refused);
        EXPECT_THAT(words, HasSubstr("newer version"));
        EXPECT_EQ(kind_of(look_up, &words), Kind::refused);
        EXPECT_THAT(words, HasSubstr("newer version"));
        EXPECT_EQ(kind_of(read_settings), is_connected_anew ? Kind::refused : Kind::opened);
        end_connections();
    }
    EXPECT_EQ(ask("SELECT count(*) FROM entry"), "1");
    run("UPDATE registry SET version = " + std::to_string(postgres_schema_steps().size()));
    EXPECT_EQ(kind_of(add_b), Kind::opened) << "as a backup that was put back";
}

TEST_F(PostgresStoreTest, ARegistryOfAnOlderVersionIsMovedOnce) {
    EXPECT_EQ(add(*open(), "a"), Store::AddResult::added);
    std::vector<const char *> steps(postgres_schema_steps().begin(), postgres_schema_steps().end());
    steps.push_back("CREATE TABLE added (x integer); INSERT INTO added VALUES (1)");
    Postgres connection(conninfo());
    connection.connect();
    EXPECT_FALSE(make_postgres_schema(connection, steps));
    EXPECT_FALSE(make_postgres_schema(connection, steps));
    EXPECT_EQ(ask("SELECT count(*) FROM added"), "1");
    EXPECT_EQ(ask("SELECT version FROM registry"), std::to_string(steps.size()));
    EXPECT_EQ(ask("SELECT count(*) FROM entry"), "1");
}

TEST_F(PostgresStoreTest, AStepThatFailsLeavesTheVersionOfBefore) {
    open();
    std::vector<const char *> steps(postgres_schema_steps().begin(), postgres_schema_steps().end());
    steps.push_back("CREATE TABLE added (x integer); SELECT 1 / 0");
    Postgres connection(conninfo());
    connection.connect();
    EXPECT_THROW(make_postgres_schema(connection, steps), StoreError);
    EXPECT_EQ(ask("SELECT version FROM registry"), std::to_string(steps.size() - 1));
    EXPECT_EQ(ask("SELECT to_regclass('added') IS NULL"), "t");
}

TEST_F(PostgresStoreTest, AServerThatTakesNoChangesIsAway) {
    open();
    run("ALTER DATABASE " + database + " SET default_transaction_read_only = on");
    EXPECT_EQ(opening(conninfo()), Kind::away);
    std::string words;
    EXPECT_EQ(opening(conninfo() + "target_session_attrs=any", &words), Kind::away);
    EXPECT_THAT(words, HasSubstr("takes no changes"));
}

TEST_F(PostgresStoreTest, AServerThatGoesIsAwayAndIsThereAgain) {
    const auto store = open();
    ASSERT_EQ(add(*store, "a"), Store::AddResult::added);
    server.stop();
    EXPECT_EQ(kind_of([&] { count(*store); }), Kind::away);
    EXPECT_EQ(kind_of([&] { add(*store, "b"); }), Kind::away);
    server.start();
    EXPECT_TRUE(comes_back([&] { count(*store); }));
    EXPECT_EQ(count(*store), 1u);
    EXPECT_EQ(add(*store, "b"), Store::AddResult::added);
}

TEST_F(PostgresStoreTest, WithoutAServerItIsAway) {
    EXPECT_EQ(opening("host=/nonexistent dbname=a"), Kind::away);
}

TEST_F(PostgresStoreTest, AConnectionThatEndedBetweenCallsIsNotNoticed) {
    const auto store = open();
    end_connections();
    EXPECT_EQ(count(*store), 0u);
    end_connections();
    EXPECT_EQ(add(*store, "a"), Store::AddResult::added);
    end_connections();
    store->together([&] { EXPECT_EQ(add(*store, "b"), Store::AddResult::added); });
    EXPECT_EQ(count(*store), 2u);
}

TEST_F(PostgresStoreTest, AConnectionThatEndsAmidChangesLeavesNoneOfThem) {
    const auto store = open();
    EXPECT_EQ(kind_of([&] {
                  store->together([&] {
                      add(*store, "a");
                      end_connections();
                      add(*store, "b");
                  });
              }),
              Kind::away);
    EXPECT_EQ(count(*store), 0u);
    EXPECT_EQ(add(*store, "c"), Store::AddResult::added);
}

TEST_F(PostgresStoreTest, AnErrorThatIsPassedOverAmidChangesCommitsNothing) {
    const auto store = open();
    EXPECT_EQ(kind_of([&] {
                  store->together([&] {
                      add(*store, "a");
                      end_connections();
                      EXPECT_EQ(kind_of([&] { add(*store, "b"); }), Kind::away);
                      EXPECT_EQ(kind_of([&] { store->together([] {}); }), Kind::away);
                      EXPECT_EQ(kind_of([&] { count(*store); }), Kind::away);
                  });
              }),
              Kind::away);
    EXPECT_EQ(count(*store), 0u);
}

TEST_F(PostgresStoreTest, ADatabaseThatIsAnotherOneNowIsRefused) {
    const auto store = open();
    run("DROP TABLE registry");
    end_connections();
    EXPECT_EQ(kind_of([&] { count(*store); }), Kind::refused);
}

TEST_F(PostgresStoreTest, ACommitWhoseAnswerIsLostIsFoundToBeMade) {
    DroppingRelay relay(server.directory());
    const auto store = open(conninfo_over(relay));
    relay.drop_next(DroppingRelay::Drops::answer_to_commit);
    EXPECT_EQ(add(*store, "a"), Store::AddResult::added);
    EXPECT_EQ(add(*store, "b"), Store::AddResult::added);
    EXPECT_EQ(count(*open()), 2u);
}

TEST_F(PostgresStoreTest, ACommitThatIsLostIsFoundNotToBeMade) {
    DroppingRelay relay(server.directory());
    const auto store = open(conninfo_over(relay));
    ASSERT_EQ(add(*store, "a"), Store::AddResult::added);
    relay.drop_next(DroppingRelay::Drops::commit);
    std::string words;
    EXPECT_EQ(kind_of([&] { add(*store, "b"); }, &words), Kind::away);
    EXPECT_THAT(words, HasSubstr("was not made"));
    EXPECT_EQ(count(*store), 1u);
    EXPECT_EQ(add(*store, "b"), Store::AddResult::added);
}

// Nothing can be changed there any more, and what was made before has been made.
TEST_F(PostgresStoreTest, ACommitThatIsLostIsAskedAfterAlsoWhereTheRegistryHasBeenMovedSince) {
    DroppingRelay relay(server.directory());
    const auto store = open(conninfo_over(relay));
    run("CREATE FUNCTION leave() RETURNS trigger LANGUAGE plpgsql AS 'BEGIN UPDATE registry SET moved = "
        "''elsewhere''::bytea; RETURN NEW; END'");
    run("CREATE TRIGGER leave AFTER INSERT OR UPDATE ON writer FOR EACH ROW EXECUTE FUNCTION leave()");
    relay.drop_next(DroppingRelay::Drops::answer_to_commit);
    EXPECT_EQ(add(*store, "a"), Store::AddResult::added);
    EXPECT_EQ(ask("SELECT count(*) FROM entry"), "1");
}

TEST_F(PostgresStoreTest, ACommitThatIsRefusedIsNotInDoubt) {
    const auto store = open();
    run("CREATE FUNCTION refuse() RETURNS trigger LANGUAGE plpgsql AS 'BEGIN RAISE EXCEPTION ''not today''; END'");
    run("CREATE CONSTRAINT TRIGGER refuse AFTER INSERT ON entry DEFERRABLE INITIALLY DEFERRED FOR EACH ROW EXECUTE "
        "FUNCTION refuse()");
    std::string words;
    EXPECT_EQ(kind_of([&] { add(*store, "a"); }, &words), Kind::refused);
    EXPECT_THAT(words, HasSubstr("not today"));
    EXPECT_EQ(count(*store), 0u);
}

// Whoever says that he takes any server is not served by one that takes no changes either.
TEST_F(PostgresStoreTest, AServerThatTakesNoChangesIsNotOpened) {
    run("ALTER DATABASE " + database + " SET default_transaction_read_only = on");
    std::string words;
    EXPECT_EQ(opening(conninfo() + " target_session_attrs=any", &words), Kind::away);
    EXPECT_THAT(words, HasSubstr("takes no changes"));
}

TEST_F(PostgresStoreTest, AConnectionToWhatTakesNoChangesAnyMoreIsGivenUp) {
    const auto store = open();
    run("CREATE FUNCTION refuse() RETURNS trigger LANGUAGE plpgsql AS 'BEGIN RAISE EXCEPTION ''read only'' USING "
        "ERRCODE = ''25006''; END'");
    run("CREATE TRIGGER refuse BEFORE INSERT ON entry FOR EACH ROW EXECUTE FUNCTION refuse()");
    const std::string connections = "SELECT count(*) FROM pg_stat_activity WHERE application_name = 'rvzd_server' AND "
                                    "datname = '" +
                                    database + "'";
    EXPECT_EQ(ask(connections), "1");
    EXPECT_EQ(kind_of([&] { add(*store, "a"); }), Kind::away);
    EXPECT_TRUE(eventually([&] { return ask(connections) == "0"; }));
}

// The way there and back is most of what a look-up costs.
TEST_F(PostgresStoreTest, ALookUpAsksOneStatement) {
    const auto store = open();
    ASSERT_EQ(add(*store, "a"), Store::AddResult::added);
    Registry registry(*store);
    const auto look_up = [&] {
        return registry.find({RGY_DB_REGIONS, "", "-name", "a"}, 0, {10, 8000}, {})->batch->records.size();
    };
    ASSERT_EQ(look_up(), 1u) << "and prepared it";
    run("ALTER DATABASE " + database + " SET log_statement = 'all'");
    end_connections();
    ASSERT_EQ(look_up(), 1u);
    const size_t before = server.count_in_log("LOG:  execute");
    ASSERT_EQ(look_up(), 1u);
    EXPECT_EQ(server.count_in_log("LOG:  execute"), before + 1);
}

TEST_F(PostgresStoreTest, AListingIsPlannedOnceHoweverMuchThereIs) {
    open();
    run("INSERT INTO entry SELECT n, 4, '', '', '-name=x;' FROM generate_series(1, 20000) AS n; ANALYZE");
    Postgres connection(conninfo());
    connection.connect();
    for (int i = 0; i < 10; ++i)
        ASSERT_EQ(
            connection.run(statements::scan_all_stamped, uint32_t{4}, uint64_t{0}, std::string(), uint64_t{50}).count(),
            50);
    EXPECT_EQ(connection.run("SELECT generic_plans, custom_plans FROM pg_prepared_statements").text(0, 0), "10");
}

TEST_F(PostgresStoreTest, WhatIsReadAtOneMomentIsNotChangedMeanwhile) {
    const auto reader = open();
    const auto writer = open();
    ASSERT_EQ(add(*writer, "a"), Store::AddResult::added);
    reader->at_one_moment([&] {
        EXPECT_EQ(count(*reader), 1u);
        ASSERT_EQ(add(*writer, "b"), Store::AddResult::added);
        EXPECT_EQ(count(*reader), 1u);
    });
    EXPECT_EQ(count(*reader), 2u);
}

TEST_F(PostgresStoreTest, ACommitThatCannotBeAskedAfterIsUncertain) {
    DroppingRelay relay(server.directory());
    const auto store = open(conninfo_over(relay));
    EXPECT_EQ(kind_of([&] {
                  store->together([&] {
                      add(*store, "a");
                      relay.drop_next(DroppingRelay::Drops::commit);
                      wait_for_others(0); // as of a daemon that is to end
                  });
              }),
              Kind::uncertain);
    wait_for_others(usual_wait_for_others_ms);
}

TEST_F(PostgresStoreTest, ASessionThatWouldNotWaitForAStandbyDoes) {
    for (const char *setting : {"off", "local"}) {
        run("ALTER DATABASE " + database + " SET synchronous_commit = " + setting);
        Postgres connection(conninfo());
        connection.connect();
        EXPECT_EQ(connection.run("SHOW synchronous_commit").text(0, 0), "on") << setting;
    }
}

TEST_F(PostgresStoreTest, AServerThatIsToldNotToWaitForAStandbyIsNotObeyedBySessionsThatDo) {
    Postgres connection(conninfo());
    connection.connect();
    server.run("ALTER SYSTEM SET synchronous_commit = off");
    server.run("SELECT pg_reload_conf()");
    EXPECT_TRUE(eventually([&] { return server.ask("SHOW synchronous_commit") == "off"; }));
    EXPECT_EQ(connection.run("SHOW synchronous_commit").text(0, 0), "on");
    server.run("ALTER SYSTEM RESET synchronous_commit");
    server.run("SELECT pg_reload_conf()");
    EXPECT_TRUE(eventually([&] { return server.ask("SHOW synchronous_commit") == "on"; }));
}

TEST_F(PostgresStoreTest, ARegistryGoesToAFileAndBack) {
    const auto from = open();
    for (const char *name : {"a", "b", "c"})
        ASSERT_EQ(add(*from, name), Store::AddResult::added);
    from->set_setting("password", "hash");
    Record removed;
    ASSERT_TRUE(from->remove(RGY_DB_REGIONS, 3, removed));
    const std::string file =
        std::filesystem::temp_directory_path() / ("velia-" + clerk + "-" + std::to_string(getpid()) + ".db");
    save_into_sqlite(*from, file);
    run("CREATE DATABASE " + database + "other");
    bool is_new = true;
    const auto saved = open_sqlite_store(file, is_new);
    const auto to = open(conninfo() + "dbname=" + database + "other");
    EXPECT_EQ(move_registry(*saved, *to).at(RGY_DB_REGIONS), 2u);
    EXPECT_EQ(counts_of(*to), counts_of(*from));
    EXPECT_EQ(to->settings(), from->settings());
    EXPECT_EQ(to->last_number(), 3u);
    for (rgy_db_t db = 0; db < RGY_DB_ALL; ++db)
        EXPECT_TRUE(is_same(to->stamps(db).pair, from->stamps(db).pair)) << db;
    for (const char *suffix : {"", "-wal", "-shm", ".made"})
        std::filesystem::remove(file + suffix);
}
