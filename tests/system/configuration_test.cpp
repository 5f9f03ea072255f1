// The configuration file at start and at a reload, and the daemon's own start.
#include <gtest/gtest.h>

#include <csignal>
#include <sys/socket.h>
#include <sys/un.h>

#include <tests/system/support/client.h>
#include <tests/system/support/daemon.h>

using namespace velia::system_test;

namespace {

constexpr uint32_t program = 390600;

// A service manager's end of the notification protocol.
class NotificationSocket {
public:
    explicit NotificationSocket(const std::string &name)
        : name_(name), fd_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        name_.copy(address.sun_path, sizeof address.sun_path - 1);
        is_bound_ = bind(fd_, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0;
    }
    ~NotificationSocket() { close(fd_); }
    NotificationSocket(const NotificationSocket &) = delete;
    NotificationSocket &operator=(const NotificationSocket &) = delete;

    bool is_bound() const { return is_bound_; }
    std::string next() const {
        std::string text(256, '\0');
        ssize_t count = -1;
        eventually([&] { return (count = recv(fd_, text.data(), text.size(), MSG_DONTWAIT)) > 0; });
        text.resize(count > 0 ? static_cast<size_t>(count) : 0);
        return text;
    }

private:
    std::string name_;
    int fd_;
    bool is_bound_ = false;
};

} // namespace

TEST(Start, WithAFaultyFileTellsEveryFaultAndRefuses) {
    Site site;
    site.configure("sctp shared 390600 1 - - - /bin/true\n"
                   "# a comment\n"
                   "udp sometimes 390600 1 - - - /bin/true\n"
                   "udp shared\n");
    const auto outcome = run(site, daemon_words(site, {"--foreground"}));
    const auto file = site.path("rvzd_server.conf");
    EXPECT_EQ(outcome.status, 1);
    for (const std::string words :
         {"(line 1): Unknown protocol 'sctp'\n", "(line 3): Unknown server kind 'sometimes'\n",
          "(line 4): Incomplete service specification\n"})
        EXPECT_NE(outcome.output.find("Failure parsing configuration file \"" + file + "\" " + words),
                  std::string::npos)
            << outcome.output;
    EXPECT_NE(outcome.output.find("Exiting, status = 1\n"), std::string::npos);
}

TEST(Start, WithoutItsFileRefuses) {
    Site site;
    const auto outcome = run(site, daemon_words(site, {"--foreground"}));
    EXPECT_EQ(outcome.status, 1);
    EXPECT_NE(outcome.output.find("Can't read configuration file \"" + site.path("rvzd_server.conf") +
                                  "\": No such file or directory\n"),
              std::string::npos)
        << outcome.output;
}

TEST(Start, OfASecondDaemonOnTheSameAddressIsRefused) {
    Site site;
    site.configure("");
    Daemon first(site);
    ASSERT_TRUE(first.is_ready());
    const auto outcome = run(site, daemon_words(site, {"--foreground"}));
    EXPECT_EQ(outcome.status, 1);
    EXPECT_NE(outcome.output.find("server already running\n"), std::string::npos) << outcome.output;
}

TEST(Start, WithWrongSwitchesIsAWrongUse) {
    Site site;
    site.configure("");
    const std::vector<std::vector<std::string>> wrong = {
        {"--port", "0"}, {"--port", "70000"}, {"--ready-fd", "77"}, {"--ready-fd", "x"}, {"--no-such-switch"}};
    for (const auto &switches : wrong)
        EXPECT_EQ(run(site, daemon_words(site, switches)).status, 2) << switches.front();
    EXPECT_EQ(run(site, daemon_words(site, {"--foreground", "--listen", "no-such-host"})).status, 1);
    EXPECT_EQ(run(site, daemon_words(site, {"--help"})).status, 0);
}

TEST(Start, GoesToTheBackgroundOnceItServes) {
    Site site;
    site.configure(sample_line(program, "shared", "-"));
    const auto outcome = run(site, daemon_words(site, {"--pid-file", site.path("pid")}));
    EXPECT_EQ(outcome.status, 0) << outcome.output;
    // No waiting: the parent has ended, so the daemon serves.
    EXPECT_EQ(echo("alpha", program, RVZD_PROTOCOL_UDP, "x"), "x");
    const pid_t pid = std::stoi(site.read("pid"));
    EXPECT_TRUE(is_alive(pid));
    kill(pid, SIGTERM);
    EXPECT_TRUE(eventually([&] { return !is_alive(pid); }));
    EXPECT_FALSE(std::filesystem::exists(site.path("pid")));
    const auto log = site.read("log/rvzd_server_log");
    EXPECT_NE(log.find("Server up and running\n"), std::string::npos) << log;
    EXPECT_NE(log.find("Exiting, status = 0\n"), std::string::npos) << log;
    kill(pid, SIGKILL);
}

TEST(Start, InTheBackgroundThatFailsIsToldByItsStatus) {
    Site site;
    site.configure("");
    Daemon first(site);
    ASSERT_TRUE(first.is_ready());
    EXPECT_EQ(run(site, daemon_words(site, {})).status, 1);
}

TEST(Start, KeepsTheServiceManagerInformed) {
    Site site;
    site.configure("");
    const NotificationSocket manager(site.path("notify"));
    ASSERT_TRUE(manager.is_bound());
    Child::Options options;
    options.environment = {"NOTIFY_SOCKET=" + site.path("notify")};
    Daemon daemon(site, {}, options);
    ASSERT_TRUE(daemon.is_ready());
    EXPECT_EQ(manager.next(), "READY=1");
    daemon.signal(SIGHUP);
    EXPECT_EQ(manager.next().find("RELOADING=1\nMONOTONIC_USEC="), 0u);
    EXPECT_EQ(manager.next(), "READY=1");
    daemon.signal(SIGTERM);
    EXPECT_EQ(manager.next(), "STOPPING=1");
    EXPECT_EQ(daemon.wait(), 0);
}

TEST(Start, WhoseReadinessNobodyReadsServesAllTheSame) {
    Site site;
    site.configure("");
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    Child::Options options;
    options.inherited_fds = {ends[1]};
    close(ends[0]);
    Daemon daemon(site, {}, options); // its own descriptor is told, so this one is left over
    close(ends[1]);
    ASSERT_TRUE(daemon.is_ready());
    EXPECT_EQ(Handle().status(), TBS_ST_OK);
}

TEST(Start, AsAnOrdinaryUserServesAndStartsServers) {
    Site site;
    site.configure(sample_line(program, "shared", "-"));
    constexpr uid_t nobody = 65534;
    Child::Options options;
    if (getuid() == 0) {
        options.user = nobody;
        site.give_to(nobody);
    }
    site.write("daemon-1.out", "");
    std::filesystem::permissions(site.path("daemon-1.out"), std::filesystem::perms::all);
    Daemon daemon(site, {}, options);
    ASSERT_TRUE(daemon.is_ready()) << daemon.output();
    EXPECT_EQ(echo("alpha", program, RVZD_PROTOCOL_TCP, "x"), "x") << daemon.output();
}

TEST(Reload, TakesOverAGoodFile) {
    Site site;
    site.configure("");
    Daemon daemon(site);
    Handle handle;
    ASSERT_EQ(find(handle, program).status, TBS_ST_NOT_FOUND);
    site.configure(sample_line(program, "shared", "-"));
    daemon.signal(SIGHUP);
    EXPECT_TRUE(eventually([&] { return find(handle, program).status == TBS_ST_OK; })) << daemon.output();
}

TEST(Reload, OfAFaultyFileLeavesEverythingAsItWas) {
    Site site;
    site.configure(sample_line(program, "shared", "-"));
    Daemon daemon(site);
    ASSERT_EQ(echo("alpha", program, RVZD_PROTOCOL_UDP, "x"), "x");
    site.configure("udp,tcp shared zero 1 - - - /bin/true\n");
    daemon.signal(SIGHUP);
    EXPECT_TRUE(daemon.says("(line 1): Invalid RPC program number\n")) << daemon.output();
    EXPECT_EQ(echo("alpha", program, RVZD_PROTOCOL_UDP, "y"), "y");
    EXPECT_EQ(daemon.started(1).size(), 1u);
}

TEST(Reload, KeepsServersOfServicesThatStayAndEndsTheOthers) {
    Site site;
    site.configure(sample_line(program, "shared", "-") + sample_line(program + 1, "shared", "-"));
    Daemon daemon(site);
    ASSERT_EQ(echo("alpha", program, RVZD_PROTOCOL_UDP, "x"), "x");
    ASSERT_EQ(echo("alpha", program + 1, RVZD_PROTOCOL_UDP, "x"), "x");
    const auto pids = daemon.started(2);
    site.configure(sample_line(program, "shared", "-"));
    daemon.signal(SIGHUP);
    EXPECT_TRUE(eventually([&] { return !is_alive(pids.at(1)); })) << daemon.output();
    EXPECT_EQ(echo("alpha", program, RVZD_PROTOCOL_UDP, "y"), "y");
    EXPECT_TRUE(is_alive(pids.at(0)));
    Handle handle;
    EXPECT_EQ(find(handle, program + 1).status, TBS_ST_NOT_FOUND);
}
