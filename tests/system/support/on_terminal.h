// A program on a terminal of its own.
#pragma once

#include <string>

#include <poll.h>
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

#include <tests/system/support/veliactl.h>

namespace velia::system_test {

// It is answered at each prompt with the next line.
class OnTerminal {
public:
    OnTerminal(const Words &words) {
        std::vector<char *> arguments;
        for (const auto &word : words)
            arguments.push_back(const_cast<char *>(word.c_str()));
        arguments.push_back(nullptr);
        pid_ = forkpty(&terminal_, nullptr, nullptr, nullptr);
        if (pid_ == 0) {
            execv(arguments[0], arguments.data());
            _exit(127);
        }
    }
    ~OnTerminal() { close(terminal_); }
    OnTerminal(const OnTerminal &) = delete;
    OnTerminal &operator=(const OnTerminal &) = delete;

    // False when it does not ask so.
    bool answer(const std::string &prompt, const std::string &line) {
        if (!read_until([&] { return shown_.find(prompt, answered_) != std::string::npos; }))
            return false;
        answered_ = shown_.size();
        const std::string typed = line + "\n";
        return write(terminal_, typed.data(), typed.size()) == static_cast<ssize_t>(typed.size());
    }
    int end() {
        read_until([] { return false; });
        int state = 0;
        waitpid(pid_, &state, 0);
        return WIFEXITED(state) ? WEXITSTATUS(state) : -1;
    }
    const std::string &shown() const { return shown_; }

private:
    template <class Condition>
    bool read_until(Condition &&holds) {
        constexpr int deadline_ms = 20000;
        while (!holds()) {
            char piece[256];
            pollfd readable = {terminal_, POLLIN, 0};
            const ssize_t count = poll(&readable, 1, deadline_ms) > 0 ? read(terminal_, piece, sizeof piece) : -1;
            if (count <= 0)
                return false;
            shown_.append(piece, static_cast<size_t>(count));
        }
        return true;
    }

    int terminal_ = -1;
    pid_t pid_ = -1;
    std::string shown_;
    size_t answered_ = 0;
};

} // namespace velia::system_test
