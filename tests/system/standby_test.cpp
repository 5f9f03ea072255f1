// A master and a standby on one machine: copying, promotion, demotion, and what may go wrong with them.
#include <chrono>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <fstream>
#include <iterator>
#include <thread>

#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <tests/system/support/daemon.h>
#include <tests/system/support/registry_calls.h>
#include <veliaxdr/rgy_local.h>

using namespace velia::system_test;
using testing::HasSubstr;
using testing::Not;

namespace {

using Names = std::vector<std::string>;

enum Change : int64_t { PROMOTE = 12, STEP_DOWN = 13 };

struct Standby : testing::Test {
    Site site;
    std::unique_ptr<Daemon> master;
    std::unique_ptr<Daemon> standby;

    void SetUp() override {
        site.write("host/config/rgy_svr.conf", "master");
        site.write("host/config/rgy_hosts.conf", "alpha\nbeta\n");
        site.configure(std::string("option registry-copy 1\n") + trusted_hosts);
        start_master();
    }
    void start_master() {
        master = std::make_unique<Daemon>(site, Names{"--listen", "127.0.0.1"});
        ASSERT_TRUE(master->is_ready()) << master->output();
    }
    void kill_master() {
        master->signal(SIGKILL);
        master->wait();
    }
    Names standby_environment() const { return {"VELIA_ROOT=" + site.path("beta"), "VELIA_HOSTNAME=beta"}; }
    void prepare_standby(const std::string &role = "standby") {
        for (const char *directory : {"beta/host/config", "beta/host/priv", "beta/host/data", "beta/log"})
            std::filesystem::create_directories(site.path(directory));
        if (!std::filesystem::exists(site.path("beta/config")))
            std::filesystem::create_symlink(site.path("config"), site.path("beta/config"));
        site.write("beta/host/config/rgy_svr.conf", role);
        site.write("beta/host/config/rgy_hosts.conf", "alpha\nbeta\n");
    }
    void start_standby() {
        Child::Options options;
        options.environment = standby_environment();
        standby = std::make_unique<Daemon>(site, Names{"--listen", "127.0.0.2"}, options);
        ASSERT_TRUE(standby->is_ready()) << standby->output();
    }
    static tbs_status_t change_standby(Change op) {
        const auto handle = own_handle("beta", 0);
        return handle == nullptr ? tbs_status_t{TBS_ST_NO_SERVER}
                                 : rvzd_rgy_svr_conf_change(handle.get(), RGY_PROTOCOL_VERSION, op, "");
    }
    static bool standby_comes_to_have(const Names &names) {
        return eventually([&] { return names_of(RGY_DB_REGIONS, 100, "beta") == names; });
    }
};

struct Stamps {
    rgy_dtm_pair_t pair = {};
    tbs_uuid_t registry = {};
    tbs_uuid_t copy = {};
};

Stamps stamps_of(const char *host, rgy_db_t db) {
    Stamps stamps;
    const auto handle = own_handle(host);
    EXPECT_EQ(rvzd_rgy_get_dtm(handle.get(), db, RGY_PROTOCOL_VERSION, &stamps.pair, &stamps.registry, &stamps.copy),
              TBS_ST_OK);
    return stamps;
}

// The number of the one entry of this name.
uint64_t number_of(const std::string &name, const char *host) {
    const auto handle = own_handle(host);
    rgy_dtm_pair_t stamps = {};
    uint64_t cursor = 0;
    int64_t count = 0;
    rgy_svr_entry_t entry = {};
    EXPECT_EQ(rvzd_rgy_findbystring_entry(handle.get(), RGY_DB_REGIONS, RGY_PROTOCOL_VERSION, "", "-name", name.c_str(),
                                          &stamps, &cursor, 1, &entry, &count),
              TBS_ST_OK);
    EXPECT_EQ(count, 1);
    stg_free(entry.flex_text);
    return entry.entry_id;
}

tbs_status_t remove(const std::string &name, const char *host) {
    const auto handle = own_handle(host);
    rgy_dtm_pair_t stamps = {};
    return rvzd_rgy_remove_entry(handle.get(), RGY_DB_REGIONS, RGY_PROTOCOL_VERSION, &stamps, number_of(name, host));
}

TEST_F(Standby, HasWhatTheMasterHasUnderTheSameNumbersAndStamps) {
    for (const char *name : {"one", "two", "three"})
        ASSERT_EQ(add(RGY_DB_REGIONS, name_entry(name)), TBS_ST_OK);
    ASSERT_EQ(remove("one", "alpha"), TBS_ST_OK);
    prepare_standby();
    start_standby();
    EXPECT_TRUE(standby_comes_to_have({"two", "three"})) << standby->output();
    EXPECT_EQ(number_of("three", "beta"), number_of("three", "alpha"));
    for (rgy_db_t db = 0; db < RGY_DB_ALL; ++db) {
        const auto theirs = stamps_of("alpha", db);
        const auto ours = stamps_of("beta", db);
        EXPECT_EQ(memcmp(&ours.pair, &theirs.pair, sizeof ours.pair), 0) << db;
        EXPECT_TRUE(tbs_uuid_eq(&ours.registry, &theirs.registry));
        EXPECT_FALSE(tbs_uuid_eq(&ours.copy, &theirs.copy));
    }
    EXPECT_TRUE(standby->says("Registry backup finished at "));
}

TEST_F(Standby, FollowsTheMaster) {
    prepare_standby();
    start_standby();
    EXPECT_TRUE(standby_comes_to_have({})) << standby->output();
    ASSERT_EQ(add(RGY_DB_REGIONS, name_entry("new")), TBS_ST_OK);
    EXPECT_TRUE(standby_comes_to_have({"new"})) << standby->output();
    ASSERT_EQ(remove("new", "alpha"), TBS_ST_OK);
    ASSERT_EQ(add(RGY_DB_REGIONS, name_entry("newer")), TBS_ST_OK);
    EXPECT_TRUE(standby_comes_to_have({"newer"})) << standby->output();
    EXPECT_EQ(add(RGY_DB_REGIONS, name_entry("refused"), "beta"), TBS_ST_NO_SERVER);
}

TEST_F(Standby, IsLikeTheMasterAfterChangesWithoutAPause) {
    prepare_standby();
    start_standby();
    std::atomic<bool> is_enough = false;
    std::thread writer([&] {
        for (int i = 0; !is_enough; ++i) {
            EXPECT_EQ(add(RGY_DB_REGIONS, name_entry("kept " + std::to_string(i))), TBS_ST_OK);
            EXPECT_EQ(add(RGY_DB_REGIONS, name_entry("moved")), TBS_ST_OK);
            EXPECT_EQ(remove("moved", "alpha"), TBS_ST_OK);
        }
    });
    EXPECT_TRUE(eventually([&] { return standby->count("Registry backup finished at ") >= 3; }, 30));
    is_enough = true;
    writer.join();
    EXPECT_TRUE(standby_comes_to_have(*names_of(RGY_DB_REGIONS))) << standby->output();
}

TEST_F(Standby, WithoutACopyTellsNothingAndIsNotPromoted) {
    ASSERT_EQ(add(RGY_DB_REGIONS, name_entry("one")), TBS_ST_OK);
    kill_master();
    prepare_standby();
    start_standby();
    EXPECT_TRUE(standby->says("Trouble contacting registry on host \"alpha\"")) << standby->output();
    const auto handle = own_handle("beta");
    rgy_dtm_pair_t stamps = {};
    EXPECT_EQ(rvzd_rgy_get_id(handle.get(), RGY_DB_REGIONS, RGY_PROTOCOL_VERSION, &stamps), TBS_ST_NO_SERVER);
    EXPECT_EQ(change_standby(PROMOTE), TBS_ST_NOT_SET);
    EXPECT_EQ(site.read("beta/host/config/rgy_svr.conf"), "standby");
    start_master();
    EXPECT_TRUE(standby_comes_to_have({"one"})) << standby->output();
    EXPECT_EQ(standby->count("Trouble contacting registry on host \"alpha\""), 1u) << standby->output();
}

TEST_F(Standby, TakesOverWithTheMastersLastChange) {
    prepare_standby();
    start_standby();
    ASSERT_TRUE(standby_comes_to_have({}));
    ASSERT_EQ(add(RGY_DB_REGIONS, name_entry("last")), TBS_ST_OK);
    ASSERT_EQ(change_standby(PROMOTE), TBS_ST_OK);
    EXPECT_EQ(site.read("beta/host/config/rgy_svr.conf"), "master");
    EXPECT_EQ(names_of(RGY_DB_REGIONS, 100, "beta"), Names{"last"});
}

TEST_F(Standby, TakesOverFromADeadMasterAndGivesNoNumberAgain) {
    ASSERT_EQ(add(RGY_DB_REGIONS, name_entry("copied")), TBS_ST_OK);
    prepare_standby();
    start_standby();
    ASSERT_TRUE(standby_comes_to_have({"copied"}));
    kill_master();
    ASSERT_EQ(change_standby(PROMOTE), TBS_ST_OK) << standby->output();
    ASSERT_EQ(add(RGY_DB_REGIONS, name_entry("after"), "beta"), TBS_ST_OK);
    EXPECT_EQ(names_of(RGY_DB_REGIONS, 100, "beta"), (Names{"copied", "after"}));
    EXPECT_GT(number_of("after", "beta"), number_of("copied", "beta") + 1000);
}

TEST_F(Standby, IsPromotedOnceAndStepsDownAgain) {
    prepare_standby();
    start_standby();
    ASSERT_TRUE(standby_comes_to_have({}));
    EXPECT_EQ(change_standby(STEP_DOWN), TBS_ST_UNSUPPORTED);
    ASSERT_EQ(change_standby(PROMOTE), TBS_ST_OK);
    EXPECT_EQ(change_standby(PROMOTE), TBS_ST_UNSUPPORTED);
    ASSERT_EQ(change_standby(STEP_DOWN), TBS_ST_OK);
    EXPECT_EQ(add(RGY_DB_REGIONS, name_entry("late"), "beta"), TBS_ST_NO_SERVER);
}

// What is asked for while a role is being taken has its turn after that.
TEST_F(Standby, AskedTwiceAtOnceIsPromotedOnce) {
    prepare_standby();
    start_standby();
    ASSERT_TRUE(standby_comes_to_have({}));
    enum Outcome : int { promoted, was_none_any_more, failed };
    const auto promote = [] {
        const tbs_status_t status = change_standby(PROMOTE);
        return status == TBS_ST_OK ? promoted : status == TBS_ST_UNSUPPORTED ? was_none_any_more : failed;
    };
    const pid_t other = fork(); // a process makes its calls one after the other
    if (other == 0)
        _exit(promote());
    const Outcome first = promote();
    int status = 0;
    ASSERT_EQ(waitpid(other, &status, 0), other);
    EXPECT_THAT((std::vector<int>{first, WEXITSTATUS(status)}),
                testing::UnorderedElementsAre(promoted, was_none_any_more));
}

// The promotion has written the role's file, which is looked at some time later.
TEST_F(Standby, ThatStepsDownRightAfterItsPromotionIsNotMadeTheMasterAgainByWhatWasWrittenBefore) {
    prepare_standby();
    start_standby();
    ASSERT_TRUE(standby_comes_to_have({}));
    ASSERT_EQ(change_standby(PROMOTE), TBS_ST_OK);
    ASSERT_EQ(change_standby(STEP_DOWN), TBS_ST_OK);
    ASSERT_EQ(site.read("beta/host/config/rgy_svr.conf"), "master");
    constexpr auto long_enough = std::chrono::milliseconds(400); // for it to be looked at
    for (const auto begin = std::chrono::steady_clock::now(); std::chrono::steady_clock::now() < begin + long_enough;)
        ASSERT_EQ(names_of(RGY_DB_REGIONS, 100, "beta"), std::nullopt);
    site.write("beta/host/config/rgy_svr.conf", "master");
    EXPECT_TRUE(standby_comes_to_have({})) << "whoever writes it again means it";
}

TEST_F(Standby, RoleIsTakenWhenItsFileChanges) {
    prepare_standby("not a server");
    start_standby();
    ASSERT_EQ(add(RGY_DB_REGIONS, name_entry("one")), TBS_ST_OK);
    EXPECT_EQ(names_of(RGY_DB_REGIONS, 100, "beta"), std::nullopt);
    site.write("beta/host/config/rgy_svr.conf", "backup");
    EXPECT_TRUE(standby_comes_to_have({"one"})) << standby->output();
}

TEST_F(Standby, GoesOnCopyingWhenItsRoleIsEmptied) {
    prepare_standby();
    start_standby();
    ASSERT_TRUE(standby_comes_to_have({})) << standby->output();
    site.write("beta/host/config/rgy_svr.conf", "");
    ASSERT_TRUE(standby->says("this host goes on as the last one: standby.\n")) << standby->output();
    ASSERT_EQ(add(RGY_DB_REGIONS, name_entry("new")), TBS_ST_OK);
    EXPECT_TRUE(standby_comes_to_have({"new"})) << standby->output();
    EXPECT_EQ(standby->count("this host goes on as the last one"), 1u) << standby->output();
    ASSERT_EQ(change_standby(PROMOTE), TBS_ST_OK) << standby->output();
    EXPECT_EQ(site.read("beta/host/config/rgy_svr.conf"), "master");
}

TEST_F(Standby, FormerRegistryOfAHostIsKeptBesideTheCopy) {
    prepare_standby("master");
    start_standby();
    ASSERT_EQ(add(RGY_DB_REGIONS, name_entry("mine"), "beta"), TBS_ST_OK);
    ASSERT_EQ(add(RGY_DB_REGIONS, name_entry("theirs")), TBS_ST_OK);
    site.write("beta/host/config/rgy_svr.conf", "standby");
    EXPECT_TRUE(standby_comes_to_have({"theirs"})) << standby->output();
    const auto kept = site.path("beta/host/priv/registry.db.old");
    EXPECT_TRUE(standby->says("is kept in \"" + kept + "\"")) << standby->output();
    EXPECT_EQ(std::filesystem::status(kept).permissions(),
              std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
    // Put back in its place, it is what it was.
    standby->signal(SIGTERM);
    ASSERT_EQ(standby->wait(), 0);
    std::filesystem::rename(kept, site.path("beta/host/priv/registry.db"));
    site.write("beta/host/config/rgy_svr.conf", "master");
    start_standby();
    EXPECT_EQ(names_of(RGY_DB_REGIONS, 100, "beta"), Names{"mine"});
}

// What only a damaged disk could have put there: the copying of this database fails.
void spoil_database(const std::string &file_name, rgy_db_t db) {
    sqlite3 *database = nullptr;
    ASSERT_EQ(sqlite3_open(file_name.c_str(), &database), SQLITE_OK);
    const std::string record = "INSERT INTO entry (db, region, identity, text) VALUES (" + std::to_string(db) +
                               ", x'', x'', CAST('no item' AS BLOB))";
    EXPECT_EQ(sqlite3_exec(database, record.c_str(), nullptr, nullptr, nullptr), SQLITE_OK) << sqlite3_errmsg(database);
    sqlite3_close(database);
}

TEST_F(Standby, ACopyOfAnotherRegistryThatFailsHalfWayIsNotServed) {
    ASSERT_EQ(add(RGY_DB_REGIONS, name_entry("one")), TBS_ST_OK);
    prepare_standby();
    start_standby();
    ASSERT_TRUE(standby_comes_to_have({"one"})) << standby->output();
    kill_master();
    const std::string file_name = site.path("host/priv/registry.db");
    for (const char *end : {"", "-wal", "-shm", ".made"})
        std::filesystem::remove(file_name + end);
    standby->signal(SIGSTOP); // until the new registry is as it should be
    start_master();
    spoil_database(file_name, RGY_DB_ALL - 1);
    standby->signal(SIGCONT);
    EXPECT_TRUE(standby->says("a malformed record")) << standby->output();
    EXPECT_TRUE(eventually([&] { return names_of(RGY_DB_REGIONS, 100, "beta") == std::nullopt; }));
    EXPECT_EQ(change_standby(PROMOTE), TBS_ST_NOT_SET);
}

// The processes that a process has started and not yet seen the end of.
std::vector<pid_t> children_of(pid_t pid) {
    const std::string task = "/proc/" + std::to_string(pid) + "/task/" + std::to_string(pid) + "/children";
    std::ifstream file(task);
    return {std::istream_iterator<pid_t>(file), {}};
}

struct SilentMaster : Standby {
    void SetUp() override {
        Standby::SetUp();
        prepare_standby();
        master->signal(SIGSTOP);
        start_standby();
        ASSERT_TRUE(eventually([&] { return children_of(standby->pid()).size() == 1; })) << standby->output();
        copier = children_of(standby->pid()).front();
    }
    void TearDown() override { master->signal(SIGCONT); }

    pid_t copier = 0;
};

// It would go on writing into the registry of a daemon that is the master by then.
TEST_F(SilentMaster, ACopyingProcessDoesNotOutliveItsDaemon) {
    standby->signal(SIGKILL);
    EXPECT_EQ(standby->wait(), 128 + SIGKILL);
    EXPECT_TRUE(eventually([&] { return !is_alive(copier); }));
}

TEST_F(Standby, ThatIsStoppedAmidItsPromotionEndsAtOnceAndStaysOne) {
    prepare_standby();
    start_standby();
    ASSERT_TRUE(standby_comes_to_have({})) << standby->output();
    const auto handle = own_handle("beta", 0);
    master->signal(SIGSTOP);
    handle->tv_sec = 1; // the last copy takes longer from a master that is silent
    EXPECT_EQ(rvzd_rgy_svr_conf_change(handle.get(), RGY_PROTOCOL_VERSION, PROMOTE, ""), TBS_ST_RPC_FAILED);
    const auto copiers = children_of(standby->pid());
    EXPECT_EQ(copiers.size(), 1u);
    standby->signal(SIGTERM);
    EXPECT_EQ(standby->wait(2), 0);
    for (const pid_t copier : copiers)
        EXPECT_TRUE(eventually([&] { return !is_alive(copier); }));
    EXPECT_EQ(site.read("beta/host/config/rgy_svr.conf"), "standby");
    master->signal(SIGCONT);
}

TEST_F(Standby, KeepsEachFormerRegistryUnderANameOfItsOwn) {
    ASSERT_EQ(add(RGY_DB_REGIONS, name_entry("theirs")), TBS_ST_OK);
    prepare_standby("master");
    start_standby();
    ASSERT_EQ(add(RGY_DB_REGIONS, name_entry("mine"), "beta"), TBS_ST_OK);
    site.write("beta/host/config/rgy_svr.conf", "standby");
    ASSERT_TRUE(standby_comes_to_have({"theirs"})) << standby->output();
    site.write("beta/host/config/rgy_svr.conf", "master");
    ASSERT_TRUE(eventually([] { return add(RGY_DB_REGIONS, name_entry("mine again"), "beta") == TBS_ST_OK; }));
    site.write("beta/host/config/rgy_svr.conf", "standby");
    ASSERT_TRUE(standby_comes_to_have({"theirs"})) << standby->output();
    EXPECT_TRUE(std::filesystem::exists(site.path("beta/host/priv/registry.db.old")));
    EXPECT_TRUE(std::filesystem::exists(site.path("beta/host/priv/registry.db.old.2")));
}

TEST_F(Standby, CopiesOnlyWhenItIsOnTheMastersList) {
    ASSERT_EQ(rvzd_rgy_set_backup(own_handle("alpha").get(), RGY_PROTOCOL_VERSION, "gamma"), TBS_ST_OK);
    prepare_standby();
    start_standby();
    EXPECT_TRUE(standby->says("Registry backup is not for server alpha")) << standby->output();
    ASSERT_EQ(rvzd_rgy_set_backup(own_handle("alpha").get(), RGY_PROTOCOL_VERSION, "gamma, BETA"), TBS_ST_OK);
    EXPECT_TRUE(standby_comes_to_have({})) << standby->output();
    EXPECT_EQ(standby->count("Registry backup is not for server"), 1u);
    std::string hosts(RGY_WIRE_HOST_LIST_MAX + 1, '\0');
    char *text = hosts.data();
    EXPECT_EQ(rvzd_rgy_get_backup(own_handle("beta").get(), RGY_PROTOCOL_VERSION, &text), TBS_ST_OK);
    EXPECT_STREQ(text, "gamma, BETA");
}

TEST_F(Standby, CopyOnRequestSaysWhyItIsNone) {
    prepare_standby();
    const auto copy = [&] { return run_apart(site, {RVZD_SERVER, "--copy-registry"}, standby_environment()); };
    EXPECT_EQ(copy().status, 0) << copy().errors;
    EXPECT_THAT(copy().output, Not(HasSubstr("Registry backup started"))) << "nothing has changed since";
    site.write("beta/host/config/rgy_hosts.conf", "beta\n\n");
    EXPECT_EQ(copy().status, 1);
    EXPECT_THAT(copy().errors, HasSubstr("backup aborted: the hosts file names this host"));
    site.write("beta/host/config/rgy_hosts.conf", "\n\n");
    EXPECT_THAT(copy().errors, HasSubstr("backup aborted: the hosts file names no master"));
    site.write("beta/host/config/rgy_svr.conf", "master");
    EXPECT_THAT(copy().errors, HasSubstr("backup aborted: this host is no standby, backup or slave"));
    EXPECT_EQ(copy().status, 1);
}

} // namespace
