// veliactl doctor: each fault of a host's set-up is found, and told with what to do.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <set>

#include <sys/stat.h>

#include <tests/system/support/registry_site.h>

using namespace velia::system_test;
using testing::HasSubstr;

namespace {

struct Doctor : RegistrySite {
    struct Sight {
        int status;
        Objects findings;
    };
    // The daemon's program is on PATH, as where both are installed.
    Sight look(Words words = {}, Words environment = {}) const {
        const std::string program = RVZD_SERVER;
        environment.push_back("PATH=" + program.substr(0, program.rfind('/')) + ":/usr/bin:/bin");
        words.insert(words.begin(), "doctor");
        words.insert(words.end(), {"--output", "json", "--timeout", "3"});
        const auto outcome = veliactl(words, environment);
        EXPECT_EQ(outcome.errors, "");
        return {outcome.status, objects_of(outcome.output)};
    }
    static std::string told(const Objects &findings) {
        std::string all;
        for (const auto &finding : findings)
            all += finding["check"].text() + " " + finding["status"].text() + " " + finding["subject"].text() + ": " +
                   finding["finding"].text() + "; " + finding["advice"].scalar + "\n";
        return all;
    }
    // One of a check, about a thing whose name ends so, with words in it and in its advice.
    static bool has(const Objects &findings, const std::string &check, const std::string &status,
                    const std::string &subject, const std::string &words, const std::string &advice = "") {
        return std::any_of(findings.begin(), findings.end(), [&](const Json &finding) {
            return finding["check"] == check.c_str() && finding["status"] == status.c_str() &&
                   finding["subject"].text().ends_with(subject) &&
                   finding["finding"].text().find(words) != std::string::npos &&
                   finding["advice"].scalar.find(advice) != std::string::npos;
        });
    }
    static size_t count(const Objects &findings, const std::string &status) {
        return static_cast<size_t>(std::count_if(findings.begin(), findings.end(), [&](const Json &finding) {
            return finding["status"] == status.c_str();
        }));
    }
    void start_both() {
        start_alpha();
        ASSERT_EQ(add_region("one"), TBS_ST_OK);
        start_beta();
        ASSERT_TRUE(comes_to_have("beta", {"one"})) << standby->output();
    }
};

TEST_F(Doctor, FindsNothingWrongWhereNothingIs) {
    start_both();
    ASSERT_EQ(veliactl({"registry", "backup", "beta"}).status, DONE);
    for (const auto &[words, environment] :
         {std::pair(Words{}, Words{}), std::pair(Words{"beta"}, Words{}), std::pair(Words{}, on_beta())}) {
        const auto [status, findings] = look(words, environment);
        EXPECT_EQ(status, DONE);
        EXPECT_EQ(count(findings, "fail") + count(findings, "warn"), 0u) << told(findings);
        EXPECT_GE(count(findings, "ok"), words.empty() ? 14u : 5u) << told(findings);
    }
    std::set<std::string> looked;
    for (const auto &finding : look({}, on_beta()).findings)
        looked.insert(finding["check"].text());
    EXPECT_THAT(looked, testing::UnorderedElementsAre("name", "port", "directories", "private-files", "role",
                                                      "local-road", "address", "daemon", "clients", "clock", "term",
                                                      "copy", "hosts-file", "database"));
    const auto plain = veliactl({"doctor"});
    EXPECT_THAT(plain.output, HasSubstr("CHECK")) << plain.errors;
}

TEST_F(Doctor, FindsThatTheDaemonDoesNotRun) {
    start_alpha();
    stop(daemon, SIGKILL);
    const auto [status, findings] = look();
    EXPECT_EQ(status, UNREACHABLE);
    EXPECT_TRUE(has(findings, "local-road", "fail", "host/run", "nobody answers", "start rvzd_server"))
        << told(findings);
    EXPECT_TRUE(has(findings, "address", "warn", std::to_string(site.port()), "no connection")) << told(findings);
    EXPECT_TRUE(has(findings, "daemon", "fail", "alpha", "does not answer", "start rvzd_server")) << told(findings);
    EXPECT_TRUE(has(findings, "hosts-file", "fail", "alpha", "does not answer")) << told(findings);
    EXPECT_TRUE(has(findings, "database", "ok", "registry.db", "is whole")) << told(findings);
    EXPECT_EQ(look({"nowhere"}).status, UNREACHABLE);
    EXPECT_TRUE(has(look({"nowhere"}).findings, "name", "fail", "nowhere", "has no address", "hosts.conf"));
}

TEST_F(Doctor, FindsWhatIsWrongWithFilesAndTheirRights) {
    start_alpha();
    chmod(site.path("host/priv/registry.db").c_str(), 0644);
    chmod(site.path("host/data").c_str(), 0777);
    std::filesystem::remove_all(site.path("log"));
    site.write("host/priv/.rvzd_well_known_port", "");
    site.write("host/config/rgy_svr.conf", "king");
    std::filesystem::create_symlink("/nowhere", site.path("host/priv/link"));
    site.write("host/priv/foreign", "");
    chmod(site.path("host/priv/foreign").c_str(), 0600);
    ASSERT_EQ(chown(site.path("host/priv/foreign").c_str(), 4242, 4242), 0);
    site.write("host/run/rvzd.127.0.0.9.1", ""); // no socket
    const auto [status, findings] = look();
    EXPECT_NE(status, DONE);
    EXPECT_TRUE(has(findings, "private-files", "fail", "registry.db", "mode 0644", "chmod 0640")) << told(findings);
    EXPECT_TRUE(has(findings, "private-files", "fail", "link", "symbolic link")) << told(findings);
    EXPECT_TRUE(has(findings, "private-files", "fail", "foreign", "belongs to user 4242", "chown"));
    EXPECT_TRUE(has(findings, "directories", "fail", "host/data", "every user", "chmod o-w")) << told(findings);
    EXPECT_TRUE(has(findings, "directories", "fail", "log", "No such file", "mkdir")) << told(findings);
    EXPECT_TRUE(has(findings, "port", "fail", ".rvzd_well_known_port", "port 371")) << told(findings);
    EXPECT_TRUE(has(findings, "role", "fail", "rgy_svr.conf", "king")) << told(findings);
}

TEST_F(Doctor, FindsWhatIsWrongWithNamesAndWhatStandsInThePlaceOfADirectory) {
    start_alpha();
    site.write("config/hosts.conf", "alpha 192.0.2.1\n");
    std::filesystem::remove_all(site.path("host/data"));
    site.write("host/data", "");
    const auto findings = look().findings;
    EXPECT_TRUE(has(findings, "name", "fail", "192.0.2.1", "that it does not have", "hosts.conf")) << told(findings);
    EXPECT_TRUE(has(findings, "directories", "fail", "host/data", "is no directory")) << told(findings);
    site.write("config/services.conf", "");
    const auto unnamed = objects_of(veliactl({"doctor", "-o", "json", "--timeout", "1"}, {"PATH=/nowhere"}).output);
    EXPECT_TRUE(has(unnamed, "port", "warn", "alpha", "")) << "what the library says: " << told(unnamed);
    EXPECT_TRUE(has(unnamed, "database", "warn", "registry.db", "could not be run", "PATH")) << told(unnamed);
}

TEST_F(Doctor, FindsAHostsFileThatNamesAHostWithoutARegistry) {
    start_both();
    site.write("beta/host/config/rgy_svr.conf", "not a server");
    ASSERT_TRUE(eventually([] { return state_of("beta").role == RGY_SVR_NONE; }));
    site.write("host/config/rgy_hosts.conf", "beta\n\n");
    const auto findings = look().findings;
    EXPECT_TRUE(has(findings, "hosts-file", "fail", "beta", "and has none", "registry hosts")) << told(findings);
}

// Of which neither has heard of the other yet.
TEST_F(Doctor, FindsTwoMasters) {
    site.configure("option registry-copy 3600\n");
    start_both();
    site.write("host/config/rgy_hosts.conf", "alpha\n\n");
    site.write("beta/host/config/rgy_hosts.conf", "beta\n\n");
    site.write("beta/host/config/rgy_svr.conf", "master");
    ASSERT_TRUE(eventually([] { return state_of("beta").takes_updates; })) << standby->output();
    ASSERT_TRUE(state_of("alpha").takes_updates) << daemon->output();
    site.write("host/config/rgy_hosts.conf", "alpha\nbeta\n");
    const auto [status, findings] = look();
    EXPECT_EQ(status, FAILED);
    EXPECT_TRUE(has(findings, "term", "fail", "beta", "it takes updates, and so does alpha", "--force"))
        << told(findings);
}

TEST_F(Doctor, FindsWhatIsWrongWithTheRoleAndTheHostsFile) {
    start_both();
    site.write("config/client_only", "");
    EXPECT_TRUE(has(look().findings, "role", "fail", "client_only", "no server")) << told(look().findings);
    std::filesystem::remove(site.path("config/client_only"));
    site.write("host/config/rgy_hosts.conf", "beta\nsix\n");
    const auto findings = look().findings;
    EXPECT_TRUE(has(findings, "hosts-file", "fail", "beta", "copies from alpha", "--master alpha")) << told(findings);
    EXPECT_TRUE(has(findings, "hosts-file", "warn", "six", "does not answer", "registry backup")) << told(findings);
    site.write("host/config/rgy_hosts.conf", "\n");
    EXPECT_TRUE(has(look().findings, "hosts-file", "warn", "rgy_hosts.conf", "names no registry"));
    const auto of_standby = look({}, on_beta());
    EXPECT_EQ(of_standby.status, DONE) << "only a warning: " << told(of_standby.findings);
    EXPECT_TRUE(has(of_standby.findings, "hosts-file", "warn", "beta", "not in the master's list", "registry backup"))
        << told(of_standby.findings);
}

TEST_F(Doctor, FindsAMasterThatWasSupersededAndAStandbyThatCannotCopy) {
    start_both();
    ASSERT_EQ(veliactl({"registry", "promote", "beta", "--force"}).status, DONE);
    ASSERT_TRUE(eventually([] { return state_of("alpha").heard_term == 2; }));
    const auto [status, findings] = look();
    EXPECT_EQ(status, FAILED);
    EXPECT_TRUE(has(findings, "term", "fail", "alpha", "superseded: beta is the master", "demote --follow beta"))
        << told(findings);
    site.write("beta/host/config/rgy_hosts.conf", "alpha\nbeta\n");
    const auto at_beta = look({}, on_beta()).findings;
    EXPECT_TRUE(has(at_beta, "hosts-file", "fail", "alpha", "was superseded by beta", "--master beta"))
        << told(at_beta);
    site.write("beta/host/config/rgy_hosts.conf", "beta\nbeta\n");
    ASSERT_EQ(veliactl({"registry", "demote", "--follow", "beta"}).status, DONE);
    ASSERT_TRUE(eventually([] { return state_of("alpha").master == "beta"; }));
    stop(standby, SIGKILL);
    ASSERT_TRUE(eventually([] { return !state_of("alpha").failure.empty(); }));
    EXPECT_TRUE(has(look().findings, "copy", "fail", "alpha", "cannot copy from beta", "see whether beta answers"))
        << told(look().findings);
}

TEST_F(Doctor, FindsASiteWithoutAMaster) {
    start_both();
    ASSERT_EQ(turn("alpha", RVZD_TURN_FOLLOW, 0, "beta"), TBS_ST_OK);
    for (const auto &environment : {Words{}, on_beta()}) {
        const auto [status, findings] = look({}, environment);
        EXPECT_EQ(status, FAILED);
        EXPECT_TRUE(has(findings, "term", "fail", "", "no host of the site is the master", "veliactl site master"))
            << told(findings);
    }
    stop(daemon);
    const auto findings = look({}, on_beta()).findings;
    EXPECT_FALSE(has(findings, "term", "fail", "", "")) << "it may be the one that does not answer: " << told(findings);
}

TEST_F(Doctor, FindsAClockThatIsOff) {
    start_both();
    const Words with_clock = {std::string("LD_PRELOAD=") + SET_CLOCK_PRELOAD, "CLOCK_AHEAD=" + site.path("ahead"),
                              "ASAN_OPTIONS=verify_asan_link_order=0"};
    site.write("ahead", "3600");
    const auto [status, findings] = look({"beta"}, with_clock);
    EXPECT_EQ(status, FAILED);
    EXPECT_TRUE(has(findings, "clock", "fail", "beta", "behind this host's", "source of time")) << told(findings);
    site.write("ahead", "-60");
    const auto less = look({"beta"}, with_clock);
    EXPECT_EQ(less.status, DONE);
    EXPECT_TRUE(has(less.findings, "clock", "warn", "beta", "ahead of this host's")) << told(less.findings);
}

TEST_F(Doctor, FindsADatabaseThatIsDamagedOrGone) {
    start_alpha();
    ASSERT_EQ(add_region("one"), TBS_ST_OK);
    stop(daemon);
    const std::string whole = site.read("host/priv/registry.db");
    site.write("host/priv/registry.db", whole.substr(0, 4096 + 100));
    EXPECT_TRUE(has(look().findings, "database", "fail", "registry.db", "", "--restore-registry"))
        << told(look().findings);
    std::filesystem::remove(site.path("host/priv/registry.db"));
    EXPECT_TRUE(has(look().findings, "database", "fail", "registry.db", "is gone", "--restore-registry"));
    site.write("host/config/rgy_svr.conf", "standby");
    EXPECT_TRUE(has(look().findings, "database", "fail", "registry.db", "is gone", "remove"));
    start_alpha();
    EXPECT_TRUE(
        has(look().findings, "role", "warn", "rgy_svr.conf", "the daemon goes by 'not a server'", "see its log"));
    stop(daemon);
    std::filesystem::remove(site.path("host/priv/registry.db.made"));
    EXPECT_TRUE(has(look().findings, "database", "ok", "registry.db", "there is none"));
}

} // namespace
