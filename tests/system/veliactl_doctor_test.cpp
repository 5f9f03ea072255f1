// veliactl doctor: each fault of a host's set-up is found, and told with what to do.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <set>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

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
    // A host's directories beside those that the daemon goes by; the site's are the same.
    void make_other_root() const {
        for (const char *directory : {"other/host/config", "other/host/priv"})
            std::filesystem::create_directories(site.path(directory));
        std::filesystem::create_symlink(site.path("config"), site.path("other/config"));
    }
    Words in_other_root() const { return {"VELIA_ROOT=" + site.path("other")}; }

    void start_both() {
        start_alpha();
        ASSERT_EQ(add_region("one"), TBS_ST_OK);
        start_beta();
        ASSERT_TRUE(comes_to_have("beta", {"one"})) << standby->output();
        ASSERT_TRUE(eventually([] { return state_of("beta").current > 0; })) << "it has not noticed that it has it";
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

TEST_F(Doctor, FindsNothingWrongWithWhatOnlyLooksLikeIt) {
    start_alpha();
    chmod(site.path("host/data").c_str(), 01777); // as of a directory for all, whose files are their owners'
    std::filesystem::create_directories(site.path("host/priv/saved"));
    ASSERT_EQ(chown(site.path("host/priv/saved").c_str(), 4242, 4242), 0);
    const auto findings = look().findings;
    EXPECT_TRUE(has(findings, "directories", "ok", "host/data", "mode 1777")) << told(findings);
    EXPECT_FALSE(has(findings, "private-files", "ok", "saved", "") ||
                 has(findings, "private-files", "fail", "saved", ""))
        << "directories are no private files: " << told(findings);
    site.write("host/config/rgy_svr.conf", "not a server");
    site.write("config/client_only", "");
    ASSERT_TRUE(eventually([] { return state_of("alpha").role == RGY_SVR_NONE; }));
    EXPECT_TRUE(has(look().findings, "role", "ok", "rgy_svr.conf", "no registry server")) << told(look().findings);
    site.write("config/services.conf", "rvzd 371\n");
    site.write("host/priv/.rvzd_well_known_port", "");
    EXPECT_TRUE(has(look().findings, "port", "ok", "alpha", "port 371, by its marker file")) << told(look().findings);
}

// Of another host nobody here can tell which addresses are its own.
TEST_F(Doctor, LooksAtTheAddressesOfAnotherHostFromAfar) {
    site.write("config/hosts.conf", "alpha 127.0.0.1\nfar 192.0.2.1\n");
    EXPECT_TRUE(has(look({"far"}).findings, "name", "ok", "192.0.2.1", "is an address of far"));
}

TEST_F(Doctor, FindsARoleThatTheDaemonDoesNotGoBy) {
    start_alpha();
    make_other_root();
    site.write("other/host/config/rgy_svr.conf", "slave");
    const auto findings = look({}, in_other_root()).findings;
    EXPECT_TRUE(has(findings, "role", "warn", "rgy_svr.conf", "says 'slave', and the daemon goes by 'master'",
                    "write the role there that is meant"))
        << told(findings);
}

TEST_F(Doctor, FindsASocketThatNobodyAnswers) {
    start_alpha();
    const std::string left = site.path("host/run/rvzd.left");
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    ASSERT_LT(left.size(), sizeof address.sun_path);
    std::copy(left.begin(), left.end(), address.sun_path);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_EQ(bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
    close(fd);
    const auto [status, findings] = look();
    EXPECT_EQ(status, DONE) << "others are answered";
    EXPECT_TRUE(has(findings, "local-road", "warn", "rvzd.left", "is not answered", "start the daemon"))
        << told(findings);
}

TEST_F(Doctor, FindsADiskThatIsFull) {
    start_alpha();
    site.write("full", "");
    const auto [status, findings] =
        look({}, {std::string("LD_PRELOAD=") + FULL_DISK_PRELOAD, "DISK_IS_FULL=" + site.path("full"),
                  "ASAN_OPTIONS=verify_asan_link_order=0"});
    EXPECT_EQ(status, FAILED);
    EXPECT_TRUE(has(findings, "database", "fail", "host/priv", "less than 64 MiB are free", "make room"))
        << told(findings);
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

// Of which neither hears of the other: whoever looks has a hosts file of his own.
TEST_F(Doctor, FindsTwoMasters) {
    site.configure("option registry-copy 3600\n");
    start_both();
    site.write("host/config/rgy_hosts.conf", "alpha\n\n");
    site.write("beta/host/config/rgy_hosts.conf", "beta\n\n");
    site.write("beta/host/config/rgy_svr.conf", "master");
    ASSERT_TRUE(eventually([] { return state_of("beta").takes_updates; })) << standby->output();
    ASSERT_TRUE(state_of("alpha").takes_updates) << daemon->output();
    make_other_root();
    site.write("other/host/config/rgy_hosts.conf", "alpha\nbeta\n");
    const auto [status, findings] = look({}, in_other_root());
    EXPECT_EQ(status, FAILED);
    EXPECT_TRUE(has(findings, "term", "fail", "beta", "it takes updates, and so does alpha", "--force"))
        << told(findings);
}

TEST_F(Doctor, FindsNoSecondMasterInAnotherNameOfThisHost) {
    site.write("config/hosts.conf", "alpha 127.0.0.1\nbeta 127.0.0.2\nalias 127.0.0.1\n");
    site.write("host/config/rgy_hosts.conf", "alpha\nalias\n");
    start_alpha();
    ASSERT_TRUE(eventually([] { return state_of("alias").takes_updates; }));
    const auto findings = look().findings;
    EXPECT_TRUE(has(findings, "term", "ok", "alpha", "term 1")) << told(findings);
}

// It waits for its master, who does not say a word.
TEST_F(Doctor, FindsAStandbyThatHasNotCopiedYet) {
    start_alpha();
    daemon->signal(SIGSTOP);
    start_beta();
    const auto findings = look({}, on_beta()).findings;
    daemon->signal(SIGCONT);
    EXPECT_TRUE(has(findings, "copy", "warn", "beta", "has not been like alpha yet", "wait for its first copy"))
        << told(findings);
}

TEST_F(Doctor, FindsACopyThatIsOld) {
    start_alpha();
    ASSERT_EQ(add_region("one"), TBS_ST_OK);
    site.configure("option registry-copy 3600\n");
    site.write("ahead", "0");
    Child::Options options;
    options.environment = on_beta();
    for (const auto &variable : {std::string("LD_PRELOAD=") + SET_CLOCK_PRELOAD, "CLOCK_AHEAD=" + site.path("ahead"),
                                 std::string("ASAN_OPTIONS=verify_asan_link_order=0")})
        options.environment.push_back(variable);
    standby = std::make_unique<Daemon>(site, Words{"--listen", "127.0.0.2"}, options);
    ASSERT_TRUE(standby->is_ready()) << standby->output();
    ASSERT_TRUE(eventually([] { return state_of("beta").current > 0; })) << standby->output();
    EXPECT_TRUE(has(look({"beta"}).findings, "copy", "ok", "beta", "it is like alpha"));
    site.write("ahead", "400");
    ASSERT_TRUE(eventually([] { return state_of("beta").now - state_of("beta").current >= 400; }));
    const auto findings = look({"beta"}).findings;
    EXPECT_TRUE(has(findings, "copy", "warn", "beta", "it was like alpha 4", "see its log")) << told(findings);
}

// Another site's, which is in the hosts file by mistake.
TEST_F(Doctor, FindsNoSecondMasterInOneOfAnotherRegistry) {
    start_alpha();
    site.write("beta/host/config/rgy_svr.conf", "master");
    site.write("beta/host/config/rgy_hosts.conf", "beta\n\n");
    start_beta();
    ASSERT_TRUE(eventually([] { return state_of("beta").takes_updates && state_of("alpha").takes_updates; }));
    const auto findings = look().findings;
    EXPECT_TRUE(has(findings, "term", "ok", "alpha", "term 1")) << told(findings);
}

TEST_F(Doctor, FindsThatItsFilesCannotBeSeen) {
    std::filesystem::remove_all(site.path("host/priv"));
    const auto findings = look().findings;
    EXPECT_TRUE(has(findings, "private-files", "warn", "host/priv", "cannot be seen: No such file", "daemon's user"))
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
    EXPECT_TRUE(has(at_beta, "term", "ok", "beta", "term 2")) << "the other takes no updates: " << told(at_beta);
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
    EXPECT_TRUE(has(findings, "hosts-file", "fail", "alpha", "does not answer")) << told(findings);
    EXPECT_FALSE(has(findings, "hosts-file", "warn", "alpha", "does not answer")) << "once: " << told(findings);
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
