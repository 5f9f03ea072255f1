// The hosts "alpha" and "beta" of a site, with a daemon each on one database.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include <csignal>
#include <filesystem>

#include <gtest/gtest.h>

#include <tests/system/support/daemon.h>
#include <tests/system/support/site.h>

namespace velia::system_test {

struct TwoHosts : testing::Test {
    Site site;
    std::unique_ptr<Daemon> alpha;
    std::unique_ptr<Daemon> beta;

    void SetUp() override {
        site.write("host/config/rgy_svr.conf", "master");
        site.write("host/config/rgy_hosts.conf", "alpha\n\n");
        for (const char *directory : {"beta/host/config", "beta/host/priv", "beta/host/data", "beta/log"})
            std::filesystem::create_directories(site.path(directory));
        std::filesystem::create_symlink(site.path("config"), site.path("beta/config"));
        site.write("beta/host/config/rgy_svr.conf", "master");
        site.write("beta/host/config/rgy_hosts.conf", "beta\n\n");
    }
    void keep_in(const std::string &conninfo, const std::string &more = "") const {
        site.configure(std::string(trusted_hosts) + "option store postgresql \"" + conninfo + "\"\n" + more);
    }
    void start_alpha() {
        alpha = std::make_unique<Daemon>(site, std::vector<std::string>{"--listen", "127.0.0.1"});
        ASSERT_TRUE(alpha->is_ready()) << alpha->output();
    }
    void start_beta() {
        Child::Options options;
        options.environment = {"VELIA_ROOT=" + site.path("beta"), "VELIA_HOSTNAME=beta"};
        beta = std::make_unique<Daemon>(site, std::vector<std::string>{"--listen", "127.0.0.2"}, options);
        ASSERT_TRUE(beta->is_ready()) << beta->output();
    }
    void start_both() {
        start_alpha();
        start_beta();
    }
    void kill_and_start_beta() {
        beta->signal(SIGKILL);
        beta->wait();
        start_beta();
    }
};

} // namespace velia::system_test
