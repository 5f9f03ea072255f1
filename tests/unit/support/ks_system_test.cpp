// This host's data directory, the kind of process, and the start of a server.
#include <gtest/gtest.h>

#include <csignal>

#include <fcntl.h>
#include <unistd.h>

#include <support/ks.h>

#include "message_recorder.h"
#include "test_site.h"

namespace {

void start_as(std::string program, char *name) {
    char *arguments[2] = {program.data(), nullptr};
    ks_system_init(1, arguments, name);
}

} // namespace

TEST(HostData, FileLiesBelowTheInstallationsRoot) {
    TestSite site;
    char path[200];
    EXPECT_EQ(ks_hostdata_dir(path, sizeof path, "lists"), TBS_ST_OK);
    EXPECT_EQ(path, site.path("host/data/lists"));
    EXPECT_EQ(ks_hostdata_dir(path, sizeof path, nullptr), TBS_ST_OK);
    EXPECT_EQ(path, site.path("host/data"));
}

TEST(HostData, PathThatDoesNotFitIsRefused) {
    TestSite site;
    char path[8] = "before";
    EXPECT_EQ(ks_hostdata_dir(path, sizeof path, "lists"), TBS_ST_NAME_TOO_LONG);
    EXPECT_STREQ(path, "");
}

TEST(WebInterface, IsWhatTheEnvironmentSays) {
    for (const auto &[value, is_web] :
         {std::pair<const char *, bool>(nullptr, false), {"", false}, {"0", false}, {"1", true}, {"yes", true}}) {
        ScopedEnv env("VELIA_WEB_GUI", value);
        EXPECT_EQ(ks_web_gui() != 0, is_web) << (value != nullptr ? value : "unset");
    }
}

TEST(ServerStart, OpensStandardDescriptorsThatAreClosed) {
    EXPECT_EXIT(
        {
            close(STDIN_FILENO);
            close(STDOUT_FILENO);
            start_as("/opt/bin/rvzd", nullptr);
            const int next = open("/dev/null", O_RDONLY);
            _exit(next > STDERR_FILENO ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

TEST(ServerStart, BrokenConnectionIsNoSignal) {
    EXPECT_EXIT(
        {
            char *arguments[] = {nullptr};
            ks_system_init(0, arguments, nullptr);
            raise(SIGPIPE);
            _exit(0);
        },
        testing::ExitedWithCode(0), "");
}

TEST(ServerStart, MessagesCarryTheProgramsFileName) {
    EXPECT_EXIT(
        {
            char name[] = "kept";
            start_as("/opt/bin/rvzd", name);
            imsg_print(IMSG_ERROR, "%s\n", IMSG_FORMAT, name);
            _exit(0);
        },
        testing::ExitedWithCode(0), "^rvzd: Error: kept");
}
