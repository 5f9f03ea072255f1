// Between fork and exec the child calls only what may be called there: the system. All that takes storage is done
// before. What goes wrong there comes back over a pipe that exec closes.
#include <server/broker/service_process.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <string_view>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace velia::server {

namespace {

constexpr mode_t usual_umask = 022;
constexpr int groups_at_first = 64;
constexpr const char *usual_path = "PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin";

constexpr std::string_view kept_names[] = {"LANG", "LANGUAGE", "TZ", "NO_COLOR"};
constexpr std::string_view kept_beginnings[] = {
    "LC_",   "VELIA_", "IRONVALE_", "IVL_",   "IVLWEB_",
#ifdef VELIA_CHECK_INVARIANTS // what programs under test are told by whoever tests them
    "ASAN_", "LSAN_",  "TSAN_",     "UBSAN_", "GCOV_",
#endif
};

bool is_kept(std::string_view variable) {
    const auto name = variable.substr(0, variable.find('='));
    return std::ranges::find(kept_names, name) != std::end(kept_names) ||
           std::ranges::any_of(kept_beginnings,
                               [&](std::string_view beginning) { return name.starts_with(beginning); });
}

// A user as the system knows it; null if it does not.
class UserEntry {
public:
    const passwd *find(uid_t user) {
        passwd *found = nullptr;
        while (getpwuid_r(user, &entry_, texts_.data(), texts_.size(), &found) == ERANGE && texts_.size() < texts_max)
            texts_.resize(texts_.size() * 2);
        return found;
    }

private:
    static constexpr size_t texts_at_first = 4096;
    static constexpr size_t texts_max = 1 << 20;

    passwd entry_ = {};
    std::vector<char> texts_ = std::vector<char>(texts_at_first);
};

std::vector<gid_t> groups_of(const char *name, gid_t group) {
    std::vector<gid_t> groups(groups_at_first);
    auto count = static_cast<int>(groups.size());
    if (getgrouplist(name, group, groups.data(), &count) < 0) {
        groups.resize(static_cast<size_t>(count));
        getgrouplist(name, group, groups.data(), &count);
    }
    groups.resize(static_cast<size_t>(count));
    return groups;
}

std::vector<char *> pointers_to(const std::vector<std::string> &words) {
    std::vector<char *> pointers;
    pointers.reserve(words.size() + 1);
    for (const auto &word : words)
        pointers.push_back(const_cast<char *>(word.c_str())); // exec only reads
    pointers.push_back(nullptr);
    return pointers;
}

// The system's own calls: those of the C library would have other threads do the same.
bool take_account(const Account &account) {
    return account.is_daemons || (syscall(SYS_setgroups, account.groups.size(), account.groups.data()) == 0 &&
                                  syscall(SYS_setresgid, account.group, account.group, account.group) == 0 &&
                                  syscall(SYS_setresuid, account.user, account.user, account.user) == 0);
}

// Out of the way of the numbers that they are to have, and then to these.
bool take_descriptors(const std::vector<int> &descriptors, std::vector<int> &moved, int error_pipe) {
    const auto count = static_cast<int>(descriptors.size());
    for (size_t i = 0; i < descriptors.size(); ++i)
        if ((moved[i] = fcntl(descriptors[i], F_DUPFD_CLOEXEC, count)) < 0)
            return false;
    if (error_pipe < count)
        return false;
    for (int i = 0; i < count; ++i)
        if (dup2(moved[static_cast<size_t>(i)], i) < 0)
            return false;
    return close_range(static_cast<unsigned>(count), ~0U, CLOSE_RANGE_CLOEXEC) == 0 || errno == ENOSYS;
}

void forget_signals() {
    struct sigaction usual = {};
    usual.sa_handler = SIG_DFL;
    for (int number = 1; number < NSIG; ++number)
        sigaction(number, &usual, nullptr);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
}

void hold(int signal_number) {
    sigset_t held;
    sigemptyset(&held);
    sigaddset(&held, signal_number);
    sigprocmask(SIG_BLOCK, &held, nullptr);
}

struct Prepared {
    std::vector<char *> words;
    std::vector<char *> environment;
    std::vector<int> moved;
};

[[noreturn]] void become(const ProcessRequest &request, Prepared &prepared, int error_pipe) {
    forget_signals();
    prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_CLEAR_ALL, 0, 0, 0); // the daemon's, for its ports
    umask(usual_umask);
    if (request.leads_session)
        setsid();
    if (request.holds_term)
        hold(SIGTERM);
    if (take_descriptors(request.descriptors, prepared.moved, error_pipe) && take_account(request.account))
        execve(prepared.words.front(), prepared.words.data(), prepared.environment.data());
    const int error_number = errno;
    [[maybe_unused]] const ssize_t told = write(error_pipe, &error_number, sizeof error_number);
    _exit(EXIT_FAILURE);
}

// Signals wait meanwhile: the child would run the daemon's handlers for its own.
pid_t fork_undisturbed(const ProcessRequest &request, Prepared &prepared, int error_pipe) {
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    const pid_t pid = fork();
    if (pid == 0)
        become(request, prepared, error_pipe);
    const int error_number = errno;
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    errno = error_number;
    return pid;
}

// 0 once exec has closed the pipe.
int error_from(int error_pipe) {
    int error_number = 0;
    ssize_t count = 0;
    do
        count = read(error_pipe, &error_number, sizeof error_number);
    while (count < 0 && errno == EINTR);
    return count == static_cast<ssize_t>(sizeof error_number) ? error_number : 0;
}

} // namespace

std::optional<Account> account_of(const Service &service) {
    Account account;
    account.user = service.user.value_or(geteuid());
    account.group = service.group.value_or(getegid());
    account.is_daemons = account.user == geteuid() && account.group == getegid();
    UserEntry user;
    const passwd *entry = user.find(account.user);
    if (entry != nullptr) {
        account.name = entry->pw_name;
        account.home = entry->pw_dir;
        account.shell = entry->pw_shell;
    }
    if (account.user == geteuid() && !service.group)
        return account;
    account.is_daemons = false;
    if (!service.group && entry == nullptr)
        return std::nullopt;
    if (!service.group)
        account.group = entry->pw_gid;
    account.groups = {account.group};
    if (!account.name.empty() && account.user != 0)
        account.groups = groups_of(std::string(account.name).c_str(), account.group);
    return account;
}

Accounts::Accounts(const std::vector<Service> &services) {
    for (const Service &service : services)
        if (const Line line = {service.user, service.group}; !of_line_.contains(line))
            of_line_[line] = account_of(service);
}

const std::optional<Account> &Accounts::of(const Service &service) const {
    static const std::optional<Account> unknown;
    const auto found = of_line_.find({service.user, service.group});
    return found != of_line_.end() ? found->second : unknown;
}

std::vector<std::string> environment_of(const Account &account) {
    std::vector<std::string> variables = {usual_path, "HOME=" + account.home, "SHELL=" + account.shell};
    if (!account.name.empty())
        variables.insert(variables.end(), {"USER=" + account.name, "LOGNAME=" + account.name});
    for (char **variable = environ; *variable != nullptr; ++variable)
        if (is_kept(*variable))
            variables.emplace_back(*variable);
    return variables;
}

BegunProcess begin_process(const ProcessRequest &request, int *error_number) {
    Prepared prepared = {pointers_to(request.words), pointers_to(request.environment),
                         std::vector<int>(request.descriptors.size())};
    std::array<int, 2> ends = {};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) {
        *error_number = errno;
        return {};
    }
    BegunProcess begun;
    begun.error_pipe.reset(ends[0]);
    UniqueFd writer(ends[1]);
    // Beyond the numbers that are given out.
    const UniqueFd error_pipe(fcntl(writer.get(), F_DUPFD_CLOEXEC, static_cast<int>(request.descriptors.size())));
    writer.reset();
    if (error_pipe)
        begun.pid = fork_undisturbed(request, prepared, error_pipe.get());
    *error_number = errno;
    return begun;
}

pid_t finish_process(const BegunProcess &begun, int *error_number) {
    if (begun.pid < 0)
        return -1;
    *error_number = error_from(begun.error_pipe.get());
    if (*error_number == 0)
        return begun.pid;
    waitpid(begun.pid, nullptr, 0);
    return -1;
}

pid_t start_process(const ProcessRequest &request, int *error_number) {
    return finish_process(begin_process(request, error_number), error_number);
}

} // namespace velia::server
