// What becomes of calls while a database is silent, full, locked, or ends a wait for its standby.
#include <tests/unit/store/postgres_fixture.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <thread>

#include <server/loop/handles.h>
#include <server/registry/postgres.h>
#include <server/registry/sqlite.h>

using namespace velia::server;
using testing::HasSubstr;
using velia::postgres_test::Server;

namespace {

constexpr const char *waiting_for_standby = "SELECT count(*) = 1 FROM pg_stat_activity WHERE wait_event = 'SyncRep'";

// An add that waits for a standby of which there is none, and whose wait somebody ends.
struct EndedWait : PostgresStoreTest {
    void SetUp() override {
        store = open();
        server.run("ALTER SYSTEM SET synchronous_standby_names = 'nobody'");
        server.run("SELECT pg_reload_conf()");
        for (int i = 0; i < 100 && !makes_wait("probe" + std::to_string(i)); ++i)
            ;
    }
    // The server takes its configuration in some time after it was told to.
    bool makes_wait(const std::string &table) {
        std::atomic<bool> is_written = false;
        bool is_waiting = false;
        std::thread writing([&] {
            run("CREATE TABLE " + table + " ()");
            is_written = true;
        });
        EXPECT_TRUE(eventually([&] {
            is_waiting = server.ask(waiting_for_standby) == "t";
            return is_written || is_waiting;
        }));
        server.run("SELECT pg_cancel_backend(pid) FROM pg_stat_activity WHERE wait_event = 'SyncRep'");
        writing.join();
        return is_waiting;
    }
    ~EndedWait() override { server.demand_no_standby(); }

    void expect_it_waits_again(const std::string &end) {
        std::atomic<bool> is_answered = false;
        std::optional<Store::AddResult> result;
        std::thread adding([&] {
            result = add(*store, "a");
            is_answered = true;
        });
        server.wait_for(waiting_for_standby);
        for (int time = 1; time <= 2; ++time) { // the wait that is begun anew may be ended, too
            const std::string former =
                server.ask("SELECT max(query_start) FROM pg_stat_activity WHERE wait_event = 'SyncRep'");
            server.run("SELECT " + end + "(pid) FROM pg_stat_activity WHERE wait_event = 'SyncRep'");
            EXPECT_TRUE(eventually([&] {
                return is_answered || server.ask("SELECT count(*) FROM pg_stat_activity WHERE wait_event = 'SyncRep' "
                                                 "AND query_start > '" +
                                                 former + "'") == "1";
            }));
            EXPECT_FALSE(is_answered) << "no standby has it";
        }
        server.demand_no_standby();
        adding.join();
        EXPECT_EQ(result, Store::AddResult::added);
        EXPECT_EQ(count(*store), 1u);
    }

    std::unique_ptr<Store> store;
};

} // namespace

TEST_F(EndedWait, ThatIsCancelledIsBegunAnew) {
    expect_it_waits_again("pg_cancel_backend");
}

TEST_F(EndedWait, ThatIsEndedWithItsConnectionIsBegunAnew) {
    expect_it_waits_again("pg_terminate_backend");
}

TEST(PostgresStanding, AnAbsenceIsToldOnceUntilItIsOver) {
    const auto standing = PostgresStanding::of("host=nowhere");
    const auto told = [&](int failures) {
        testing::internal::CaptureStderr();
        for (int i = 0; i < failures; ++i)
            standing->note_failure("reason " + std::to_string(i));
        const std::string words = testing::internal::GetCapturedStderr();
        size_t lines = 0;
        for (size_t at = words.find("is away"); at != std::string::npos; at = words.find("is away", at + 1))
            ++lines;
        return lines;
    };
    EXPECT_EQ(told(3), 1u);
    EXPECT_EQ(told(1), 0u);
    standing->note_success();
    EXPECT_EQ(told(2), 1u);
}

TEST(PostgresStanding, BehindFailuresNothingIsTriedForAWhile) {
    const std::string conninfo = "host=/nonexistent/either";
    const auto standing = PostgresStanding::of(conninfo);
    EXPECT_THROW(standing->connect(conninfo), StoreAway);
    for (int i = 0; i < 10; ++i) // after which the pause is as long as it gets
        standing->note_failure("reason");
    EXPECT_EQ(standing->connect(conninfo), nullptr);
    EXPECT_EQ(standing->reason(), "reason");
}

TEST_F(PostgresStoreTest, AReplicaThatIsAwayKeepsNobodyFromAPrimaryOfTheSameName) {
    const auto replica = PostgresStanding::of(conninfo(), PostgresServer::replica);
    for (int i = 0; i < 10; ++i)
        replica->note_failure("reason");
    EXPECT_EQ(replica->connect(conninfo()), nullptr);
    EXPECT_EQ(opening(conninfo()), Kind::opened);
}

TEST_F(PostgresStoreTest, WhileAConnectionTakesLongAllAreToldAtOnce) {
    constexpr int64_t less_than_one_attempt_ms = 6000;
    DroppingRelay relay(server.directory());
    relay.hold();
    const int64_t begin_ms = monotonic_ms();
    for (int i = 0; i < 20; ++i)
        EXPECT_EQ(opening(conninfo_over(relay)), Kind::away);
    EXPECT_LT(monotonic_ms() - begin_ms, less_than_one_attempt_ms);
    relay.let_go();
    EXPECT_TRUE(comes_back([&] { open(conninfo_over(relay)); }));
}

TEST_F(PostgresStoreTest, AnAttemptThatSomebodyHasGivenUpGoesOn) {
    DroppingRelay relay(server.directory());
    relay.hold();
    EXPECT_EQ(opening(conninfo_over(relay)), Kind::away);
    Postgres other(conninfo_over(relay));
    std::string words;
    EXPECT_EQ(kind_of([&] { other.connect(); }, &words), Kind::away);
    EXPECT_EQ(words, "no host has answered yet");
    relay.let_go();
    EXPECT_TRUE(comes_back([&] { other.connect(); }));
}

TEST_F(PostgresStoreTest, ANetworkThatGoesBetweenAndComesBackLosesNothing) {
    DroppingRelay relay(server.directory());
    const auto store = open(conninfo_over(relay));
    ASSERT_EQ(add(*store, "a"), Store::AddResult::added);
    relay.hold();
    EXPECT_EQ(kind_of([&] { add(*store, "b"); }), Kind::away);
    EXPECT_EQ(kind_of([&] { count(*store); }), Kind::away);
    relay.let_go();
    EXPECT_TRUE(comes_back([&] { count(*store); }));
    EXPECT_EQ(count(*store), 1u);
    EXPECT_EQ(add(*store, "b"), Store::AddResult::added);
}

TEST_F(PostgresStoreTest, APasswordThatBecomesWrongIsTriedAgainAndToldOnce) {
    run("CREATE ROLE " + clerk + " LOGIN SUPERUSER PASSWORD 'right'");
    server.set_access("local all tester trust\nlocal all all scram-sha-256\n");
    const auto store = open(conninfo_as(clerk, "password=right"));
    run("ALTER ROLE " + clerk + " PASSWORD 'another'");
    end_connections();
    testing::internal::CaptureStderr();
    std::string words;
    EXPECT_EQ(kind_of([&] { count(*store); }, &words), Kind::away);
    EXPECT_EQ(opening(conninfo_as(clerk, "password=right")), Kind::away);
    const std::string told = testing::internal::GetCapturedStderr();
    EXPECT_THAT(words, HasSubstr("the password is wrong"));
    EXPECT_THAT(told, HasSubstr("the password is wrong"));
    EXPECT_EQ(told.find("is away"), told.rfind("is away")) << told;
    run("ALTER ROLE " + clerk + " PASSWORD 'right'");
    EXPECT_TRUE(comes_back([&] { count(*store); }));
}

TEST_F(PostgresStoreTest, ALockThatSomebodyElseHoldsMakesUpdatesWaitForAWhileAndNoReads) {
    const auto store = open();
    Postgres other(conninfo() + "application_name=other");
    other.connect();
    other.run("BEGIN; SELECT FROM registry FOR UPDATE");
    wait_for_others(300);
    std::string words;
    EXPECT_EQ(kind_of([&] { add(*store, "a"); }, &words), Kind::busy);
    EXPECT_EQ(count(*store), 0u);
    wait_for_others(usual_wait_for_others_ms);
    other.run("ROLLBACK");
    EXPECT_THAT(words, HasSubstr("somebody else has held the registry's lock"));
    EXPECT_EQ(add(*store, "a"), Store::AddResult::added);
}

TEST_F(PostgresStoreTest, AFullDiskRefusesUpdatesAndServesReads) {
    Server own;
    const std::filesystem::path preload = own.directory() / "full_disk.so"; // where the server's user gets to
    std::filesystem::copy_file(FULL_DISK_PRELOAD, preload);
    const std::filesystem::path full = own.directory() / "full";
    own.stop();
    own.start("", "LD_PRELOAD=" + preload.string() + " DISK_IS_FULL=" + full.string() + " DISK_HAS_ROOM_FOR=pg_wal");
    const auto store = open(own.conninfo());
    ASSERT_EQ(add(*store, "a"), Store::AddResult::added);
    std::ofstream(full).flush();
    std::string long_text = "-name=b;-title=";
    for (int i = 0; long_text.size() < 200'000; ++i)
        long_text += std::to_string(i * 7919);
    const auto add_long = [&] {
        return store->add(RGY_DB_REGIONS, store->stamps(RGY_DB_REGIONS).pair, "b", long_text, {{"-name", "b"}});
    };
    std::string words;
    EXPECT_EQ(kind_of(add_long, &words), Kind::refused);
    EXPECT_THAT(words, HasSubstr("the database's disk is full"));
    EXPECT_EQ(count(*store), 1u);
    std::filesystem::remove(full);
    EXPECT_EQ(add_long(), Store::AddResult::added);
    EXPECT_EQ(count(*store), 2u);
}
