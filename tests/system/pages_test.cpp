// What the pages for administrators show is run as it is written: each line of a block that begins with "```sh", on the
// host that it names, build7 if none. Three hosts of a site are there, with an address of loopback each. The service
// manager is played by the test.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>

#include <tests/system/support/registry_calls.h>
#include <tests/system/support/veliactl.h>

using namespace velia::system_test;
using testing::HasSubstr;

namespace {

constexpr const char *hosts[] = {"build7", "build8", "build9"};
constexpr const char *fence = "```";
constexpr const char *interrupted_after = "timeout --signal=INT 2 "; // as somebody would with Ctrl-C

struct Block {
    std::string host;
    bool is_interrupted;
    bool is_afresh; // the site is then as it was in the beginning
    Words lines;
};

std::vector<Block> blocks_of(const std::string &page) {
    std::ifstream file(std::string(SOURCE_FOLDER) + "/doc/" + page);
    EXPECT_TRUE(file) << page;
    std::vector<Block> blocks;
    bool is_within = false;
    bool is_run = false;
    for (std::string line; std::getline(file, line);)
        if (line.starts_with(fence)) {
            is_run = !is_within && (line == "```sh" || line.starts_with("```sh "));
            is_within = !is_within;
            const auto on = line.find(" on ");
            if (is_run)
                blocks.push_back({on == std::string::npos ? hosts[0] : line.substr(on + 4, strlen(hosts[0])),
                                  line.ends_with(" until interrupted"),
                                  line.ends_with(" afresh"),
                                  {}});
        } else if (is_within && is_run && !line.empty()) {
            blocks.back().lines.push_back(line);
        }
    return blocks;
}

struct Pages : VeliactlTest {
    std::map<std::string, std::unique_ptr<Daemon>> daemons;

    void SetUp() override {
        std::string names;
        for (size_t i = 0; i < std::size(hosts); ++i) {
            const std::string host = hosts[i];
            names += host + " " + address_of(host) + "\n";
            for (const char *directory : {"/host/config", "/host/priv", "/host/data", "/log"})
                std::filesystem::create_directories(site.path(host + directory));
            std::filesystem::create_symlink(site.path("config"), site.path(host + "/config"));
            site.write(host + "/rvzd_server.conf", std::string("option registry-copy 1\n") + trusted_hosts);
        }
        site.write("config/hosts.conf", names);
        std::filesystem::create_directories(site.path("backup"));
        site.configure(std::string("option registry-copy 1\n") + trusted_hosts);
    }
    static std::string address_of(const std::string &host) { return "127.0.0.1" + host.substr(host.size() - 1); }
    Words environment_of(const std::string &host) const {
        const std::string server = RVZD_SERVER;
        const std::string tool = VELIACTL;
        return {"VELIA_ROOT=" + site.path(host), "VELIA_HOSTNAME=" + host,
                "PATH=" + server.substr(0, server.rfind('/')) + ":" + tool.substr(0, tool.rfind('/')) +
                    ":/usr/bin:/bin"};
    }
    // Three hosts that run, of which the first is the master.
    void run_site() {
        for (const std::string host : hosts) {
            site.write(host + "/host/config/rgy_svr.conf", host == hosts[0] ? "master" : "standby");
            site.write(host + "/host/config/rgy_hosts.conf", "build7\nbuild8\n");
            start(host);
        }
        ASSERT_EQ(run_on(hosts[0], "veliactl registry backup build8,build9").status, DONE);
        ASSERT_EQ(run_on(hosts[0], "veliactl registry add regions name=east title=t").status, DONE);
        for (const std::string host : {"build8", "build9"})
            ASSERT_TRUE(has_copied(host)) << daemons[host]->output();
    }
    void run_site_afresh() {
        daemons.clear();
        for (const std::string host : hosts)
            for (const char *directory : {"/host/config", "/host/priv", "/host/data"}) {
                std::filesystem::remove_all(site.path(host + directory));
                std::filesystem::create_directories(site.path(host + directory));
            }
        run_site();
    }
    bool has_copied(const std::string &host) const {
        return eventually([&] {
            return run_on(host, "veliactl registry list regions --host " + host).output.find("east") !=
                   std::string::npos;
        });
    }
    void start(const std::string &host) {
        Child::Options options;
        options.environment = environment_of(host);
        daemons[host] = std::make_unique<Daemon>(site, Words{"--listen", address_of(host)}, options);
        ASSERT_TRUE(daemons[host]->is_ready()) << daemons[host]->output();
    }
    void stop(const std::string &host, int signal_number) {
        daemons.at(host)->signal(signal_number);
        daemons.at(host)->wait();
        daemons.erase(host);
    }
    // "systemctl start|stop rvzd_server", and "systemctl kill HOST" for what befalls a host.
    bool play_service_manager(const std::string &host, const std::string &line) {
        if (!line.starts_with("systemctl "))
            return false;
        if (line == "systemctl start rvzd_server")
            start(host);
        else if (line == "systemctl stop rvzd_server")
            stop(host, SIGTERM);
        else
            stop(line.substr(line.rfind(' ') + 1), SIGKILL);
        return true;
    }
    Outcome run_on(const std::string &host, const std::string &line) const {
        std::string words = line;
        if (const auto at = words.find(" /backup/"); at != std::string::npos)
            words.replace(at + 1, strlen("/backup"), site.path("backup"));
        return run_apart(site, {"/bin/sh", "-c", "cd '" + site.path(host) + "' && " + words}, environment_of(host));
    }
    // The exit statuses of lines that do not end with 0.
    void expect_runs(const std::string &page, const std::map<std::string, int> &others = {}) {
        size_t count = 0;
        for (const auto &[host, is_interrupted, is_afresh, lines] : blocks_of(page)) {
            if (is_afresh)
                run_site_afresh();
            for (const auto &line : lines) {
                ++count;
                if (play_service_manager(host, line))
                    continue;
                auto outcome = run_on(host, (is_interrupted ? interrupted_after : "") + line);
                // Hosts that were just started have not copied yet.
                if (line.starts_with("veliactl doctor"))
                    eventually([&] { return outcome.status == 0 || (outcome = run_on(host, line)).status == 0; });
                const std::string command = line.substr(0, line.find("  #"));
                const auto other = others.find(command.substr(0, command.find_last_not_of(' ') + 1));
                const int expected = other != others.end() ? other->second : is_interrupted ? 124 : 0;
                EXPECT_EQ(outcome.status, expected) << page << ": " << line << "\n" << outcome.output << outcome.errors;
            }
        }
        EXPECT_GE(count, 3u) << page;
    }
};

} // namespace

TEST_F(Pages, AboutBackupIsRunAsWritten) {
    run_site();
    expect_runs("backup.md");
}

TEST_F(Pages, AboutTheMasterIsRunAsWritten) {
    run_site();
    expect_runs("master.md", {{"veliactl site master build8 --force", FAILED}});
    EXPECT_THAT(run_on("build8", "veliactl daemon status build8 --output jsonl").output,
                HasSubstr("\"takes_updates\":\"yes\""));
}

TEST_F(Pages, AboutManyEntriesIsRunAsWritten) {
    run_site();
    expect_runs("bulk.md");
}

TEST_F(Pages, AboutSeeingHowADaemonIsIsRunAsWritten) {
    run_site();
    expect_runs("monitoring.md");
}

TEST_F(Pages, AboutRunningASiteIsRunAsWritten) {
    expect_runs("operations.md", {{"veliactl site master build8 --force", FAILED}});
    EXPECT_THAT(run_on("build8", "veliactl daemon status build8 --output jsonl").output,
                HasSubstr("\"takes_updates\":\"yes\""));
}
