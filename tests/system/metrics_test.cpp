// The figures of a daemon over HTTP, and the forms of its log, as its configuration says.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <sstream>

#include <tests/exposition_page.h>
#include <tests/system/support/metrics_page.h>
#include <tests/system/support/registry_site.h>

using namespace velia::system_test;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;

namespace {

struct Metrics : RegistrySite {
    std::string path() const { return site.path("metrics"); }
    std::string page(const std::string &target = "/metrics") const { return page_at(path(), target); }
    void read_again(const std::string &configuration) const {
        const size_t before = daemon->count("is read again");
        site.configure(configuration + trusted_hosts);
        daemon->signal(SIGHUP);
        ASSERT_TRUE(eventually([&] { return daemon->count("is read again") > before; })) << daemon->output();
    }
};

} // namespace

TEST_F(Metrics, AreThoseOfTheStatusAndThereWhileTheConfigurationSaysSo) {
    start_alpha();
    EXPECT_EQ(page(), "") << "off by default";
    read_again("option metrics " + path() + "\n");
    ASSERT_EQ(add_region("one"), TBS_ST_OK);
    ASSERT_TRUE(eventually([&] { return page().find("\nvelia_registry_entries 1\n") != std::string::npos; }));
    const auto text = page();
    EXPECT_THAT(text, testing::StartsWith("HTTP/1.1 200 OK\r\n"));
    EXPECT_THAT(exposition_page::Page(text.substr(text.find("\r\n\r\n") + 4)).faults(), testing::IsEmpty());
    const auto status = objects({"daemon", "status", "alpha"})[0];
    EXPECT_THAT(text, HasSubstr("\nvelia_registry_role{role=\"master\"} 1\n"));
    EXPECT_THAT(text, HasSubstr("\nvelia_registry_takes_updates 1\n"));
    EXPECT_THAT(text, HasSubstr("\nvelia_registry_term " + status["term"].scalar + "\n"));
    EXPECT_THAT(text, HasSubstr("\nvelia_registry_size_bytes " + status["store_bytes"].scalar + "\n"));
    EXPECT_THAT(text, HasSubstr("\nvelia_request_duration_seconds_count{procedure=\"rgy_add_entry\"} 1\n"));
    EXPECT_THAT(page("/"), testing::StartsWith("HTTP/1.1 404 "));
    read_again("option metrics " + path() + "\n");
    EXPECT_EQ(daemon->count("The figures can be had at"), 1u) << "what is not changed goes on: " << daemon->output();
    read_again("");
    EXPECT_EQ(page(), "");
    EXPECT_FALSE(std::filesystem::exists(path()));
}

TEST_F(Metrics, GoWithTheirDaemon) {
    site.configure("option metrics " + path() + "\n" + trusted_hosts);
    start_alpha();
    EXPECT_THAT(page(), HasSubstr("velia_build_info{version="));
    EXPECT_TRUE(daemon->says("The figures can be had at \"" + path() + "\", as /metrics."));
    stop(daemon);
    EXPECT_FALSE(std::filesystem::exists(path()));
    start_alpha();
    EXPECT_THAT(page(), HasSubstr("velia_start_time_seconds "));
    stop(daemon, SIGKILL);
    EXPECT_TRUE(std::filesystem::exists(path())) << "nobody was there to remove it";
    start_alpha();
    EXPECT_THAT(page(), HasSubstr("velia_start_time_seconds ")) << daemon->output();
}

TEST_F(Metrics, OfAStandbyTellItsLag) {
    start_alpha();
    site.configure("option registry-copy 1\noption metrics " + path() + "\n" + trusted_hosts);
    start_beta();
    EXPECT_TRUE(eventually([&] { return page().find("\nvelia_registry_lag_seconds ") != std::string::npos; }));
    EXPECT_THAT(page(), HasSubstr("\nvelia_registry_copy_failing 0\n"));
    stop(daemon, SIGKILL);
    EXPECT_TRUE(eventually([&] { return page().find("\nvelia_registry_copy_failing 1\n") != std::string::npos; }));
}

struct LogForm : Metrics {};

TEST_F(LogForm, IsObjectsAndOfTheLevelThatTheConfigurationSays) {
    site.configure(std::string("option log-format json\n") + trusted_hosts);
    start_alpha();
    ASSERT_TRUE(daemon->says("\"message\":\"")) << daemon->output();
    std::istringstream lines(daemon->output());
    size_t objects = 0;
    for (std::string line; std::getline(lines, line); ++objects)
        EXPECT_THAT(line, MatchesRegex(R"(\{"time":".*Z","severity":"[a-z]+",.*"message":".*"\})"));
    EXPECT_GE(objects, 1u);
    site.configure("option log-level error\noption metrics " + path() + "\n");
    daemon->signal(SIGHUP);
    ASSERT_TRUE(eventually([&] { return !page().empty(); })) << "it was read";
    site.configure("nonsense\n");
    daemon->signal(SIGHUP);
    EXPECT_TRUE(daemon->says("rvzd_server: Error: ")) << daemon->output();
    EXPECT_EQ(daemon->count("is read again"), 0u);
}

TEST_F(LogForm, OfAStandbysCopierIsObjectsToo) {
    site.configure(std::string("option log-format json\noption registry-copy 1\n") + trusted_hosts);
    start_beta();
    EXPECT_TRUE(standby->says("\"severity\":\"error\"")) << standby->output();
    std::istringstream lines(standby->output());
    for (std::string line; std::getline(lines, line);)
        EXPECT_THAT(line, testing::StartsWith("{\"time\":"));
}
