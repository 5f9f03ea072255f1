// A registry taken into a database and back, by the tool and by the daemon's program, killed at each thing that it
// does, and beside daemons of other hosts. Of the two places one at most is ever served.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <sqlite3.h>

#include <tests/postgres/server.h>
#include <tests/system/postgres/two_hosts.h>
#include <tests/system/support/registry_calls.h>

using namespace velia::system_test;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

constexpr double patience_s = 30;
constexpr int steps_max = 2000;
constexpr int daemon_each = 24; // of so many steps one is followed by daemons

using Words = std::vector<std::string>;

struct MoveOfRegistry : TwoHosts {
    velia::postgres_test::Server database;

    void SetUp() override {
        TwoHosts::SetUp();
        keep_in_file();
        start_alpha();
        for (const char *name : {"a", "b", "c"})
            ASSERT_EQ(add(RGY_DB_REGIONS, name_entry(name)), TBS_ST_OK);
        stop_alpha();
    }
    void keep_in_file() const { site.configure(trusted_hosts); }
    void keep_in_database() const { keep_in(database.conninfo()); }
    void stop_alpha() {
        alpha->signal(SIGTERM);
        ASSERT_EQ(alpha->wait(patience_s), 0);
        alpha.reset();
    }

    Outcome move(const std::string &to, const Words &environment = {}, const Words &more = {}) const {
        Words words = {RVZD_SERVER, "--config", site.path("rvzd_server.conf"), "--move-registry", to};
        words.insert(words.end(), more.begin(), more.end());
        return run_apart(site, words, environment);
    }
    Outcome tool(const std::string &to, const Words &more = {}) const {
        Words words = {VELIACTL, "registry", "move",     "--to",     to, "--config", site.path("rvzd_server.conf"),
                       "-o",     "jsonl",    "--server", RVZD_SERVER};
        words.insert(words.end(), more.begin(), more.end());
        return run_apart(site, words);
    }
    Words killed_at(int step) const {
        return {"LD_PRELOAD=" ENDED_PROCESS_PRELOAD, "ENDED_FROM=" + site.path("rvzd_server.conf"),
                "ENDED_AT=" + std::to_string(step), "ENDED_AMID_SENDING=yes", "ASAN_OPTIONS=verify_asan_link_order=0"};
    }
    static Words regions(const char *host = "alpha") { return names_of(RGY_DB_REGIONS, 100, host).value_or(Words{}); }

    // What a daemon would find there: entries that it may serve.
    bool is_served_from_database() const {
        return database.ask("SELECT count(*) FROM pg_class WHERE relname = 'registry'") == "1" &&
               database.ask("SELECT count(*) FROM registry, entry WHERE moved IS NULL") != "0";
    }
    std::string answer_of_file(const char *question) const {
        std::string answer;
        sqlite3 *file = nullptr;
        sqlite3_stmt *query = nullptr;
        if (sqlite3_open_v2(site.path("host/priv/registry.db").c_str(), &file, SQLITE_OPEN_READWRITE, nullptr) ==
                SQLITE_OK &&
            sqlite3_prepare_v2(file, question, -1, &query, nullptr) == SQLITE_OK && sqlite3_step(query) == SQLITE_ROW)
            answer = reinterpret_cast<const char *>(sqlite3_column_text(query, 0));
        sqlite3_finalize(query);
        sqlite3_close(file);
        return answer;
    }
    bool is_served_from_file() const {
        return answer_of_file("SELECT (SELECT count(*) FROM entry) > 0 AND coalesce((SELECT length(value) FROM setting "
                              "WHERE name = CAST('moved' AS BLOB)), 0) = 0") == "1";
    }

    // Both kinds of configuration: what a daemon tells under it.
    Words told_with(const std::function<void()> &configure) {
        configure();
        start_alpha();
        const Words found = regions();
        stop_alpha();
        return found;
    }
    void expect_one_daemon_at_most() {
        const Words in_file = told_with([this] { keep_in_file(); });
        const Words in_database = told_with([this] { keep_in_database(); });
        EXPECT_TRUE(in_file.empty() || in_database.empty());
        EXPECT_THAT(in_file.empty() ? in_database : in_file, testing::AnyOf(IsEmpty(), ElementsAre("a", "b", "c")));
    }

    // Killed at each step, looked at, done again, and taken back.
    void move_killed_at_each_step(const std::string &to, const std::string &back, const std::function<void()> &here,
                                  const std::function<void()> &there) {
        int step = 1;
        for (; step < steps_max; ++step) {
            SCOPED_TRACE(step);
            here();
            const Outcome outcome = move(to, killed_at(step));
            if (outcome.status == 0)
                break;
            ASSERT_EQ(outcome.status, 128 + SIGKILL) << outcome.errors;
            EXPECT_FALSE(is_served_from_file() && is_served_from_database());
            if (step % daemon_each == 0)
                expect_one_daemon_at_most();
            here();
            const Outcome again = move(to);
            ASSERT_EQ(again.status, 0) << again.errors;
            EXPECT_THAT(again.output, HasSubstr("regions: 3 entries, 3 there"));
            EXPECT_NE(is_served_from_file(), is_served_from_database());
            there();
            const Outcome returned = move(back);
            ASSERT_EQ(returned.status, 0) << returned.errors;
            EXPECT_NE(is_served_from_file(), is_served_from_database());
            clear_kept();
        }
        EXPECT_GT(step, 40) << "things that it does";
        EXPECT_LT(step, steps_max);
        EXPECT_THAT(told_with(there), ElementsAre("a", "b", "c"));
    }
    std::string kept_file() const { return site.path("host/priv/registry.db.old"); }
    void clear_kept() const {
        for (const auto &entry : std::filesystem::directory_iterator(site.path("host/priv")))
            if (entry.path().filename().string().starts_with("registry.db.old"))
                std::filesystem::remove(entry.path());
    }
};

} // namespace

TEST_F(MoveOfRegistry, TheToolTakesItToADatabaseAndBackAndCountsEachOfItsDatabases) {
    const Outcome tried = tool(database.conninfo(), {"--dry-run"});
    EXPECT_EQ(tried.status, 0) << tried.errors;
    EXPECT_THAT(tried.output, HasSubstr(R"({"action":"would move","db":"regions","entries":3,"entries_there":0,)"));
    EXPECT_EQ(database.ask("SELECT count(*) FROM pg_class WHERE relname = 'registry'"), "0") << "only tried";
    const Outcome there = tool(database.conninfo());
    ASSERT_EQ(there.status, 0) << there.errors;
    EXPECT_THAT(there.output, HasSubstr(R"({"action":"moved","db":"regions","entries":3,"entries_there":3,)"));
    EXPECT_EQ(std::count(there.output.begin(), there.output.end(), '\n'), RGY_DB_ALL);
    EXPECT_THAT(there.output, HasSubstr(R"("kept":null})")) << "it stands where it was";
    const Outcome again = tool(database.conninfo());
    EXPECT_THAT(again.output, HasSubstr(R"({"action":"was moved","db":"regions","entries":3,"entries_there":3,)"));
    keep_in_database();
    start_alpha();
    EXPECT_THAT(regions(), ElementsAre("a", "b", "c"));
    ASSERT_EQ(add(RGY_DB_REGIONS, name_entry("d")), TBS_ST_OK);
    stop_alpha();
    const Outcome back = tool("sqlite");
    ASSERT_EQ(back.status, 0) << back.errors;
    EXPECT_THAT(back.output, HasSubstr(R"({"action":"moved","db":"regions","entries":4,"entries_there":4,)"));
    EXPECT_THAT(back.output, HasSubstr(R"("kept":")" + kept_file() + R"("})"));
    EXPECT_TRUE(std::filesystem::exists(kept_file()));
    EXPECT_THAT(tool("sqlite").output, HasSubstr(R"("action":"was moved")"));
    EXPECT_THAT(told_with([this] { keep_in_file(); }), ElementsAre("a", "b", "c", "d"));
    EXPECT_THAT(tool("sqlite").output, HasSubstr(R"("action":"was moved")"));
}

// What stood in the file's place is put aside before the database is left.
TEST_F(MoveOfRegistry, AFailureTellsWhereTheFormerFileIs) {
    ASSERT_EQ(tool(database.conninfo()).status, 0);
    keep_in_database();
    const std::string in_the_way = site.path("host/priv/registry.db.moved");
    std::filesystem::create_directory(in_the_way);
    const Outcome outcome = tool("sqlite");
    EXPECT_EQ(outcome.status, 1);
    EXPECT_THAT(outcome.errors, HasSubstr("is kept in \\\"" + kept_file() + "\\\""));
    EXPECT_THAT(outcome.errors, HasSubstr("The registry was not moved by"));
    EXPECT_TRUE(std::filesystem::exists(kept_file()));
    EXPECT_TRUE(is_served_from_database());
    std::filesystem::remove(in_the_way);
    EXPECT_THAT(tool("sqlite").output, HasSubstr(R"("action":"moved")"));
    EXPECT_TRUE(is_served_from_file());
}

TEST_F(MoveOfRegistry, ThatADaemonRunsIsTold) {
    start_alpha();
    const Outcome outcome = tool(database.conninfo());
    EXPECT_EQ(outcome.status, 1);
    EXPECT_THAT(outcome.errors, HasSubstr("The registry was not moved"));
    EXPECT_THAT(outcome.output, IsEmpty());
    EXPECT_EQ(add(RGY_DB_REGIONS, name_entry("d")), TBS_ST_OK);
    EXPECT_EQ(tool(database.conninfo(), {"--dry-run"}).status, 0);
    EXPECT_FALSE(is_served_from_database());
}

TEST_F(MoveOfRegistry, WhatItHasLeftIsNotServed) {
    ASSERT_EQ(move(database.conninfo()).status, 0);
    start_alpha();
    EXPECT_TRUE(alpha->says("the registry was moved to postgresql", patience_s)) << alpha->output();
    EXPECT_THAT(run_apart(site, {VELIACTL, "daemon", "status", "alpha"}).output,
                HasSubstr("the registry was moved to postgresql"));
    EXPECT_THAT(run_apart(site, {VELIACTL, "doctor"}).output,
                HasSubstr("its registry cannot be reached: the registry was moved to postgresql"));
    EXPECT_THAT(regions(), IsEmpty());
    EXPECT_NE(add(RGY_DB_REGIONS, name_entry("d")), TBS_ST_OK);
    stop_alpha();
    keep_in_database();
    ASSERT_EQ(move("sqlite").status, 0);
    start_alpha();
    EXPECT_TRUE(alpha->says("the registry was moved to the file of host \"alpha\"", patience_s)) << alpha->output();
    EXPECT_THAT(regions(), IsEmpty());
    EXPECT_NE(add(RGY_DB_REGIONS, name_entry("d")), TBS_ST_OK);
}

TEST_F(MoveOfRegistry, DaemonsOfOtherHostsServeNoMoreWhatItHasLeft) {
    ASSERT_EQ(move(database.conninfo()).status, 0);
    keep_in_database();
    start_beta();
    ASSERT_EQ(add(RGY_DB_REGIONS, name_entry("d"), "beta"), TBS_ST_OK);
    ASSERT_EQ(move("sqlite").status, 0);
    EXPECT_NE(add(RGY_DB_REGIONS, name_entry("e"), "beta"), TBS_ST_OK);
    EXPECT_THAT(regions("beta"), IsEmpty()) << "what is read there may be old";
    EXPECT_TRUE(beta->says("The registry is not served any more: the registry was moved to the file of host \"alpha\"",
                           patience_s))
        << beta->output();
    EXPECT_THAT(told_with([this] { keep_in_file(); }), ElementsAre("a", "b", "c", "d"));
    ASSERT_EQ(move(database.conninfo()).status, 0);
    EXPECT_TRUE(eventually([] { return add(RGY_DB_REGIONS, name_entry("e"), "beta") == TBS_ST_OK; }, patience_s))
        << beta->output();
    EXPECT_THAT(regions("beta"), ElementsAre("a", "b", "c", "d", "e"));
}

TEST_F(MoveOfRegistry, WhatOtherHostsServeFromADatabaseIsNotOverwritten) {
    const std::string saved = site.path("saved.db");
    ASSERT_EQ(run_apart(site, {RVZD_SERVER, "--save-registry", saved}).status, 0);
    ASSERT_EQ(move(database.conninfo()).status, 0);
    keep_in_database();
    start_beta();
    ASSERT_EQ(add(RGY_DB_REGIONS, name_entry("d"), "beta"), TBS_ST_OK);
    keep_in_file();
    EXPECT_THAT(move(database.conninfo()).output, HasSubstr("already"));
    ASSERT_EQ(run_apart(site, {RVZD_SERVER, "--restore-registry", saved}).status, 0);
    const Outcome refused = move(database.conninfo());
    EXPECT_EQ(refused.status, 1);
    EXPECT_THAT(refused.errors, HasSubstr("this registry is there already, and served from there"));
    EXPECT_THAT(regions("beta"), ElementsAre("a", "b", "c", "d"));
    EXPECT_TRUE(is_served_from_file()) << "as before";
}

TEST_F(MoveOfRegistry, WhatHasMovedToAnotherHostsFileIsLeftAlone) {
    ASSERT_EQ(move(database.conninfo()).status, 0);
    keep_in_database();
    database.run("UPDATE registry SET moved = 'the file of host \"beta\"'");
    const Outcome back = move("sqlite");
    EXPECT_EQ(back.status, 1);
    EXPECT_THAT(back.errors, HasSubstr("the registry was moved to the file of host \"beta\""));
    keep_in_file();
    const Outcome there = move(database.conninfo());
    EXPECT_EQ(there.status, 1);
    EXPECT_THAT(there.errors, HasSubstr("from there the registry was moved to the file of host \"beta\""));
}

TEST_F(MoveOfRegistry, OnlyAMastersMoves) {
    ASSERT_NE(answer_of_file("UPDATE setting SET value = CAST('copy' AS BLOB) WHERE name = CAST('origin' AS BLOB) "
                             "RETURNING 'done'"),
              "");
    const Outcome copy = move(database.conninfo());
    EXPECT_EQ(copy.status, 1);
    EXPECT_THAT(copy.errors, HasSubstr("is a copy of another host's"));
    EXPECT_FALSE(is_served_from_database());
}

TEST_F(MoveOfRegistry, OfAMasterThatWasSupersededIsRefused) {
    for (const char *setting : {"('heard-term'), ('9')", "('heard-host'), ('beta')"}) {
        const std::string text = setting;
        const auto comma = text.find(", ");
        answer_of_file(("INSERT OR REPLACE INTO setting (name, value) VALUES (CAST(" + text.substr(0, comma) +
                        " AS BLOB), CAST(" + text.substr(comma + 2) + " AS BLOB))")
                           .c_str());
    }
    const Outcome refused = move(database.conninfo());
    EXPECT_EQ(refused.status, 1);
    EXPECT_THAT(refused.errors, HasSubstr("host \"beta\" is the registry's master by now"));
    EXPECT_FALSE(is_served_from_database());
}

// The hosts of the site are asked.
TEST_F(MoveOfRegistry, BesideASecondMasterIsRefused) {
    const std::string saved = site.path("saved.db");
    ASSERT_EQ(run_apart(site, {RVZD_SERVER, "--save-registry", saved}).status, 0);
    std::filesystem::copy_file(saved, site.path("beta/host/priv/registry.db"));
    start_beta();
    site.write("host/config/rgy_hosts.conf", "alpha\nbeta\n");
    const Outcome refused = move(database.conninfo());
    EXPECT_EQ(refused.status, 1);
    EXPECT_THAT(refused.errors, HasSubstr("host \"beta\" takes updates, too, under the same term"));
    EXPECT_FALSE(is_served_from_database());
    EXPECT_TRUE(is_served_from_file());
}

TEST_F(MoveOfRegistry, WhatFailsOnTheWayIsServedFromWhereItWas) {
    ASSERT_EQ(move(database.conninfo()).status, 0);
    keep_in_database();
    std::filesystem::create_directories(site.path("host/priv/registry.db.moved.new"));
    const Outcome back = move("sqlite");
    EXPECT_EQ(back.status, 1) << "no place for the file";
    EXPECT_TRUE(is_served_from_database());
    std::filesystem::remove(site.path("host/priv/registry.db.moved.new"));
    ASSERT_EQ(move("sqlite").status, 0);
    keep_in_file();
    start_alpha();
    ASSERT_EQ(add(RGY_DB_REGIONS, name_entry("d")), TBS_ST_OK);
    stop_alpha();
    database.run("CREATE FUNCTION refuse() RETURNS trigger LANGUAGE plpgsql AS 'BEGIN RAISE EXCEPTION ''not today''; "
                 "END'");
    database.run("CREATE TRIGGER refuse BEFORE INSERT ON entry FOR EACH ROW EXECUTE FUNCTION refuse()");
    const Outcome there = move(database.conninfo());
    EXPECT_EQ(there.status, 1);
    EXPECT_THAT(there.errors, HasSubstr("not today"));
    EXPECT_TRUE(is_served_from_file());
    EXPECT_FALSE(is_served_from_database());
    database.run("DROP TRIGGER refuse ON entry");
    EXPECT_EQ(move(database.conninfo()).status, 0);
    EXPECT_THAT(told_with([this] { keep_in_database(); }), ElementsAre("a", "b", "c", "d"));
}

TEST_F(MoveOfRegistry, WhatMovedToOneDatabaseIsNotMovedToAnother) {
    velia::postgres_test::Server other;
    ASSERT_EQ(move(database.conninfo()).status, 0);
    const Outcome refused = move(other.conninfo());
    EXPECT_EQ(refused.status, 1);
    EXPECT_THAT(refused.errors, HasSubstr("the registry was moved to postgresql"));
    EXPECT_EQ(other.ask("SELECT count(*) FROM entry"), "0");
    EXPECT_TRUE(is_served_from_database());
}

TEST_F(MoveOfRegistry, MayBeFromOneDatabaseToAnother) {
    velia::postgres_test::Server other;
    ASSERT_EQ(move(database.conninfo()).status, 0);
    keep_in_database();
    const Outcome outcome = move(other.conninfo());
    ASSERT_EQ(outcome.status, 0) << outcome.errors;
    EXPECT_FALSE(is_served_from_database());
    EXPECT_THAT(told_with([&] { keep_in(other.conninfo()); }), ElementsAre("a", "b", "c"));
}

TEST_F(MoveOfRegistry, OfAnotherRegistryNothingIsOverwrittenAndNothingIsClosed) {
    velia::postgres_test::Server full;
    full.run("CREATE ROLE clerk LOGIN");
    const Outcome refused = move(full.conninfo_as("clerk"));
    EXPECT_EQ(refused.status, 1) << "no rights";
    EXPECT_TRUE(is_served_from_file());
    ASSERT_EQ(move(full.conninfo()).status, 0);
    keep_in(full.conninfo());
    ASSERT_EQ(move("sqlite").status, 0);
    full.run("UPDATE registry SET name = sha256('other')::bytea, moved = NULL");
    full.run("UPDATE registry SET name = substr(name, 1, 16)");
    keep_in_file();
    const Outcome other = move(full.conninfo());
    EXPECT_EQ(other.status, 1);
    EXPECT_THAT(other.errors, HasSubstr("another registry of 3 entries is there"));
    EXPECT_THAT(told_with([this] { keep_in_file(); }), ElementsAre("a", "b", "c"));
}

TEST_F(MoveOfRegistry, IntoADatabaseCanBeKilledAtAnyStepAndDoneAgain) {
    move_killed_at_each_step(
        database.conninfo(), "sqlite", [this] { keep_in_file(); }, [this] { keep_in_database(); });
}

TEST_F(MoveOfRegistry, BackIntoAFileCanBeKilledAtAnyStepAndDoneAgain) {
    ASSERT_EQ(move(database.conninfo()).status, 0);
    move_killed_at_each_step(
        "sqlite", database.conninfo(), [this] { keep_in_database(); }, [this] { keep_in_file(); });
}
