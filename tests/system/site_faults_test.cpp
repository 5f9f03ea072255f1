// A site with a full disk, with a clock that is off, with hosts that are down: a clear word, and nothing that was
// acknowledged is lost.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>

#include <tests/system/support/registry_site.h>
#include <veliaxdr/rgy_role.h>

using namespace velia::system_test;
using testing::HasSubstr;

namespace {

struct SiteFaults : RegistrySite {
    const std::string unchecked = "ASAN_OPTIONS=verify_asan_link_order=0";

    Words full_disk() const {
        return {std::string("LD_PRELOAD=") + FULL_DISK_PRELOAD, "DISK_IS_FULL=" + site.path("full"), unchecked};
    }
    Words clock_ahead(int seconds) const {
        const std::string name = "ahead-by-" + std::to_string(seconds);
        site.write(name, std::to_string(seconds));
        return {std::string("LD_PRELOAD=") + SET_CLOCK_PRELOAD, "CLOCK_AHEAD=" + site.path(name), unchecked};
    }
    void start_beta_with(const Words &more) {
        Child::Options options;
        options.environment = on_beta();
        options.environment.insert(options.environment.end(), more.begin(), more.end());
        standby = std::make_unique<Daemon>(site, Words{"--listen", "127.0.0.2"}, options);
        ASSERT_TRUE(standby->is_ready()) << standby->output();
    }
    void set_full(bool is_full) const {
        if (is_full)
            site.write("full", "");
        else
            std::filesystem::remove(site.path("full"));
    }
    Outcome make_master(const char *host, const Words &more = {}) const {
        Words words = {"site", "master", host, "--output", "jsonl"};
        words.insert(words.end(), more.begin(), more.end());
        return veliactl(words);
    }
};

TEST_F(SiteFaults, AnImportToAFullDiskIsToldAndGoneOnWith) {
    start_alpha(full_disk());
    for (const Words &more : {Words{}, Words{"--atomic"}}) {
        std::string lines;
        for (int i = 0; i < 2000; ++i)
            lines += R"({"db":"regions","items":{"name":"n)" + std::to_string(i) + (more.empty() ? "" : "a") + "\"}}\n";
        site.write("site.jsonl", lines);
        Words import = {"registry", "import", site.path("site.jsonl")};
        import.insert(import.end(), more.begin(), more.end());
        set_full(true);
        const auto failed = veliactl(import);
        EXPECT_EQ(failed.status, FAILED);
        EXPECT_THAT(failed.errors, HasSubstr("Entries were not added"));
        EXPECT_EQ(names_of(RGY_DB_REGIONS)->size(), more.empty() ? 0u : 2000u) << "look-ups go on";
        set_full(false);
        EXPECT_EQ(veliactl(import).status, DONE) << daemon->output();
    }
    EXPECT_EQ(names_of(RGY_DB_REGIONS)->size(), 4000u) << "each once";
    stop(daemon, SIGKILL);
    start_alpha();
    EXPECT_EQ(names_of(RGY_DB_REGIONS)->size(), 4000u) << "what was acknowledged is there";
}

TEST_F(SiteFaults, AStandbyWithAFullDiskIsNotPromotedAndUpdatesGoOn) {
    start_alpha();
    ASSERT_EQ(add_region("one"), TBS_ST_OK);
    start_beta_with(full_disk());
    ASSERT_TRUE(comes_to_have("beta", {"one"})) << standby->output();
    set_full(true);
    const auto failed = make_master("beta", {"--timeout", "5"});
    EXPECT_NE(failed.status, DONE) << failed.output;
    EXPECT_NE(failed.errors, "");
    EXPECT_TRUE(eventually([] { return add_region("two") == TBS_ST_OK; })) << "by the former master";
    set_full(false);
    ASSERT_TRUE(comes_to_have("beta", {"one", "two"})) << standby->output();
    const auto again = make_master("beta");
    EXPECT_EQ(again.status, DONE) << again.errors;
    EXPECT_EQ(add_region("three", "beta"), TBS_ST_OK);
    EXPECT_TRUE(comes_to_have("alpha", {"one", "two", "three"})) << daemon->output();
}

TEST_F(SiteFaults, AClockAnHourOffChangesNothing) {
    start_alpha();
    Words names;
    for (const int ahead : {3600, -3600}) {
        start_beta_with(clock_ahead(ahead));
        names.push_back("n" + std::to_string(ahead));
        ASSERT_EQ(add_region(names.back()), TBS_ST_OK);
        ASSERT_TRUE(comes_to_have("beta", names)) << standby->output();
        ASSERT_TRUE(eventually([] { return state_of("beta").current > 0; }));
        EXPECT_LE(state_of("beta").now - state_of("beta").current, 60) << "by its own clock";
        const auto there = make_master("beta");
        ASSERT_EQ(there.status, DONE) << there.errors;
        names.push_back("at beta " + std::to_string(ahead));
        ASSERT_EQ(add_region(names.back(), "beta"), TBS_ST_OK);
        ASSERT_TRUE(comes_to_have("alpha", names)) << daemon->output();
        const auto back = make_master("alpha");
        ASSERT_EQ(back.status, DONE) << back.errors;
        EXPECT_EQ(add_region("refused", "beta"), TBS_ST_NO_SERVER);
        stop(standby);
    }
}

TEST_F(SiteFaults, AHostThatIsDownAmidTheHostsThatFollowIsToldWithItsCommand) {
    start_alpha();
    start_beta();
    ASSERT_EQ(add_region("one"), TBS_ST_OK);
    ASSERT_EQ(veliactl({"registry", "backup", "beta,six"}).status, DONE);
    ASSERT_TRUE(eventually([&] {
        return veliactl({"registry", "backup"}, on_beta()).output.find("six") != std::string::npos;
    }));
    site.write("host/config/rgy_hosts.conf", "alpha\nsix\n");
    const auto turned = make_master("beta");
    EXPECT_EQ(turned.status, FAILED);
    EXPECT_THAT(turned.output, HasSubstr("run there: veliactl registry hosts --master beta"));
    EXPECT_EQ(state_of("beta").role, RGY_SVR_MASTER);
    EXPECT_EQ(state_of("alpha").role, RGY_SVR_STANDBY);
    EXPECT_EQ(add_region("two", "beta"), TBS_ST_OK);
    EXPECT_TRUE(comes_to_have("alpha", {"one", "two"})) << "it is on the new master's list, too: " << daemon->output();
}

TEST_F(SiteFaults, AStandbyThatGoesDownAmidTheTurnLeavesTheMasterAsItWas) {
    start_alpha();
    site.configure(std::string("option registry-copy 3600\n") + trusted_hosts);
    start_beta();
    ASSERT_TRUE(eventually([] { return state_of("beta").current > 0; })) << "its copy at start is done";
    ASSERT_EQ(add_region("one"), TBS_ST_OK); // which beta does not have for an hour
    Child::Options options;
    options.output_file = site.path("steps");
    Child tool({VELIACTL, "site", "master", "beta", "--output", "jsonl", "--timeout", "5"}, options);
    ASSERT_TRUE(eventually([&] { return site.read("steps").find("\"hold\"") != std::string::npos; }));
    stop(standby, SIGKILL);
    const int status = tool.wait(30);
    EXPECT_TRUE(status == FAILED || status == UNREACHABLE) << status << site.read("steps");
    EXPECT_TRUE(eventually([] { return add_region("two") == TBS_ST_OK; })) << "updates are not held any more";
    EXPECT_EQ(state_of("alpha").role, RGY_SVR_MASTER);
}

} // namespace
