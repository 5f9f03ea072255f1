// What stands where a file should be, and is none: nobody waits for it, and everything that was served stays served.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>

#include <tests/bad_files.h>
#include <tests/system/support/client.h>
#include <tests/system/support/daemon.h>

using namespace velia::system_test;
using bad_files::BadFile;
using bad_files::Kind;
using testing::HasSubstr;

namespace {

constexpr uint32_t program = 390600;
constexpr Kind no_files[] = {Kind::pipe, Kind::written_pipe, Kind::endless_link, Kind::socket, Kind::sparse};

struct BadFiles : testing::Test {
    std::string refusal(const std::string &file, const std::string &words) const {
        return "Error reading from \"" + site.path(file) + "\": " + words + ".\n";
    }

    Site site;
};

} // namespace

TEST_F(BadFiles, InPlaceOfTheConfigurationAreRefusedAtTheStart) {
    for (const Kind kind : no_files) {
        const BadFile file(kind, site.path("rvzd_server.conf"));
        const auto outcome = run(site, daemon_words(site, {"--foreground"}));
        EXPECT_EQ(outcome.status, 1);
        EXPECT_THAT(outcome.output, HasSubstr("Read error in configuration file \"" + site.path("rvzd_server.conf") +
                                              "\" (line 1): " + bad_files::words(kind, 1 << 20) + "\n"));
    }
}

TEST_F(BadFiles, InPlaceOfTheConfigurationAtAReloadLeaveEverythingAsItWas) {
    site.configure(sample_line(program, "shared", "-"));
    Daemon daemon(site);
    ASSERT_EQ(echo("alpha", program, RVZD_PROTOCOL_UDP, "x"), "x");
    for (const Kind kind : no_files) {
        const std::string words = "(line 1): " + bad_files::words(kind, 1 << 20) + "\n";
        const BadFile file(kind, site.path("rvzd_server.conf"));
        const size_t before = daemon.count(words);
        daemon.signal(SIGHUP);
        EXPECT_TRUE(eventually([&] { return daemon.count(words) > before; })) << daemon.output();
        EXPECT_EQ(echo("alpha", program, RVZD_PROTOCOL_UDP, "y"), "y");
        EXPECT_EQ(daemon.started(1).size(), 1u);
    }
    site.configure(sample_line(program, "shared", "-") + sample_line(program + 1, "shared", "-"));
    const Handle handle;
    daemon.signal(SIGHUP);
    EXPECT_TRUE(eventually([&] { return find(handle, program + 1).status == TBS_ST_OK; })) << daemon.output();
}

TEST_F(BadFiles, InPlaceOfTheSitesHostsAreToldAndTheSystemIsAsked) {
    site.configure("");
    Daemon daemon(site);
    ASSERT_TRUE(daemon.is_ready());
    for (const Kind kind : no_files) {
        const BadFile file(kind, site.path("config/hosts.conf"));
        const auto outcome = run_apart(site, {VELIACTL, "contact", "127.0.0.1"});
        EXPECT_EQ(outcome.status, 0) << outcome.errors;
        EXPECT_THAT(outcome.errors, HasSubstr(refusal("config/hosts.conf", bad_files::words(kind, 16 << 20))));
    }
}

TEST_F(BadFiles, InPlaceOfTheSitesHostsDoNotKeepADaemonFromServing) {
    site.configure("");
    const BadFile hosts(Kind::pipe, site.path("config/hosts.conf"));
    Daemon daemon(site);
    ASSERT_TRUE(daemon.is_ready()) << daemon.output();
    EXPECT_EQ(Handle("127.0.0.1").status(), TBS_ST_OK) << daemon.output();
}

TEST_F(BadFiles, InPlaceOfTheRoleAreToldAndTheHostIsNoRegistryServer) {
    site.configure("");
    for (const Kind kind : no_files) {
        const std::string path = site.path("host/config/rgy_svr.conf");
        const BadFile file(kind, path);
        Daemon daemon(site);
        ASSERT_TRUE(daemon.is_ready()) << daemon.output();
        EXPECT_TRUE(daemon.says("Trouble loading registry server config file, \"" + path + "\".\n")) << daemon.output();
        EXPECT_TRUE(daemon.says("Error reading from \"" + path + "\": " + bad_files::words(kind, 1 << 20)))
            << daemon.output();
        EXPECT_EQ(Handle().status(), TBS_ST_OK);
        EXPECT_FALSE(std::filesystem::exists(site.path("host/priv/registry.db")));
    }
}

TEST_F(BadFiles, InPlaceOfTheClientListAreToldAndTheListBeginsEmpty) {
    site.configure("");
    const BadFile file(Kind::pipe, site.path("host/priv/clients"));
    Daemon daemon(site);
    ASSERT_TRUE(daemon.is_ready()) << daemon.output();
    EXPECT_TRUE(daemon.says("Unable to open client list file \"" + site.path("host/priv/clients") +
                            "\": Not a regular file.\n"))
        << daemon.output();
    EXPECT_EQ(Handle().status(), TBS_ST_OK);
}

TEST_F(BadFiles, InPlaceOfTheRegistryHostsAreToldByTheTool) {
    for (const Kind kind : no_files) {
        const BadFile file(kind, site.path("host/config/rgy_hosts.conf"));
        const auto outcome = run_apart(site, {VELIACTL, "registry", "hosts"});
        EXPECT_NE(outcome.status, 0);
        EXPECT_THAT(outcome.errors, HasSubstr(refusal("host/config/rgy_hosts.conf", bad_files::words(kind, 1 << 20))));
    }
}

TEST_F(BadFiles, EndlessPasswordIsRefused) {
    const auto outcome = run(site, {"/bin/sh", "-c", "'" RVZD_SERVER "' --set-registry-password </dev/zero"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_THAT(outcome.output, HasSubstr("The password is longer than 4095 bytes\n"));
    EXPECT_FALSE(std::filesystem::exists(site.path("host/priv/registry.db")));
}
