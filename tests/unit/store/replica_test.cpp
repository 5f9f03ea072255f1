// What is read on is read of a server that has the same; everything else, and whatever fails there, of the one that
// takes changes.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include <server/loop/handles.h>
#include <tests/unit/store/postgres_fixture.h>

using namespace velia::server;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

using Words = std::vector<std::string>;

class PostgresReplicaTest : public PostgresStoreTest {
protected:
    static void SetUpTestSuite() {
        standby = std::make_unique<velia::postgres_test::Server>(
            velia::postgres_test::Server::StandbyOf{velia::postgres_test::server()});
    }
    static void TearDownTestSuite() { standby.reset(); }
    PostgresReplicaTest() { server.set_access("local all all trust\nlocal replication all trust\n"); }
    ~PostgresReplicaTest() override {
        if (is_stopped_)
            standby->start();
    }

    std::string replica() const { return standby->conninfo_as("tester", "dbname=" + database); }
    std::unique_ptr<Store> open_with(const std::string &conninfo_of_replica) const {
        bool is_new = false;
        return open_postgres_store(conninfo(), is_new, PostgresUse::serving, conninfo_of_replica);
    }

    // From now on it has what the other one has had until now.
    void hold_back() {
        catch_up();
        standby->run("SELECT pg_wal_replay_pause()");
        standby->wait_for("SELECT pg_get_wal_replay_pause_state() = 'paused'");
    }
    void let_go() { standby->run("SELECT pg_wal_replay_resume()"); }
    void catch_up() {
        standby->wait_for("SELECT pg_last_wal_replay_lsn() >= '" + server.ask("SELECT pg_current_wal_lsn()") + "'");
    }
    void stop() {
        standby->stop();
        is_stopped_ = true;
    }
    void start() {
        standby->start();
        is_stopped_ = false;
    }

    struct Seen {
        Words names;
        bool is_elsewhere = false;
    };
    // All from the beginning, as whoever reads on under these stamps is told.
    static Seen read_on(Store &store, const rgy_dtm_pair_t &pair) {
        Seen seen;
        store.reading_on(RGY_DB_REGIONS, pair, [&](Store &source) {
            seen = {{}, &source != &store};
            source.scan({RGY_DB_REGIONS, "", "", ""}, 0, [&](uint64_t /*id*/, const Record *record) {
                seen.names.push_back(record->flex_text);
                return true;
            });
        });
        return seen;
    }
    static bool is_read_elsewhere(Store &store) {
        return read_on(store, store.stamps(RGY_DB_REGIONS).pair).is_elsewhere;
    }
    static std::string name(const char *of) { return named(of).text; }

    static std::unique_ptr<velia::postgres_test::Server> standby;

private:
    bool is_stopped_ = false;
};

std::unique_ptr<velia::postgres_test::Server> PostgresReplicaTest::standby;

} // namespace

TEST_F(PostgresReplicaTest, GoesOnWithWhatIsTheSame) {
    const auto store = open_with(replica());
    ASSERT_EQ(add(*store, "a"), Store::AddResult::added);
    const rgy_dtm_pair_t pair = store->stamps(RGY_DB_REGIONS).pair;
    hold_back();
    ASSERT_EQ(add(*store, "b"), Store::AddResult::added);
    const Seen began_before = read_on(*store, pair);
    EXPECT_TRUE(began_before.is_elsewhere);
    EXPECT_THAT(began_before.names, ElementsAre(name("a"))) << "of when it began";
    const Seen began_since = read_on(*store, store->stamps(RGY_DB_REGIONS).pair);
    EXPECT_FALSE(began_since.is_elsewhere) << "it has not come there yet";
    EXPECT_THAT(began_since.names, ElementsAre(name("a"), name("b")));
    let_go();
    catch_up();
    EXPECT_TRUE(is_read_elsewhere(*store));
    const Seen is_no_more = read_on(*store, pair);
    EXPECT_FALSE(is_no_more.is_elsewhere);
    EXPECT_THAT(is_no_more.names, ElementsAre(name("a"), name("b")));
}

TEST_F(PostgresReplicaTest, OnlyTheDatabaseThatIsReadHasToBeTheSame) {
    const auto store = open_with(replica());
    ASSERT_EQ(add(*store, "a"), Store::AddResult::added);
    hold_back();
    const Entry other = named("other");
    ASSERT_EQ(
        store->add(RGY_DB_SITE_CONFIG, store->stamps(RGY_DB_SITE_CONFIG).pair, other.identity, other.text, other.items),
        Store::AddResult::added);
    EXPECT_TRUE(is_read_elsewhere(*store));
    let_go();
}

TEST_F(PostgresReplicaTest, IsOfOneMomentWhileItIsRead) {
    const auto store = open_with(replica());
    ASSERT_EQ(add(*store, "a"), Store::AddResult::added);
    catch_up();
    bool is_elsewhere = false;
    store->reading_on(RGY_DB_REGIONS, store->stamps(RGY_DB_REGIONS).pair, [&](Store &source) {
        is_elsewhere = &source != store.get();
        ASSERT_EQ(add(*store, "b"), Store::AddResult::added);
        catch_up();
        EXPECT_EQ(count(source), 1U);
    });
    EXPECT_TRUE(is_elsewhere);
}

TEST_F(PostgresReplicaTest, IsWrittenNothing) {
    const auto store = open_with(conninfo()); // which takes changes
    ASSERT_EQ(add(*store, "a"), Store::AddResult::added);
    const std::string writers = ask("SELECT count(*) FROM writer");
    store->reading_on(RGY_DB_REGIONS, store->stamps(RGY_DB_REGIONS).pair, [&](Store &source) {
        ASSERT_NE(&source, store.get());
        EXPECT_THROW(add(source, "b"), StoreError);
    });
    EXPECT_EQ(ask("SELECT count(*) FROM writer"), writers);
    EXPECT_EQ(ask("SELECT count(*) FROM entry"), "1");
    const auto empty = open_with(server.conninfo_as("tester", "dbname=template1"));
    EXPECT_FALSE(is_read_elsewhere(*empty));
    EXPECT_EQ(server.ask("SELECT count(*) FROM pg_class WHERE relname = 'registry'", "template1"), "0")
        << "no tables are made there";
}

TEST_F(PostgresReplicaTest, ThatIsAwayIsDoneWithoutAndToldOnce) {
    const auto store = open_with(replica());
    ASSERT_EQ(add(*store, "a"), Store::AddResult::added);
    catch_up();
    ASSERT_TRUE(is_read_elsewhere(*store));
    stop();
    testing::internal::CaptureStderr();
    testing::internal::CaptureStdout();
    for (int i = 0; i < 3; ++i) {
        const Seen seen = read_on(*store, store->stamps(RGY_DB_REGIONS).pair);
        EXPECT_FALSE(seen.is_elsewhere);
        EXPECT_THAT(seen.names, ElementsAre(name("a")));
    }
    start();
    EXPECT_TRUE(eventually([&] { return is_read_elsewhere(*store); }));
    const std::string told = testing::internal::GetCapturedStderr();
    EXPECT_THAT(told, HasSubstr("Warning: The replica of the registry's database is away: "));
    EXPECT_EQ(told.find("is away"), told.rfind("is away")) << told;
    EXPECT_THAT(testing::internal::GetCapturedStdout(),
                HasSubstr("The replica of the registry's database is there again.\n"));
}

TEST_F(PostgresReplicaTest, ThatWasNeverThereIsDoneWithout) {
    const auto store = open_with("host=/nonexistent/replica");
    ASSERT_EQ(add(*store, "a"), Store::AddResult::added);
    EXPECT_FALSE(is_read_elsewhere(*store));
}

TEST_F(PostgresReplicaTest, WithoutTheRegistryIsToldOnce) {
    server.run("CREATE DATABASE empty_" + database);
    const auto store = open_with(server.conninfo_as("tester", "dbname=empty_" + database));
    ASSERT_EQ(add(*store, "a"), Store::AddResult::added);
    testing::internal::CaptureStderr();
    constexpr int64_t several_looks_ms = 5000;
    for (const int64_t until_ms = monotonic_ms() + several_looks_ms; monotonic_ms() < until_ms; usleep(100'000))
        EXPECT_FALSE(is_read_elsewhere(*store));
    const std::string told = testing::internal::GetCapturedStderr();
    EXPECT_THAT(told, HasSubstr("Warning: The replica of the registry's database is not read: the registry's tables "
                                "are gone from the database\n"));
    EXPECT_EQ(told.find("Warning"), told.rfind("Warning")) << told;
}

TEST_F(PostgresReplicaTest, OfAnotherRegistryIsNotRead) {
    server.run("CREATE DATABASE other_" + database);
    const std::string elsewhere = server.conninfo_as("tester", "dbname=other_" + database);
    const auto other = open(elsewhere);
    ASSERT_EQ(add(*other, "stranger"), Store::AddResult::added);
    const auto store = open_with(elsewhere);
    ASSERT_EQ(add(*store, "a"), Store::AddResult::added);
    const Seen seen = read_on(*store, store->stamps(RGY_DB_REGIONS).pair);
    EXPECT_FALSE(seen.is_elsewhere);
    EXPECT_THAT(seen.names, ElementsAre(name("a")));
}

TEST_F(PostgresReplicaTest, ThatSaysNothingIsDoneWithout) {
    DroppingRelay relay(standby->directory());
    const auto store = open_with(conninfo_over(relay));
    ASSERT_EQ(add(*store, "a"), Store::AddResult::added);
    catch_up();
    ASSERT_TRUE(is_read_elsewhere(*store));
    relay.hold();
    for (int i = 0; i < 20; ++i)
        EXPECT_FALSE(is_read_elsewhere(*store));
    relay.let_go();
    EXPECT_TRUE(eventually([&] { return is_read_elsewhere(*store); }));
}

TEST_F(PostgresReplicaTest, WhoseConnectionBreaksIsDoneWithout) {
    const auto store = open_with(conninfo());
    ASSERT_EQ(add(*store, "a"), Store::AddResult::added);
    ASSERT_TRUE(is_read_elsewhere(*store));
    bool is_begun = false;
    const rgy_dtm_pair_t pair = store->stamps(RGY_DB_REGIONS).pair;
    Words found;
    store->reading_on(RGY_DB_REGIONS, pair, [&](Store &source) {
        found.clear();
        if (&source != store.get()) {
            is_begun = true;
            server.run("SELECT pg_terminate_backend(pid) FROM pg_stat_activity WHERE application_name = 'rvzd_server' "
                       "AND state = 'idle in transaction'");
        }
        source.scan({RGY_DB_REGIONS, "", "", ""}, 0, [&](uint64_t /*id*/, const Record *record) {
            found.push_back(record->flex_text);
            return true;
        });
    });
    EXPECT_TRUE(is_begun);
    EXPECT_THAT(found, ElementsAre(name("a"))) << "of the other one, from the beginning";
    EXPECT_TRUE(eventually([&] { return is_read_elsewhere(*store); }));
}

TEST_F(PostgresReplicaTest, OfARegistryThatHasMovedIsNotRead) {
    const auto store = open_with(conninfo());
    ASSERT_EQ(add(*store, "a"), Store::AddResult::added);
    const rgy_dtm_pair_t pair = store->stamps(RGY_DB_REGIONS).pair;
    ASSERT_TRUE(is_read_elsewhere(*store));
    store->set_moved_to("elsewhere");
    testing::internal::CaptureStderr();
    EXPECT_FALSE(read_on(*store, pair).is_elsewhere);
    EXPECT_THAT(testing::internal::GetCapturedStderr(),
                HasSubstr("Warning: The replica of the registry's database is not read: the registry was moved to "
                          "elsewhere\n"));
}
