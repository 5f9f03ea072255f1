// A process that forks, or ends, while one of its threads is in a call.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <functional>
#include <thread>

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <tests/system/support/client.h>
#include <tests/system/support/daemon.h>
#include <tests/system/support/registry_calls.h>
#include <tests/system/support/unread.h>

using namespace velia::system_test;

namespace {

constexpr uint32_t program = 390600;
constexpr double hung_s = 10;

struct Processes : testing::Test {
    Site site;
    std::unique_ptr<Daemon> daemon;

    void SetUp() override {
        site.write("host/config/rgy_svr.conf", "master");
        site.write("host/config/rgy_hosts.conf", "alpha\n\n");
        site.configure(sample_line(program, "shared", "-") + sample_line(program + 1, "shared", "-"));
        daemon = std::make_unique<Daemon>(site);
        ASSERT_TRUE(daemon->is_ready()) << daemon->output();
        ASSERT_EQ(add(RGY_DB_REGIONS, name_entry("east")), TBS_ST_OK);
    }
};

using Work = std::function<bool()>;

// In the build that counts, with the counts written.
[[noreturn]] void end_child(int status) {
#ifdef VELIA_COVERAGE
    exit(status);
#else
    _exit(status);
#endif
}

// Forks; in the child the status is 0 if `work` gives true.
pid_t child_that(const Work &work) {
    const pid_t child = fork();
    if (child == 0) {
        end_child(work() ? EXIT_SUCCESS : EXIT_FAILURE);
    }
    return child;
}

// The exit status, or 128 and the signal's number; of a child that hangs, that of SIGKILL: the RPC library holds all
// other signals off.
int status_of(pid_t child) {
    int status = 0;
    if (!eventually([&] { return waitpid(child, &status, WNOHANG) == child; }, hung_s)) {
        kill(child, SIGKILL);
        waitpid(child, &status, 0);
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// A thread that waits for the reply to `call` from the construction on: the daemon is silent meanwhile.
class ThreadInCall {
public:
    ThreadInCall(const Site &site, const Daemon &daemon, std::function<void()> call) : daemon_(daemon) {
        daemon_.signal(SIGSTOP);
        thread_ = std::thread(std::move(call));
        EXPECT_TRUE(eventually([&] { return is_request_waiting(site); }));
    }
    ~ThreadInCall() {
        daemon_.signal(SIGCONT);
        thread_.join();
    }
    ThreadInCall(const ThreadInCall &) = delete;
    ThreadInCall &operator=(const ThreadInCall &) = delete;

private:
    const Daemon &daemon_;
    std::thread thread_;
};

bool finds(const Handle &handle) {
    return find(handle, program).status == TBS_ST_OK;
}

void (*work_of_the_end)();

[[gnu::destructor]] void at_the_very_end() {
    if (work_of_the_end != nullptr)
        work_of_the_end();
}

bool has_names() {
    return names_of(RGY_DB_REGIONS) == std::vector<std::string>{"east"};
}

} // namespace

TEST_F(Processes, AChildUsesAHandleOfItsParentOverAConnectionOfItsOwn) {
    for (const uint32_t transport : {RVZD_PROTOCOL_UDP, RVZD_PROTOCOL_TCP}) {
        const Handle handle("alpha", transport);
        ASSERT_TRUE(finds(handle));
        CLIENT *const clients_before = rvzd_get_rpc_clnt(handle.get());
        EXPECT_EQ(status_of(child_that([&] { return finds(handle) && finds(Handle("alpha", transport)); })), 0);
        EXPECT_EQ(status_of(child_that([&] { return rvzd_get_rpc_clnt(handle.get()) != nullptr && finds(handle); })),
                  0);
        EXPECT_EQ(rvzd_get_rpc_clnt(handle.get()), clients_before);
        EXPECT_TRUE(finds(handle));
    }
}

TEST_F(Processes, ParentAndChildDoNotTakeEachOthersReplies) {
    const Handle handle;
    const auto port_of = [&](uint32_t of) {
        const auto found = find(handle, of);
        return found.status == TBS_ST_OK ? found.address.addrs[0].ipv4.sin_port : 0;
    };
    const auto port = port_of(program);
    const auto other_port = port_of(program + 1);
    ASSERT_NE(port, other_port);
    const auto is_right = [&](uint32_t of, int expected) {
        for (int i = 0; i < 300; ++i)
            if (port_of(of) != expected)
                return false;
        return true;
    };
    const pid_t child = child_that([&] { return is_right(program + 1, other_port); });
    EXPECT_TRUE(is_right(program, port));
    EXPECT_EQ(status_of(child), 0);
}

TEST_F(Processes, AChildOfAParentInACallWaitsForNothing) {
    for (const uint32_t transport : {RVZD_PROTOCOL_UDP, RVZD_PROTOCOL_TCP}) {
        const Handle handle("alpha", transport);
        ASSERT_TRUE(finds(handle));
        pid_t child = -1;
        bool found = false;
        {
            const ThreadInCall caller(site, *daemon, [&] { found = finds(handle); });
            child = child_that([&] {
                daemon->signal(SIGCONT);
                const Handle own("alpha", transport);
                const bool both = finds(own) && finds(handle);
                rvzd_free_cached_handles();
                return both && echo("alpha", program, static_cast<rvzd_protocol_in_t>(transport), "x") == "x";
            });
        }
        EXPECT_EQ(status_of(child), 0);
        EXPECT_TRUE(found);
    }
}

TEST_F(Processes, AChildOfAParentInARegistryCallWaitsForNothing) {
    ASSERT_TRUE(has_names());
    pid_t child = -1;
    bool found = false;
    {
        const ThreadInCall caller(site, *daemon, [&] { found = has_names(); });
        child = child_that([&] {
            daemon->signal(SIGCONT);
            return has_names() && add(RGY_DB_REGIONS, name_entry("west")) == TBS_ST_OK;
        });
    }
    EXPECT_EQ(status_of(child), 0);
    EXPECT_TRUE(found);
}

TEST_F(Processes, AHandleOfTheParentFailsAtOnceInAChildWhereNoDescriptorIsLeft) {
    const Handle handle;
    ASSERT_TRUE(finds(handle));
    EXPECT_EQ(status_of(child_that([&] {
                  const rlimit none = {0, 0};
                  setrlimit(RLIMIT_NOFILE, &none);
                  return find(handle, program).status == TBS_ST_RPC_FAILED &&
                         rvzd_get_rpc_clnt(handle.get()) == nullptr;
              })),
              0);
}

TEST_F(Processes, ExitTakesNothingAwayFromAThreadInARegistryCall) {
    const pid_t child = child_that([&] {
        static std::atomic<bool> has_answer = false;
        static pid_t silent_daemon;
        silent_daemon = daemon->pid();
        const ThreadInCall caller(site, *daemon, [] { has_answer = has_names(); });
        // Once all that was registered for the end is done.
        work_of_the_end = [] {
            kill(silent_daemon, SIGCONT);
            if (!eventually([] { return has_answer.load(); }))
                _exit(EXIT_FAILURE);
        };
        exit(EXIT_SUCCESS);
        return false;
    });
    EXPECT_EQ(status_of(child), 0);
}

TEST_F(Processes, ExitDoesNotWaitForASilentRegistry) {
    const pid_t child = child_that([&] {
        const ThreadInCall caller(site, *daemon, [] { has_names(); });
        exit(EXIT_SUCCESS);
        return false;
    });
    EXPECT_EQ(status_of(child), 0);
    daemon->signal(SIGCONT);
}
