// As who a service runs, and what it has of the daemon.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <tests/system/support/client.h>
#include <tests/system/support/daemon.h>

using namespace velia::system_test;
using testing::HasSubstr;
using testing::Not;

namespace {

// The daemon runs scripts that tell what they are, each line behind a word of its own.
struct ServiceAccount : testing::Test {
    Site site;
    std::unique_ptr<Daemon> daemon;

    // All it tells, once it has told the last of it.
    std::string told_by_service(const std::string &user, const std::string &group, const std::string &script,
                                Child::Options options = {}) {
        site.write("service.sh", script + "\necho told all\nexec sleep 1000\n");
        site.configure("udp resident 390600 1 start=60 " + user + " " + group + " /bin/sh " + site.path("service.sh") +
                       "\n");
        std::filesystem::permissions(site.root(), std::filesystem::perms(0755));
        daemon = std::make_unique<Daemon>(site, std::vector<std::string>{}, std::move(options));
        EXPECT_TRUE(daemon->is_ready()) << daemon->output();
        EXPECT_TRUE(daemon->says("told all\n")) << daemon->output();
        return daemon->output();
    }
    static std::string own_id(const char *what) { return std::string("echo ") + what + " $(id " + what + ")\n"; }
};

// Only root can start a service as somebody else.
struct OthersAccount : ServiceAccount {
    void SetUp() override {
        if (getuid() != 0)
            GTEST_SKIP() << "needs root";
    }
};

// A user with an entry, and its groups as the system has them.
std::string groups_of(const char *user) {
    const passwd *entry = getpwnam(user);
    gid_t groups[64];
    int count = 64;
    getgrouplist(user, entry->pw_gid, groups, &count);
    std::string text;
    for (int i = 0; i < count; ++i)
        text += " " + std::to_string(groups[i]);
    return text;
}

} // namespace

TEST_F(OthersAccount, IsTheUsersWithItsGroups) {
    const auto told = told_by_service("nobody", "-", own_id("-u") + own_id("-g") + own_id("-G"));
    const passwd *nobody = getpwnam("nobody");
    EXPECT_THAT(told, HasSubstr("-u " + std::to_string(nobody->pw_uid) + "\n"));
    EXPECT_THAT(told, HasSubstr("-g " + std::to_string(nobody->pw_gid) + "\n"));
    EXPECT_THAT(told, HasSubstr("-G" + groups_of("nobody") + "\n"));
}

TEST_F(OthersAccount, IsInTheFurtherGroupsOfItsUser) {
    Child::Options options;
    options.environment = {std::string("LD_PRELOAD=") + SLOW_USERS_PRELOAD, "USERS_GROUP=4343",
                           "ASAN_OPTIONS=verify_asan_link_order=0"};
    const auto told = told_by_service("nobody", "4242", own_id("-G"), options);
    EXPECT_THAT(told, HasSubstr("-G 4242 4343\n"));
}

TEST_F(OthersAccount, HasTheGroupOfTheLineBeforeTheUsersOwn) {
    const auto told = told_by_service("nobody", "4242", own_id("-g") + own_id("-G"));
    EXPECT_THAT(told, HasSubstr("-g 4242\n"));
    EXPECT_THAT(told, HasSubstr("-G 4242"));
    EXPECT_THAT(told, Not(testing::ContainsRegex("-G[ 0-9]* 0[ \n]")));
}

// A user that the system does not know has no group, and root's is none for it.
TEST_F(OthersAccount, WithoutAGroupIsNotStarted) {
    site.configure("udp resident 390600 1 restarts=0 54321 - /bin/sh -c \"id; sleep 1000\"\n");
    daemon = std::make_unique<Daemon>(site);
    EXPECT_TRUE(daemon->says("no group is known of user 54321")) << daemon->output();
    EXPECT_TRUE(daemon->started().empty());
}

TEST_F(ServiceAccount, HasAnEnvironmentOfItsOwn) {
    Child::Options options;
    options.environment = {"LD_LIBRARY_PATH=/nowhere/here", "SECRET_OF_ADMINISTRATOR=42", "VELIA_SOMETHING=kept",
                           "LC_TIME=C", "PATH=/somewhere:/bin:/usr/bin"};
    const auto told = told_by_service("-", "-", "env\n", options);
    EXPECT_THAT(told, Not(HasSubstr("SECRET_OF_ADMINISTRATOR")));
    EXPECT_THAT(told, Not(HasSubstr("/nowhere/here")));
    EXPECT_THAT(told, Not(HasSubstr("/somewhere")));
    EXPECT_THAT(told, HasSubstr("VELIA_SOMETHING=kept\n"));
    EXPECT_THAT(told, HasSubstr("LC_TIME=C\n"));
    EXPECT_THAT(told, HasSubstr("HOME=" + std::string(getpwuid(geteuid())->pw_dir) + "\n"));
    EXPECT_THAT(told, HasSubstr("VELIA_ROOT=" + site.root().string() + "\n"));
}

TEST_F(ServiceAccount, HasNoDescriptorOfTheDaemonsButItsOwn) {
    const auto told =
        told_by_service("-", "-", "for fd in /proc/$$/fd/*; do echo fd ${fd##*/} $(readlink $fd); done\n");
    EXPECT_THAT(told, testing::ContainsRegex("fd 0 /dev/null\n"));
    EXPECT_THAT(told, testing::ContainsRegex("fd 1 pipe:"));
    EXPECT_THAT(told, testing::ContainsRegex("fd 2 pipe:"));
    EXPECT_THAT(told, testing::ContainsRegex("fd 3 pipe:"));
    EXPECT_THAT(told, testing::ContainsRegex("fd 4 socket:"));
    EXPECT_THAT(told, Not(HasSubstr("registry.db")));
    EXPECT_THAT(told, Not(HasSubstr("anon_inode"))) << "the loop's";
    EXPECT_THAT(told, Not(HasSubstr("daemon-1.out"))) << "the log";
}

TEST_F(ServiceAccount, CanAddToTheLogAndNeitherReadNorCutIt) {
    const auto told = told_by_service("-", "-", "echo before\n: >/proc/self/fd/1\n: >/dev/stderr\necho after >&2\n");
    EXPECT_THAT(told, HasSubstr("up and running"));
    EXPECT_THAT(told, HasSubstr("before\n"));
    EXPECT_THAT(told, HasSubstr("after\n"));
}

TEST_F(ServiceAccount, MakesFilesByTheUsualMask) {
    const auto told = told_by_service("-", "-", "echo mask $(umask)\n");
    EXPECT_THAT(told, HasSubstr("mask 0022\n"));
}

// Users may be asked of another host, which may take its time.
TEST_F(ServiceAccount, IsLookedUpByNobodyWhomClientsWaitFor) {
    Child::Options options;
    options.environment = {std::string("LD_PRELOAD=") + SLOW_USERS_PRELOAD, "USERS_HELD_BY=" + site.path("held"),
                           "ASAN_OPTIONS=verify_asan_link_order=0"};
    const std::string first = sample_line(390600, "shared", "-");
    site.configure(first);
    daemon = std::make_unique<Daemon>(site, std::vector<std::string>{}, options);
    ASSERT_TRUE(daemon->is_ready()) << daemon->output();
    site.write("held", "");
    EXPECT_EQ(echo("alpha", 390600, RVZD_PROTOCOL_UDP, "x"), "x") << "a service of before is started";
    site.configure(first + "udp shared 390601 1 - root - " SAMPLE_SERVER " --prog 390601\n");
    daemon->signal(SIGHUP);
    for (int i = 0; i < 20; ++i)
        ASSERT_EQ(Handle("alpha", RVZD_PROTOCOL_UDP).status(), TBS_ST_OK) << i;
    EXPECT_NE(echo("alpha", 390601, RVZD_PROTOCOL_UDP, "x"), "x") << "it is not known yet as whom";
    std::filesystem::remove(site.path("held"));
    EXPECT_TRUE(eventually([] { return echo("alpha", 390601, RVZD_PROTOCOL_UDP, "x") == "x"; })) << daemon->output();
}
