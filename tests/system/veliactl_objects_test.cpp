// Views and vaults, the site's backup hosts, passwords and roles, by the administrator's tool on real daemons.
#include <tests/system/support/on_terminal.h>
#include <tests/system/support/veliactl.h>

#include <fcntl.h>
#include <gmock/gmock.h>

using namespace velia::system_test;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

namespace {

constexpr const char *uuid = "0b5f8a52-7d1a-4c39-9d54-1a2b3c4d5e6f";
constexpr const char *other_uuid = "5e6f0b5f-7d1a-4c39-9d54-1a2b3c4d8a52";

struct VeliactlObjects : VeliactlTest {
    void SetUp() override { serve_registry(); }

    Words view(const std::string &view_uuid, const Words &further = {}) const {
        Words words = {"view", "add", view_uuid, "--hostname", "build7", "--path", "/views/a.vws"};
        words.insert(words.end(), further.begin(), further.end());
        return words;
    }
    Words vault(const std::string &replica, const Words &further = {}) const {
        Words words = {"vault", "add", replica, "--family", other_uuid, "--hostname", "build8", "--path", "/v.vbs"};
        words.insert(words.end(), further.begin(), further.end());
        return words;
    }
};

struct VeliactlPassword : VeliactlTest {
    void SetUp() override { serve_registry(); }

    Outcome set_password(const std::string &password) const {
        site.write("password", password);
        return veliactl({"registry", "passwd", "--server", RVZD_SERVER, "--password-file", site.path("password")});
    }
    std::string access(const std::string &password, const Words &what, int status) const {
        site.write("tried", password);
        Words words = {"registry", "check", "--password-file", site.path("tried")};
        words.insert(words.end(), what.begin(), what.end());
        const auto answer = objects(words, status);
        return answer.empty() ? "" : answer[0]["access"].text();
    }
};

TEST_F(VeliactlObjects, ThatAreNoneAreToldToAPersonAlone) {
    for (const char *form : {"plain", "jsonl", "table"}) {
        OnTerminal terminal({VELIACTL, "view", "list", "-o", form});
        EXPECT_EQ(terminal.end(), DONE);
        EXPECT_EQ(terminal.shown(), "Nothing found\r\n");
        const auto outcome = veliactl({"view", "list", "-o", form});
        EXPECT_EQ(outcome.status, DONE);
        EXPECT_EQ(outcome.output + outcome.errors, "");
    }
}

TEST_F(VeliactlObjects, HaveAHelpAsWideAsTheTerminalItself) {
    unsetenv("COLUMNS");
    for (const int columns : {60, 110}) {
        const std::string size = "stty cols " + std::to_string(columns) + "; exec ";
        OnTerminal terminal({"/bin/sh", "-c", size + VELIACTL + " view add --help"});
        EXPECT_EQ(terminal.end(), DONE);
        std::istringstream lines(terminal.shown());
        size_t widest = 0;
        for (std::string line; std::getline(lines, line);)
            widest = std::max(widest, line.size() - 1); // without the carriage return
        EXPECT_LE(widest, static_cast<size_t>(columns)) << terminal.shown();
        EXPECT_GT(widest, static_cast<size_t>(columns) - 20);
    }
}

TEST_F(VeliactlObjects, ThatAreNoneAreNotToldBesideAFailure) {
    for (const Words &words :
         {Words{"contact", "nobody.invalid"}, {"registry", "remove", "regions", "--string", "name=x"}}) {
        Words line = {VELIACTL};
        line.insert(line.end(), words.begin(), words.end());
        OnTerminal terminal(line);
        EXPECT_NE(terminal.end(), DONE);
        EXPECT_THAT(terminal.shown(), Not(IsEmpty()));
        EXPECT_THAT(terminal.shown(), Not(HasSubstr("Nothing found")));
    }
}

struct VeliactlRole : VeliactlTest {
    std::unique_ptr<Daemon> standby;

    void SetUp() override {
        site.write("host/config/rgy_svr.conf", "master");
        site.write("host/config/rgy_hosts.conf", "alpha\nbeta\n");
        serve(std::string("option registry-copy 1\n") + trusted_hosts, {"--listen", "127.0.0.1"});
        for (const char *directory : {"beta/host/config", "beta/host/priv", "beta/host/data", "beta/log"})
            std::filesystem::create_directories(site.path(directory));
        std::filesystem::create_symlink(site.path("config"), site.path("beta/config"));
        site.write("beta/host/config/rgy_svr.conf", "standby");
        site.write("beta/host/config/rgy_hosts.conf", "alpha\nbeta\n");
        Child::Options options;
        options.environment = on_beta();
        standby = std::make_unique<Daemon>(site, Words{"--listen", "127.0.0.2"}, options);
        ASSERT_TRUE(standby->is_ready()) << standby->output();
    }
    Words on_beta() const { return {"VELIA_ROOT=" + site.path("beta"), "VELIA_HOSTNAME=beta"}; }
    // Until it has one, the standby serves none, and says so.
    bool has_copy() const {
        return eventually([&] {
            const auto listed = veliactl({"registry", "list", "regions", "--host", "beta", "--output", "json"});
            return objects_of(listed.output).size() == 1;
        });
    }
};

} // namespace

TEST_F(VeliactlObjects, AViewThatIsAddedIsListed) {
    const auto added = objects(view(uuid, {"--owner", "lab/ann", "--attribute", "snapshot", "--attribute", "ucm=no"}));
    EXPECT_EQ(added, (Objects{Json::object({{"action", "added"},
                                            {"object", "view"},
                                            {"uuid", uuid},
                                            {"hostname", "build7"},
                                            {"path", "/views/a.vws"}})}));
    const auto listed = objects({"view", "list"});
    ASSERT_THAT(listed, SizeIs(1));
    EXPECT_EQ(listed[0]["uuid"], uuid);
    EXPECT_EQ(listed[0]["hostname"], "build7");
    EXPECT_EQ(listed[0]["path"], "/views/a.vws");
    EXPECT_EQ(listed[0]["owner"], "lab/ann");
    EXPECT_EQ(listed[0]["attributes"].dump(), R"({"snapshot":true,"ucm":"no"})");
    EXPECT_THAT(objects({"vault", "list"}), IsEmpty());
}

TEST_F(VeliactlObjects, AVaultThatIsAddedIsListedWithItsFamily) {
    ASSERT_THAT(objects(vault(uuid)), SizeIs(1));
    const auto listed = objects({"vault", "list"});
    ASSERT_THAT(listed, SizeIs(1));
    EXPECT_EQ(listed[0]["uuid"], uuid);
    EXPECT_EQ(listed[0]["family"], other_uuid);
    EXPECT_EQ(listed[0]["hostname"], "build8");
    EXPECT_EQ(listed[0]["attributes"], nullptr);
}

TEST_F(VeliactlObjects, AUuidIsRegisteredOnce) {
    ASSERT_THAT(objects(view(uuid)), SizeIs(1));
    const auto again = veliactl(view(uuid));
    EXPECT_EQ(again.status, FAILED);
    EXPECT_THAT(again.output, IsEmpty());
    EXPECT_THAT(again.errors, HasSubstr(std::string("A view with the uuid ") + uuid + " is registered already"));
    EXPECT_THAT(objects({"view", "list"}), SizeIs(1));
}

TEST_F(VeliactlObjects, AListIsOfOneHostIfWanted) {
    ASSERT_THAT(objects(view(uuid)), SizeIs(1));
    EXPECT_THAT(objects({"view", "list", "--hostname", "build7"}), SizeIs(1));
    EXPECT_THAT(objects({"view", "list", "--hostname", "build8"}), IsEmpty());
}

TEST_F(VeliactlObjects, TextsThatTheRegistryCannotHoldAreWrongUse) {
    const std::string longest(1023, 'x');
    for (const Words &words :
         {view("no-uuid"), view(uuid, {"--owner", "a;b"}), view(uuid, {"--owner", longest + "x"}),
          view(uuid, {"--attribute", "a,b"}), view(uuid, {"--attribute", longest, "--attribute", "x"}),
          Words{"view", "add", uuid}, Words{"vault", "add", uuid, "--hostname", "h", "--path", "/p"}}) {
        const auto outcome = veliactl(words);
        EXPECT_EQ(outcome.status, WRONG_USE) << outcome.errors;
        EXPECT_THAT(outcome.errors, Not(IsEmpty()));
    }
    EXPECT_THAT(objects({"view", "list"}), IsEmpty());
    EXPECT_EQ(veliactl(view(uuid, {"--attribute", longest})).status, DONE);
    EXPECT_EQ(objects({"view", "list"})[0]["attributes"].names, Words{longest});
}

TEST_F(VeliactlObjects, WithoutARegistryNothingIsAdded) {
    daemon->signal(SIGKILL);
    daemon->wait();
    const auto outcome = veliactl(view(uuid));
    EXPECT_NE(outcome.status, DONE);
    EXPECT_THAT(outcome.output, IsEmpty());
    EXPECT_THAT(outcome.errors, HasSubstr("The view was not registered"));
}

TEST_F(VeliactlObjects, BackupHostsAreShownSetAndCleared) {
    const auto backup = [&](const Words &further) {
        Words words = {"registry", "backup"};
        words.insert(words.end(), further.begin(), further.end());
        return objects(words).at(0)["backup"];
    };
    EXPECT_EQ(backup({}), Json::list({}));
    EXPECT_EQ(backup({"beta,six"}), Json::list({"beta", "six"}));
    EXPECT_EQ(backup({}), Json::list({"beta", "six"}));
    EXPECT_EQ(backup({""}), Json::list({}));
    EXPECT_EQ(veliactl({"registry", "backup", std::string(513, 'h')}).status, WRONG_USE);
}

TEST_F(VeliactlPassword, WithoutOneIsToldAsSuch) {
    EXPECT_EQ(access("secret", {"vault_tag"}, FAILED), "no password");
    EXPECT_EQ(access("secret", {}, FAILED), "no password");
}

TEST_F(VeliactlPassword, OfAHostThatIsNotKnownIsNoAnswer) {
    const auto outcome = veliactl({"registry", "check", "vault_tag", "--host", "nowhere.invalid", "--password-file",
                                   site.write("password", "secret\n")});
    EXPECT_EQ(outcome.status, UNREACHABLE);
    EXPECT_THAT(outcome.errors, HasSubstr("nowhere.invalid"));
    EXPECT_EQ(outcome.output, "");
}

TEST_F(VeliactlPassword, IsCheckedForADatabaseAndForTags) {
    EXPECT_EQ(set_password("secret\n").status, DONE);
    for (const Words &what : {Words{}, Words{"vault_tag"}}) {
        EXPECT_EQ(access("secret", what, DONE), "granted");
        EXPECT_EQ(access("secret\nand more", what, DONE), "granted");
        EXPECT_EQ(access("Secret", what, FAILED), "denied");
    }
}

TEST_F(VeliactlPassword, MayHoldAnyByteButTheLineEnd) {
    std::string password;
    for (int byte = 1; byte < 256; ++byte)
        if (byte != '\n')
            password += static_cast<char>(byte);
    EXPECT_EQ(set_password(password).status, DONE);
    EXPECT_EQ(access(password, {}, DONE), "granted");
    password.back() = 'x';
    EXPECT_EQ(access(password, {}, FAILED), "denied");
}

TEST_F(VeliactlPassword, ThatIsEmptyRemovesIt) {
    EXPECT_THAT(set_password("secret").output, HasSubstr("password set"));
    EXPECT_THAT(set_password("").output, HasSubstr("password removed"));
    EXPECT_EQ(access("secret", {"vault_tag"}, FAILED), "no password");
}

TEST_F(VeliactlPassword, ComesFromStandardInputThatIsNoTerminal) {
    site.write("password", "secret\n");
    EXPECT_EQ(veliactl_reading("password", std::string("registry passwd --server ") + RVZD_SERVER).status, DONE);
    EXPECT_EQ(veliactl_reading("password", "registry check").status, DONE);
    EXPECT_EQ(veliactl_reading("password", "registry check vault_tag --password-file -").status, DONE);
}

TEST_F(VeliactlPassword, ThatCannotBeReadIsToldAndChangesNothing) {
    const struct {
        std::string password;
        const char *told;
    } cases[] = {{std::string("a\0b", 3), "it holds a zero byte"}, {std::string(4096, 'x'), "it is too long"}};
    for (const auto &[password, told] : cases) {
        const auto outcome = set_password(password);
        EXPECT_EQ(outcome.status, FAILED);
        EXPECT_THAT(outcome.errors, HasSubstr(told));
    }
    EXPECT_EQ(veliactl({"registry", "check", "--password-file", site.path("missing")}).status, FAILED);
    EXPECT_EQ(access("", {}, FAILED), "") << "an empty one is not asked for on the terminal";
    EXPECT_EQ(access("secret", {"vault_tag"}, FAILED), "no password");
}

TEST_F(VeliactlPassword, NeedsADaemonsProgramThatWorks) {
    site.write("password", "secret");
    for (const char *program : {"/nonexistent/rvzd_server", "/bin/false"}) {
        const auto outcome =
            veliactl({"registry", "passwd", "--server", program, "--password-file", site.path("password")});
        EXPECT_EQ(outcome.status, FAILED);
        EXPECT_THAT(outcome.errors, HasSubstr(std::string("not changed: ") + program));
        EXPECT_THAT(outcome.output, IsEmpty());
    }
}

TEST_F(VeliactlPassword, IsTypedTwiceWithoutEcho) {
    OnTerminal passwd({VELIACTL, "registry", "passwd", "--server", RVZD_SERVER});
    ASSERT_TRUE(passwd.answer("New registry password: ", "typed")) << passwd.shown();
    ASSERT_TRUE(passwd.answer("Once more: ", "typed")) << passwd.shown();
    EXPECT_EQ(passwd.end(), DONE) << passwd.shown();
    EXPECT_THAT(passwd.shown(), Not(HasSubstr("typed")));
    EXPECT_EQ(access("typed", {}, DONE), "granted");
}

TEST_F(VeliactlPassword, ThatIsTypedDifferentlyChangesNothing) {
    OnTerminal passwd({VELIACTL, "registry", "passwd", "--server", RVZD_SERVER});
    ASSERT_TRUE(passwd.answer("New registry password: ", "one")) << passwd.shown();
    ASSERT_TRUE(passwd.answer("Once more: ", "other")) << passwd.shown();
    EXPECT_EQ(passwd.end(), FAILED);
    EXPECT_THAT(passwd.shown(), HasSubstr("The passwords differ"));
    EXPECT_EQ(access("one", {"vault_tag"}, FAILED), "no password");
}

TEST_F(VeliactlPassword, IsAskedForByTheCheck) {
    ASSERT_EQ(set_password("secret").status, DONE);
    OnTerminal tags({VELIACTL, "registry", "check"});
    ASSERT_TRUE(tags.answer("assword", "secret")) << tags.shown();
    EXPECT_EQ(tags.end(), DONE) << tags.shown();
    OnTerminal database({VELIACTL, "registry", "check", "vault_tag"});
    ASSERT_TRUE(database.answer("Registry password: ", "wrong")) << database.shown();
    EXPECT_EQ(database.end(), FAILED) << database.shown();
}

TEST_F(VeliactlRole, AStandbyIsPromotedFromAClient) {
    ASSERT_EQ(veliactl({"registry", "add", "regions", "name=east"}).status, DONE);
    ASSERT_TRUE(has_copy());
    daemon->signal(SIGKILL);
    daemon->wait();
    EXPECT_EQ(objects({"registry", "promote", "beta"}),
              (Objects{Json::object({{"host", "beta"}, {"role", "master"}})}));
    EXPECT_EQ(objects({"registry", "hosts"})[0]["master"], "beta");
    EXPECT_EQ(objects({"registry", "role"}, DONE, on_beta())[0]["role"], "master");
    EXPECT_EQ(veliactl({"registry", "add", "regions", "name=west"}).status, DONE);
    EXPECT_THAT(objects({"registry", "list", "regions"}), SizeIs(2));
}

TEST_F(VeliactlRole, AStandbyPromotesItselfAndStepsDownAgain) {
    ASSERT_EQ(veliactl({"registry", "add", "regions", "name=east"}).status, DONE);
    ASSERT_TRUE(has_copy());
    const auto promoted = veliactl({"registry", "promote", "--force", "-o", "json"}, on_beta());
    EXPECT_EQ(promoted.status, DONE) << promoted.errors;
    EXPECT_EQ(objects_of(promoted.output), (Objects{Json::object({{"host", "beta"}, {"role", "master"}})}));
    const auto demoted = veliactl({"registry", "demote", "--to", "backup", "-o", "json"}, on_beta());
    EXPECT_EQ(demoted.status, DONE) << demoted.errors;
    EXPECT_EQ(objects_of(demoted.output), (Objects{Json::object({{"host", "beta"}, {"role", "backup"}})}));
    EXPECT_EQ(objects({"registry", "role"}, DONE, on_beta())[0]["role"], "backup");
}

TEST_F(VeliactlRole, WhatIsNoStandbyIsNotPromotedAndWhatIsNoMasterNotDemoted) {
    site.write("beta/host/config/rgy_svr.conf", "slave");
    const auto promoted = veliactl({"registry", "promote"}, on_beta());
    EXPECT_EQ(promoted.status, FAILED);
    EXPECT_THAT(promoted.errors, HasSubstr("is not a STANDBY registry server"));
    EXPECT_THAT(promoted.output, IsEmpty());
    const auto demoted = veliactl({"registry", "demote"}, on_beta());
    EXPECT_EQ(demoted.status, FAILED);
    EXPECT_THAT(demoted.errors, HasSubstr("Host 'beta' is not the master registry server"));
    EXPECT_EQ(veliactl({"registry", "demote", "--to", "master"}).status, WRONG_USE);
    EXPECT_EQ(veliactl({"registry", "promote", std::string(64, 'h')}).status, WRONG_USE);
    EXPECT_EQ(veliactl({"registry", "promote", "two words"}).status, WRONG_USE);
}

TEST_F(VeliactlRole, AHostThatCannotBeReachedIsNotPromoted) {
    standby->signal(SIGKILL);
    standby->wait();
    const auto outcome = veliactl({"registry", "promote", "beta"});
    EXPECT_EQ(outcome.status, UNREACHABLE);
    EXPECT_THAT(outcome.errors, HasSubstr("Unable to start registry service on host \"beta\""));
    EXPECT_EQ(objects({"registry", "hosts"})[0]["master"], "alpha");
}
