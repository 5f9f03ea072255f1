// A daemon of the site.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include <tests/system/support/child.h>

namespace velia::system_test {

class Daemon {
public:
    // Starts rvzd_server in the foreground with the site's configuration file, and waits until it serves.
    explicit Daemon(const Site &site, std::vector<std::string> arguments = {}, Child::Options options = {});

    pid_t pid() const { return child_->pid(); }
    void signal(int signal_number) const { child_->signal(signal_number); }
    int wait(double deadline_s = 15) { return child_->wait(deadline_s); }
    bool is_ready() const { return is_ready_; }

    // All that it has said, and how often it has said a thing.
    std::string output() const;
    size_t count(const std::string &text) const;
    bool says(const std::string &text, double deadline_s = 10) const;

    // Processes of the servers it told of starting, in that order. It tells from a thread of its own, so that an answer
    // may be here before the line: `awaited` of them are waited for.
    std::vector<pid_t> started(size_t awaited = 0) const;

private:
    const Site &site_;
    std::string output_name_;
    std::unique_ptr<Child> child_;
    bool is_ready_ = false;
};

// The command that the daemon is started with, without its switches.
std::vector<std::string> daemon_words(const Site &site, const std::vector<std::string> &arguments);

} // namespace velia::system_test
