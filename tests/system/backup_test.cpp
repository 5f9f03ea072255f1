// The registry as a file: saved by the daemon's program and through the daemon, restored, and what is never served.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <fstream>

#include <tests/system/support/backup_site.h>

using namespace velia::system_test;
using testing::HasSubstr;
using testing::Not;

namespace {

using Backup = BackupSite;

TEST_F(Backup, IsMadeWhileTheDaemonWorksAndRestoredWhenItDoesNot) {
    start_alpha();
    add_regions({"one", "two"});
    const auto made = save();
    EXPECT_EQ(made.status, 0) << made.errors;
    EXPECT_EQ(made.output, "The registry is saved in \"" + saved() + "\".\n");
    add_regions({"three"});
    EXPECT_EQ(restore().status, 1) << "while the daemon runs";
    stop(daemon);
    const auto restored = restore();
    EXPECT_EQ(restored.status, 0) << restored.errors;
    EXPECT_THAT(restored.output, HasSubstr("The former registry is kept in \"" + stored() + ".old\".\n"));
    start_alpha();
    EXPECT_TRUE(comes_to_have("alpha", {"one", "two"})) << daemon->output();
}

TEST_F(Backup, ThroughTheDaemonHoldsOneMoment) {
    start_alpha();
    add_regions({"one", "two"});
    const auto made = objects({"registry", "save", saved()});
    ASSERT_EQ(made.size(), 1u);
    EXPECT_EQ(made[0]["registry"], "alpha");
    EXPECT_EQ(made[0]["bytes"].scalar, std::to_string(std::filesystem::file_size(saved())));
    EXPECT_THAT(server({"--check-registry", saved()}).output, HasSubstr("is whole: 2 entries, "));
    EXPECT_EQ(std::filesystem::status(saved()).permissions(),
              std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
    EXPECT_FALSE(std::filesystem::exists(stored() + ".sent"));
}

TEST_F(Backup, ThroughTheDaemonLeavesNoFileWhenItCannotBeHad) {
    start_alpha();
    const auto lost = veliactl({"registry", "save", site.path("nowhere/registry.saved")});
    EXPECT_EQ(lost.status, FAILED);
    EXPECT_THAT(lost.errors, HasSubstr("could not be written: No such file or directory"));
    site.write("host/config/rgy_svr.conf", "not a server");
    ASSERT_TRUE(eventually([] { return names_of(RGY_DB_REGIONS) == std::nullopt; }));
    const auto none = veliactl({"registry", "save", saved()});
    EXPECT_EQ(none.status, FAILED);
    EXPECT_THAT(none.errors, HasSubstr("The registry on host 'alpha' was not saved"));
    stop(daemon);
    EXPECT_EQ(veliactl({"registry", "save", saved()}).status, UNREACHABLE);
    EXPECT_FALSE(std::filesystem::exists(saved()));
    EXPECT_FALSE(std::filesystem::exists(saved() + ".new"));
}

// What comes under its name is a file, which a device or a pipe would be lost for.
TEST_F(Backup, IsNotMadeInThePlaceOfAPipe) {
    const std::string pipe = site.path("pipe");
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    EXPECT_EQ(veliactl({"registry", "save", pipe}).status, FAILED);
    EXPECT_NE(run_apart(site, {RVZD_SERVER, "--save-registry", pipe}).status, 0);
    EXPECT_TRUE(std::filesystem::is_fifo(pipe));
}

TEST_F(Backup, ThatIsNoneTellsWhy) {
    EXPECT_THAT(save().errors, HasSubstr("was not saved in \"" + saved() + "\": there is no registry here"));
    site.write("registry.saved", "no registry");
    EXPECT_THAT(restore().errors, HasSubstr("was not restored from \"" + saved() + "\": the file is no registry"));
    EXPECT_EQ(restore().status, 1);
    EXPECT_EQ(server({"--check-registry"}).status, 1);
    EXPECT_THAT(server({"--check-registry", saved()}).errors, HasSubstr("is not whole in \"" + saved() + "\""));
}

TEST_F(Backup, OfAnotherDaemonsSaveIsNotInTheWay) {
    start_alpha();
    add_regions({"one"});
    const auto handle = own_handle("alpha", 0);
    rvzd_registry_save_reply_t begun = {};
    ASSERT_EQ(rvzd_registry_save(handle.get(), 0, 0, &begun), TBS_ST_OK);
    rvzd_registry_save_reply_t other = {};
    EXPECT_EQ(rvzd_registry_save(handle.get(), 0, 0, &other), TBS_ST_TRY_AGAIN);
    EXPECT_EQ(rvzd_registry_save(handle.get(), begun.save + 1, 0, &other), TBS_ST_NOT_FOUND);
    EXPECT_THAT(veliactl({"registry", "save", saved()}).errors, HasSubstr("busy with another save"));
    site.write("letters", "my letters");
    EXPECT_EQ(veliactl({"registry", "save", site.path("letters")}).status, FAILED);
    EXPECT_EQ(site.read("letters"), "my letters");
    rvzd_registry_save_reply_t whole = {};
    ASSERT_TRUE(eventually([&] {
        rvzd_registry_save_free(&whole);
        return rvzd_registry_save(handle.get(), begun.save, 0, &whole) == TBS_ST_OK && whole.size > 0;
    }));
    rvzd_registry_save_reply_t end = {};
    EXPECT_EQ(rvzd_registry_save(handle.get(), begun.save, whole.size, &end), TBS_ST_OK);
    EXPECT_EQ(veliactl({"registry", "save", saved()}).status, DONE) << "the last byte has been had";
    for (auto *reply : {&begun, &other, &whole, &end})
        rvzd_registry_save_free(reply);
}

// The obvious backup.
TEST_F(Backup, ByAPlainCopyOfTheFileIsRefusedInWordsWhenItIsPutBack) {
    start_alpha();
    add_regions({"one"});
    std::filesystem::copy_file(stored(), saved());
    add_regions({"two"});
    stop(daemon);
    std::filesystem::copy_file(saved(), stored(), std::filesystem::copy_options::overwrite_existing);
    start_alpha();
    EXPECT_TRUE(daemon->says("older than what was acknowledged here")) << daemon->output();
    EXPECT_THAT(server({"--check-registry"}).errors, HasSubstr("older than what was acknowledged here"));
    EXPECT_EQ(names_of(RGY_DB_REGIONS), std::nullopt);
}

TEST_F(Backup, ThatIsRestoredOnAMasterIsCopiedByItsStandby) {
    start_alpha();
    add_regions({"one"});
    start_beta();
    ASSERT_TRUE(comes_to_have("beta", {"one"})) << standby->output();
    ASSERT_EQ(save().status, 0);
    add_regions({"mistake"});
    ASSERT_TRUE(comes_to_have("beta", {"one", "mistake"})) << standby->output();
    stop(daemon);
    ASSERT_EQ(restore().status, 0);
    start_alpha();
    EXPECT_TRUE(comes_to_have("beta", {"one"})) << standby->output();
    EXPECT_EQ(state_of("alpha").term, 2u);
    EXPECT_TRUE(eventually([] { return state_of("beta").term == 2; })) << standby->output();
}

// Made while the site was at an earlier term, which a copy has from its master.
TEST_F(Backup, OfAStandbyIsRestoredOnAMasterUnderAHigherTermThanAllBefore) {
    start_alpha();
    add_regions({"one"});
    start_beta();
    ASSERT_TRUE(comes_to_have("beta", {"one"})) << standby->output();
    ASSERT_EQ(veliactl({"registry", "save", saved(), "--host", "beta"}).status, DONE);
    for (const char *host : {"beta", "alpha"})
        ASSERT_EQ(veliactl({"site", "master", host}).status, DONE);
    add_regions({"mistake"});
    ASSERT_TRUE(comes_to_have("beta", {"one", "mistake"})) << standby->output();
    stop(daemon);
    ASSERT_EQ(restore().status, 0);
    start_alpha();
    EXPECT_TRUE(comes_to_have("beta", {"one"})) << daemon->output() << standby->output();
    EXPECT_EQ(state_of("alpha").term, 4u);
    EXPECT_EQ(add_region("two"), TBS_ST_OK) << daemon->output();
    EXPECT_TRUE(comes_to_have("beta", {"one", "two"})) << standby->output();
}

TEST_F(Backup, OfAStandbyThatIsRestoredThereIsBroughtUpToItsMasterAgain) {
    start_alpha();
    add_regions({"one"});
    start_beta();
    ASSERT_TRUE(comes_to_have("beta", {"one"})) << standby->output();
    ASSERT_EQ(veliactl({"registry", "save", saved(), "--host", "beta"}).status, DONE);
    add_regions({"two"});
    ASSERT_TRUE(comes_to_have("beta", {"one", "two"})) << standby->output();
    stop(standby);
    ASSERT_EQ(server({"--restore-registry", saved()}, on_beta()).status, 0);
    start_beta();
    EXPECT_TRUE(comes_to_have("beta", {"one", "two"})) << standby->output();
    EXPECT_EQ(state_of("beta").term, 1u);
    EXPECT_TRUE(state_of("alpha").takes_updates);
}

TEST_F(Backup, TheLogFileStaysSmall) {
    start_alpha();
    add_regions({"one"});
    const std::string log = stored() + "-wal";
    for (int i = 0; i < 300; ++i)
        ASSERT_EQ(
            add(RGY_DB_DOMAINS, name_entry("n" + std::to_string(i)) + "-description=" + std::string(900, 'd') + ";"),
            TBS_ST_OK);
    EXPECT_LT(std::filesystem::file_size(log), uintmax_t{3} << 20);
    EXPECT_GT(std::filesystem::file_size(stored()), uintmax_t{300} << 10) << "what the log held is in it";
}

// Killed at each thing that is done to a file: what stood there, or what was wanted, and nothing else.
struct KillsOfBackup : Backup {
    const Words before = {"one", "two"};

    Words killed_at(int at) const {
        return {"LD_PRELOAD=" ENDED_PROCESS_PRELOAD, "ENDED_FROM=" + site.path("armed"),
                "ENDED_AT=" + std::to_string(at), "ASAN_OPTIONS=verify_asan_link_order=0"};
    }
    template <class Step>
    static int sweep(Step &&step, int usual_stride = 7) {
        const int stride = getenv("VELIA_TEST_KILLS") != nullptr ? 1 : usual_stride;
        int at = 1;
        while (step(at) && at < 2000)
            at += stride;
        return at - 1;
    }
    void SetUp() override {
        Backup::SetUp();
        site.write("host/config/rgy_hosts.conf", "alpha\n\n");
        start_alpha();
        add_regions(before);
        site.write("armed", "");
    }
};

TEST_F(KillsOfBackup, AtASaveLeaveTheOneBeforeOrTheNewOne) {
    ASSERT_EQ(save().status, 0);
    add_regions({"three"});
    const int steps = sweep([&](int at) {
        const int status = save(killed_at(at)).status;
        EXPECT_TRUE(status == 0 || status == 128 + SIGKILL) << at;
        EXPECT_THAT(server({"--check-registry", saved()}).output, HasSubstr(status == 0 ? "3 entries" : "entries"))
            << at;
        return status != 0;
    });
    EXPECT_GT(steps, 10);
    EXPECT_TRUE(comes_to_have("alpha", {"one", "two", "three"})) << daemon->output();
}

TEST_F(KillsOfBackup, AtARestoreLeaveTheRegistryBeforeOrTheRestoredOne) {
    ASSERT_EQ(save().status, 0);
    add_regions({"three"});
    stop(daemon, SIGKILL);
    const int steps = sweep([&](int at) {
        const int status = restore(killed_at(at)).status;
        EXPECT_TRUE(status == 0 || status == 128 + SIGKILL) << at;
        start_alpha();
        const auto names = names_of(RGY_DB_REGIONS);
        EXPECT_TRUE(names == before || (status != 0 && names == (Words{"one", "two", "three"})))
            << at << " " << status << daemon->output();
        if (names == before && status != 0) {
            EXPECT_EQ(add_region("three"), TBS_ST_OK) << at;
        }
        stop(daemon, SIGKILL);
        return status != 0;
    });
    EXPECT_GT(steps, 10);
}

// The daemon is killed while it makes the copy or gives it out.
TEST_F(KillsOfBackup, OfTheDaemonAtASaveThroughItLeaveTheOneBeforeOrTheNewOne) {
    ASSERT_EQ(save().status, 0);
    add_regions({"three"});
    stop(daemon);
    std::filesystem::remove(site.path("armed"));
    const int steps = sweep(
        [&](int at) {
            start_alpha(killed_at(at));
            site.write("armed", "");
            const int status = veliactl({"registry", "save", saved(), "--timeout", "3"}).status;
            std::filesystem::remove(site.path("armed"));
            const bool is_killed = status != DONE;
            EXPECT_EQ(daemon->wait(is_killed ? 15 : 0), is_killed ? 128 + SIGKILL : -1) << at << status;
            daemon.reset();
            EXPECT_THAT(server({"--check-registry", saved()}).output, HasSubstr(is_killed ? "entries" : "3 entries"))
                << at;
            EXPECT_FALSE(std::filesystem::exists(saved() + ".new")) << at;
            start_alpha();
            EXPECT_EQ(names_of(RGY_DB_REGIONS), (Words{"one", "two", "three"})) << at;
            EXPECT_EQ(veliactl({"registry", "save", site.path("again")}).status, DONE) << at;
            for (const char *suffix : {".sent", ".sent.new", ".sent.new-journal"})
                EXPECT_FALSE(std::filesystem::exists(stored() + suffix)) << at << suffix;
            stop(daemon, SIGKILL);
            return is_killed;
        },
        17);
    EXPECT_GT(steps, 10);
}

// What the tool has asked the daemon for is in nobody's way, and what it leaves is replaced.
TEST_F(KillsOfBackup, OfTheToolAtASaveThroughTheDaemonLeaveTheOneBeforeOrTheNewOne) {
    ASSERT_EQ(save().status, 0);
    add_regions({"three"});
    int steps = 0;
    const int stride = getenv("VELIA_TEST_KILLS") != nullptr ? 1 : 4;
    for (int at = stride == 1 ? 1 : 2; at < 100; at += stride, steps += stride) { // 2: while the daemon gives it out
        const int status = veliactl({"registry", "save", saved()}, killed_at(at)).status;
        EXPECT_TRUE(status == DONE || status == 128 + SIGKILL) << at << " " << status;
        EXPECT_THAT(server({"--check-registry", saved()}).output, HasSubstr(status == DONE ? "3 entries" : "entries"))
            << at;
        EXPECT_TRUE(eventually([&] { return veliactl({"registry", "save", saved()}).status == DONE; }, 20)) << at;
        EXPECT_THAT(server({"--check-registry", saved()}).output, HasSubstr("3 entries")) << at;
        EXPECT_FALSE(std::filesystem::exists(saved() + ".new")) << at;
        if (status == DONE)
            break;
    }
    EXPECT_GT(steps, 3);
}

TEST_F(KillsOfBackup, AtACheckSpoilNothing) {
    stop(daemon, SIGKILL);
    sweep([&](int at) {
        const int status = server({"--check-registry"}, killed_at(at)).status;
        EXPECT_TRUE(status == 0 || status == 128 + SIGKILL) << at;
        EXPECT_THAT(server({"--check-registry"}).output, HasSubstr("is whole: 2 entries")) << at;
        return status != 0;
    });
    start_alpha();
    EXPECT_EQ(names_of(RGY_DB_REGIONS), before);
}

// What stood there has two names then, so that at no moment there is none.
TEST_F(KillsOfBackup, BetweenKeepingAndReplacingTheRegistryLeaveTheOneThatStood) {
    ASSERT_EQ(save().status, 0);
    add_regions({"three"});
    stop(daemon, SIGKILL);
    const std::string last_step = "rename " + stored() + ".restored " + stored();
    EXPECT_EQ(restore({"LD_PRELOAD=" WATCHED_FILES_PRELOAD, "FILES_NOTED=" + site.path("noted"),
                       "FILES_KILLED_AT=" + last_step, "ASAN_OPTIONS=verify_asan_link_order=0"})
                  .status,
              128 + SIGKILL);
    EXPECT_THAT(site.read("noted"), testing::EndsWith(last_step + "\n"));
    EXPECT_THAT(server({"--check-registry"}).output, HasSubstr("3 entries"));
    start_alpha();
    EXPECT_TRUE(comes_to_have("alpha", {"one", "two", "three"})) << daemon->output();
}

// A small file system that is full would need root; the limit of a file's size fails at the same calls.
TEST_F(KillsOfBackup, WithoutRoomASaveIsNoneAndToldAndTheOneBeforeStays) {
    ASSERT_EQ(save().status, 0);
    add_regions({"three"});
    const auto full =
        run_apart(site, {"/bin/sh", "-c", "ulimit -f 16; exec " RVZD_SERVER " --save-registry '" + saved() + "'"});
    EXPECT_EQ(full.status, 1);
    EXPECT_THAT(full.errors, HasSubstr("The registry was not saved in"));
    EXPECT_THAT(server({"--check-registry", saved()}).output, HasSubstr("2 entries"));
    EXPECT_FALSE(std::filesystem::exists(saved() + ".new"));
    stop(daemon);
    const auto restored =
        run_apart(site, {"/bin/sh", "-c", "ulimit -f 16; exec " RVZD_SERVER " --restore-registry '" + saved() + "'"});
    EXPECT_EQ(restored.status, 1);
    EXPECT_THAT(restored.errors, HasSubstr("The registry was not restored from"));
    start_alpha();
    EXPECT_TRUE(comes_to_have("alpha", {"one", "two", "three"})) << daemon->output();
}

} // namespace
