// The registry against a real daemon and its database: batches, updates of many at once, kills, loss.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <mutex>
#include <set>
#include <thread>

#include <tests/relay/relay.h>
#include <tests/system/support/daemon.h>
#include <tests/system/support/registry_calls.h>
#include <tests/system/support/registry_file.h>
#include <veliaxdr/rgy_site.h>
#include <veliaxdr/rvzd_hosts.h>

using namespace velia::system_test;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

struct Registry : testing::Test {
    Site site;
    std::unique_ptr<Daemon> daemon;

    void SetUp() override {
        site.write("host/config/rgy_svr.conf", "master");
        site.write("host/config/rgy_hosts.conf", "alpha\n\n");
        site.configure(trusted_hosts);
        start();
    }
    void start(std::vector<std::string> arguments = {}) {
        daemon = std::make_unique<Daemon>(site, std::move(arguments));
        ASSERT_TRUE(daemon->is_ready()) << daemon->output();
    }
    void kill_daemon() {
        daemon->signal(SIGKILL);
        daemon->wait();
    }
};

tbs_status_t add_once_by_tcp(const std::string &text) {
    rvzd_handle_t *handle = nullptr;
    auto status = rvzd_get_handle_prim_proto("alpha", RVZD_PROTOCOL_TCP, 1, 1, &handle);
    if (status != TBS_ST_OK)
        return status;
    rgy_dtm_pair_t stamps = {};
    status = rvzd_rgy_get_id(handle, RGY_DB_REGIONS, RGY_PROTOCOL_VERSION, &stamps);
    if (status == TBS_ST_OK)
        status = rvzd_rgy_add_entry(handle, RGY_DB_REGIONS, RGY_PROTOCOL_VERSION, &stamps, text.c_str());
    rvzd_free_handle(handle);
    return status;
}

} // namespace

TEST_F(Registry, AnEmptyDatabaseIsOneCallAndNoCursor) {
    rgy_cursor_t *cursor = nullptr;
    rgy_entry_t *entry = nullptr;
    int64_t count = 7;
    EXPECT_EQ(rgy_get_entry(RGY_DB_REGIONS, nullptr, nullptr, &cursor, 1, &entry, &count), TBS_ST_OK);
    EXPECT_EQ(count, 0);
    EXPECT_EQ(cursor, nullptr);
}

TEST_F(Registry, WhatWasAddedIsFoundByEachWay) {
    ASSERT_EQ(add(RGY_DB_VAULT_TAG, "-tag=/vaults/src;-region=east;-hostname=build7;-attributes=poolmap=/x,ro;"
                                    "-vault_replica=0b5f8a52-7d1a-4c39-9d54-1a2b3c4d5e6f;"),
              TBS_ST_OK);
    char buffer[64];
    int32_t ambiguous = 7;
    EXPECT_EQ(rgy_getstring_by_string(RGY_DB_VAULT_TAG, nullptr, "east", RGY_ITEM_TAG, "/vaults/src", RGY_ITEM_HOSTNAME,
                                      sizeof buffer, buffer, &ambiguous),
              TBS_ST_OK);
    EXPECT_STREQ(buffer, "build7");
    EXPECT_EQ(ambiguous, 0);
    tbs_uuid_t uuid;
    ASSERT_EQ(tbs_str_to_uuid("0b5f8a52-7d1a-4c39-9d54-1a2b3c4d5e6f", &uuid), TBS_ST_OK);
    EXPECT_EQ(rgy_getstring_by_uuid(RGY_DB_VAULT_TAG, nullptr, nullptr, RGY_ITEM_VAULT_REPLICA, &uuid, RGY_ITEM_TAG,
                                    sizeof buffer, buffer, &ambiguous),
              TBS_ST_OK);
    EXPECT_STREQ(buffer, "/vaults/src");
    EXPECT_EQ(rgy_getstring_by_string(RGY_DB_VAULT_TAG, nullptr, "west", RGY_ITEM_TAG, "/vaults/src", RGY_ITEM_HOSTNAME,
                                      sizeof buffer, buffer, &ambiguous),
              TBS_ST_NOT_FOUND);
    rgy_cursor_t *cursor = nullptr;
    rgy_entry_t *entries[2] = {};
    int64_t count = 0;
    EXPECT_EQ(rgy_findbyattr_entry(RGY_DB_VAULT_TAG, nullptr, nullptr, RGY_ITEM_ATTRIBUTES, "poolmap", "/x", &cursor, 2,
                                   entries, &count),
              TBS_ST_OK);
    ASSERT_EQ(count, 1);
    rgy_delete_entry(&entries[0]);
    rgy_close_cursor(&cursor);
    const char *patterns[] = {"/vaults/s*"};
    EXPECT_EQ(rgy_get_pattern_entry(RGY_DB_VAULT_TAG, nullptr, nullptr, patterns, 1, &cursor, 2, entries, &count),
              TBS_ST_OK);
    ASSERT_EQ(count, 1);
    rgy_delete_entry(&entries[0]);
    rgy_close_cursor(&cursor);
}

TEST_F(Registry, ALookUpSeesWhatWasChangedBeneathTheDaemon) {
    ASSERT_EQ(add(RGY_DB_REGIONS, "-name=r1;-title=before;"), TBS_ST_OK);
    rgy_cache_action(0);
    const auto title = [] {
        char buffer[64] = "";
        int32_t ambiguous = 0;
        EXPECT_EQ(rgy_getstring_by_string(RGY_DB_REGIONS, nullptr, nullptr, RGY_ITEM_NAME, "r1", RGY_ITEM_TITLE,
                                          sizeof buffer, buffer, &ambiguous),
                  TBS_ST_OK);
        return std::string(buffer);
    };
    EXPECT_EQ(title(), "before");
    change_registry(site, "UPDATE entry SET text = CAST('-name=r1;-title=after;' AS BLOB)");
    EXPECT_EQ(title(), "after");
}

TEST_F(Registry, BatchesOfLongEntriesAreCutToADatagramAndResumed) {
    std::vector<std::string> expected;
    for (int i = 0; i < 30; ++i) {
        expected.push_back(std::to_string(i) + std::string(900, 'x'));
        ASSERT_EQ(add(RGY_DB_REGIONS, name_entry(expected.back())), TBS_ST_OK);
    }
    EXPECT_EQ(names_of(RGY_DB_REGIONS, 1000), expected);
    EXPECT_EQ(names_of(RGY_DB_REGIONS, 1), expected);
    EXPECT_EQ(names_of(RGY_DB_REGIONS, 7), expected);
}

TEST_F(Registry, RemovingByStringTakesWhatEveryBatchFinds) {
    for (int i = 0; i < 45; ++i)
        ASSERT_EQ(add(RGY_DB_CT_SERVERS, "-name=" + std::to_string(i) + ";-type=old;"), TBS_ST_OK);
    EXPECT_EQ(rgy_remove_by_string(RGY_DB_CT_SERVERS, nullptr, nullptr, RGY_ITEM_TYPE, "old"), TBS_ST_OK);
    EXPECT_EQ(names_of(RGY_DB_CT_SERVERS), std::vector<std::string>());
    EXPECT_EQ(rgy_remove_by_string(RGY_DB_CT_SERVERS, nullptr, nullptr, RGY_ITEM_TYPE, "old"), TBS_ST_NOT_FOUND);
}

TEST_F(Registry, AStaleStampIsRefusedAndTheSecondTryGetsIn) {
    const auto handle = own_handle("alpha");
    rgy_dtm_pair_t stamps = {};
    ASSERT_EQ(rvzd_rgy_get_id(handle.get(), RGY_DB_REGIONS, RGY_PROTOCOL_VERSION, &stamps), TBS_ST_OK);
    ASSERT_EQ(add(RGY_DB_REGIONS, name_entry("first")), TBS_ST_OK);
    EXPECT_EQ(rvzd_rgy_add_entry(handle.get(), RGY_DB_REGIONS, RGY_PROTOCOL_VERSION, &stamps, "-name=second;"),
              TBS_ST_STALE_ID);
    EXPECT_EQ(add(RGY_DB_REGIONS, name_entry("second")), TBS_ST_OK);
    EXPECT_EQ(add(RGY_DB_REGIONS, name_entry("second")), TBS_ST_ALREADY_EXISTS);
}

TEST_F(Registry, NobodyMayNotChangeAnything) {
    const auto handle = own_handle("alpha", 0);
    rgy_dtm_pair_t stamps = {};
    ASSERT_EQ(rvzd_rgy_get_id(handle.get(), RGY_DB_REGIONS, RGY_PROTOCOL_VERSION, &stamps), TBS_ST_OK);
    EXPECT_EQ(rvzd_rgy_add_entry(handle.get(), RGY_DB_REGIONS, RGY_PROTOCOL_VERSION, &stamps, "-name=x;"),
              TBS_ST_NO_ACCESS);
    EXPECT_EQ(rvzd_rgy_remove_entry(handle.get(), RGY_DB_REGIONS, RGY_PROTOCOL_VERSION, &stamps, 1), TBS_ST_NO_ACCESS);
}

TEST_F(Registry, AHostWithoutTheRoleAnswersThatItIsNoServer) {
    kill_daemon();
    site.write("host/config/rgy_svr.conf", "not a server");
    start();
    const auto handle = own_handle("alpha");
    rgy_dtm_pair_t stamps = {};
    EXPECT_EQ(rvzd_rgy_get_id(handle.get(), RGY_DB_REGIONS, RGY_PROTOCOL_VERSION, &stamps), TBS_ST_NO_SERVER);
}

TEST_F(Registry, AStandbyAnswersReadersAndTakesUpdatesOnceItIsPromoted) {
    ASSERT_EQ(add(RGY_DB_REGIONS, name_entry("before")), TBS_ST_OK);
    kill_daemon();
    site.write("host/config/rgy_svr.conf", "standby");
    start();
    EXPECT_EQ(names_of(RGY_DB_REGIONS), std::vector<std::string>{"before"});
    EXPECT_EQ(add(RGY_DB_REGIONS, name_entry("refused")), TBS_ST_NO_SERVER);
    const auto handle = own_handle("alpha", 0);
    EXPECT_EQ(rvzd_rgy_svr_conf_change(handle.get(), RGY_PROTOCOL_VERSION, 13, ""), TBS_ST_UNSUPPORTED);
    EXPECT_EQ(rvzd_rgy_svr_conf_change(handle.get(), RGY_PROTOCOL_VERSION, 12, ""), TBS_ST_OK);
    EXPECT_EQ(site.read("host/config/rgy_svr.conf"), "master");
    EXPECT_EQ(add(RGY_DB_REGIONS, name_entry("after")), TBS_ST_OK);
    EXPECT_EQ(rvzd_rgy_svr_conf_change(handle.get(), RGY_PROTOCOL_VERSION, 12, ""), TBS_ST_UNSUPPORTED);
    EXPECT_EQ(rvzd_rgy_svr_conf_change(handle.get(), RGY_PROTOCOL_VERSION, 13, ""), TBS_ST_OK);
    EXPECT_EQ(add(RGY_DB_REGIONS, name_entry("late")), TBS_ST_NO_SERVER);
    EXPECT_EQ(rvzd_rgy_svr_conf_change(handle.get(), RGY_PROTOCOL_VERSION, 14, ""), TBS_ST_INVALID_ARG);
}

TEST_F(Registry, TheHostsFileIsChangedAndItsFormerStateKept) {
    const auto handle = own_handle("alpha", 0);
    const auto change = [&](int64_t op, const std::string &host) {
        return rvzd_rgy_clnt_conf_change(handle.get(), RGY_PROTOCOL_VERSION, op, host.c_str());
    };
    EXPECT_EQ(change(11, "beta"), TBS_ST_OK);
    EXPECT_EQ(site.read("host/config/rgy_hosts.conf"), "alpha\nbeta\n");
    EXPECT_EQ(change(10, std::string(63, 'h')), TBS_ST_OK);
    EXPECT_EQ(site.read("host/config/rgy_hosts.conf"), std::string(63, 'h') + "\nbeta\n");
    EXPECT_EQ(site.read("host/config/rgy_hosts.conf.old"), "alpha\nbeta\n");
    EXPECT_EQ(change(10, std::string(64, 'h')), TBS_ST_ERROR);
    EXPECT_EQ(change(10, "two words"), TBS_ST_ERROR);
    EXPECT_EQ(change(9, "x"), TBS_ST_ERROR);
    EXPECT_EQ(change(10, ""), TBS_ST_OK);
    EXPECT_EQ(site.read("host/config/rgy_hosts.conf"), "\nbeta\n");
}

TEST_F(Registry, TheRoleIsTakenAgainWithTheConfiguration) {
    site.write("host/config/rgy_svr.conf", "not a server");
    daemon->signal(SIGHUP);
    const auto handle = own_handle("alpha");
    rgy_dtm_pair_t stamps = {};
    const auto answer = [&] { return rvzd_rgy_get_id(handle.get(), RGY_DB_REGIONS, RGY_PROTOCOL_VERSION, &stamps); };
    EXPECT_TRUE(eventually([&] { return answer() == TBS_ST_NO_SERVER; }));
    site.write("host/config/rgy_svr.conf", "master");
    daemon->signal(SIGHUP);
    EXPECT_TRUE(eventually([&] { return answer() == TBS_ST_OK; }));
}

// What a writer leaves behind that is killed before it has written, or amid its word.
TEST_F(Registry, AHalfWrittenRoleIsToldAndTheLastOneGoesOnAfterARestart) {
    ASSERT_EQ(add(RGY_DB_REGIONS, name_entry("before")), TBS_ST_OK);
    for (const char *left : {"", "mas"}) {
        kill_daemon();
        site.write("host/config/rgy_svr.conf", left);
        start();
        EXPECT_EQ(names_of(RGY_DB_REGIONS), std::vector<std::string>{"before"}) << daemon->output();
        EXPECT_TRUE(daemon->says("Warning: There is no registry server type in \"" +
                                 site.path("host/config/rgy_svr.conf") +
                                 "\"; this host goes on as the last one: master.\n"))
            << daemon->output();
        EXPECT_EQ(site.read("host/config/rgy_svr.conf"), left);
    }
    EXPECT_EQ(add(RGY_DB_REGIONS, name_entry("after")), TBS_ST_OK);
}

TEST_F(Registry, AnEmptiedRoleChangesNothingWhileTheDaemonRuns) {
    site.write("host/config/rgy_svr.conf", "");
    EXPECT_TRUE(daemon->says("this host goes on as the last one: master.\n")) << daemon->output();
    EXPECT_EQ(add(RGY_DB_REGIONS, name_entry("one")), TBS_ST_OK);
}

TEST_F(Registry, AMasterThatSteppedDownIsNoneAgainByAHalfWrittenRole) {
    ASSERT_EQ(rvzd_rgy_svr_conf_change(own_handle("alpha", 0).get(), RGY_PROTOCOL_VERSION, 13, ""), TBS_ST_OK);
    site.write("host/config/rgy_svr.conf", "sla");
    kill_daemon();
    start();
    EXPECT_TRUE(daemon->says("this host goes on as the last one: not a server.\n")) << daemon->output();
    EXPECT_EQ(names_of(RGY_DB_REGIONS), std::nullopt);
}

TEST_F(Registry, ARemovedRoleIsNoneAndIsRememberedAsThat) {
    site.write("host/config/rgy_svr.conf", "not a server");
    EXPECT_TRUE(eventually([] { return names_of(RGY_DB_REGIONS) == std::nullopt; }));
    kill_daemon();
    std::filesystem::remove(site.path("host/config/rgy_svr.conf"));
    start();
    EXPECT_EQ(daemon->count("goes on as the last one"), 0u);
    kill_daemon();
    site.write("host/config/rgy_svr.conf", "");
    start();
    EXPECT_TRUE(daemon->says("this host goes on as the last one: not a server.\n")) << daemon->output();
    EXPECT_EQ(names_of(RGY_DB_REGIONS), std::nullopt);
}

TEST_F(Registry, AHostThatNeverHadARoleHasNoneByAnEmptyFile) {
    kill_daemon();
    std::filesystem::remove_all(site.path("host/priv"));
    std::filesystem::create_directory(site.path("host/priv"));
    site.write("host/config/rgy_svr.conf", "");
    start();
    EXPECT_TRUE(daemon->says("this host goes on as the last one: not a server.\n")) << daemon->output();
    EXPECT_EQ(names_of(RGY_DB_REGIONS), std::nullopt);
    EXPECT_FALSE(std::filesystem::exists(site.path("host/priv/registry.db")));
}

TEST_F(Registry, WhatWasAcknowledgedSurvivesAKillAtAnyMoment) {
    std::set<std::string> acknowledged;
    for (int round = 0; round < 5; ++round) {
        std::atomic<int> adds = 0;
        std::atomic<bool> is_killed = false;
        std::thread killer([&] {
            eventually([&] { return adds >= 7; }, 60);
            daemon->signal(SIGKILL);
            is_killed = true;
        });
        // Over TCP the end of the daemon is seen at once. The first call of a round may still meet the connection to
        // the daemon before.
        for (int i = 0; !is_killed; ++i) {
            const std::string name = std::to_string(round) + "-" + std::to_string(i);
            if (add_once_by_tcp(name_entry(name)) != TBS_ST_OK)
                continue;
            acknowledged.insert(name);
            ++adds;
        }
        killer.join();
        daemon->wait();
        start();
    }
    const auto names = names_of(RGY_DB_REGIONS);
    ASSERT_TRUE(names);
    const std::set<std::string> kept(names->begin(), names->end());
    EXPECT_EQ(kept.size(), names->size());
    for (const auto &name : acknowledged)
        EXPECT_TRUE(kept.count(name)) << name;
    EXPECT_GE(acknowledged.size(), 35u);
    // At most the one that was under way in each round was kept without its acknowledgement.
    EXPECT_LE(kept.size(), acknowledged.size() + 5);
}

TEST_F(Registry, AScanWhoseMasterStopsFailsAndACommandAfterItsReturnSucceeds) {
    for (int i = 0; i < 10; ++i)
        ASSERT_EQ(add(RGY_DB_REGIONS, name_entry(std::to_string(i))), TBS_ST_OK);
    rgy_cursor_t *cursor = nullptr;
    rgy_entry_t *entries[4] = {};
    int64_t count = 0;
    ASSERT_EQ(rgy_get_entry(RGY_DB_REGIONS, nullptr, nullptr, &cursor, 4, entries, &count), TBS_ST_OK);
    for (size_t i = 0; i < 4; ++i)
        rgy_delete_entry(&entries[i]);
    kill_daemon();
    testing::internal::CaptureStderr();
    EXPECT_EQ(rgy_get_entry(RGY_DB_REGIONS, nullptr, nullptr, &cursor, 4, entries, &count), TBS_ST_ERROR);
    EXPECT_THAT(testing::internal::GetCapturedStderr(),
                testing::HasSubstr("Trouble contacting registry on host \"alpha\""));
    start();
    // The server keeps nothing of a fetch, so the same cursor goes on where it stood.
    ASSERT_NE(cursor, nullptr);
    ASSERT_EQ(rgy_get_entry(RGY_DB_REGIONS, nullptr, nullptr, &cursor, 4, entries, &count), TBS_ST_OK);
    ASSERT_EQ(count, 4);
    EXPECT_EQ(text_of(entries[0], RGY_ITEM_NAME), "4");
    for (size_t i = 0; i < 4; ++i)
        rgy_delete_entry(&entries[i]);
    rgy_close_cursor(&cursor);
}

// Three hosts: a master, a standby with a copy of its data, and the client that this process is.
TEST_F(Registry, WhenTheMasterStopsDuringAScanTheStandbyStillAnswersWhoAsksIt) {
    kill_daemon();
    start({"--listen", "127.0.0.1"});
    std::vector<std::string> expected;
    for (int i = 0; i < 10; ++i) {
        expected.push_back(std::to_string(i));
        ASSERT_EQ(add(RGY_DB_REGIONS, name_entry(expected.back())), TBS_ST_OK);
    }
    const std::filesystem::path standby_root = site.path("standby");
    std::filesystem::create_directories(standby_root / "log");
    std::filesystem::copy(site.path("config"), standby_root / "config", std::filesystem::copy_options::recursive);
    for (const char *directory : {"host/config", "host/priv"}) {
        std::filesystem::create_directories(standby_root / directory);
        std::filesystem::copy(site.path(directory), standby_root / directory, std::filesystem::copy_options::recursive);
    }
    site.write("standby/host/config/rgy_svr.conf", "standby");
    Child::Options options;
    options.environment = {"VELIA_ROOT=" + standby_root.string(), "VELIA_HOSTNAME=beta"};
    Daemon standby(site, {"--listen", "127.0.0.2"}, options);
    ASSERT_TRUE(standby.is_ready()) << standby.output();

    rgy_cursor_t *cursor = nullptr;
    rgy_entry_t *entries[4] = {};
    int64_t count = 0;
    ASSERT_EQ(rgy_get_entry(RGY_DB_REGIONS, nullptr, nullptr, &cursor, 4, entries, &count), TBS_ST_OK);
    for (size_t i = 0; i < 4; ++i)
        rgy_delete_entry(&entries[i]);
    kill_daemon();
    // A fetch stays on its host; the client does not fail over by itself.
    EXPECT_EQ(rgy_get_entry(RGY_DB_REGIONS, nullptr, nullptr, &cursor, 4, entries, &count), TBS_ST_ERROR);
    EXPECT_EQ(rgy_get_entry(RGY_DB_REGIONS, "beta", nullptr, &cursor, 4, entries, &count), TBS_ST_INVALID_ARG);
    rgy_close_cursor(&cursor);
    EXPECT_EQ(names_of(RGY_DB_REGIONS, 3, "beta"), expected);
    EXPECT_EQ(add(RGY_DB_REGIONS, name_entry("late"), "beta"), TBS_ST_NO_SERVER);
}

TEST_F(Registry, ConcurrentThreadsAndAnUpdaterLoseNothing) {
    constexpr int readers = 64;
    constexpr int additions = 40;
    for (int i = 0; i < readers; ++i)
        ASSERT_EQ(
            add(RGY_DB_REGIONS, name_entry("seed" + std::to_string(i)) + "-title=right" + std::to_string(i) + ";"),
            TBS_ST_OK);
    // Another process adds at the same time and makes stamps stale.
    Child::Options options;
    options.output_file = site.path("updater.out");
    Child updater({"/bin/sh", "-c",
                   "for i in $(seq " + std::to_string(additions) +
                       "); do '" VELIACTL "' registry add domains domain=other$i >/dev/null || exit 1; done"},
                  options);
    std::atomic<int> wrong = 0;
    std::atomic<int> added = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < readers; ++i)
        threads.emplace_back([&, i] {
            char title[64];
            for (int round = 0; round < 3; ++round) {
                const std::string name = "seed" + std::to_string(i);
                const auto status = rgy_getstring_by_string(RGY_DB_REGIONS, nullptr, nullptr, RGY_ITEM_NAME,
                                                            name.c_str(), RGY_ITEM_TITLE, sizeof title, title, nullptr);
                wrong += status != TBS_ST_OK || title != "right" + std::to_string(i);
            }
            added += add(RGY_DB_DOMAINS, "-domain=own" + std::to_string(i) + ";") == TBS_ST_OK;
        });
    for (auto &thread : threads)
        thread.join();
    EXPECT_EQ(updater.wait(60), 0) << site.read("updater.out");
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(added, readers);
    std::set<std::string> domains;
    rgy_cursor_t *cursor = nullptr;
    std::array<rgy_entry_t *, 50> entries = {};
    do {
        int64_t count = 0;
        ASSERT_EQ(rgy_get_entry(RGY_DB_DOMAINS, nullptr, nullptr, &cursor, entries.size(), entries.data(), &count),
                  TBS_ST_OK);
        for (size_t i = 0; cursor != nullptr && i < static_cast<size_t>(count); ++i) {
            EXPECT_TRUE(domains.insert(text_of(entries[i], RGY_ITEM_DOMAIN)).second);
            rgy_delete_entry(&entries[i]);
        }
    } while (cursor != nullptr);
    EXPECT_THAT(domains, SizeIs(readers + additions));
}

TEST_F(Registry, WithOneDatagramInFiveLostEverythingStillArrivesOnce) {
    kill_daemon();
    start({"--listen", "127.0.0.1"});
    site.write("config/hosts.conf", "alpha 127.0.0.1\nlossy 127.0.0.9\n");
    velia::relay::Plan plan;
    plan.listen = velia::relay::parse_address("127.0.0.9:" + std::to_string(site.port()));
    plan.server = velia::relay::parse_address(std::to_string(site.port()));
    plan.harms.dropped = 0.2;
    const velia::relay::RelayThread relay(plan);
    for (int i = 0; i < 5; ++i)
        ASSERT_EQ(add(RGY_DB_REGIONS, name_entry(std::to_string(i)), "lossy"), TBS_ST_OK) << i;
    const auto names = names_of(RGY_DB_REGIONS, 3, "lossy");
    ASSERT_TRUE(names);
    EXPECT_THAT(*names, SizeIs(5));
    EXPECT_GT(relay.tally()[velia::relay::Event::dropped], 0u);
}

TEST_F(Registry, ThePasswordIsSetOnTheHostAndCheckedFromAfar) {
    const auto handle = own_handle("alpha");
    const auto check = [&](const char *password) {
        return rvzd_rgy_chk_access(handle.get(), RGY_DB_VAULT_TAG, RGY_PROTOCOL_VERSION, 1000, password);
    };
    EXPECT_EQ(check("secret"), TBS_ST_NOT_FOUND);
    const auto outcome = run(site, {"/bin/sh", "-c", "printf 'secret\\n' | '" RVZD_SERVER "' --set-registry-password"});
    EXPECT_EQ(outcome.status, 0) << outcome.output;
    EXPECT_EQ(check("secret"), TBS_ST_OK);
    EXPECT_EQ(check("Secret"), TBS_ST_NO_ACCESS);
}

TEST_F(Registry, ReadersAreEnteredInTheClientListAndItSurvivesARestart) {
    ASSERT_TRUE(names_of(RGY_DB_REGIONS)); // registers this host on the way
    const auto entry_of_this_host = [] {
        const auto handle = own_handle("alpha", 0);
        clnt_entry_t entry = {};
        const auto status = rvzd_clnt_list_lookup(handle.get(), "alpha", &entry);
        if (status == TBS_ST_OK)
            rvzd_clnt_list_lookup_free(handle.get(), &entry);
        return status;
    };
    EXPECT_EQ(entry_of_this_host(), TBS_ST_OK);
    daemon->signal(SIGTERM);
    ASSERT_EQ(daemon->wait(), 0) << daemon->output();
    start();
    EXPECT_EQ(entry_of_this_host(), TBS_ST_OK);
}

// Nothing is served empty that was not, and whoever wants to begin anew says so.
TEST_F(Registry, OneThatIsGoneIsNeitherServedEmptyNorBegunAnewByItself) {
    ASSERT_EQ(add(RGY_DB_REGIONS, name_entry("kept")), TBS_ST_OK);
    daemon->signal(SIGTERM);
    ASSERT_EQ(daemon->wait(), 0);
    std::filesystem::rename(site.path("host/priv/registry.db"), site.path("away"));
    start();
    EXPECT_TRUE(daemon->says("the file is gone, and a registry was there")) << daemon->output();
    EXPECT_EQ(names_of(RGY_DB_REGIONS), std::nullopt);
    std::filesystem::rename(site.path("away"), site.path("host/priv/registry.db"));
    daemon->signal(SIGHUP);
    EXPECT_TRUE(eventually([] { return names_of(RGY_DB_REGIONS) == std::vector<std::string>{"kept"}; }));
    daemon->signal(SIGTERM);
    ASSERT_EQ(daemon->wait(), 0);
    std::filesystem::remove(site.path("host/priv/registry.db"));
    std::filesystem::remove(site.path("host/priv/registry.db.made"));
    start();
    EXPECT_EQ(names_of(RGY_DB_REGIONS), std::vector<std::string>{});
}

// What is acknowledged is there after a restart, too.
TEST_F(Registry, AnUpdateIsRefusedWhenTheFileWasTakenAwayUnderTheDaemon) {
    ASSERT_EQ(add(RGY_DB_REGIONS, name_entry("kept")), TBS_ST_OK);
    std::filesystem::create_directory(site.path("away"));
    const auto move_all = [&](const char *from, const char *to) {
        for (const char *name : {"registry.db", "registry.db-wal", "registry.db-shm"})
            if (std::filesystem::exists(site.path(from) + "/" + name))
                std::filesystem::rename(site.path(from) + "/" + name, site.path(to) + "/" + name);
    };
    move_all("host/priv", "away");
    EXPECT_EQ(add(RGY_DB_REGIONS, name_entry("lost")), TBS_ST_ERROR);
    EXPECT_TRUE(daemon->says("the file was taken away under the daemon")) << daemon->output();
    daemon->signal(SIGHUP);
    EXPECT_TRUE(daemon->says("the file is gone, and a registry was there")) << daemon->output();
    EXPECT_TRUE(eventually([] { return names_of(RGY_DB_REGIONS) == std::nullopt; }));
    move_all("away", "host/priv");
    daemon->signal(SIGHUP);
    EXPECT_TRUE(eventually([] { return names_of(RGY_DB_REGIONS) == std::vector<std::string>{"kept"}; }))
        << daemon->output();
    EXPECT_EQ(add(RGY_DB_REGIONS, name_entry("more")), TBS_ST_OK);
}
