// The password prompt, on a terminal of the test.
#include <gtest/gtest.h>

#include <csignal>
#include <cstring>
#include <string>

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <support/imsg.h>

namespace {

struct Answer {
    int result;
    char password[IMSG_PASSWORD_SIZE];
    bool was_interrupted;
    bool is_terminal_as_before;
};

volatile sig_atomic_t interrupts;

bool same_settings(const termios &left, const termios &right) {
    return left.c_lflag == right.c_lflag && left.c_iflag == right.c_iflag &&
           memcmp(left.c_cc, right.c_cc, sizeof left.c_cc) == 0;
}

// The child's part: asks on its controlling terminal and reports through the pipe.
[[noreturn]] void ask(int report) {
    signal(SIGINT, [](int) { interrupts = interrupts + 1; });
    termios before;
    termios after;
    tcgetattr(STDIN_FILENO, &before);
    Answer answer = {};
    memset(answer.password, 'x', sizeof answer.password);
    answer.result = imsg_prompt_password("Registry password: ", answer.password);
    answer.was_interrupted = interrupts != 0;
    tcgetattr(STDIN_FILENO, &after);
    answer.is_terminal_as_before = same_settings(before, after);
    const bool is_reported = write(report, &answer, sizeof answer) == static_cast<ssize_t>(sizeof answer);
    _exit(is_reported ? 0 : 1);
}

// A person at a terminal on which a process asks for a password.
class Terminal {
public:
    Terminal() {
        EXPECT_EQ(pipe(report_), 0);
        child_ = forkpty(&terminal_, nullptr, nullptr, nullptr);
        if (child_ == 0)
            ask(report_[1]);
        close(report_[1]);
    }
    ~Terminal() {
        close(terminal_);
        close(report_[0]);
        int status = -1;
        waitpid(child_, &status, 0);
        EXPECT_EQ(status, 0);
    }
    Terminal(const Terminal &) = delete;
    Terminal &operator=(const Terminal &) = delete;

    // Types once the prompt is there, and so the echo is off.
    Answer type(const std::string &keys) {
        while (shown_.find("password: ") == std::string::npos && show_more()) {
        }
        EXPECT_EQ(write(terminal_, keys.data(), keys.size()), static_cast<ssize_t>(keys.size()));
        Answer answer = {};
        EXPECT_EQ(read(report_[0], &answer, sizeof answer), static_cast<ssize_t>(sizeof answer));
        while (show_more()) {
        }
        return answer;
    }
    const std::string &shown() const { return shown_; }

private:
    bool show_more() {
        char text[256];
        pollfd wanted = {terminal_, POLLIN, 0};
        if (poll(&wanted, 1, 20'000) <= 0)
            return false;
        const ssize_t taken = read(terminal_, text, sizeof text);
        if (taken <= 0)
            return false;
        shown_.append(text, static_cast<size_t>(taken));
        return true;
    }

    int report_[2] = {-1, -1};
    int terminal_ = -1;
    pid_t child_ = -1;
    std::string shown_;
};

void expect_none(const Answer &answer, int result) {
    EXPECT_EQ(answer.result, result);
    const std::string cleared(IMSG_PASSWORD_SIZE, '\0');
    EXPECT_EQ(std::string(answer.password, IMSG_PASSWORD_SIZE), cleared) << "nothing typed is left behind";
    EXPECT_TRUE(answer.is_terminal_as_before);
}

} // namespace

TEST(PasswordPrompt, ReadsALineWithoutEcho) {
    Terminal terminal;
    const Answer answer = terminal.type("se cret\n");
    EXPECT_EQ(answer.result, IMSG_PASSWORD_ENTERED);
    EXPECT_STREQ(answer.password, "se cret");
    EXPECT_TRUE(answer.is_terminal_as_before);
    EXPECT_EQ(terminal.shown(), "Registry password: \r\n");
}

TEST(PasswordPrompt, EmptyLineIsAnEmptyPassword) {
    Terminal terminal;
    const Answer answer = terminal.type("\n");
    EXPECT_EQ(answer.result, IMSG_PASSWORD_ENTERED);
    EXPECT_STREQ(answer.password, "");
}

TEST(PasswordPrompt, ErasesCharactersAndTheLine) {
    Terminal terminal;
    const Answer answer = terminal.type("wrong\x15\x7f"
                                        "gold\x7f\x08od\r");
    EXPECT_EQ(answer.result, IMSG_PASSWORD_ENTERED);
    EXPECT_STREQ(answer.password, "good");
}

TEST(PasswordPrompt, InterruptKeyCancelsAndIsDelivered) {
    Terminal terminal;
    const Answer answer = terminal.type("sec\x03");
    expect_none(answer, IMSG_PASSWORD_CANCELLED);
    EXPECT_TRUE(answer.was_interrupted);
}

TEST(PasswordPrompt, EndOfInputCancels) {
    Terminal terminal;
    const Answer answer = terminal.type("\x04");
    expect_none(answer, IMSG_PASSWORD_CANCELLED);
    EXPECT_FALSE(answer.was_interrupted);
}

TEST(PasswordPrompt, EndOfInputEndsALineThatHasBegun) {
    Terminal terminal;
    const Answer answer = terminal.type("secret\x04");
    EXPECT_EQ(answer.result, IMSG_PASSWORD_ENTERED);
    EXPECT_STREQ(answer.password, "secret");
}

TEST(PasswordPrompt, LongestPasswordFitsTheBufferAndALongerOneIsRefused) {
    Terminal fitting;
    const Answer answer = fitting.type(std::string(IMSG_PASSWORD_SIZE - 1, 'p') + "\n");
    EXPECT_EQ(answer.result, IMSG_PASSWORD_ENTERED);
    EXPECT_EQ(answer.password, std::string(IMSG_PASSWORD_SIZE - 1, 'p'));
    Terminal too_long;
    expect_none(too_long.type(std::string(IMSG_PASSWORD_SIZE, 'p') + "\n"), IMSG_PASSWORD_TOO_LONG);
}

TEST(PasswordPrompt, WithoutATerminalSaysSo) {
    const pid_t child = fork();
    if (child == 0) {
        setsid();
        char password[IMSG_PASSWORD_SIZE] = "before";
        const int result = imsg_prompt_password("Registry password: ", password);
        _exit(result == IMSG_PASSWORD_NO_TERMINAL && password[0] == '\0' ? 0 : 1);
    }
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
}
