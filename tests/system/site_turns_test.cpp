// Several turns of one site at the same time: one is made, the others say that they are not, and no update is lost.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <thread>

#include <tests/system/support/registry_site.h>
#include <veliaxdr/rgy_role.h>

using namespace velia::system_test;
using testing::HasSubstr;
using testing::IsSupersetOf;

namespace {

struct SiteTurns : RegistrySite {
    std::unique_ptr<Daemon> third;

    void SetUp() override {
        RegistrySite::SetUp();
        site.write("config/hosts.conf", "alpha 127.0.0.1\nbeta 127.0.0.2\ngamma 127.0.0.3\n");
        for (const char *directory : {"gamma/host/config", "gamma/host/priv", "gamma/host/data", "gamma/log"})
            std::filesystem::create_directories(site.path(directory));
        std::filesystem::create_symlink(site.path("config"), site.path("gamma/config"));
        site.write("gamma/host/config/rgy_svr.conf", "standby");
        site.write("gamma/host/config/rgy_hosts.conf", "alpha\nbeta\n");
        start_alpha();
        ASSERT_EQ(add_region("one"), TBS_ST_OK);
        ASSERT_EQ(veliactl({"registry", "backup", "alpha,beta,gamma"}).status, DONE);
        start_beta();
        start_gamma();
        for (const char *host : {"beta", "gamma"})
            ASSERT_TRUE(comes_to_have(host, {"one"})) << host;
    }
    void start_gamma() {
        Child::Options options;
        options.environment = {"VELIA_ROOT=" + site.path("gamma"), "VELIA_HOSTNAME=gamma"};
        third = std::make_unique<Daemon>(site, Words{"--listen", "127.0.0.3"}, options);
        ASSERT_TRUE(third->is_ready()) << third->output();
    }
    Outcome make_master(const std::string &host, const Words &more = {}) const {
        Words words = {"site", "master", host, "--output", "jsonl"};
        words.insert(words.end(), more.begin(), more.end());
        return veliactl(words);
    }
    std::string logs() const { return daemon->output() + standby->output() + third->output(); }
    static Words masters() {
        Words names;
        for (const char *host : {"alpha", "beta", "gamma"})
            if (state_of(host).takes_updates)
                names.emplace_back(host);
        return names;
    }
};

TEST_F(SiteTurns, TwoToDifferentHostsAtOnceLoseNothingAndOneMasterIsLeft) {
    std::atomic<bool> is_enough = false;
    std::atomic<size_t> added = 0;
    Words acknowledged = {"one"};
    std::thread writer([&] { // not so fast that a host's share of remembered answers is full
        for (int i = 0; !is_enough; ++i, std::this_thread::sleep_for(std::chrono::milliseconds(5)))
            for (const char *host : {"alpha", "beta", "gamma"})
                if (const std::string name = host + std::to_string(i); add_region(name, host) == TBS_ST_OK) {
                    acknowledged.push_back(name);
                    ++added;
                }
    });
    const std::array<std::array<const char *, 2>, 4> rounds = {
        {{"beta", "gamma"}, {"gamma", "alpha"}, {"alpha", "beta"}, {"beta", "gamma"}}};
    for (const auto &hosts : rounds) {
        const size_t before = added;
        EXPECT_TRUE(eventually([&] { return added > before + 5; })) << logs();
        std::array<Outcome, 2> outcomes;
        std::thread other([&] { outcomes[1] = make_master(hosts[1]); });
        outcomes[0] = make_master(hosts[0]);
        other.join();
        for (const auto &outcome : outcomes)
            EXPECT_TRUE(outcome.status == DONE || !outcome.errors.empty()) << outcome.output;
        EXPECT_TRUE(outcomes[0].status == DONE || outcomes[1].status == DONE)
            << outcomes[0].errors << outcomes[1].errors << logs();
        EXPECT_TRUE(eventually([] { return masters().size() == 1; })) << testing::PrintToString(masters()) << logs();
        // The one that was refused may have begun behind the other; whoever won is followed by all.
        const Words left = masters();
        ASSERT_EQ(left.size(), 1u);
        const auto again = make_master(left[0]);
        EXPECT_EQ(again.status, DONE) << again.output << again.errors << outcomes[0].output << outcomes[0].errors
                                      << outcomes[1].output << outcomes[1].errors;
        EXPECT_EQ(masters(), left);
    }
    is_enough = true;
    writer.join();
    const Words left = masters();
    ASSERT_EQ(left.size(), 1u) << logs();
    EXPECT_THAT(names_of(RGY_DB_REGIONS, 100, left[0].c_str()).value_or(Words{}), IsSupersetOf(acknowledged)) << logs();
    for (const auto *log : {daemon.get(), standby.get(), third.get()})
        EXPECT_EQ(log->count("The site has two masters"), 0u) << log->output();
}

TEST_F(SiteTurns, OneToAnotherHostThanTheOneUnderWayIsRefused) {
    ASSERT_EQ(turn("alpha", RVZD_TURN_HOLD, 60, "beta#1"), TBS_ST_OK);
    const auto refused = make_master("gamma");
    EXPECT_EQ(refused.status, FAILED) << refused.output;
    EXPECT_THAT(refused.errors, HasSubstr("Another turn of the site is under way: host 'alpha' holds updates"));
    EXPECT_EQ(state_of("gamma").role, RGY_SVR_STANDBY);
    EXPECT_TRUE(daemon->says("A turn of the site to \"gamma\" is refused: one to \"beta\" is under way."));
    EXPECT_EQ(add_region("held"), TBS_ST_TRY_AGAIN) << "by the other one";
    EXPECT_EQ(make_master("beta").status, DONE) << "goes on with a turn that was broken off";
    EXPECT_EQ(masters(), Words{"beta"});
}

// A tool of before turns had names holds in the name of none.
TEST_F(SiteTurns, OneOfAnOlderToolIsOneByItself) {
    ASSERT_EQ(turn("alpha", RVZD_TURN_HOLD, 60), TBS_ST_OK);
    EXPECT_EQ(make_master("beta").status, FAILED);
    EXPECT_EQ(state_of("beta").role, RGY_SVR_STANDBY);
    ASSERT_EQ(turn("alpha", RVZD_TURN_RELEASE, 0), TBS_ST_OK);
    EXPECT_EQ(turn("alpha", RVZD_TURN_HOLD, 60, "beta#1"), TBS_ST_OK);
    EXPECT_EQ(turn("alpha", RVZD_TURN_HOLD, 60), TBS_ST_ALREADY_EXISTS);
    EXPECT_EQ(turn("alpha", RVZD_TURN_RELEASE, 0), TBS_ST_ALREADY_EXISTS);
    EXPECT_EQ(add_region("held"), TBS_ST_TRY_AGAIN);
}

// Else it would let updates in between what the other one has copied and its promotion.
TEST_F(SiteTurns, OneThatFailsDoesNotEndTheHoldOfAnotherToTheSameHost) {
    ASSERT_EQ(turn("alpha", RVZD_TURN_HOLD, 60, "beta#1"), TBS_ST_OK);
    ASSERT_EQ(turn("alpha", RVZD_TURN_HOLD, 60, "beta#2"), TBS_ST_OK);
    EXPECT_EQ(turn("alpha", RVZD_TURN_RELEASE, 0, "beta#2"), TBS_ST_OK);
    EXPECT_EQ(add_region("held"), TBS_ST_TRY_AGAIN);
    EXPECT_EQ(turn("alpha", RVZD_TURN_RELEASE, 0, "beta#1"), TBS_ST_OK);
    EXPECT_EQ(add_region("two"), TBS_ST_OK);
}

// Updates that it took then would be lost with the promotion.
TEST_F(SiteTurns, AMasterThatIsStartedAnewAmidOneGoesOnHoldingUpdates) {
    ASSERT_EQ(turn("alpha", RVZD_TURN_HOLD, 60, "beta#1"), TBS_ST_OK);
    for (const int signal_number : {SIGKILL, SIGTERM}) {
        stop(daemon, signal_number);
        start_alpha();
        EXPECT_EQ(add_region("held"), TBS_ST_TRY_AGAIN) << daemon->output();
        EXPECT_EQ(turn("alpha", RVZD_TURN_HOLD, 60, "gamma#1"), TBS_ST_ALREADY_EXISTS);
    }
    ASSERT_EQ(turn("alpha", RVZD_TURN_RELEASE, 0, "beta#1"), TBS_ST_OK);
    EXPECT_EQ(add_region("two"), TBS_ST_OK);
    stop(daemon, SIGKILL);
    start_alpha();
    EXPECT_EQ(add_region("three"), TBS_ST_OK) << "the end is noted, too";
    ASSERT_EQ(turn("alpha", RVZD_TURN_HOLD, 1, "beta#1"), TBS_ST_OK);
    stop(daemon, SIGKILL);
    start_alpha();
    EXPECT_TRUE(eventually([] { return add_region("four") == TBS_ST_OK; })) << "it ends by itself";
}

// It was promoted, and whoever made that turn went no further: what is acknowledged there since the third host has not.
TEST_F(SiteTurns, OneThatStandsBetweenItsHostsIsBroughtToItsEndFirst) {
    ASSERT_EQ(rvzd_rgy_svr_conf_change(own_handle("beta").get(), RGY_PROTOCOL_VERSION, RGY_CONF_PROMOTE, ""),
              TBS_ST_OK);
    ASSERT_EQ(add_region("two", "beta"), TBS_ST_OK);
    ASSERT_TRUE(eventually([] { return state_of("alpha").heard_term == 2; })) << logs();
    EXPECT_EQ(turn("alpha", RVZD_TURN_HOLD, 60), TBS_ST_ALREADY_EXISTS) << "nor by an older tool";
    const auto refused = make_master("gamma");
    EXPECT_EQ(refused.status, FAILED) << refused.output << logs();
    EXPECT_THAT(refused.errors, HasSubstr("brings that turn to its end first"));
    EXPECT_EQ(state_of("gamma").role, RGY_SVR_STANDBY);
    ASSERT_EQ(make_master("beta").status, DONE);
    const auto turned = make_master("gamma");
    ASSERT_EQ(turned.status, DONE) << turned.errors << logs();
    EXPECT_EQ(masters(), Words{"gamma"});
    EXPECT_EQ(names_of(RGY_DB_REGIONS, 100, "gamma"), (Words{"one", "two"}));
}

// The standby knows of the term that its source was superseded by, though it copies from neither.
TEST_F(SiteTurns, OneByForceBeginsATermAboveTheOneOfAMasterThatIsGone) {
    ASSERT_EQ(rvzd_rgy_svr_conf_change(own_handle("beta").get(), RGY_PROTOCOL_VERSION, RGY_CONF_PROMOTE, ""),
              TBS_ST_OK);
    ASSERT_TRUE(eventually([] { return state_of("alpha").heard_term == 2; })) << logs();
    stop(standby, SIGKILL);
    ASSERT_TRUE(eventually([] { return state_of("gamma").heard_term == 2; })) << logs();
    EXPECT_EQ(objects({"daemon", "status", "gamma"})[0]["superseded_by"].kind, Json::Kind::null);
    const auto forced = make_master("gamma", {"--force"});
    EXPECT_EQ(forced.status, FAILED) << "beta could not be turned";
    EXPECT_EQ(state_of("gamma").term, 3u);
    start_beta();
    EXPECT_TRUE(eventually([] { return state_of("beta").heard_term == 3; })) << logs();
    EXPECT_EQ(masters(), Words{"gamma"});
}

// As when the next one begins while this one still has its hosts to turn.
TEST_F(SiteTurns, OneThatIsOvertakenLeavesTheHostsToTheOther) {
    ASSERT_EQ(make_master("beta").status, DONE);
    ASSERT_EQ(make_master("alpha").status, DONE);
    ASSERT_EQ(rvzd_rgy_svr_conf_change(own_handle("beta").get(), RGY_PROTOCOL_VERSION, RGY_CONF_PROMOTE, ""),
              TBS_ST_OK);
    const auto behind = make_master("alpha");
    EXPECT_EQ(behind.status, FAILED) << behind.output;
    EXPECT_NE(behind.errors, "");
    EXPECT_EQ(state_of("beta").role, RGY_SVR_MASTER) << logs();
    ASSERT_EQ(make_master("beta").status, DONE);
    ASSERT_TRUE(comes_to_have("gamma", {"one"}));
    ASSERT_EQ(turn("beta", RVZD_TURN_HOLD, 60, "gamma#1"), TBS_ST_OK);
    site.write("gamma/host/config/rgy_hosts.conf", "gamma\n\n");
    const auto overtaken = make_master("beta");
    EXPECT_EQ(overtaken.status, FAILED) << overtaken.output;
    EXPECT_NE(overtaken.errors, "");
    EXPECT_EQ(site.read("gamma/host/config/rgy_hosts.conf"), "gamma\n\n");
}

} // namespace
