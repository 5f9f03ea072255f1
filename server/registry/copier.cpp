#include <server/registry/copier.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <sys/wait.h>
#include <unistd.h>

#include <server/registry/copy.h>
#include <server/registry/messages.h>

namespace velia::server {

namespace {

constexpr const char *this_program = "/proc/self/exe";
constexpr uint64_t ms_per_s = 1000;

uv_stdio_container_t descriptor(int fd) {
    uv_stdio_container_t container = {};
    container.flags = fd < 0 ? UV_IGNORE : UV_INHERIT_FD;
    container.data.fd = fd;
    return container;
}

std::vector<char *> environment_with(std::string &variable) {
    std::vector<char *> variables = {variable.data()};
    for (char **other = environ; *other != nullptr; ++other)
        variables.push_back(*other);
    variables.push_back(nullptr);
    return variables;
}

} // namespace

struct Copier::Process {
    uv_process_t handle = {};
    Copier *owner;
};

Copier::Copier(uv_loop_t *loop)
    : loop_(loop), interval_timer_(loop, [this] { copy(); }), deadline_timer_(loop, [this] {
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
    is_failure_told_ = false;
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

// What keeps a copy from being made is told the first time, not again in each interval.
void Copier::copy() {
    std::array<uv_stdio_container_t, 3> descriptors = {descriptor(-1), descriptor(STDOUT_FILENO),
                                                       descriptor(is_failure_told_ ? -1 : STDERR_FILENO)};
    std::string name = "rvzd_server";
    std::string option = "--copy-registry";
    std::array<char *, 3> arguments = {name.data(), option.data(), nullptr};
    std::string daemon = copying_daemon_variable + ("=" + std::to_string(getpid()));
    auto variables = environment_with(daemon);
    uv_process_options_t options = {};
    options.env = variables.data();
    options.file = this_program;
    options.args = arguments.data();
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
    if (!is_failure_told_)
        print_registry(IMSG_ERROR, MSG_BACKUP_ERROR, uv_strerror(code));
    ended(false);
}

void Copier::ended(bool is_success) {
    is_failure_told_ = !is_success && !is_stopped_;
    is_stopped_ = false;
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
