#include <cerrno>
#include <csignal>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <support/imsg.h>
#include <support/pfm.h>
#include <support/stg.h>

#include "alloc_probe.h"
#include "message_recorder.h"
#include "test_site.h"

using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;
using testing::StartsWith;

namespace {

constexpr const char *texts[] = {"first %s\n", "second %d of %s\n"};
constexpr uint16_t numbers[] = {10, 20};
constexpr imsg_table_t table = {"rvzd_lib", "xdr/rvzd", 64, 2, texts, numbers};

// What a child wrote to each stream while running the body.
struct Streams {
    std::string out;
    std::string err;
};

template <class Body>
Streams streams_of(Body &&body) {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    body();
    Streams streams;
    streams.out = testing::internal::GetCapturedStdout();
    streams.err = testing::internal::GetCapturedStderr();
    return streams;
}

} // namespace

TEST(Message, GoesToTheStreamOfItsSeverityWithItsHeading) {
    imsg_set_app_name("tool");
    const Streams streams = streams_of([] {
        imsg_print(IMSG_PLAIN, "plain\n", IMSG_FORMAT);
        imsg_print(IMSG_PROGRESS, ".", IMSG_FORMAT);
        imsg_print(IMSG_WARNING, &table, 0, "w");
        imsg_print(IMSG_ERROR, &table, 1, 2, "e");
        imsg_print(IMSG_CONTINUATION, "more\n", IMSG_FORMAT);
        imsg_print(IMSG_TRACE, "trace\n", IMSG_FORMAT);
    });
    EXPECT_EQ(streams.out, "plain\n.");
    EXPECT_EQ(streams.err, "tool: Warning: first w\ntool: Error: second 2 of e\nmore\ntrace\n");
}

TEST(Message, IsNotColouredAwayFromATerminal) {
    EXPECT_THAT(streams_of([] { imsg_print(IMSG_ERROR, "x\n", IMSG_FORMAT); }).err, Not(HasSubstr("\033")));
}

TEST(Message, FollowsWhatTheProgramItselfHasPrinted) {
    EXPECT_EQ(streams_of([] {
                  printf("before ");
                  imsg_print(IMSG_PLAIN, "after\n", IMSG_FORMAT);
              }).out,
              "before after\n");
}

TEST(Message, ANullTextDoesNotCrash) {
    const char *null = nullptr;
    EXPECT_EQ(streams_of([&] { imsg_print(IMSG_PLAIN, &table, 0, null); }).out, "first (null)\n");
}

TEST(Message, ALongOneIsPrintedWhole) {
    const std::string text(100000, 'x');
    EXPECT_EQ(streams_of([&] { imsg_print(IMSG_PLAIN, "%s\n", IMSG_FORMAT, text.c_str()); }).out, text + "\n");
}

TEST(Message, WithoutMemoryAtLeastItsBeginningComesOut) {
    MessageRecorder recorder;
    const std::string text(5000, 'x');
    probe::fail_request(1);
    imsg_print(IMSG_PLAIN, "%s", IMSG_FORMAT, text.c_str());
    ASSERT_EQ(recorder.messages.size(), 1u);
    EXPECT_EQ(recorder.messages[0].text, text.substr(0, 1023));
}

TEST(Message, OneOfUsualLengthNeedsNoMemory) {
    const std::string text(900, 'x');
    size_t requests = 0;
    imsg_set_app_name("tool");
    const auto streams = streams_of([&] {
        probe::start_counting();
        imsg_print(IMSG_ERROR, "%s\n", IMSG_FORMAT, text.c_str());
        requests = probe::requests();
    });
    imsg_set_app_name(nullptr);
    EXPECT_EQ(requests, 0u);
    EXPECT_EQ(streams.err, "tool: Error: " + text + "\n");
}

TEST(Message, WithoutMemoryForItsHeadingALongOneIsCut) {
    const std::string text(5000, 'x');
    imsg_set_app_name("tool");
    const auto streams = streams_of([&] {
        probe::fail_request(2); // behind that for the text
        imsg_print(IMSG_ERROR, "%s\n", IMSG_FORMAT, text.c_str());
        imsg_print(IMSG_ERROR, "next\n", IMSG_FORMAT);
    });
    imsg_set_app_name(nullptr);
    EXPECT_TRUE(probe::has_failed());
    EXPECT_EQ(streams.err, ("tool: Error: " + text).substr(0, 1024) + "\ntool: Error: next\n");
}

TEST(Message, APositionThatTheTableDoesNotHaveIsTold) {
    MessageRecorder recorder;
    imsg_print(IMSG_ERROR, &table, 2);
    EXPECT_EQ(recorder.messages[0].text, "message 2 of \"xdr/rvzd\" is missing\n");
}

TEST(Message, ShowsALongApplicationNameToItsEnd) {
    const std::string name = "/" + std::string(300, 'p') + "(12345)";
    imsg_set_app_name(name.c_str());
    testing::internal::CaptureStderr();
    imsg_print(IMSG_ERROR, "text\n", IMSG_FORMAT);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), name + ": Error: text\n");
    imsg_set_app_name(nullptr);
}

TEST(Message, LeavesErrnoAlone) {
    errno = ENOTTY;
    streams_of([] { imsg_print(IMSG_ERROR, "x\n", IMSG_FORMAT); });
    errno = EDOM;
    {
        MessageRecorder recorder;
        imsg_print(IMSG_ERROR, "x\n", IMSG_FORMAT);
    }
    EXPECT_EQ(errno, EDOM);
}

TEST(Message, SinkSeesSubsystemTableAndPosition) {
    MessageRecorder recorder;
    imsg_print(IMSG_ERROR, &table, 0, "a");
    imsg_print_shared(IMSG_WARNING, "registry", &table, 0, "b");
    imsg_print(IMSG_PLAIN, "%d", IMSG_FORMAT, 5);
    const std::vector<PrintedMessage> expected = {
        {IMSG_ERROR, "xdr/rvzd", &table, 0, "first a\n"},
        {IMSG_WARNING, "registry", &table, 0, "first b\n"},
        {IMSG_PLAIN, "", nullptr, IMSG_FORMAT, "5"},
    };
    EXPECT_EQ(recorder.messages, expected);
}

TEST(Message, LinesOfThreadsDoNotMix) {
    const std::string out = streams_of([] {
                                std::vector<std::thread> threads;
                                for (char letter = 'a'; letter < 'e'; ++letter)
                                    threads.emplace_back([letter] {
                                        const std::string line(200, letter);
                                        for (int i = 0; i < 50; ++i)
                                            imsg_print(IMSG_PLAIN, "%s\n", IMSG_FORMAT, line.c_str());
                                    });
                                for (std::thread &thread : threads)
                                    thread.join();
                            }).out;
    size_t lines = 0;
    for (size_t at = 0; at < out.size(); at += 201, ++lines)
        ASSERT_EQ(out.substr(at, 201), std::string(200, out[at]) + "\n");
    EXPECT_EQ(lines, 200u);
}

TEST(Formatting, IntoABufferGivesTheLength) {
    char buffer[64] = "before";
    EXPECT_EQ(imsg_sprintf(buffer, &table, 1, 3, "x"), 14);
    EXPECT_STREQ(buffer, "second 3 of x\n");
    EXPECT_LT(imsg_sprintf(buffer, &table, 9), 0);
    EXPECT_LT(imsg_sprintf(nullptr, "x", IMSG_FORMAT), 0);
    EXPECT_STREQ(buffer, "second 3 of x\n");
}

TEST(Formatting, ABufferGrowsUpToItsLimit) {
    char *buffer = nullptr;
    size_t size = 4;
    EXPECT_EQ(imsg_dynamic_len_snprintf(&buffer, &size, 100, "<%s>", "a"), 3);
    EXPECT_STREQ(buffer, "<a>");
    EXPECT_EQ(size, 4u);
    const std::string longest(97, 'x');
    EXPECT_EQ(imsg_dynamic_len_snprintf(&buffer, &size, 100, "<%s>", longest.c_str()), 99);
    EXPECT_EQ(size, 100u);
    const std::string kept = buffer;
    EXPECT_LT(imsg_dynamic_len_snprintf(&buffer, &size, 100, "<%s>", (longest + "x").c_str()), 0);
    EXPECT_EQ(buffer, kept);
    probe::fail_request(1);
    EXPECT_LT(imsg_dynamic_len_snprintf(&buffer, &size, 1000, "<%s>", (longest + "x").c_str()), 0);
    EXPECT_EQ(buffer, kept);
    stg_free(buffer);
}

TEST(ErrorText, OfKnownAndUnknownValues) {
    EXPECT_STREQ(imsg_strerror(ENOENT), "No such file or directory");
    EXPECT_STREQ(imsg_strerror(99999), "Unknown error 99999");
}

namespace {

class Trace : public testing::Test {
protected:
    ~Trace() override {
        imsg_set_trace(nullptr);
        imsg_set_desired_verbosity(0);
    }
};

} // namespace

TEST_F(Trace, VerbosityAloneTracesEverythingUpToIt) {
    imsg_set_desired_verbosity(2);
    EXPECT_EQ(imsg_get_desired_verbosity(), 2);
    EXPECT_TRUE(imsg_should_trace("registry", 2));
    EXPECT_FALSE(imsg_should_trace("registry", 3));
}

TEST_F(Trace, AListRestrictsToItsSubsystemsAndRaisesTheVerbosity) {
    imsg_set_desired_verbosity(1);
    imsg_set_trace("xdr/rvzd:3,Registry,:5,bad:x,bldsvr:");
    EXPECT_EQ(imsg_get_desired_verbosity(), 9);
    EXPECT_TRUE(imsg_should_trace("xdr/rvzd", 3));
    EXPECT_FALSE(imsg_should_trace("xdr/rvzd", 4));
    EXPECT_TRUE(imsg_should_trace("registry", 9));
    EXPECT_FALSE(imsg_should_trace("scheduler", 1));
    EXPECT_FALSE(imsg_should_trace("bad", 1));
}

TEST_F(Trace, AllMeansEverySubsystem) {
    imsg_set_trace("all:2");
    EXPECT_TRUE(imsg_should_trace("scheduler", 2));
    EXPECT_FALSE(imsg_should_trace("scheduler", 3));
}

TEST_F(Trace, OverlongListsAreCutToWhatIsKept) {
    std::string list = std::string(100, 'n') + ":9";
    for (int i = 0; i < 100; ++i)
        list += ",s" + std::to_string(i) + ":1";
    imsg_set_trace(list.c_str());
    EXPECT_TRUE(imsg_should_trace("s31", 1));
    EXPECT_FALSE(imsg_should_trace("s32", 1));
    EXPECT_EQ(imsg_get_desired_verbosity(), 1);
    imsg_set_trace("a:99999999999999999999");
    EXPECT_EQ(imsg_get_desired_verbosity(), 0);
}

TEST(TraceEnvironmentDeathTest, IsReadAtTheFirstQuestion) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    ScopedEnv verbosity("VELIA_VERBOSITY", "1");
    ScopedEnv list("VELIA_TRACE", "clnt_list:4");
    EXPECT_EXIT(
        exit(imsg_get_desired_verbosity() * 10 + imsg_should_trace("clnt_list", 4) + imsg_should_trace("registry", 1)),
        testing::ExitedWithCode(41), "");
}

// A thread is held up in the middle of a message by a pipe that nobody reads.
TEST(Message, OfAChildDoesNotWaitForAThreadOfItsParent) {
    const pid_t parent = fork();
    if (parent == 0) {
        int ends[2];
        if (pipe(ends) != 0 || dup2(ends[1], STDERR_FILENO) < 0)
            _exit(1);
        const std::string long_text(1 << 20, 'x');
        std::thread([&] { imsg_print(IMSG_ERROR, "%s\n", IMSG_FORMAT, long_text.c_str()); }).detach();
        for (int unread = 0; unread < fcntl(ends[1], F_GETPIPE_SZ);)
            ioctl(ends[0], FIONREAD, &unread);
        const pid_t child = fork();
        if (child == 0) {
            alarm(10);
            dup2(open("/dev/null", O_WRONLY), STDERR_FILENO);
            imsg_print(IMSG_ERROR, "of the child\n", IMSG_FORMAT);
            _exit(0);
        }
        int status = -1;
        waitpid(child, &status, 0);
        _exit(status == 0 ? 0 : 1);
    }
    int status = -1;
    waitpid(parent, &status, 0);
    EXPECT_EQ(status, 0);
}

TEST(DaemonLog, AnErrorBeginsALineWhateverTheTextBeforeItLeftOpen) {
    TestSite site;
    const std::string log = site.path("rvzd_log");
    const pid_t child = fork();
    if (child == 0) {
        imsg_set_app_name("server");
        const bool ok = imsg_init_daemon(log.c_str()) == 0;
        imsg_print(IMSG_ERROR, "one", IMSG_FORMAT);
        imsg_print(IMSG_ERROR, "two", IMSG_FORMAT);
        imsg_print(IMSG_CONTINUATION, " goes on\n", IMSG_FORMAT);
        imsg_print(IMSG_WARNING, "three\n", IMSG_FORMAT);
        _exit(ok ? 0 : 1);
    }
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
    const std::string head = "[0-9TZ:.-]+ server: ";
    EXPECT_THAT(site.read("rvzd_log"),
                MatchesRegex(head + "Error: one\n" + head + "Error: two goes on\n" + head + "Warning: three\n"));
}

TEST(Message, AnErrorBeginsALineWhateverTheErrorBeforeItLeftOpen) {
    testing::internal::CaptureStderr();
    imsg_print(IMSG_ERROR, "Invalid syntax for switch: one", IMSG_FORMAT);
    imsg_print(IMSG_ERROR, "Invalid syntax for switch: two", IMSG_FORMAT);
    imsg_print(IMSG_CONTINUATION, "\n", IMSG_FORMAT);
    imsg_print(IMSG_ERROR, "three\n", IMSG_FORMAT);
    EXPECT_THAT(testing::internal::GetCapturedStderr(),
                MatchesRegex(".*: Error: [^\n]*one\n.*: Error: [^\n]*two\n.*: Error: three\n"));
}

TEST(DaemonLog, HeadsEveryLineByTheTimeAndIsReopened) {
    TestSite site;
    const std::string log = site.path("rvzd_log");
    const pid_t child = fork();
    if (child == 0) {
        imsg_set_app_name("rvzd_server");
        bool ok = imsg_init_daemon(log.c_str()) == 0;
        imsg_print(IMSG_PLAIN, "one\ntwo ", IMSG_FORMAT);
        imsg_print(IMSG_PLAIN, "ends\n", IMSG_FORMAT);
        rename(log.c_str(), (log + ".old").c_str());
        ok = ok && imsg_init_daemon(log.c_str()) == 0;
        imsg_print(IMSG_ERROR, "three\n", IMSG_FORMAT);
        ok = ok && imsg_init_daemon("/nonexistent/log") == ENOENT;
        imsg_print(IMSG_TRACE, "four\n", IMSG_FORMAT);
        _exit(ok ? 0 : 1);
    }
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
    const std::string time = "[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9:]{8}\\.[0-9]{3}Z ";
    EXPECT_THAT(site.read("rvzd_log.old"), MatchesRegex(time + "one\n" + time + "two ends\n"));
    EXPECT_THAT(site.read("rvzd_log"), MatchesRegex(time + "rvzd_server: Error: three\n" + time + "four\n"));
}

namespace {

// Runs the body in a child whose controlling terminal is a new one, and gives the terminal's other end.
template <class Body>
pid_t child_on_terminal(int &terminal, Body &&body) {
    const pid_t child = forkpty(&terminal, nullptr, nullptr, nullptr);
    if (child == 0) {
        body();
        _exit(99);
    }
    return child;
}

// Reads until the wanted text has come, or for ten seconds.
std::string read_until(int terminal, const std::string &wanted) {
    std::string seen;
    fcntl(terminal, F_SETFL, O_NONBLOCK);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (seen.find(wanted) == std::string::npos && std::chrono::steady_clock::now() < deadline) {
        char bytes[256];
        const ssize_t count = read(terminal, bytes, sizeof bytes);
        if (count > 0)
            seen.append(bytes, static_cast<size_t>(count));
        else if (count < 0 && errno == EIO)
            break;
        else
            std::this_thread::yield();
    }
    return seen;
}

// What the child made of the keys: its exit status, and all that the terminal showed.
struct Answer {
    int status;
    std::string shown;
};

Answer answer_to(const std::string &keys, const char *expected, int expected_result) {
    int terminal = -1;
    const pid_t child = child_on_terminal(terminal, [&] {
        char password[IMSG_PASSWORD_SIZE];
        const int result = imsg_prompt_password("Password: ", password);
        termios settings;
        const bool is_echoing = tcgetattr(0, &settings) == 0 && (settings.c_lflag & ECHO) != 0;
        _exit(result == expected_result && strcmp(password, expected) == 0 && is_echoing ? 0 : 1);
    });
    Answer answer = {};
    answer.shown = read_until(terminal, "Password: ");
    (void)!write(terminal, keys.data(), keys.size());
    answer.shown += read_until(terminal, "\n");
    waitpid(child, &answer.status, 0);
    close(terminal);
    return answer;
}

} // namespace

TEST(Password, IsReadWithoutEcho) {
    const Answer answer = answer_to("secret\r", "secret", IMSG_PASSWORD_ENTERED);
    EXPECT_EQ(answer.status, 0);
    EXPECT_THAT(answer.shown, StartsWith("Password: "));
    EXPECT_THAT(answer.shown, Not(HasSubstr("secret")));
}

TEST(Password, CanBeCorrected) {
    EXPECT_EQ(answer_to("abX\177c\025xy\177z\r", "xz", IMSG_PASSWORD_ENTERED).status, 0);
}

TEST(Password, MayBeEmpty) {
    EXPECT_EQ(answer_to("\r", "", IMSG_PASSWORD_ENTERED).status, 0);
}

TEST(Password, TheEndOfInputCancels) {
    EXPECT_EQ(answer_to("\004", "", IMSG_PASSWORD_CANCELLED).status, 0);
}

TEST(Password, TheLongestFitsAndALongerOneIsRefused) {
    const std::string longest(IMSG_PASSWORD_SIZE - 1, 'x');
    EXPECT_EQ(answer_to(longest + "\r", longest.c_str(), IMSG_PASSWORD_ENTERED).status, 0);
    EXPECT_EQ(answer_to(longest + "y\r", "", IMSG_PASSWORD_TOO_LONG).status, 0);
}

TEST(Password, TheInterruptKeyIsDelivered) {
    const Answer answer = answer_to("ab\003", "", IMSG_PASSWORD_CANCELLED);
    EXPECT_TRUE(WIFSIGNALED(answer.status));
    EXPECT_EQ(WTERMSIG(answer.status), SIGINT);
}

TEST(Password, NeedsATerminal) {
    const pid_t child = fork();
    if (child == 0) {
        setsid();
        char password[IMSG_PASSWORD_SIZE] = "before";
        _exit(imsg_prompt_password("Password: ", password) == IMSG_PASSWORD_NO_TERMINAL && *password == '\0' ? 0 : 1);
    }
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
}
