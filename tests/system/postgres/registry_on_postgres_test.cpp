// Real daemons whose registry is in a real database, which goes, comes back, and refuses.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <tests/postgres/server.h>
#include <tests/system/support/daemon.h>
#include <tests/system/support/metrics_page.h>
#include <tests/system/support/registry_calls.h>
#include <veliaxdr/rvzd_daemon.h>

using namespace velia::system_test;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::SizeIs;

namespace {

constexpr double patience_s = 30;
constexpr int writers = 16;
constexpr int entries_of_writer = 8;

using Words = std::vector<std::string>;

struct RegistryOnPostgres : testing::Test {
    Site site;
    velia::postgres_test::Server database;
    std::unique_ptr<Daemon> daemon;
    std::unique_ptr<Daemon> other;

    void SetUp() override {
        site.write("host/config/rgy_svr.conf", "master");
        site.write("host/config/rgy_hosts.conf", "alpha\n\n");
        keep_in(database.conninfo());
    }
    void keep_in(const std::string &conninfo, const std::string &more = "") {
        site.configure(std::string(trusted_hosts) + "option store postgresql \"" + conninfo + "\"\n" + more);
    }
    // Of the copy that the daemon keeps for the time when the database is away.
    std::string answer_of_copy(const char *question) const {
        std::string answer;
        sqlite3 *copy = nullptr;
        sqlite3_stmt *query = nullptr;
        if (sqlite3_open_v2(site.path("host/priv/registry.db.copy").c_str(), &copy, SQLITE_OPEN_READONLY, nullptr) ==
                SQLITE_OK &&
            sqlite3_prepare_v2(copy, question, -1, &query, nullptr) == SQLITE_OK && sqlite3_step(query) == SQLITE_ROW)
            answer = reinterpret_cast<const char *>(sqlite3_column_text(query, 0));
        sqlite3_finalize(query);
        sqlite3_close(copy);
        return answer;
    }
    uint64_t copied_entries() const {
        return strtoull(answer_of_copy("SELECT count(*) FROM entry").c_str(), nullptr, 10);
    }
    // Of whoever has read a part under these stamps.
    static tbs_status_t list_from(rgy_dtm_pair_t &stamps) {
        const auto handle = own_handle("alpha");
        uint64_t cursor = 0;
        int64_t count = 0;
        rgy_elist_t list = rgy_elist_alloc(10);
        const auto status = rvzd_rgy_get_entry(handle.get(), RGY_DB_REGIONS, RGY_PROTOCOL_VERSION, "", &stamps, &cursor,
                                               10, list, &count);
        rgy_elist_free(list, 10);
        return status;
    }
    // A listing in pieces of two.
    class Listing {
    public:
        Words next() {
            rgy_elist_t piece = rgy_elist_alloc(piece_max);
            int64_t count = 0;
            EXPECT_EQ(rvzd_rgy_get_entry(handle_.get(), RGY_DB_REGIONS, RGY_PROTOCOL_VERSION, "", &stamps_, &cursor_,
                                         piece_max, piece, &count),
                      TBS_ST_OK);
            Words texts;
            for (int64_t i = 0; i < count; ++i)
                texts.emplace_back(piece[i].flex_text);
            rgy_elist_free(piece, piece_max);
            return texts;
        }

    private:
        static constexpr int64_t piece_max = 2;
        OwnedHandle handle_ = own_handle("alpha");
        rgy_dtm_pair_t stamps_ = {};
        uint64_t cursor_ = 0;
    };
    void start(const Words &environment = {}) {
        Child::Options options;
        options.environment = environment;
        daemon = std::make_unique<Daemon>(site, Words{"--listen", "127.0.0.1"}, options);
        ASSERT_TRUE(daemon->is_ready()) << daemon->output();
    }
    // As another host of the site.
    void start_beta() {
        for (const char *directory : {"beta/host/config", "beta/host/priv", "beta/host/data", "beta/log"})
            std::filesystem::create_directories(site.path(directory));
        std::filesystem::create_symlink(site.path("config"), site.path("beta/config"));
        site.write("beta/host/config/rgy_svr.conf", "master");
        site.write("beta/host/config/rgy_hosts.conf", "beta\n\n");
        Child::Options options;
        options.environment = {"VELIA_ROOT=" + site.path("beta"), "VELIA_HOSTNAME=beta"};
        other = std::make_unique<Daemon>(site, Words{"--listen", "127.0.0.2"}, options);
        ASSERT_TRUE(other->is_ready()) << other->output();
    }
    void stop() {
        daemon->signal(SIGTERM);
        ASSERT_EQ(daemon->wait(patience_s), 0);
        daemon.reset();
    }

    static tbs_status_t add_region(const std::string &name, const char *host = "alpha") {
        return add(RGY_DB_REGIONS, name_entry(name), host);
    }
    static Words regions(const char *host = "alpha") { return names_of(RGY_DB_REGIONS, 100, host).value_or(Words{}); }
    static bool comes_to_take(const std::string &name, const char *host = "alpha") {
        return eventually([&] { return add_region(name, host) == TBS_ST_OK; }, patience_s);
    }

    // Both know each other.
    void start_two() {
        start();
        start_beta();
        for (const char *file : {"host/config/rgy_hosts.conf", "beta/host/config/rgy_hosts.conf"})
            site.write(file, "alpha\nbeta\n");
        ASSERT_EQ(rvzd_rgy_set_backup(own_handle("alpha").get(), RGY_PROTOCOL_VERSION, "alpha beta"), TBS_ST_OK);
    }
    struct Figures {
        uint64_t entries = 0;
        uint64_t bytes = 0;
    };
    static Figures figures() {
        rvzd_daemon_status_reply_t reply = {};
        EXPECT_EQ(rvzd_daemon_status(own_handle("alpha").get(), &reply), TBS_ST_OK);
        const Figures figures = {reply.registry_entries, reply.registry_bytes};
        rvzd_daemon_status_free(&reply);
        return figures;
    }
    // Why the registry is not reached; nothing where it takes updates.
    static std::optional<std::string> away() {
        rvzd_registry_state_reply_t reply = {};
        EXPECT_EQ(rvzd_registry_state(own_handle("alpha").get(), nullptr, 0, "", &reply), TBS_ST_OK);
        const auto words = reply.takes_updates != 0 ? std::nullopt : std::optional<std::string>(reply.failure);
        rvzd_registry_state_free(&reply);
        return words;
    }
    Outcome veliactl(Words words, const Words &environment = {}) const {
        words.insert(words.begin(), VELIACTL);
        return run_apart(site, words, environment);
    }

    Outcome run_server(Words switches) const {
        switches.insert(switches.begin(), {RVZD_SERVER, "--config", site.path("rvzd_server.conf")});
        return run(site, switches);
    }
};

// A process of its own, since one has one call in flight.
pid_t start_writer(int writer) {
    const pid_t process = fork();
    if (process != 0)
        return process;
    bool is_done = true;
    for (int i = 0; i < entries_of_writer; ++i)
        is_done = is_done && add(RGY_DB_REGIONS, name_entry(std::to_string(writer) + "-" + std::to_string(i)),
                                 writer % 2 == 0 ? "alpha" : "beta") == TBS_ST_OK;
    _exit(is_done ? 0 : 1);
}

} // namespace

TEST_F(RegistryOnPostgres, EntriesComeAreFoundAndStayOverARestart) {
    start();
    EXPECT_EQ(add_region("east"), TBS_ST_OK);
    EXPECT_EQ(add_region("west"), TBS_ST_OK);
    EXPECT_NE(add_region("west"), TBS_ST_OK);
    EXPECT_THAT(regions(), ElementsAre("east", "west"));
    stop();
    start();
    EXPECT_THAT(regions(), ElementsAre("east", "west"));
    EXPECT_FALSE(std::filesystem::exists(site.path("host/priv/registry.db")));
}

TEST_F(RegistryOnPostgres, OfSixteenWritersAtTwoDaemonsNothingIsLostAndNothingIsThereTwice) {
    start();
    start_beta();
    std::vector<pid_t> processes;
    for (int writer = 0; writer < writers; ++writer)
        processes.push_back(start_writer(writer));
    for (const pid_t process : processes) {
        int status = -1;
        waitpid(process, &status, 0);
        EXPECT_EQ(status, 0);
    }
    const Words at_alpha = regions("alpha");
    EXPECT_THAT(std::set<std::string>(at_alpha.begin(), at_alpha.end()), SizeIs(writers * entries_of_writer));
    EXPECT_THAT(at_alpha, SizeIs(writers * entries_of_writer));
    EXPECT_EQ(regions("beta"), at_alpha);
    EXPECT_EQ(database.ask("SELECT entries FROM stamp WHERE db = 4"), std::to_string(at_alpha.size()));
}

TEST_F(RegistryOnPostgres, WhatOneDaemonHasTakenTheOtherTellsAtOnce) {
    start();
    start_beta();
    for (int i = 0; i < 10; ++i) {
        ASSERT_EQ(add_region(std::to_string(i), i % 2 == 0 ? "alpha" : "beta"), TBS_ST_OK);
        EXPECT_THAT(regions(i % 2 == 0 ? "beta" : "alpha"), SizeIs(static_cast<size_t>(i) + 1));
    }
}

TEST_F(RegistryOnPostgres, WhileTheDatabaseIsAwayUpdatesAreToBeTriedAgain) {
    start();
    ASSERT_EQ(add_region("before"), TBS_ST_OK);
    database.stop();
    EXPECT_EQ(add_region("meanwhile"), TBS_ST_TRY_AGAIN);
    EXPECT_TRUE(daemon->says("The registry's database is away", patience_s)) << daemon->output();
    database.start();
    EXPECT_TRUE(comes_to_take("behind"));
    EXPECT_TRUE(daemon->says("The registry's database is there again", patience_s)) << daemon->output();
    EXPECT_THAT(regions(), ElementsAre("before", "behind"));
}

TEST_F(RegistryOnPostgres, WhileTheDatabaseIsAwayTheLastCopyIsReadIfTheSiteSaysSo) {
    keep_in(database.conninfo(), "option store-reads copy\noption registry-copy 1\n");
    start();
    ASSERT_EQ(add_region("a"), TBS_ST_OK);
    ASSERT_EQ(add_region("b"), TBS_ST_OK);
    ASSERT_TRUE(eventually([&] { return copied_entries() == 2; }, patience_s)) << daemon->output();
    database.stop();
    EXPECT_THAT(regions(), ElementsAre("a", "b"));
    EXPECT_EQ(add_region("c"), TBS_ST_TRY_AGAIN);
    rgy_dtm_pair_t stamps = {};
    EXPECT_EQ(list_from(stamps), TBS_ST_OK);
    EXPECT_EQ(list_from(stamps), TBS_ST_OK) << "what the copy is of, too";
    stamps.dtm.bytes[0] ^= 1;
    EXPECT_EQ(list_from(stamps), TBS_ST_TRY_AGAIN) << "the copy may be older than what was read";
    database.start();
    EXPECT_TRUE(comes_to_take("c")) << daemon->output();
    EXPECT_THAT(regions(), ElementsAre("a", "b", "c"));
}

TEST_F(RegistryOnPostgres, AListingGoesOnInAReplicaThatHasWhatItBeganWith) {
    velia::postgres_test::Server replica(velia::postgres_test::Server::StandbyOf{database});
    keep_in(database.conninfo(), "option store-replica \"" + replica.conninfo() + "\"\n");
    start();
    for (const char *name : {"a", "b", "c", "d", "e", "f"})
        ASSERT_EQ(add_region(name), TBS_ST_OK);
    replica.wait_for("SELECT count(*) = 6 FROM entry");
    replica.run("SELECT pg_wal_replay_pause()");
    replica.wait_for("SELECT pg_get_wal_replay_pause_state() = 'paused'");
    Listing listing;
    EXPECT_THAT(listing.next(), ElementsAre(name_entry("a"), name_entry("b")));
    database.run("UPDATE entry SET text = replace(encode(text, 'escape'), 'd', 'changed')::bytea");
    EXPECT_THAT(listing.next(), ElementsAre(name_entry("c"), name_entry("d"))) << "of the replica";
    EXPECT_THAT(Listing().next(), ElementsAre(name_entry("a"), name_entry("b")));
    ASSERT_EQ(add_region("g"), TBS_ST_OK);
    Listing later;
    later.next();
    EXPECT_THAT(later.next(), ElementsAre(name_entry("c"), name_entry("changed")))
        << "the replica has not what it began with";
    replica.stop();
    EXPECT_THAT(listing.next(), ElementsAre(name_entry("e"), name_entry("f"))) << "without the replica";
    EXPECT_TRUE(daemon->says("The replica of the registry's database is away", patience_s)) << daemon->output();
}

TEST_F(RegistryOnPostgres, AnotherStoreOrReplicaIsTakenAtTheNextStart) {
    start();
    for (const char *option : {"store-replica dbname=other", "store sqlite"}) {
        site.configure(std::string(trusted_hosts) + "option store postgresql \"" + database.conninfo() + "\"\noption " +
                       option + "\n");
        const size_t told = daemon->output().size();
        daemon->signal(SIGHUP);
        EXPECT_TRUE(eventually([&] {
            return daemon->output().substr(told).find("it is taken at the next start") != std::string::npos;
        })) << option;
    }
}

TEST_F(RegistryOnPostgres, TheCopyGetsSettingsToo) {
    keep_in(database.conninfo(), "option store-reads copy\noption registry-copy 1\n");
    start();
    ASSERT_EQ(add_region("a"), TBS_ST_OK);
    ASSERT_TRUE(eventually([&] { return copied_entries() == 1; }, patience_s)) << daemon->output();
    ASSERT_EQ(rvzd_rgy_set_backup(own_handle("alpha").get(), RGY_PROTOCOL_VERSION, "alpha beta"), TBS_ST_OK);
    EXPECT_TRUE(eventually(
        [&] {
            return answer_of_copy("SELECT CAST(value AS TEXT) FROM setting WHERE name = CAST('backup' AS BLOB)") ==
                   "alpha beta";
        },
        patience_s));
}

TEST_F(RegistryOnPostgres, ADaemonThatStartsWithoutItsDatabaseServesWhenThatComes) {
    database.stop();
    start();
    EXPECT_NE(add_region("early"), TBS_ST_OK);
    database.start();
    EXPECT_TRUE(comes_to_take("late")) << daemon->output();
    EXPECT_THAT(regions(), ElementsAre("late"));
}

TEST_F(RegistryOnPostgres, ADaemonThatStartsWithoutItsDatabaseReadsItsLastCopyIfTheSiteSaysSo) {
    keep_in(database.conninfo(), "option store-reads copy\noption registry-copy 1\n");
    start();
    ASSERT_EQ(add_region("a"), TBS_ST_OK);
    ASSERT_TRUE(eventually([&] { return copied_entries() == 1; }, patience_s)) << daemon->output();
    stop();
    database.stop();
    start();
    EXPECT_THAT(regions(), ElementsAre("a"));
    EXPECT_EQ(add_region("b"), TBS_ST_TRY_AGAIN);
    EXPECT_TRUE(daemon->says("Look-ups are answered without the registry's database", patience_s)) << daemon->output();
    rgy_dtm_pair_t stamps = {};
    EXPECT_EQ(list_from(stamps), TBS_ST_OK);
    stamps.dtm.bytes[0] ^= 1;
    EXPECT_EQ(list_from(stamps), TBS_ST_TRY_AGAIN) << "the copy may be older than what was read";
    EXPECT_THAT(away().value_or(""), HasSubstr("look-ups are answered from the copy of "));
    EXPECT_EQ(figures().entries, 1u);
    const auto seen = veliactl({"daemon", "status", "alpha", "-o", "json"});
    EXPECT_THAT(seen.output, HasSubstr("look-ups are answered from the copy of "));
    EXPECT_THAT(seen.output, HasSubstr(R"("role":"master")"));
    EXPECT_THAT(veliactl({"doctor", "-o", "json"}).output, HasSubstr("look-ups are answered from the copy of "));
    database.start();
    EXPECT_TRUE(comes_to_take("b")) << daemon->output();
    EXPECT_EQ(away(), std::nullopt);
    EXPECT_THAT(regions(), ElementsAre("a", "b"));
    EXPECT_EQ(daemon->count("Look-ups are answered without the registry's database"), 1u);
}

TEST_F(RegistryOnPostgres, ACopyOfAnotherDatabaseOrOfNoneTellsNothing) {
    keep_in(database.conninfo(), "option store-reads copy\noption registry-copy 1\n");
    start();
    ASSERT_EQ(add_region("a"), TBS_ST_OK);
    ASSERT_TRUE(eventually([&] { return copied_entries() == 1; }, patience_s)) << daemon->output();
    stop();
    database.stop();
    keep_in(database.conninfo_as("other"), "option store-reads copy\noption registry-copy 1\n");
    start();
    EXPECT_TRUE(daemon->says("The registry's database is away", patience_s)) << daemon->output();
    EXPECT_FALSE(names_of(RGY_DB_REGIONS, 100, "alpha").has_value());
    EXPECT_TRUE(away() && !away()->empty());
    EXPECT_THAT(away().value_or(""), testing::Not(HasSubstr("copy")));
    const auto seen = veliactl({"doctor", "-o", "json"});
    EXPECT_THAT(seen.output, HasSubstr("its registry cannot be reached"));
}

TEST_F(RegistryOnPostgres, ANameServerThatDoesNotAnswerKeepsNobodyWaiting) {
    const std::string hang = site.write("names_hang", "");
    const Words hung = {"LD_PRELOAD=" HUNG_NAMES_PRELOAD, "NAMES_HANG=" + hang,
                        "ASAN_OPTIONS=verify_asan_link_order=0"};
    keep_in("host=hungdb," + database.directory().string() + " user=tester dbname=postgres");
    start(hung);
    EXPECT_NE(add_region("a"), TBS_ST_OK);
    daemon->signal(SIGHUP);
    EXPECT_TRUE(daemon->says("is read again", patience_s)) << daemon->output();
    EXPECT_TRUE(daemon->says("no host has answered yet", patience_s)) << daemon->output();
    stop();
    start(hung);
    std::filesystem::remove(hang);
    EXPECT_TRUE(comes_to_take("b")) << daemon->output();
    site.write("names_hang", "");
    database.run("SELECT pg_terminate_backend(pid) FROM pg_stat_activity WHERE application_name = 'rvzd_server'");
    EXPECT_EQ(add_region("c"), TBS_ST_TRY_AGAIN);
    stop();
}

TEST_F(RegistryOnPostgres, AnAbsenceIsToldOnceAlsoWhereNothingElseSaysWhatTheHostIs) {
    start();
    ASSERT_EQ(add_region("a"), TBS_ST_OK);
    stop();
    site.write("host/config/rgy_svr.conf", "");
    database.stop();
    start();
    EXPECT_TRUE(daemon->says("The registry's database is away", patience_s)) << daemon->output();
    database.start();
    EXPECT_TRUE(comes_to_take("b")) << daemon->output();
    EXPECT_EQ(daemon->count("The registry's database is away"), 1u);
    EXPECT_EQ(daemon->count("Internal registry error"), 0u) << daemon->output();
}

TEST_F(RegistryOnPostgres, AWrongPasswordIsToldAndCanBePutRight) {
    database.run("CREATE ROLE clerk LOGIN SUPERUSER PASSWORD 'right'");
    database.set_access("local all tester trust\nlocal all all scram-sha-256\n");
    keep_in(database.conninfo_as("clerk", "password=wrong"));
    start();
    EXPECT_TRUE(daemon->says("the password is wrong", patience_s)) << daemon->output();
    EXPECT_NE(add_region("a"), TBS_ST_OK);
    EXPECT_EQ(daemon->count("password=wrong"), 0u);
    EXPECT_NE(add_region("a"), TBS_ST_OK);
    EXPECT_TRUE(eventually([&] { return database.count_in_log("password authentication failed") > 3; }, patience_s));
    EXPECT_EQ(daemon->count("Unable to open registry file"), 1u) << daemon->output();
    database.run("ALTER ROLE clerk PASSWORD 'wrong'");
    EXPECT_TRUE(comes_to_take("b")) << daemon->output();
}

TEST_F(RegistryOnPostgres, AUserWithoutRightsIsToldAndCanBePutRight) {
    database.run("CREATE ROLE clerk LOGIN");
    keep_in(database.conninfo_as("clerk"));
    start();
    EXPECT_TRUE(daemon->says("the database user has no right to this", patience_s)) << daemon->output();
    database.run("GRANT CREATE ON SCHEMA public TO clerk");
    EXPECT_TRUE(comes_to_take("a")) << daemon->output();
}

TEST_F(RegistryOnPostgres, ARegistryOfANewerVersionIsLeftAlone) {
    start();
    ASSERT_EQ(add_region("a"), TBS_ST_OK);
    stop();
    database.run("UPDATE registry SET version = 99");
    start();
    EXPECT_TRUE(daemon->says("newer version", patience_s)) << daemon->output();
    EXPECT_NE(add_region("b"), TBS_ST_OK);
    EXPECT_EQ(database.ask("SELECT count(*) FROM entry"), "1");
}

TEST_F(RegistryOnPostgres, AServerThatTakesNoChangesIsAway) {
    start();
    ASSERT_EQ(add_region("a"), TBS_ST_OK);
    database.run("ALTER DATABASE postgres SET default_transaction_read_only = on");
    database.run("SELECT pg_terminate_backend(pid) FROM pg_stat_activity WHERE application_name = 'rvzd_server'");
    EXPECT_EQ(add_region("b"), TBS_ST_TRY_AGAIN);
    database.run("ALTER DATABASE postgres RESET default_transaction_read_only", "template1");
    EXPECT_TRUE(comes_to_take("c")) << daemon->output();
    EXPECT_THAT(regions(), ElementsAre("a", "c"));
}

TEST_F(RegistryOnPostgres, AHostBesideItIsNoStandby) {
    site.write("host/config/rgy_svr.conf", "standby");
    start();
    EXPECT_TRUE(daemon->says("Make it master or none", patience_s)) << daemon->output();
    EXPECT_NE(add_region("a"), TBS_ST_OK);
}

TEST_F(RegistryOnPostgres, AMalformedStoreIsToldWithItsLine) {
    site.configure("option store postgresql \"hots=a\"\n");
    const Outcome outcome = run_server({"--check-config"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_THAT(outcome.output, HasSubstr("line 1"));
    EXPECT_THAT(outcome.output, HasSubstr("connection string is malformed"));
}

TEST_F(RegistryOnPostgres, ARegistryMovesIntoTheDatabaseAndBack) {
    site.configure(trusted_hosts);
    start();
    for (const char *name : {"a", "b", "c"})
        ASSERT_EQ(add_region(name), TBS_ST_OK);
    const Outcome beside = run_server({"--move-registry", database.conninfo()});
    EXPECT_NE(beside.status, 0) << "a daemon runs";
    stop();
    const Outcome there = run_server({"--move-registry", database.conninfo()});
    ASSERT_EQ(there.status, 0) << there.output;
    EXPECT_THAT(there.output, HasSubstr("The registry of 3 entries is in postgresql"));
    keep_in(database.conninfo());
    start();
    EXPECT_THAT(regions(), ElementsAre("a", "b", "c"));
    ASSERT_EQ(add_region("d"), TBS_ST_OK);
    stop();
    const Outcome back = run_server({"--move-registry", "sqlite"});
    ASSERT_EQ(back.status, 0) << back.output;
    EXPECT_THAT(back.output, HasSubstr("The former registry is kept"));
    site.configure(trusted_hosts);
    start();
    EXPECT_THAT(regions(), ElementsAre("a", "b", "c", "d"));
    EXPECT_EQ(add_region("e"), TBS_ST_OK);
}

TEST_F(RegistryOnPostgres, WorkWithoutADaemonFindsTheDatabaseToo) {
    start();
    ASSERT_EQ(add_region("a"), TBS_ST_OK);
    const std::string file = site.path("saved.db");
    const Outcome saved = run_server({"--save-registry", file});
    ASSERT_EQ(saved.status, 0) << saved.output;
    EXPECT_EQ(run_server({"--check-registry", file}).status, 0);
    EXPECT_NE(run_server({"--check-registry"}).status, 0);
    stop();
    const Outcome restored = run_server({"--restore-registry", file});
    EXPECT_THAT(restored.output, HasSubstr("the database's own programs"));
    EXPECT_EQ(run_server({"--look-at-site"}).status, 0);
    EXPECT_FALSE(std::filesystem::exists(site.path("host/priv/registry.db")));
}

TEST_F(RegistryOnPostgres, ItsFiguresAreThoseOfTheDatabase) {
    site.configure(site.read("rvzd_server.conf") + "option metrics " + site.path("metrics") + "\n");
    start();
    for (int i = 0; i < 20; ++i)
        ASSERT_EQ(add_region(std::to_string(i)), TBS_ST_OK);
    EXPECT_TRUE(eventually([] { return figures().entries == 20; }));
    const std::string bytes = database.ask("SELECT sum(pg_total_relation_size(quote_ident(tablename)::regclass)) FROM "
                                           "pg_tables WHERE schemaname = 'public' AND tablename NOT LIKE 'job%' AND "
                                           "tablename <> 'scheduler'"); // the jobs are there, too
    EXPECT_EQ(std::to_string(figures().bytes), bytes);
    EXPECT_THAT(page_at(site.path("metrics")), HasSubstr("\nvelia_registry_size_bytes " + bytes + "\n"));
    EXPECT_THAT(page_at(site.path("metrics")), HasSubstr("\nvelia_registry_entries 20\n"));
}

TEST_F(RegistryOnPostgres, ThatItIsAwayIsSeenInItsState) {
    site.configure(site.read("rvzd_server.conf") + "option metrics " + site.path("metrics") + "\n");
    start();
    ASSERT_EQ(add_region("before"), TBS_ST_OK);
    EXPECT_EQ(away(), std::nullopt);
    database.stop();
    EXPECT_EQ(add_region("meanwhile"), TBS_ST_TRY_AGAIN);
    EXPECT_TRUE(eventually([] { return away() && !away()->empty(); }, patience_s));
    EXPECT_THAT(page_at(site.path("metrics")), HasSubstr("\nvelia_registry_takes_updates 0\n"));
    EXPECT_THAT(veliactl({"daemon", "status", "alpha", "-o", "json"}).output, HasSubstr("failed: "));
    const auto seen = veliactl({"doctor", "-o", "json"});
    EXPECT_THAT(seen.output, HasSubstr("its registry cannot be reached"));
    EXPECT_THAT(seen.output, HasSubstr("there is none: the registry is in a database"));
    database.start();
    EXPECT_TRUE(eventually([] { return !away(); }, patience_s)) << daemon->output();
    EXPECT_EQ(figures().entries, 1u);
}

TEST_F(RegistryOnPostgres, ItsHostsAreNotTakenForTwoMasters) {
    start_two();
    const Outcome looked = run_server({"--look-at-site"});
    EXPECT_EQ(looked.status, 0) << looked.output;
    EXPECT_THAT(veliactl({"doctor", "-o", "json"}).output, testing::Not(HasSubstr("it takes updates, and so does")));
    const auto demoted = veliactl({"registry", "demote", "--follow", "beta"});
    EXPECT_EQ(demoted.status, 1);
    EXPECT_THAT(demoted.errors, HasSubstr("serves the same registry, which is in a database"));
    const auto turned = veliactl({"site", "master", "beta", "-o", "jsonl"});
    EXPECT_EQ(turned.status, 0) << turned.errors;
    EXPECT_THAT(turned.output, testing::Not(HasSubstr("demote")));
    for (const char *host : {"alpha", "beta"})
        EXPECT_EQ(add_region(std::string("at ") + host, host), TBS_ST_OK);
}

// As when a host goes on with its file after the registry has been moved.
TEST_F(RegistryOnPostgres, AHostWithAnotherCopyUnderTheSameTermIsASecondMaster) {
    start_two();
    other->signal(SIGTERM);
    ASSERT_EQ(other->wait(patience_s), 0);
    const std::string file = site.path("saved.db");
    ASSERT_EQ(run_server({"--save-registry", file}).status, 0);
    std::filesystem::copy_file(file, site.path("beta/host/priv/registry.db"));
    site.configure(trusted_hosts);
    Child::Options options;
    options.environment = {"VELIA_ROOT=" + site.path("beta"), "VELIA_HOSTNAME=beta"};
    other = std::make_unique<Daemon>(site, Words{"--listen", "127.0.0.2"}, options);
    ASSERT_TRUE(other->is_ready()) << other->output();
    keep_in(database.conninfo());
    const Outcome looked = run_server({"--look-at-site"});
    EXPECT_EQ(looked.status, 1);
    EXPECT_THAT(looked.output, HasSubstr("The site has two masters: host \"beta\""));
}
