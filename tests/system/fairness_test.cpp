// A client is served while others ask for what costs much, hoard connections, or hold what the daemon needs. How soon,
// in figures: ./dev bench fairness.
#include <gtest/gtest.h>

#include <csignal>
#include <fcntl.h>
#include <fstream>
#include <sys/resource.h>
#include <thread>
#include <unistd.h>

#include <sqlite3.h>

#include <tests/system/support/attacks.h>
#include <tests/system/support/client.h>
#include <tests/system/support/daemon.h>
#include <tests/system/support/raw.h>
#include <tests/system/support/registry_calls.h>
#include <tests/system/support/registry_file.h>

using namespace velia::system_test;

namespace {

constexpr uint32_t slow_program = 390700;
constexpr size_t entries = 100'000;
constexpr double patience_s = 60; // of a machine that has much else to do; who is held up for good is so for longer

struct Fairness : testing::Test {
    Site site;
    std::unique_ptr<Daemon> daemon;

    void SetUp() override {
        site.write("host/config/rgy_svr.conf", "master");
        site.write("host/config/rgy_hosts.conf", "alpha\n\n");
        site.configure(trusted_hosts + script_line(slow_program, "shared", "-", "sleep 600"));
        run(site, {"/bin/sh", "-c", "printf 'secret\\n' | '" RVZD_SERVER "' --set-registry-password"});
        fill_registry(site, RGY_DB_REGIONS, entries);
        change_registry(site, "UPDATE entry SET region = CAST('east' AS BLOB)");
        daemon = std::make_unique<Daemon>(site);
        ASSERT_TRUE(daemon->is_ready()) << daemon->output();
    }

    Target target() const { return {site.port(), site.path("host/priv/registry.db"), slow_program}; }

    static tbs_status_t look_up() {
        const auto handle = own_handle("alpha");
        rgy_dtm_pair_t stamps = {};
        return rvzd_rgy_get_id(handle.get(), RGY_DB_VIEW_TAG, RGY_PROTOCOL_VERSION, &stamps);
    }
    void expect_service(bool with_adds) const {
        EXPECT_TRUE(eventually([&] { return serves_a_good_client(site); }, patience_s));
        EXPECT_TRUE(eventually([] { return look_up() == TBS_ST_OK; }, patience_s));
        static int number;
        if (with_adds) {
            EXPECT_EQ(add(RGY_DB_VIEW_TAG, name_entry("good" + std::to_string(++number))), TBS_ST_OK);
        }
    }
};

// Another process in the midst of a change.
class HeldDatabase {
public:
    explicit HeldDatabase(const Site &site) {
        EXPECT_EQ(
            sqlite3_open_v2(site.path("host/priv/registry.db").c_str(), &database_, SQLITE_OPEN_READWRITE, nullptr),
            SQLITE_OK);
        EXPECT_EQ(sqlite3_exec(database_, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr), SQLITE_OK);
    }
    ~HeldDatabase() { sqlite3_close(database_); }
    HeldDatabase(const HeldDatabase &) = delete;
    HeldDatabase &operator=(const HeldDatabase &) = delete;

private:
    sqlite3 *database_ = nullptr;
};

// How often its threads have waited for something.
uint64_t pauses_of(pid_t pid) {
    uint64_t sum = 0;
    for (const auto &task : std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task")) {
        std::ifstream file(task.path() / "status");
        for (std::string line; std::getline(file, line);)
            if (line.starts_with("voluntary_ctxt_switches:"))
                sum += std::stoull(line.substr(line.find(':') + 1));
    }
    return sum;
}

[[maybe_unused]] rlim_t address_space_of(pid_t pid) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/statm");
    rlim_t pages = 0;
    file >> pages;
    return pages * static_cast<rlim_t>(sysconf(_SC_PAGESIZE));
}

struct FairnessDuring : Fairness, testing::WithParamInterface<std::string> {};

INSTANTIATE_TEST_SUITE_P(Attack, FairnessDuring, testing::ValuesIn(Attack::names()),
                         [](const auto &attack) { return attack.param; });

} // namespace

TEST_P(FairnessDuring, AGoodClientIsServed) {
    const Attack attack(GetParam(), target());
    const bool is_locked = GetParam() == "lock";
    for (int i = 0; i < 20 && !HasFailure(); ++i)
        expect_service(!is_locked);
    EXPECT_EQ(kill(daemon->pid(), 0), 0);
}

TEST_F(Fairness, AClientIsServedWhileAllOfThemGoOn) {
    std::vector<std::unique_ptr<Attack>> attacks;
    for (const auto &name : Attack::names())
        if (name != "lock")
            attacks.push_back(std::make_unique<Attack>(name, target()));
    for (int i = 0; i < 10 && !HasFailure(); ++i)
        expect_service(true);
}

// A change waits for whoever has the database; it is acknowledged when it is there, and told to try again else.
TEST_F(Fairness, WhatWasAcknowledgedWhileTheDatabaseWasHeldIsThere) {
    std::vector<std::string> acknowledged;
    {
        const Attack attack("lock", target());
        for (int i = 0; i < 5; ++i) {
            const std::string name = "held" + std::to_string(i);
            if (add(RGY_DB_VIEW_TAG, name_entry(name)) == TBS_ST_OK)
                acknowledged.push_back(name);
        }
    }
    const auto names = names_of(RGY_DB_VIEW_TAG);
    ASSERT_TRUE(names);
    EXPECT_EQ(*names, acknowledged);
}

// A client's call takes longer than somebody may have the database for a while, and so does the daemon's patience.
TEST_F(Fairness, AChangeOutlastsALockOfSomeSeconds) {
    std::thread writer;
    tbs_status_t status = TBS_ST_ERROR;
    {
        const HeldDatabase held(site);
        writer = std::thread([&] { status = add(RGY_DB_VIEW_TAG, name_entry("patient")); });
        sleep(6); // longer than it was once waited for
    }
    writer.join();
    EXPECT_EQ(status, TBS_ST_OK);
    EXPECT_EQ(names_of(RGY_DB_VIEW_TAG), std::vector<std::string>{"patient"});
}

TEST_F(Fairness, ADaemonThatIsToEndDoesNotWaitForALock) {
    const HeldDatabase held(site);
    std::thread writer([] { add(RGY_DB_VIEW_TAG, name_entry("late")); });
    // Nobody else asks for anything, but a thread of the daemon's looks again and again.
    ASSERT_TRUE(eventually([&] {
        const auto before = pauses_of(daemon->pid());
        usleep(50'000);
        return pauses_of(daemon->pid()) > before + 20;
    }));
    daemon->signal(SIGTERM);
    EXPECT_EQ(daemon->wait(10), 0) << "it waits longer for a lock";
    writer.join();
}

// A server that writes without end waits for whoever reads the log; nobody else does.
TEST_F(Fairness, AServerWhoseOutputNobodyReadsHoldsNobodyUp) {
    daemon->signal(SIGTERM);
    daemon->wait();
    const std::string log = site.path("unread");
    ASSERT_EQ(mkfifo(log.c_str(), 0600), 0);
    const int reader = open(log.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    site.configure(trusted_hosts + script_line(slow_program, "resident", "start=600",
                                               "while echo 0123456789012345678901234567890123456789; do "
                                               "echo >>" +
                                                   site.path("said") + "; done"));
    daemon = std::make_unique<Daemon>(site, std::vector<std::string>{"--log-file", log});
    ASSERT_TRUE(daemon->is_ready());
    constexpr size_t more_than_any_pipe_holds = 5000;
    ASSERT_TRUE(eventually([&] {
        std::error_code none;
        return std::filesystem::file_size(site.path("said"), none) > more_than_any_pipe_holds && !none;
    }));
    for (int i = 0; i < 100; ++i)
        ASSERT_EQ(add(RGY_DB_VIEW_TAG, name_entry("said" + std::to_string(i))), TBS_ST_OK) << i;
    daemon->signal(SIGTERM);
    daemon->signal(SIGTERM); // it does not end by itself
    EXPECT_EQ(daemon->wait(), 0);
    close(reader);
}

// Nobody reads what the daemon says.
TEST_F(Fairness, AnUnreadLogHoldsNobodyUp) {
    daemon->signal(SIGTERM);
    daemon->wait();
    const std::string log = site.path("unread");
    ASSERT_EQ(mkfifo(log.c_str(), 0600), 0);
    const int reader = open(log.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    ASSERT_GT(fcntl(reader, F_SETPIPE_SZ, 4096), 0);
    daemon = std::make_unique<Daemon>(site, std::vector<std::string>{"--log-file", log});
    ASSERT_TRUE(daemon->is_ready());
    for (int i = 0; i < 300; ++i) // two lines each, and each is always told
        ASSERT_EQ(add(RGY_DB_VIEW_TAG, name_entry("said" + std::to_string(i))), TBS_ST_OK) << i;
    daemon->signal(SIGTERM);
    EXPECT_EQ(daemon->wait(), 0);
    close(reader);
}

TEST_F(Fairness, SighupOpensTheLogFileAgain) {
    daemon->signal(SIGTERM);
    daemon->wait();
    const std::string log = site.path("some.log");
    daemon = std::make_unique<Daemon>(site, std::vector<std::string>{"--log-file", log});
    ASSERT_TRUE(daemon->is_ready());
    std::filesystem::rename(log, log + ".1");
    daemon->signal(SIGHUP);
    ASSERT_TRUE(eventually([&] { return std::filesystem::exists(log); }));
    EXPECT_EQ(add(RGY_DB_VIEW_TAG, name_entry("later")), TBS_ST_OK);
    EXPECT_TRUE(eventually([&] { return site.read("some.log").find("later") != std::string::npos; }));
    EXPECT_EQ(site.read("some.log.1").find("later"), std::string::npos);
}

// What a file cannot hold is refused; the daemon goes on, and so does everybody who only reads.
TEST_F(Fairness, AFileThatMayNotGrowEndsARequestAndNotTheDaemon) {
    const rlimit small = {std::filesystem::file_size(site.path("host/priv/registry.db")) / 1024, RLIM_INFINITY};
    ASSERT_EQ(prlimit(daemon->pid(), RLIMIT_FSIZE, &small, nullptr), 0);
    tbs_status_t status = TBS_ST_OK;
    for (int i = 0; i < 200 && status == TBS_ST_OK; ++i)
        status = add(RGY_DB_VIEW_TAG, name_entry("full" + std::to_string(i)));
    EXPECT_EQ(status, TBS_ST_ERROR);
    EXPECT_EQ(look_up(), TBS_ST_OK);
    const rlimit unlimited = {RLIM_INFINITY, RLIM_INFINITY};
    ASSERT_EQ(prlimit(daemon->pid(), RLIMIT_FSIZE, &unlimited, nullptr), 0);
    EXPECT_EQ(add(RGY_DB_VIEW_TAG, name_entry("after")), TBS_ST_OK);
}

// The runtimes of sanitizers need more than there is, and end the process themselves.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
TEST_F(Fairness, AnEndOfMemoryEndsRequestsAndNotTheDaemon) {
    expect_service(true); // what is made once is there
    const rlimit little = {address_space_of(daemon->pid()), RLIM_INFINITY};
    ASSERT_EQ(prlimit(daemon->pid(), RLIMIT_AS, &little, nullptr), 0);
    {
        std::vector<std::unique_ptr<Attack>> attacks;
        for (const char *name : {"patterns", "region", "hoarders", "foreign", "unknown"})
            attacks.push_back(std::make_unique<Attack>(name, target()));
        EXPECT_TRUE(eventually(
            [&] {
                add(RGY_DB_VIEW_TAG, name_entry("some"));
                return daemon->output().find("no memory") != std::string::npos || daemon->wait(0) != -1;
            },
            30))
            << daemon->output();
    }
    const rlimit usual = {RLIM_INFINITY, RLIM_INFINITY};
    ASSERT_EQ(prlimit(daemon->pid(), RLIMIT_AS, &usual, nullptr), 0) << "the daemon has ended: " << daemon->output();
    EXPECT_TRUE(eventually([&] { return look_up() == TBS_ST_OK; })) << daemon->output();
    EXPECT_EQ(add(RGY_DB_VIEW_TAG, name_entry("after")), TBS_ST_OK) << daemon->output();
}
#endif
