// Files that are replaced: the new one is on disk before it takes the name, and whoever is killed or finds the disk
// full on the way leaves the old one.
#include <gmock/gmock.h>

#include <csignal>

#include <tests/bad_files.h>
#include <tests/system/support/client.h>
#include <tests/system/support/veliactl.h>

using namespace velia::system_test;
using testing::HasSubstr;

namespace {

struct ReplacedFiles : VeliactlTest {
    // Where a replacement can break off: before its contents are on disk, and before it has its name.
    enum Step { ON_DISK, NAMED, DONE_WITH };

    static std::string line_of(Step step, const std::string &path) {
        return step == ON_DISK ? "fsync " + path + ".new" : "rename " + path + ".new " + path;
    }
    Words watched(Step step = DONE_WITH, const std::string &path = "") const {
        Words variables = {std::string("LD_PRELOAD=") + WATCHED_FILES_PRELOAD, "FILES_NOTED=" + site.path("noted"),
                           "ASAN_OPTIONS=verify_asan_link_order=0"};
        if (step != DONE_WITH)
            variables.push_back("FILES_KILLED_AT=" + line_of(step, path));
        return variables;
    }
    // In this order, and the directory behind them, without which the name may be lost again.
    void expect_noted(const std::string &path) const {
        const std::string noted = site.read("noted");
        const std::string directory = "fsync " + std::filesystem::path(path).parent_path().string() + "\n";
        const size_t on_disk = noted.find(line_of(ON_DISK, path) + "\n");
        const size_t named = noted.find(line_of(NAMED, path) + "\n");
        ASSERT_NE(on_disk, std::string::npos) << noted;
        ASSERT_NE(named, std::string::npos) << noted;
        EXPECT_LT(on_disk, named);
        EXPECT_NE(noted.find(directory, named), std::string::npos) << noted;
        EXPECT_EQ(noted.find("fsync " + path + "\n"), std::string::npos) << "written in place: " << noted;
    }
    Outcome change_hosts(const Words &environment) const {
        return veliactl({"registry", "hosts", "--backup", "gamma"}, environment);
    }
    // Whoever asks for the registry is noted by its host, with the host that was asked.
    void come_as_a_client() const {
        std::filesystem::remove_all(site.path("host/config/cache"));
        veliactl({"registry", "list", "regions", "--host", "alpha"});
    }
    std::unique_ptr<Daemon> start_daemon(const Words &arguments, const Words &environment) const {
        Child::Options options;
        options.environment = environment;
        return std::make_unique<Daemon>(site, arguments, options);
    }

    const std::string hosts = site.path("host/config/rgy_hosts.conf");
    const std::string clients = site.path("host/priv/clients");
    const std::string pid_file = site.path("pid");
};

TEST_F(ReplacedFiles, TheRegistryHostsAreOnDiskBeforeTheyAreNamed) {
    site.write("host/config/rgy_hosts.conf", "alpha\nbeta\n");
    const auto outcome = change_hosts(watched());
    EXPECT_EQ(outcome.status, DONE) << outcome.errors;
    EXPECT_EQ(site.read("host/config/rgy_hosts.conf"), "alpha\ngamma\n");
    expect_noted(hosts);
}

TEST_F(ReplacedFiles, TheRegistryHostsOfAKilledWriterAreTheOldOnes) {
    for (const Step step : {ON_DISK, NAMED}) {
        site.write("host/config/rgy_hosts.conf", "alpha\nbeta\n");
        EXPECT_EQ(change_hosts(watched(step, hosts)).status, 128 + SIGKILL);
        EXPECT_EQ(site.read("host/config/rgy_hosts.conf"), "alpha\nbeta\n");
    }
    EXPECT_EQ(change_hosts({}).status, DONE) << "what was left behind is no hindrance";
    EXPECT_EQ(site.read("host/config/rgy_hosts.conf"), "alpha\ngamma\n");
}

TEST_F(ReplacedFiles, TheRegistryHostsOfAFullDiskAreTheOldOnes) {
    site.write("host/config/rgy_hosts.conf", "alpha\nbeta\n");
    std::filesystem::create_symlink("/dev/full", hosts + ".new");
    const auto outcome = change_hosts({});
    EXPECT_EQ(outcome.status, FAILED);
    EXPECT_THAT(outcome.errors, HasSubstr("Unable to write file \"" + hosts + ".new\": No space left on device.\n"));
    EXPECT_EQ(site.read("host/config/rgy_hosts.conf"), "alpha\nbeta\n");
}

TEST_F(ReplacedFiles, TheClientListIsOnDiskBeforeItIsNamed) {
    site.configure("");
    const auto watched_daemon = start_daemon({}, watched());
    come_as_a_client();
    ASSERT_TRUE(eventually([&] { return std::filesystem::exists(clients); })) << watched_daemon->output();
    watched_daemon->signal(SIGTERM);
    EXPECT_EQ(watched_daemon->wait(), 0);
    expect_noted(clients);
}

TEST_F(ReplacedFiles, TheClientListOfAKilledDaemonIsTheOldOne) {
    const std::string former = "-dbversion=1.0;\n-address=127.0.0.9;-hostname=former;\n";
    for (const Step step : {ON_DISK, NAMED}) {
        site.write("host/priv/clients", former);
        site.configure("");
        const auto killed = start_daemon({}, watched(step, clients));
        come_as_a_client();
        killed->signal(SIGTERM);
        EXPECT_EQ(killed->wait(), 128 + SIGKILL) << killed->output();
        EXPECT_EQ(site.read("host/priv/clients"), former);
        serve("", {"--listen", "127.0.0.1"});
        EXPECT_EQ(veliactl({"clients", "lookup", "alpha", "alpha"}).status, DONE) << "who came is not lost";
        daemon.reset();
        std::filesystem::remove(site.path("host/priv/clients.journal.old"));
    }
}

TEST_F(ReplacedFiles, ThePidFileIsOnDiskBeforeItIsNamed) {
    site.configure("");
    const auto watched_daemon = start_daemon({"--pid-file", pid_file}, watched());
    EXPECT_EQ(site.read("pid"), std::to_string(watched_daemon->pid()) + "\n");
    EXPECT_FALSE(std::filesystem::exists(pid_file + ".new"));
    expect_noted(pid_file);
}

TEST_F(ReplacedFiles, ThePidFileOfAFullDiskIsTheOldOneAndTold) {
    site.configure("");
    site.write("pid", "17\n");
    Words environment = watched();
    environment.push_back("FILES_FULL_AT=fsync " + pid_file + ".new");
    const auto served = start_daemon({"--pid-file", pid_file}, environment);
    EXPECT_TRUE(served->is_ready()) << served->output();
    EXPECT_TRUE(served->says("Unable to open file \"" + pid_file + "\": No space left on device.\n"))
        << served->output();
    EXPECT_EQ(site.read("pid"), "17\n");
    EXPECT_FALSE(std::filesystem::exists(pid_file + ".new"));
}

TEST_F(ReplacedFiles, AKeptRegistryIsOnDiskBeforeItIsNamed) {
    site.write("host/config/rgy_svr.conf", "master");
    site.write("host/config/rgy_hosts.conf", "alpha\n\n");
    serve("", {"--listen", "127.0.0.1"});
    for (const char *directory : {"beta/host/config", "beta/host/priv", "beta/log"})
        std::filesystem::create_directories(site.path(directory));
    std::filesystem::create_symlink(site.path("config"), site.path("beta/config"));
    site.write("beta/host/config/rgy_svr.conf", "master");
    site.write("beta/host/config/rgy_hosts.conf", "alpha\n\n");
    Words environment = watched();
    environment.insert(environment.end(), {"VELIA_ROOT=" + site.path("beta"), "VELIA_HOSTNAME=beta"});
    const auto standby = start_daemon({"--listen", "127.0.0.2"}, environment);
    ASSERT_TRUE(standby->is_ready()) << standby->output();
    site.write("beta/host/config/rgy_svr.conf", "standby");
    const std::string kept = site.path("beta/host/priv/registry.db.old");
    ASSERT_TRUE(eventually([&] { return std::filesystem::exists(kept); })) << standby->output();
    ASSERT_TRUE(standby->says("is kept in \"" + kept + "\"")) << standby->output();
    expect_noted(kept);
}

} // namespace
