// The daemon and its servers: who ends whom, and when.
#include <gtest/gtest.h>

#include <csignal>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <tests/system/support/client.h>
#include <tests/system/support/daemon.h>
#include <tests/system/support/veliactl.h>
#include <veliaxdr/rvzd_svr.h>

using namespace velia::system_test;

namespace {

constexpr uint32_t program = 390600;

struct Supervision : testing::Test {
    Site site;
    std::unique_ptr<Daemon> daemon;

    void serve(const std::string &configuration) {
        site.configure(configuration);
        daemon = std::make_unique<Daemon>(site);
        ASSERT_TRUE(daemon->is_ready()) << daemon->output();
    }
};

} // namespace

TEST_F(Supervision, ServersGoDownWhenTheDaemonIsKilled) {
    serve(sample_line(program, "shared", "-"));
    ASSERT_EQ(echo("alpha", program, RVZD_PROTOCOL_UDP, "x"), "x");
    const pid_t server = daemon->started(1).at(0);
    ASSERT_TRUE(is_alive(server));
    daemon->signal(SIGKILL);
    ASSERT_EQ(daemon->wait(), 128 + SIGKILL);
    EXPECT_TRUE(eventually([&] { return !is_alive(server); }));
}

TEST_F(Supervision, TerminationEndsServersAndThenTheDaemon) {
    serve(sample_line(program, "shared", "-"));
    ASSERT_EQ(echo("alpha", program, RVZD_PROTOCOL_TCP, "x"), "x");
    const pid_t server = daemon->started(1).at(0);
    daemon->signal(SIGTERM);
    EXPECT_EQ(daemon->wait(), 0) << daemon->output();
    EXPECT_FALSE(is_alive(server));
    EXPECT_EQ(daemon->count("Exiting, status = 0\n"), 1u);
    EXPECT_EQ(daemon->count("(" + std::to_string(server) + ") exited\n"), 1u) << daemon->output();
}

TEST_F(Supervision, TerminationKillsAServerThatWillNotGo) {
    serve(script_line(program, "resident", "start=60", "trap '' TERM; exec sleep 1000"));
    ASSERT_EQ(daemon->started(1).size(), 1u);
    daemon->signal(SIGTERM);
    daemon->signal(SIGTERM); // the administrator is in a hurry
    EXPECT_EQ(daemon->wait(), 0) << daemon->output();
    EXPECT_FALSE(is_alive(daemon->started(1).at(0)));
}

TEST_F(Supervision, IdleServerIsEndedAndStartedAgainOnDemand) {
    serve(sample_line(program, "shared", "idle=1"));
    ASSERT_EQ(echo("alpha", program, RVZD_PROTOCOL_UDP, "x"), "x");
    const pid_t server = daemon->started(1).at(0);
    EXPECT_TRUE(daemon->says("(" + std::to_string(server) + ") exited\n")) << daemon->output();
    EXPECT_EQ(echo("alpha", program, RVZD_PROTOCOL_UDP, "y"), "y");
    EXPECT_EQ(daemon->started(2).size(), 2u);
}

TEST_F(Supervision, ServerKilledBySignalIsToldAndReplaced) {
    serve(sample_line(program, "shared", "-"));
    ASSERT_EQ(echo("alpha", program, RVZD_PROTOCOL_UDP, "x"), "x");
    kill(daemon->started(1).at(0), SIGUSR1);
    EXPECT_TRUE(daemon->says("exited due to signal " + std::to_string(SIGUSR1) + "\n")) << daemon->output();
    EXPECT_EQ(echo("alpha", program, RVZD_PROTOCOL_UDP, "y"), "y");
}

TEST_F(Supervision, ResidentServerStartsWithTheDaemon) {
    serve(sample_line(program, "resident", "-"));
    EXPECT_EQ(daemon->started(1).size(), 1u);
    EXPECT_EQ(echo("alpha", program, RVZD_PROTOCOL_UDP, "x"), "x");
    EXPECT_EQ(daemon->started(1).size(), 1u);
}

TEST_F(Supervision, ResidentServerIsRestartedUntilItsRestartsAreUsedUp) {
    serve(script_line(program, "resident", "restarts=2", "exit 1"));
    EXPECT_TRUE(daemon->says("Automatic restart of server \"/bin/sh\" has been disabled: maximum number of restarts "
                             "exceeded\n"))
        << daemon->output();
    EXPECT_EQ(daemon->started(3).size(), 3u);
    // Enabling it by hand begins anew.
    ASSERT_EQ(rvzd_toggle_server_restart(1, "sh"), TBS_ST_OK) << daemon->output();
    EXPECT_TRUE(eventually([&] { return daemon->started().size() > 3; }));
    EXPECT_EQ(daemon->count("Administrator has enabled automatic restart of server \"sh\".\n"), 1u);
}

TEST_F(Supervision, DisabledServerIsNotStarted) {
    serve(sample_line(program, "shared", "-"));
    ASSERT_EQ(rvzd_toggle_server_restart(0, "velia-sample-server"), TBS_ST_OK) << daemon->output();
    EXPECT_TRUE(daemon->says("Administrator has disabled automatic restart of server \"velia-sample-server\".\n"));
    Handle handle;
    EXPECT_EQ(find(handle, program).status, TBS_ST_ERROR);
    ASSERT_EQ(rvzd_toggle_server_restart(1, "velia-sample-server"), TBS_ST_OK);
    EXPECT_EQ(find(handle, program).status, TBS_ST_OK);
}

TEST_F(Supervision, TogglingAnUnknownServerIsNotFound) {
    serve("");
    EXPECT_EQ(rvzd_toggle_server_restart(1, "no-such-server"), TBS_ST_NOT_FOUND);
}

// A call that a stopped process does not take looks like one that a looping process does not take.
TEST_F(Supervision, ServerThatDoesNotTakeItsCallIsMarkedDown) {
    serve(sample_line(program, "shared", "busy=1"));
    Handle handle;
    const Found found = find(handle, program);
    ASSERT_EQ(found.status, TBS_ST_OK);
    kill(daemon->started(1).at(0), SIGSTOP);
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in to = {};
    to.sin_family = AF_INET;
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    to.sin_port = found.address.addrs[0].ipv4.sin_port;
    ASSERT_EQ(sendto(fd, "call", 4, 0, reinterpret_cast<sockaddr *>(&to), sizeof to), 4);
    close(fd);
    EXPECT_TRUE(daemon->says("never went busy (may be looping); marking it as \"down\".\n")) << daemon->output();
    const pid_t server = daemon->started(1).at(0);
    kill(server, SIGCONT);
    EXPECT_TRUE(eventually([&] { return !is_alive(server); }));
}

TEST_F(Supervision, LookingAServerUpDoesItNoHarm) {
    serve(sample_line(program, "shared", "busy=1"));
    const auto state = [&] {
        const auto listed = run_apart(site, {VELIACTL, "server", "list", "alpha", "--output", "json"});
        return objects_of(listed.output).at(0)["state"].dump();
    };
    for (int i = 0; i < 2; ++i) {
        ASSERT_EQ(run_apart(site, {VELIACTL, "server", "find", "alpha", "--prog", std::to_string(program)}).status, 0);
        EXPECT_EQ(state(), "\"offered\"");
        EXPECT_TRUE(eventually([&] { return state() == "\"idle\""; })) << daemon->output();
    }
    EXPECT_EQ(daemon->count("looping"), 0u) << daemon->output();
    EXPECT_EQ(daemon->started(1).size(), 1u);
    EXPECT_EQ(echo("alpha", program, RVZD_PROTOCOL_UDP, "x"), "x");
    EXPECT_EQ(daemon->started(1).size(), 1u) << daemon->output();
}

TEST_F(Supervision, ServerKnownToWorkIsNotTouchedByALookUpEither) {
    serve(sample_line(program, "shared", "busy=1", "--quiet-seconds 0"));
    ASSERT_EQ(echo("alpha", program, RVZD_PROTOCOL_UDP, "x"), "x");
    ASSERT_EQ(run_apart(site, {VELIACTL, "server", "find", "alpha", "--prog", std::to_string(program)}).status, 0);
    EXPECT_EQ(daemon->count("looping"), 0u) << daemon->output();
    EXPECT_TRUE(is_alive(daemon->started(1).at(0)));
    EXPECT_EQ(echo("alpha", program, RVZD_PROTOCOL_UDP, "y"), "y");
    EXPECT_EQ(daemon->started(1).size(), 1u);
}

TEST_F(Supervision, ReportsFromUnknownProcessesAreToldAndRefused) {
    serve("");
    EXPECT_EQ(rvzd_server_idle(nullptr, 0), TBS_ST_NOT_FOUND);
    const tbs_uuid_t uuid = {};
    EXPECT_EQ(rvzd_server_busy(nullptr, &uuid), TBS_ST_NOT_FOUND);
    EXPECT_EQ(rvzd_server_alternate_uuid(nullptr, &uuid), TBS_ST_NOT_FOUND);
    const auto pid = std::to_string(getpid());
    EXPECT_TRUE(daemon->says("Invalid server idle from unknown child pid=" + pid + "\n")) << daemon->output();
    EXPECT_TRUE(daemon->says("Invalid server busy from unknown child pid=" + pid + "\n"));
}

TEST_F(Supervision, ServerThatRegistersForAnotherProgramIsRefused) {
    // The configuration names one program, the server's own switch another.
    serve("udp shared 390600 1 start=2 - - " SAMPLE_SERVER " --prog 390601\n");
    Handle handle;
    EXPECT_EQ(find(handle, program).status, TBS_ST_ERROR);
    EXPECT_TRUE(daemon->says("Invalid register 5F5C9.1.1")) << daemon->output();
}

TEST_F(Supervision, LocalPathsAreThoseOfThisHost) {
    serve("");
    char path[64] = "untouched";
    EXPECT_EQ(rvzd_get_local_path(nullptr, "//alpha/vaults/one", sizeof path, path), TBS_ST_OK);
    EXPECT_STREQ(path, "/vaults/one");
    EXPECT_EQ(rvzd_get_local_path("alpha", "//elsewhere/vaults/one", sizeof path, path), TBS_ST_NOT_FOUND);
    EXPECT_STREQ(path, "/vaults/one");
    EXPECT_NE(rvzd_get_local_path("alpha", "//alpha/vaults/one", 5, path), TBS_ST_OK);
    EXPECT_STREQ(path, "/vaults/one");
}
