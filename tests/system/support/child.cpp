#include <tests/system/support/child.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <grp.h>
#include <stdexcept>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace velia::system_test {

namespace {

constexpr int signal_base = 128;
constexpr int exec_failed = 127;

[[noreturn]] void become(const std::vector<char *> &arguments, const Child::Options &options) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    setpgid(0, 0);
    const int output = open(options.output_file.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0666);
    dup2(output, STDOUT_FILENO);
    dup2(output, STDERR_FILENO);
    close(output);
    if (!options.error_file.empty()) {
        const int errors = open(options.error_file.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0666);
        dup2(errors, STDERR_FILENO);
        close(errors);
    }
    for (const int fd : options.inherited_fds)
        fcntl(fd, F_SETFD, 0);
    for (const auto &variable : options.environment)
        putenv(const_cast<char *>(variable.c_str()));
    if (options.user != 0 && (setgroups(0, nullptr) != 0 || setgid(options.user) != 0 || setuid(options.user) != 0))
        _exit(exec_failed);
    // Changing the user clears it.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    execv(arguments.front(), arguments.data());
    _exit(exec_failed);
}

} // namespace

Child::Child(const std::vector<std::string> &words, const Options &options) {
    std::vector<char *> arguments;
    for (const auto &word : words)
        arguments.push_back(const_cast<char *>(word.c_str()));
    arguments.push_back(nullptr);
    pid_ = fork();
    if (pid_ < 0)
        throw std::runtime_error("fork failed");
    if (pid_ == 0)
        become(arguments, options);
    setpgid(pid_, pid_); // both sides, whichever comes first
}

#ifdef VELIA_COVERAGE
namespace {

// A process that is killed has written no counts, and one that is killed while it writes them spoils those of others:
// whether a line counts must not hang on how fast a process was. At the second signal a daemon waits for no server.
void let_write_its_counts(pid_t pid, bool &is_ended) {
    constexpr double patience_s = 2;
    kill(pid, SIGCONT);
    for (int i = 0; i < 2 && !is_ended; ++i) {
        kill(pid, SIGTERM);
        is_ended = eventually([pid] { return waitpid(pid, nullptr, WNOHANG) != 0; }, patience_s);
    }
}

} // namespace
#endif

Child::~Child() {
#ifdef VELIA_COVERAGE
    if (!is_ended_)
        let_write_its_counts(pid_, is_ended_);
#endif
    kill(-pid_, SIGKILL);
    if (!is_ended_)
        waitpid(pid_, nullptr, 0);
}

void Child::signal(int signal_number) const {
    kill(pid_, signal_number);
}

int Child::wait(double deadline_s) {
    int status = 0;
    if (!eventually([&] { return waitpid(pid_, &status, WNOHANG) == pid_; }, deadline_s))
        return -1;
    is_ended_ = true;
    return WIFEXITED(status) ? WEXITSTATUS(status) : signal_base + WTERMSIG(status);
}

namespace {

Outcome run_to_end(const Site &site, const std::vector<std::string> &words, Child::Options options, bool is_apart,
                   double deadline_s) {
    static int number;
    const std::string name = "run-" + std::to_string(++number);
    options.output_file = site.path(name + ".out");
    if (is_apart)
        options.error_file = site.path(name + ".err");
    Child child(words, options);
    const int status = child.wait(deadline_s);
    return {status, site.read(name + ".out"), is_apart ? site.read(name + ".err") : ""};
}

} // namespace

Outcome run(const Site &site, const std::vector<std::string> &words, double deadline_s) {
    return run_to_end(site, words, {}, false, deadline_s);
}

Outcome run_apart(const Site &site, const std::vector<std::string> &words,
                  const std::vector<std::string> &environment) {
    Child::Options options;
    options.environment = environment;
    return run_to_end(site, words, options, true, 30);
}

bool is_alive(pid_t pid) {
    return kill(pid, 0) == 0 || errno == EPERM;
}

} // namespace velia::system_test
