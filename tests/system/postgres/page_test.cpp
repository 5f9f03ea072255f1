// What doc/postgresql.md shows is run as it is written: each line of a block that begins with "```sh", on the machine
// of a database that it names, or else on the host of the daemon, and the lines that it shows for pg_hba.conf. The
// service manager and the network are played by the test.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <map>

#include <tests/postgres/server.h>
#include <tests/system/support/daemon.h>
#include <tests/system/support/registry_calls.h>

using namespace velia::system_test;
using testing::AllOf;
using testing::HasSubstr;
using velia::postgres_test::Server;

namespace {

constexpr const char *page = SOURCE_FOLDER "/doc/postgresql.md";
constexpr const char *configuration_of_page = "/etc/velia/rvzd_server.conf";
constexpr double patience_s = 30;

struct Line {
    std::string kind; // "sh" or "pg_hba"
    std::string host; // empty: the daemon's
    std::string text;
};

std::vector<Line> lines_of_page() {
    std::ifstream file(page);
    std::vector<Line> lines;
    std::string fence;
    for (std::string line; std::getline(file, line);)
        if (line.starts_with("```"))
            fence = fence.empty() ? line : "";
        else if (fence.starts_with("```sh") || fence.starts_with("```pg_hba")) {
            const auto on = fence.find(" on ");
            lines.push_back(
                {fence.substr(3, fence.find(' ') - 3), on == std::string::npos ? "" : fence.substr(on + 4), line});
        }
    return lines;
}

void replace_all(std::string &text, const std::string &from, const std::string &to) {
    for (size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size()))
        text.replace(at, from.size(), to);
}

struct PostgresPage : testing::Test {
    Site site;
    Server db1;
    Server db2{Server::Empty()};
    std::map<std::string, Server *> databases = {{"db1", &db1}, {"db2", &db2}};
    std::unique_ptr<Daemon> daemon;
    size_t run_lines = 0;

    void SetUp() override {
        site.write("host/config/rgy_svr.conf", "master");
        site.write("host/config/rgy_hosts.conf", "alpha\n\n");
        site.configure(trusted_hosts);
        start();
        ASSERT_EQ(add(RGY_DB_REGIONS, name_entry("east")), TBS_ST_OK);
    }
    void start() {
        daemon = std::make_unique<Daemon>(site, std::vector<std::string>{"--listen", "127.0.0.1"});
        ASSERT_TRUE(daemon->is_ready()) << daemon->output();
    }
    void stop() {
        daemon->signal(SIGTERM);
        EXPECT_EQ(daemon->wait(patience_s), 0);
        daemon.reset();
    }

    // The hosts of databases are sockets here.
    std::string here(std::string text) const {
        replace_all(text, "host=db1,db2", "host=" + db1.directory().string() + "," + db2.directory().string());
        replace_all(text, "host=db1", "host=" + db1.directory().string());
        replace_all(text, "host=db2", "host=" + db2.directory().string());
        replace_all(text, configuration_of_page, site.path("rvzd_server.conf"));
        return text;
    }

    void run_on_database(Server &database, const std::string &text) {
        if (text == "systemctl start postgresql")
            return database.start();
        if (text.find("pg_promote") != std::string::npos)
            db1.kill_all(); // which is why
        database.run_line(here(text));
        if (text.find("synchronous_standby_names") != std::string::npos)
            database.wait_for("SELECT count(*) = 1 FROM pg_stat_replication");
    }
    // Where TLS is off a line for it can only be read.
    static void take_access(Server &database, const std::string &line) {
        std::ofstream(database.directory() / "data/pg_hba.conf", std::ios::app) << line << '\n';
        EXPECT_EQ(database.ask("SELECT coalesce(string_agg(error, ', '), '') FROM pg_hba_file_rules WHERE error IS NOT "
                               "NULL AND error NOT LIKE '%SSL is disabled%'"),
                  "")
            << line;
    }
    void run_on_host(const std::string &text) {
        if (text == "systemctl stop rvzd_server")
            return stop();
        if (text == "systemctl start rvzd_server")
            return start();
        const std::string server = RVZD_SERVER;
        const std::string tool = VELIACTL;
        const Outcome outcome = run_apart(
            site, {"/bin/sh", "-c", here(text)},
            {"PATH=" + server.substr(0, server.rfind('/')) + ":" + tool.substr(0, tool.rfind('/')) + ":/usr/bin:/bin"});
        ASSERT_EQ(outcome.status, 0) << text << "\n" << outcome.output << outcome.errors;
        if (text.find("--to sqlite") != std::string::npos)
            site.configure(trusted_hosts);
        else if (text.find("registry move") != std::string::npos && text.find("--dry-run") == std::string::npos)
            site.configure(trusted_hosts + here(options_of_page()));
        if (text.starts_with("veliactl registry list")) {
            EXPECT_THAT(outcome.output, HasSubstr("east"));
        }
    }
    // All that it shows, together.
    static std::string options_of_page() {
        std::ifstream file(page);
        std::string options;
        for (std::string line; std::getline(file, line);)
            if (line.starts_with("option "))
                options += line + "\n";
        EXPECT_THAT(options, AllOf(HasSubstr("option store postgresql"), HasSubstr("option store-replica"),
                                   HasSubstr("option store-reads")));
        return options;
    }
};

} // namespace

TEST_F(PostgresPage, WhatItShowsIsRun) {
    for (const auto &[kind, host, text] : lines_of_page()) {
        SCOPED_TRACE(text);
        if (kind == "pg_hba")
            take_access(*databases.at(host), text);
        else if (host.empty())
            run_on_host(text);
        else
            run_on_database(*databases.at(host), text);
        ASSERT_FALSE(HasFatalFailure());
        ++run_lines;
    }
    EXPECT_GE(run_lines, 20u);
    start();
    EXPECT_EQ(names_of(RGY_DB_REGIONS, 100, "alpha"), std::vector<std::string>{"east"});
}
