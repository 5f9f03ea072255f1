// Whose the daemon's files are to read and write.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <tests/system/support/daemon.h>
#include <tests/system/support/registry_calls.h>
#include <tests/system/support/speaker.h>
#include <veliaxdr/rgy_role.h>

using namespace velia;
using namespace velia::system_test;
using testing::HasSubstr;

namespace {

struct PrivateFiles : testing::Test {
    Site site;

    void SetUp() override {
        site.write("host/config/rgy_svr.conf", "master");
        site.write("host/config/rgy_hosts.conf", "alpha\n\n");
        site.configure("");
    }
    mode_t mode_of(const std::string &name) const {
        struct stat status = {};
        return lstat(site.path(name).c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
    }
};

} // namespace

TEST_F(PrivateFiles, AreNobodyElsesWhateverTheMask) {
    umask(0);
    Daemon daemon(site, {"--log-file", site.path("log/the_log"), "--pid-file", site.path("the_pid")});
    ASSERT_TRUE(daemon.is_ready());
    ASSERT_TRUE(names_of(RGY_DB_REGIONS)); // which enters this host in the client list
    ASSERT_TRUE(eventually([&] { return mode_of("host/priv/clients") != 0; }));
    for (const char *name : {"host/priv/registry.db", "host/priv/registry.db-wal", "host/priv/registry.db-shm",
                             "host/priv/clients", "log/the_log", "the_pid", "host/run/rvzd_server.lock"}) {
        EXPECT_NE(mode_of(name), 0U) << name;
        EXPECT_EQ(mode_of(name) & ~0640U, 0U) << name << " " << std::oct << mode_of(name);
    }
}

TEST_F(PrivateFiles, ThatWereOpenToOthersAreToldAndTightened) {
    site.write("host/priv/clients", "-dbversion=1.0;\n");
    site.write("log/the_log", "");
    chmod(site.path("host/priv/clients").c_str(), 0666);
    chmod(site.path("log/the_log").c_str(), 0644);
    Daemon daemon(site, {"--log-file", site.path("log/the_log")});
    ASSERT_TRUE(daemon.is_ready()) << daemon.output();
    EXPECT_EQ(mode_of("host/priv/clients"), 0640U);
    EXPECT_EQ(mode_of("log/the_log"), 0640U);
    EXPECT_TRUE(daemon.says("host/priv/clients\" was open to others, by the mode 0666")) << daemon.output();
    EXPECT_TRUE(daemon.says("log/the_log\" was open to others, by the mode 0644")) << daemon.output();
}

TEST_F(PrivateFiles, AreNotFoundThroughASymbolicLink) {
    for (const char *name : {"registry.db", "clients"}) {
        site.write("elsewhere", "");
        std::filesystem::create_symlink(site.path("elsewhere"), site.path(std::string("host/priv/") + name));
        const Daemon daemon(site);
        EXPECT_FALSE(daemon.is_ready()) << name;
        EXPECT_TRUE(daemon.says("it is a symbolic link")) << daemon.output();
        EXPECT_EQ(site.read("elsewhere"), "");
        std::filesystem::remove(site.path(std::string("host/priv/") + name));
    }
    std::filesystem::create_symlink(site.path("elsewhere"), site.path("log/the_log"));
    EXPECT_FALSE(Daemon(site, {"--log-file", site.path("log/the_log")}).is_ready());
    EXPECT_EQ(site.read("elsewhere"), "");
}

TEST_F(PrivateFiles, DoNotLeadAwayWhereALinkWasLaid) {
    site.write("elsewhere", "kept");
    std::filesystem::create_symlink(site.path("elsewhere"), site.path("the_pid.new"));
    const Daemon daemon(site, {"--pid-file", site.path("the_pid")});
    ASSERT_TRUE(daemon.is_ready()) << daemon.output();
    EXPECT_EQ(site.read("the_pid"), std::to_string(daemon.pid()) + "\n");
    EXPECT_EQ(site.read("elsewhere"), "kept");
}

// The clients of the host go by it.
TEST_F(PrivateFiles, AreNotWhatAllUsersRead) {
    const Daemon daemon(site);
    ASSERT_TRUE(daemon.is_ready()) << daemon.output();
    char host[] = "beta";
    const Speaker speaker(site, SpeaksOver::HOST, Claims::ROOT);
    ASSERT_EQ(speaker.ask(procedures::rgy_clnt_conf_change, {{}, RGY_PROTOCOL_VERSION, RGY_CONF_SET_HOST, host}),
              TBS_ST_OK);
    EXPECT_EQ(mode_of("host/config/rgy_hosts.conf"), 0644U);
}
