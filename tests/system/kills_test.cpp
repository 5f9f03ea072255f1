// Daemons that are killed at random moments while many write, and at each thing that promotion, demotion and copying do
// to files. More of them: ./dev kills NUMBER.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <random>
#include <thread>

#include <tests/system/support/registry_calls.h>
#include <tests/system/support/rounds.h>
#include <veliaxdr/rgy_local.h>
#include <veliaxdr/rgy_wire.h>

using namespace velia::system_test;

namespace {

using Names = std::vector<std::string>;
using Milliseconds = std::chrono::milliseconds;

enum Change : int64_t { PROMOTE = 12, STEP_DOWN = 13 };

constexpr int writers = 16;

// How many kills are wanted: few in a run of all tests.
int wanted(int usual) {
    const char *text = getenv("VELIA_TEST_KILLS");
    return text != nullptr ? atoi(text) : usual;
}

struct Kills : testing::Test {
    Site site;
};

struct KillsAtFiles : Kills {
    const Names names = {"one", "two", "three"};
    std::unique_ptr<Daemon> master;

    void SetUp() override {
        site.write("host/config/rgy_svr.conf", "master");
        site.write("host/config/rgy_hosts.conf", "alpha\nbeta\n");
        site.configure(std::string("option registry-copy 1\n") + trusted_hosts);
        master = std::make_unique<Daemon>(site, Names{"--listen", "127.0.0.1"});
        ASSERT_TRUE(master->is_ready()) << master->output();
        for (const auto &name : names)
            ASSERT_EQ(add(RGY_DB_REGIONS, name_entry(name)), TBS_ST_OK);
        for (const char *directory : {"beta/host/config", "beta/host/priv", "beta/host/data", "beta/log"})
            std::filesystem::create_directories(site.path(directory));
        std::filesystem::create_symlink(site.path("config"), site.path("beta/config"));
        site.write("beta/host/config/rgy_hosts.conf", "alpha\nbeta\n");
    }

    std::string arming() const { return site.path("armed"); }
    void arm() const { site.write("armed", ""); }
    void disarm() const { std::filesystem::remove(arming()); }

    Names environment(int at) const {
        return {"VELIA_ROOT=" + site.path("beta"),   "VELIA_HOSTNAME=beta",
                "LD_PRELOAD=" ENDED_PROCESS_PRELOAD, "ENDED_FROM=" + arming(),
                "ENDED_AT=" + std::to_string(at),    "ASAN_OPTIONS=verify_asan_link_order=0"};
    }
    std::unique_ptr<Daemon> start_beta(int at = 0) const {
        Child::Options options;
        options.environment = environment(at);
        auto beta = std::make_unique<Daemon>(site, Names{"--listen", "127.0.0.2"}, options);
        EXPECT_TRUE(beta->is_ready()) << beta->output();
        return beta;
    }
    static std::optional<Names> names_of_beta() { return names_of(RGY_DB_REGIONS, 100, "beta"); }
    static tbs_status_t change(Change op) {
        const auto handle = own_handle("beta", 0);
        return handle == nullptr ? tbs_status_t{TBS_ST_NO_SERVER}
                                 : rvzd_rgy_svr_conf_change(handle.get(), RGY_PROTOCOL_VERSION, op, "");
    }
    void begin_as(const std::string &role, bool with_data) const {
        std::filesystem::remove_all(site.path("beta/host/priv"));
        std::filesystem::create_directories(site.path("beta/host/priv"));
        site.write("beta/host/config/rgy_svr.conf", role);
        if (with_data)
            for (const char *suffix : {"", "-wal"})
                if (std::filesystem::exists(site.path("copied" + std::string(suffix))))
                    std::filesystem::copy_file(site.path("copied" + std::string(suffix)),
                                               site.path("beta/host/priv/registry.db" + std::string(suffix)));
    }
    // What a standby has, to begin with again and again.
    void make_copy() {
        begin_as("standby", false);
        {
            const auto beta = start_beta();
            ASSERT_TRUE(eventually([&] { return names_of_beta() == names; })) << beta->output();
            beta->signal(SIGTERM);
            beta->wait();
        }
        std::filesystem::copy_file(site.path("beta/host/priv/registry.db"), site.path("copied"));
    }

    // Runs it again and again, killed at its first, second, ... step, until it comes to its end; how many there were.
    template <class Step>
    static int sweep_once(Step &&step, int stride) {
        int at = 1;
        while (step(at) && at < 2000)
            at += stride;
        return at - 1;
    }

    // Where many kills are wanted: at each step, and again from the first one on until there were 200.
    template <class Step>
    static int sweep(Step &&step) {
        const bool are_many = getenv("VELIA_TEST_KILLS") != nullptr;
        int kills = 0;
        const auto counted = [&](int at) {
            const bool is_killed = step(at);
            kills += is_killed ? 1 : 0;
            return is_killed;
        };
        int steps;
        do
            steps = sweep_once(counted, are_many ? 1 : 5);
        while (are_many && kills < 200 && steps > 0);
        RecordProperty("steps", steps);
        RecordProperty("kills", kills);
        return steps;
    }
};

} // namespace

TEST_F(Kills, UnderSixteenWritersNothingAcknowledgedIsLostOrDoneTwice) {
    const int kills = wanted(8);
    auto daemon = daemon_for_rounds(site);
    ASSERT_TRUE(daemon->is_ready()) << daemon->output();
    Rounds clients(site, {"tcp", site.port(), writers, 1'000'000, 2000});
    std::mt19937 random(std::random_device{}());
    Milliseconds slowest = {};
    for (int i = 0; i < kills; ++i) {
        ASSERT_TRUE(clients.answered_since(monotonic_us(), writers)) << clients.output();
        std::this_thread::sleep_for(Milliseconds(std::uniform_int_distribution(0, 30)(random)));
        daemon->signal(SIGKILL);
        daemon->wait();
        const auto begin = std::chrono::steady_clock::now();
        daemon = daemon_for_rounds(site);
        ASSERT_TRUE(daemon->is_ready()) << daemon->output();
        slowest = std::max(slowest, std::chrono::duration_cast<Milliseconds>(std::chrono::steady_clock::now() - begin));
    }
    ASSERT_TRUE(clients.answered_since(monotonic_us(), writers)) << clients.output();
    clients.stop();
    ASSERT_TRUE(clients.wait(120)) << clients.output();
    const auto figures = clients.figures();
    RecordProperty("kills", kills);
    RecordProperty("acknowledged", static_cast<int>(figures.added));
    RecordProperty("slowest_start_ms", static_cast<int>(slowest.count()));
    EXPECT_EQ(figures.missing, 0u);
    EXPECT_EQ(figures.doubled, 0u);
    EXPECT_GT(figures.added, 0u);
}

// A copy that ends half way is none, or the one before, and the next one is whole.
TEST_F(KillsAtFiles, OfACopyLeaveAWholeOneOrNone) {
    arm();
    const int steps = sweep([&](int at) {
        begin_as("standby", false);
        Child::Options options;
        options.environment = environment(at);
        options.output_file = site.path("copy.out");
        Child copying({RVZD_SERVER, "--copy-registry"}, options);
        const int status = copying.wait();
        EXPECT_TRUE(status == 0 || status == 128 + SIGKILL) << status << site.read("copy.out");
        disarm();
        {
            const auto beta = start_beta();
            const auto served = names_of_beta();
            EXPECT_TRUE(!served || *served == names) << at << beta->output();
            EXPECT_TRUE(eventually([&] { return names_of_beta() == names; })) << at << beta->output();
        }
        arm();
        return status != 0;
    });
    EXPECT_GT(steps, 10);
}

TEST_F(KillsAtFiles, OfAPromotionLeaveAStandbyOrAMasterWithAllEntries) {
    make_copy();
    const int steps = sweep([&](int at) {
        begin_as("standby", true);
        disarm();
        tbs_status_t told = TBS_ST_ERROR;
        bool is_killed = false;
        {
            const auto beta = start_beta(at);
            EXPECT_TRUE(eventually([&] { return names_of_beta() == names; })) << at << beta->output();
            arm();
            told = change(PROMOTE);
            disarm();
            is_killed = kill(beta->pid(), 0) != 0 || beta->wait(told == TBS_ST_OK ? 0.05 : 5) == 128 + SIGKILL;
        }
        const auto beta = start_beta();
        EXPECT_TRUE(eventually([&] { return names_of_beta() == names; })) << at << beta->output();
        if (told == TBS_ST_OK) {
            EXPECT_EQ(change(STEP_DOWN), TBS_ST_OK) << "a master it is, as was acknowledged at " << at;
        }
        return is_killed;
    });
    EXPECT_GT(steps, 10);
}

TEST_F(KillsAtFiles, OfADemotionLeaveAMasterOrNoneThatKeepsItsEntries) {
    make_copy();
    const int steps = sweep([&](int at) {
        begin_as("master", true);
        disarm();
        bool is_killed = false;
        {
            const auto beta = start_beta(at);
            EXPECT_TRUE(eventually([&] { return names_of_beta() == names; })) << at << beta->output();
            arm();
            const auto told = change(STEP_DOWN);
            disarm();
            is_killed = beta->wait(told == TBS_ST_OK ? 0.05 : 5) == 128 + SIGKILL;
        }
        const auto beta = start_beta(); // as its file says
        EXPECT_TRUE(eventually([&] { return names_of_beta() == names; })) << at << beta->output();
        return is_killed;
    });
    EXPECT_GT(steps, 1);
}
