#include <server/registry/copier.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <poll.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <server/daemon/log.h>
#include <server/registry/copy.h>
#include <support/imsg.h>

namespace velia::server {

namespace {

constexpr const char *this_program = "/proc/self/exe";
constexpr uint64_t ms_per_s = 1000;
constexpr size_t words_bytes_max = 4096;
constexpr size_t reason_bytes_max = 1000;

// The last line of what a process says, without its name and how bad it is.
std::string reason_in(std::string words) {
    while (words.ends_with('\n'))
        words.pop_back();
    words.erase(0, words.rfind('\n') + 1);
    for (const char *before : {"rvzd_server: ", "Error: ", "Warning: "})
        if (words.starts_with(before))
            words.erase(0, strlen(before));
    words.resize(std::min(words.size(), reason_bytes_max));
    return words.empty() ? "the process was ended" : words;
}

uv_stdio_container_t descriptor(int fd) {
    uv_stdio_container_t container = {};
    container.flags = fd < 0 ? UV_IGNORE : UV_INHERIT_FD;
    container.data.fd = fd;
    return container;
}

std::string &configuration_file() {
    static std::string file_name;
    return file_name;
}

// Of this program, with an option.
struct Command {
    explicit Command(const std::string &option) : words{"rvzd_server", option} {
        if (!configuration_file().empty())
            words.insert(words.end(), {"--config", configuration_file()});
        for (std::string &word : words)
            arguments.push_back(word.data());
        arguments.push_back(nullptr);
    }
    std::vector<std::string> words;
    std::vector<char *> arguments;
};

std::vector<char *> environment_with(std::string &variable) {
    std::vector<char *> variables = {variable.data()};
    for (char **other = environ; *other != nullptr; ++other)
        variables.push_back(*other);
    variables.push_back(nullptr);
    return variables;
}

} // namespace

void run_with_configuration(const std::string &file_name) {
    configuration_file() = file_name;
}

bool run_to_end(const char *option, int deadline_ms) {
    Command command(option);
    std::string daemon = copying_daemon_variable + ("=" + std::to_string(getpid()));
    auto variables = environment_with(daemon);
    pid_t pid = 0;
    if (posix_spawn(&pid, this_program, nullptr, nullptr, command.arguments.data(), variables.data()) != 0)
        return false;
    const UniqueFd process(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
    pollfd end = {process.get(), POLLIN, 0};
    const bool is_ended = process && poll(&end, 1, deadline_ms) == 1;
    if (!is_ended)
        kill(pid, SIGKILL);
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return is_ended;
}

struct Copier::Process {
    uv_process_t handle = {};
    Copier *owner;
};

Copier::Copier(uv_loop_t *loop, const char *option, std::function<void()> ended)
    : loop_(loop), option_(option), on_end_(std::move(ended)), interval_timer_(loop, [this] { copy(); }),
      deadline_timer_(loop, [this] {
          is_another_due_ = false;
          kill_process();
      }) {}

Copier::~Copier() {
    kill_process();
    close_process();
}

void Copier::close_process() {
    if (process_ != nullptr)
        uv_close(reinterpret_cast<uv_handle_t *>(&process_->handle),
                 [](uv_handle_t *closed) { delete static_cast<Process *>(closed->data); });
    process_ = nullptr;
}

void Copier::start(uint32_t interval_s) {
    const bool is_new = interval_s_ == 0;
    interval_s_ = interval_s;
    if (is_new && process_ == nullptr)
        copy();
    else if (is_new)
        is_another_due_ = true;
}

void Copier::stop() {
    interval_s_ = 0;
    told_.clear();
    failure_.clear();
    ended_at_ = succeeded_at_ = 0; // what comes next may be of another host
    interval_timer_.stop();
    deadline_timer_.stop();
    is_another_due_ = false;
    done_ = nullptr;
    is_stopped_ = process_ != nullptr;
    kill_process();
}

void Copier::finish(uint64_t deadline_ms, std::function<void()> done) {
    interval_s_ = 0;
    interval_timer_.stop();
    done_ = std::move(done);
    deadline_timer_.start(deadline_ms);
    is_another_due_ = process_ != nullptr;
    if (process_ == nullptr)
        copy();
}

void Copier::copy() {
    words_ = UniqueFd(memfd_create("words", MFD_CLOEXEC));
    std::array<uv_stdio_container_t, 3> descriptors = {descriptor(-1), descriptor(STDOUT_FILENO),
                                                       descriptor(words_.get())};
    Command command(option_);
    std::string daemon = copying_daemon_variable + ("=" + std::to_string(getpid()));
    auto variables = environment_with(daemon);
    uv_process_options_t options = {};
    options.env = variables.data();
    options.file = this_program;
    options.args = command.arguments.data();
    options.stdio = descriptors.data();
    options.stdio_count = static_cast<int>(descriptors.size());
    options.exit_cb = [](uv_process_t *handle, int64_t code, int signal_number) {
        Copier *owner = static_cast<Process *>(handle->data)->owner;
        owner->close_process();
        owner->ended(code == 0 && signal_number == 0);
    };
    process_ = new Process{{}, this};
    process_->handle.data = process_;
    const int code = uv_spawn(loop_, &process_->handle, &options);
    if (code == 0)
        return;
    close_process();
    const std::string words = uv_strerror(code);
    if (words_ && write(words_.get(), words.data(), words.size()) < 0)
        words_.reset();
    ended(false);
}

// It may say much, and the same each time.
void Copier::take_words(bool is_success) {
    std::string words(words_bytes_max, '\0');
    const ssize_t size = words_ ? pread(words_.get(), words.data(), words.size(), 0) : 0;
    words.resize(size > 0 ? static_cast<size_t>(size) : 0);
    words_.reset();
    ended_at_ = time(nullptr);
    if (is_success) {
        succeeded_at_ = ended_at_;
        words.clear();
    }
    failure_ = is_success ? "" : reason_in(words);
    if (words == told_)
        return;
    if (is_success)
        imsg_print(IMSG_PLAIN, "rvzd_server %s succeeds again.\n", IMSG_FORMAT, option_.c_str());
    told_ = words;
    if (!Log::add_output(words.data(), words.size()))
        told_.clear(); // there was no room
}

void Copier::ended(bool is_success) {
    if (!is_stopped_)
        take_words(is_success);
    const bool is_of_interest = !is_stopped_;
    is_stopped_ = false;
    if (is_of_interest && on_end_)
        on_end_();
    if (is_another_due_) {
        is_another_due_ = false;
        return copy();
    }
    if (interval_s_ != 0)
        interval_timer_.start(interval_s_ * ms_per_s);
    if (!done_)
        return;
    deadline_timer_.stop();
    const auto done = std::move(done_);
    done_ = nullptr;
    done();
}

// Waits for the end, too, and leaves the exit status to the loop. The database is closed next, and whoever closes it
// last clears its log away: a log that stays is replayed over the next file of that name, whatever that is.
void Copier::kill_process() {
    if (process_ == nullptr)
        return;
    uv_process_kill(&process_->handle, SIGKILL);
    siginfo_t end;
    while (waitid(P_PID, static_cast<id_t>(process_->handle.pid), &end, WEXITED | WNOWAIT) != 0 && errno == EINTR) {
    }
}

} // namespace velia::server
