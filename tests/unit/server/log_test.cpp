// Messages to a pipe that nobody reads, and to a file that may not grow.
#include <server/daemon/log.h>

#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <functional>
#include <sched.h>
#include <sstream>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <support/imsg_form.h>

using testing::HasSubstr;
using velia::server::Log;

namespace {

// Each test has a process of its own, and so a log of its own.
struct LogTest : testing::Test {
    LogTest() {
        std::string name = testing::TempDir() + "/velia-log-XXXXXX";
        close(mkstemp(name.data()));
        path = name;
    }
    ~LogTest() override { unlink(path.c_str()); }

    static void say(const std::string &text) { imsg_print(IMSG_PLAIN, "%s\n", IMSG_FORMAT, text.c_str()); }
    std::string written() const {
        std::ostringstream text;
        text << std::ifstream(path).rdbuf();
        return text.str();
    }
    bool comes_to_say(const std::string &text) const {
        for (int i = 0; i < 10000 && written().find(text) == std::string::npos; ++i)
            usleep(1000);
        return written().find(text) != std::string::npos;
    }

    std::string path;
};

} // namespace

TEST_F(LogTest, WhatIsSaidIsWrittenInItsOrder) {
    ASSERT_EQ(imsg_init_daemon(path.c_str()), 0);
    {
        const Log log;
        for (int i = 0; i < 1000; ++i)
            say("message " + std::to_string(i));
    }
    std::istringstream lines(written());
    std::string line;
    for (int i = 0; i < 1000; ++i) {
        ASSERT_TRUE(std::getline(lines, line));
        EXPECT_THAT(line, testing::EndsWith("message " + std::to_string(i)));
    }
}

TEST_F(LogTest, APipeThatNobodyReadsHoldsNobodyUpAndWhatWasLostIsTold) {
    unlink(path.c_str());
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    const int reader = open(path.c_str(), O_RDONLY | O_NONBLOCK);
    ASSERT_EQ(imsg_init_daemon(path.c_str()), 0);
    const Log log;
    const std::string text(10000, 'x');
    for (int i = 0; i < 200; ++i)
        say(text); // as much as there is room for twice
    std::string read_text;
    std::array<char, 65536> bytes;
    while (read_text.find("messages could not be written") == std::string::npos) {
        const ssize_t count = read(reader, bytes.data(), bytes.size());
        if (count > 0)
            read_text.append(bytes.data(), static_cast<size_t>(count));
        sched_yield();
    }
    EXPECT_THAT(read_text, HasSubstr(text + "\n"));
}

TEST_F(LogTest, AtTheEndAPipeThatNobodyReadsIsNotWaitedForLong) {
    unlink(path.c_str());
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    const int reader = open(path.c_str(), O_RDONLY | O_NONBLOCK);
    ASSERT_EQ(imsg_init_daemon(path.c_str()), 0);
    {
        const Log log;
        say(std::string(500000, 'x'));
    }
    close(reader);
}

TEST_F(LogTest, APipeWithoutAReaderIsNoLog) {
    unlink(path.c_str());
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    EXPECT_EQ(imsg_init_daemon(path.c_str()), ENXIO);
}

TEST_F(LogTest, AFileThatMayNotGrowLosesMessagesAndSaysSoWhenItMay) {
    signal(SIGXFSZ, SIG_IGN);
    ASSERT_EQ(imsg_init_daemon(path.c_str()), 0);
    const Log log;
    rlimit limit = {};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &limit), 0);
    const rlimit small = {10, limit.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
    say("this is lost");
    while (log.lost() == 0)
        sched_yield();
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
    say("and this is written");
    EXPECT_TRUE(comes_to_say("1 messages could not be written"));
    EXPECT_THAT(written(), HasSubstr("and this is written"));
}

// Servers that write much wait for themselves, and half of the room is left for messages.
TEST_F(LogTest, WhatServersWriteHasHalfTheRoomAndMessagesTheRest) {
    unlink(path.c_str());
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    const int reader = open(path.c_str(), O_RDONLY | O_NONBLOCK);
    const int writer = open(path.c_str(), O_WRONLY | O_NONBLOCK);
    ASSERT_EQ(imsg_init_daemon(path.c_str()), 0);
    const int usual = dup(STDERR_FILENO);
    dup2(writer, STDERR_FILENO);
    {
        const Log log;
        const std::string piece(10000, 'x');
        size_t taken = 0;
        while (Log::add_output(piece.data(), piece.size()))
            taken += piece.size();
        EXPECT_GT(taken, size_t{Log::BYTES_MAX} / 2 - piece.size());
        EXPECT_LT(taken, size_t{Log::BYTES_MAX} / 2 + 3 * 65536) << "and what the pipe holds";
        say("a message");
        EXPECT_EQ(log.lost(), 0U);
        std::string read_text;
        std::array<char, 65536> bytes;
        while (read_text.find("a message") == std::string::npos) {
            const ssize_t count = read(reader, bytes.data(), bytes.size());
            if (count > 0)
                read_text.append(bytes.data(), static_cast<size_t>(count));
            sched_yield();
        }
        EXPECT_THAT(read_text, HasSubstr(piece));
        EXPECT_TRUE(Log::add_output(piece.data(), piece.size()));
    }
    dup2(usual, STDERR_FILENO);
}

TEST_F(LogTest, WithoutALogWhatServersWriteIsWrittenAtOnce) {
    testing::internal::CaptureStderr();
    EXPECT_TRUE(Log::add_output("said", 4));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "said");
}

TEST_F(LogTest, WhatServersWriteIsMessagesWhereMessagesAreObjects) {
    imsg_set_app_name("rvzd_server");
    ASSERT_EQ(imsg_init_daemon(path.c_str()), 0);
    {
        const Log log;
        Log::set_options({IMSG_TRACE, true});
        const std::string words = "rvzd_server: Error: no master\nplain\nrvzd_server: Warning: slow\nhalf";
        EXPECT_TRUE(Log::add_output(words.data(), words.size()));
    }
    std::istringstream lines(written());
    for (const char *end : {R"("severity":"error","message":"no master"})", R"("severity":"info","message":"plain"})",
                            R"("severity":"warning","message":"slow"})", R"("severity":"info","message":"half"})"}) {
        std::string line;
        ASSERT_TRUE(std::getline(lines, line));
        EXPECT_THAT(line, testing::EndsWith(end));
    }
}

TEST_F(LogTest, OnlyErrorsOfServersAreOfInterestWhereOnlyErrorsAre) {
    imsg_set_app_name("rvzd_server");
    ASSERT_EQ(imsg_init_daemon(path.c_str()), 0);
    {
        const Log log;
        Log::set_options({IMSG_ERROR, false});
        const std::string words = "plain\nrvzd_server: Error: no master\n";
        EXPECT_TRUE(Log::add_output(words.data(), words.size()));
        const std::string most(Log::BYTES_MAX, 'x');
        EXPECT_FALSE(Log::add_output(most.data(), most.size())) << "the other half is for messages";
    }
    EXPECT_THAT(written(), testing::EndsWith("Z rvzd_server: Error: no master\n"));
    EXPECT_THAT(written(), testing::Not(HasSubstr("plain")));
}

// What a process of the daemon's says that it does is no warning.
TEST_F(LogTest, OnlyWarningsOfServersAreOfInterestWhereNoLessIs) {
    imsg_set_app_name("rvzd_server");
    ASSERT_EQ(imsg_init_daemon(path.c_str()), 0);
    {
        const Log log;
        Log::set_options({IMSG_WARNING, false});
        const std::string words = "plain\nrvzd_server: Warning: slow\n";
        EXPECT_TRUE(Log::add_output(words.data(), words.size()));
    }
    EXPECT_THAT(written(), testing::EndsWith("Z rvzd_server: Warning: slow\n"));
    EXPECT_THAT(written(), testing::Not(HasSubstr("plain")));
}

// The journal names the stream that it reads by its device and inode.
TEST_F(LogTest, PrioritiesAreForTheJournalAlone) {
    imsg_set_app_name("rvzd_server");
    FILE *file = fopen(path.c_str(), "a");
    struct stat status = {};
    fstat(fileno(file), &status);
    const int kept = dup(STDERR_FILENO);
    dup2(fileno(file), STDERR_FILENO);
    setenv("JOURNAL_STREAM", "1:2", 1);
    Log::set_options({IMSG_TRACE, false});
    imsg_print(IMSG_ERROR, "one\n", IMSG_FORMAT);
    setenv("JOURNAL_STREAM", (std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino)).c_str(), 1);
    Log::set_options({IMSG_TRACE, false});
    imsg_print(IMSG_ERROR, "two\n", IMSG_FORMAT);
    dup2(kept, STDERR_FILENO);
    close(kept);
    fclose(file);
    EXPECT_EQ(written(), "rvzd_server: Error: one\n<3>rvzd_server: Error: two\n");
}
