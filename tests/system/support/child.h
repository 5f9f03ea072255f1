// Processes of a test. None outlives it: they die with the test's process, and their whole group when the object goes.
#pragma once

#include <string>
#include <sys/types.h>
#include <vector>

#include <tests/system/support/site.h>

namespace velia::system_test {

class Child {
public:
    struct Options {
        std::string output_file;              // of standard output, and of standard error
        std::string error_file;               // of standard error, where it is not empty
        std::vector<int> inherited_fds;       // kept open under their own numbers
        std::vector<std::string> environment; // further "NAME=value"
        uid_t user = 0;                       // not 0: to run as, where the test may choose
    };

    Child(const std::vector<std::string> &words, const Options &options);
    ~Child();
    Child(const Child &) = delete;
    Child &operator=(const Child &) = delete;

    pid_t pid() const { return pid_; }
    void signal(int signal_number) const;

    // The exit status, 128 and the signal's number for a signal, -1 when it still runs after `deadline_s`.
    int wait(double deadline_s = 15);

private:
    pid_t pid_;
    bool is_ended_ = false;
};

struct Outcome {
    int status;
    std::string output;
    std::string errors;
};

// Runs a command to its end; what it says on standard error is part of its output.
Outcome run(const Site &site, const std::vector<std::string> &words, double deadline_s = 20);

// The same with standard error by itself, and "NAME=value" added to its environment.
Outcome run_apart(const Site &site, const std::vector<std::string> &words,
                  const std::vector<std::string> &environment = {});

bool is_alive(pid_t pid);

} // namespace velia::system_test
