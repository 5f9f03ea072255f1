// One thread that waits for output, for signals and for the time: nothing in it takes long. What the job leaves behind
// becomes the keeper's own children, wherever it has gone, and is ended with it.
#include <server/scheduler/keeper.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <fstream>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <server/broker/service_process.h>
#include <server/loop/handles.h>
#include <server/scheduler/run_file.h>
#include <support/imsg.h>

namespace velia::server {

namespace {

constexpr int64_t grace_ms = 5000; // from TERM to KILL
constexpr int64_t ms_per_s = 1000;
constexpr int64_t output_rest_ms = 1000; // for what is still in the pipe of one that has gone
constexpr const char *nobody_in_particular = "-";

// It is read by a daemon of this host while that is up, and waits for no disk.
void add_note(const std::string &note) {
    size_t at = 0;
    while (at < note.size()) {
        const ssize_t count = write(keeper_notes_fd, note.data() + at, note.size() - at);
        if (count < 0 && errno != EINTR)
            return;
        at += count > 0 ? static_cast<size_t>(count) : 0;
    }
}

// The end of what was put out is kept here, and all of it, up to a bound, in the file.
class Output {
public:
    explicit Output(uint64_t bytes_max) : room_(bytes_max) {}

    void add(std::string_view piece) {
        tail_.append(piece);
        if (tail_.size() > 2 * run_messages_max)
            tail_.erase(0, tail_.size() - run_messages_max);
        const auto in_file = piece.substr(0, room_);
        [[maybe_unused]] const ssize_t written = write(keeper_output_fd, in_file.data(), in_file.size());
        room_ -= in_file.size();
    }
    std::string_view tail() const {
        const std::string_view all = tail_;
        return all.substr(all.size() - std::min(all.size(), run_messages_max));
    }

private:
    uint64_t room_;
    std::string tail_;
};

class Run {
public:
    explicit Run(const RunOrder &order) : order_(order), output_(order.output_bytes_max) {}

    void keep() {
        watch_signals();
        add_note(keeper_note(getpid()));
        if (!start())
            return;
        add_note(process_note(process_));
        while (!is_over())
            wait_for_something();
        add_note(end_note(time(nullptr), exit_status_, output_.tail()));
    }

private:
    void watch_signals() {
        sigset_t watched;
        sigemptyset(&watched);
        for (const int number : {SIGTERM, SIGINT, SIGCHLD})
            sigaddset(&watched, number);
        sigprocmask(SIG_BLOCK, &watched, nullptr);
        signals_.reset(signalfd(-1, &watched, SFD_CLOEXEC | SFD_NONBLOCK));
    }

    bool start() {
        Service service;
        service.user = order_.user;
        const auto account = account_of(service);
        const UniqueFd null(open("/dev/null", O_RDONLY | O_CLOEXEC));
        std::array<int, 2> ends = {};
        if (!account || pipe2(ends.data(), O_CLOEXEC) != 0)
            return fail(status_not_executable, "no account or no pipe can be had for it");
        reader_.reset(ends[0]);
        const UniqueFd writer(ends[1]);
        fcntl(reader_.get(), F_SETFL, O_NONBLOCK);
        auto words = order_.arguments;
        words.insert(words.begin(), order_.path);
        int error_number = 0;
        process_ = start_process(
            {words, environment_of(*account), *account, {null.get(), writer.get(), writer.get()}, true}, &error_number);
        if (process_ < 0)
            return fail(error_number == ENOENT ? status_not_found : status_not_executable,
                        order_.path + ": " + imsg_strerror(error_number));
        if (order_.seconds_max != 0)
            limit_ms_ = monotonic_ms() + order_.seconds_max * ms_per_s;
        return true;
    }
    static bool fail(uint32_t status, const std::string &words) {
        add_note(end_note(time(nullptr), status, words + "\n"));
        return false;
    }

    bool is_over() const { return has_ended_ && !has_children_ && (!reader_ || monotonic_ms() >= output_end_ms_); }

    void wait_for_something() {
        std::array<pollfd, 2> waited = {pollfd{signals_.get(), POLLIN, 0}, pollfd{reader_.get(), POLLIN, 0}};
        poll(waited.data(), waited.size(), time_left());
        take_output();
        take_signals();
        take_ends();
        hold_limit();
    }

    int time_left() const {
        int64_t until = has_ended_ ? std::min(output_end_ms_, kill_ms_) : std::min(limit_ms_, kill_ms_);
        until = std::max<int64_t>(until - monotonic_ms(), 0);
        return static_cast<int>(std::min<int64_t>(until, INT_MAX));
    }

    // Some of it at a time: one that prints without end does not keep its limit from being held.
    void take_output() {
        std::array<char, 65536> piece;
        const ssize_t count = reader_ ? read(reader_.get(), piece.data(), piece.size()) : -1;
        if (count > 0)
            output_.add({piece.data(), static_cast<size_t>(count)});
        if (count == 0)
            reader_.reset();
    }

    void take_signals() {
        signalfd_siginfo signal = {};
        while (read(signals_.get(), &signal, sizeof signal) == sizeof signal)
            if (signal.ssi_signo != SIGCHLD)
                ask_to_end();
    }

    void take_ends() {
        int status = 0;
        pid_t pid = 0;
        while ((pid = waitpid(-1, &status, WNOHANG)) > 0)
            if (pid == process_)
                process_ended(status);
        if (!has_ended_)
            return;
        has_children_ = pid == 0;
        if (has_children_ && kill_ms_ == INT64_MAX)
            ask_to_end();
        else if (!has_children_)
            output_end_ms_ = std::min(output_end_ms_, monotonic_ms() + output_rest_ms);
    }

    void process_ended(int status) {
        has_ended_ = true;
        exit_status_ = WIFEXITED(status) ? static_cast<uint32_t>(WEXITSTATUS(status))
                                         : status_of_signal + static_cast<uint32_t>(WTERMSIG(status));
        kill_ms_ = INT64_MAX;
    }

    void hold_limit() {
        const int64_t now = monotonic_ms();
        if (now >= limit_ms_) {
            limit_ms_ = INT64_MAX;
            ask_to_end();
        }
        if (now >= kill_ms_) {
            kill_ms_ = now + ms_per_s; // for those that were being made meanwhile
            signal_all(SIGKILL);
        }
    }

    void ask_to_end() {
        signal_all(SIGTERM);
        kill_ms_ = std::min(kill_ms_, monotonic_ms() + grace_ms);
    }

    // Its group, and those that have left it and lost their parents.
    void signal_all(int number) const {
        kill(-process_, number);
        std::ifstream children("/proc/self/task/" + std::to_string(getpid()) + "/children");
        for (pid_t child = 0; children >> child;)
            kill(child, number);
    }

    const RunOrder &order_;
    Output output_;
    UniqueFd signals_;
    UniqueFd reader_;
    pid_t process_ = 0;
    uint32_t exit_status_ = 0;
    bool has_ended_ = false;
    bool has_children_ = true;
    int64_t limit_ms_ = INT64_MAX;
    int64_t kill_ms_ = INT64_MAX;
    int64_t output_end_ms_ = INT64_MAX;
};

} // namespace

std::vector<std::string> keeper_arguments(const RunOrder &order) {
    std::vector<std::string> words = {keep_run_switch, order.user ? std::to_string(*order.user) : nobody_in_particular,
                                      std::to_string(order.seconds_max), std::to_string(order.output_bytes_max),
                                      order.path};
    words.insert(words.end(), order.arguments.begin(), order.arguments.end());
    return words;
}

int keep_run(int argc, char **argv) {
    constexpr int first_argument = 6;
    if (argc < first_argument || fcntl(keeper_notes_fd, F_GETFD) < 0)
        return EXIT_FAILURE;
    RunOrder order;
    if (std::string_view(argv[2]) != nobody_in_particular)
        order.user = static_cast<uid_t>(strtoul(argv[2], nullptr, 10));
    order.seconds_max = static_cast<uint32_t>(strtoul(argv[3], nullptr, 10));
    order.output_bytes_max = strtoull(argv[4], nullptr, 10);
    order.path = argv[5];
    order.arguments.assign(argv + first_argument, argv + argc);
    setsid(); // what is sent to the daemon's terminal is not meant for it
    prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0);
    Run(order).keep();
    return EXIT_SUCCESS;
}

} // namespace velia::server
