#include <server/daemon/log.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <deque>
#include <mutex>
#include <new>
#include <poll.h>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <utility>

#include <support/env.h>
#include <support/imsg_form.h>

namespace velia::server {

namespace {

constexpr std::chrono::seconds last_wait(1);

struct Message {
    int fd;
    std::string text;
};

// False: it cannot be written, or not all of it.
bool write_whole(const Message &message) {
    for (size_t at = 0; at < message.text.size();) {
        const ssize_t count = write(message.fd, message.text.data() + at, message.text.size() - at);
        if (count >= 0) {
            at += static_cast<size_t>(count);
            continue;
        }
        pollfd writable = {message.fd, POLLOUT, 0};
        const bool may_go_on = errno == EINTR || (errno == EAGAIN && poll(&writable, 1, -1) > 0);
        if (!may_go_on)
            return false;
    }
    return true;
}

// The service manager tells which stream the journal reads.
bool is_journal(int fd) {
    std::array<char, 64> stream;
    struct stat status = {};
    return getenv_safe("JOURNAL_STREAM", stream.data(), stream.size(), 0) != nullptr && fstat(fd, &status) == 0 &&
           std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino) == stream.data();
}

// Of a line that a process of our own program has written, whose heading is taken off.
int severity_of(std::string_view &line) {
    struct Heading {
        std::string_view words;
        int severity;
    };
    constexpr Heading headings[] = {{"rvzd_server: Error: ", IMSG_ERROR}, {"rvzd_server: Warning: ", IMSG_WARNING}};
    for (const auto &heading : headings)
        if (line.starts_with(heading.words)) {
            line.remove_prefix(heading.words.size());
            return heading.severity;
        }
    return IMSG_PLAIN;
}

} // namespace

struct Log::State {
    std::mutex lock;
    std::condition_variable is_changed;
    std::deque<Message> waiting;
    size_t waiting_bytes = 0;
    uint64_t lost = 0; // messages, since that was last told
    bool is_writing = false;
    bool is_over = false;
    bool is_ended = false;

    static void take(void *context, int fd, const char *bytes, size_t size) {
        auto *state = static_cast<State *>(context);
        if (state->add(fd, bytes, size, BYTES_MAX))
            return;
        const std::lock_guard held(state->lock);
        ++state->lost;
    }

    // False when there would be more than this then, or there is no memory for it.
    bool add(int fd, const char *bytes, size_t size, size_t bytes_max) {
        try {
            const std::lock_guard held(lock);
            if (waiting_bytes + size > bytes_max)
                return false;
            waiting.push_back({fd, std::string(bytes, size)});
            waiting_bytes += size;
        } catch (const std::bad_alloc &) {
            return false;
        }
        is_changed.notify_all();
        return true;
    }

    bool has_room(size_t size, size_t bytes_max) {
        const std::lock_guard held(lock);
        return waiting_bytes + size <= bytes_max;
    }

    // False at the end.
    bool next(Message &message) {
        std::unique_lock held(lock);
        is_changed.wait(held, [this] { return is_over || !waiting.empty(); });
        if (waiting.empty())
            return false;
        is_writing = true;
        message = std::move(waiting.front());
        waiting.pop_front();
        waiting_bytes -= message.text.size();
        return true;
    }

    void note(bool is_written) {
        uint64_t told = 0;
        {
            const std::lock_guard held(lock);
            is_writing = false;
            if (!is_written)
                ++lost;
            else if (waiting.empty())
                told = std::exchange(lost, 0);
        }
        is_changed.notify_all();
        if (told != 0)
            imsg_print(IMSG_WARNING, "%llu messages could not be written.\n", IMSG_FORMAT,
                       static_cast<unsigned long long>(told));
    }

    void run() {
        for (Message message; next(message);)
            note(write_whole(message));
        const std::lock_guard held(lock);
        is_ended = true;
        is_changed.notify_all();
    }
};

std::shared_ptr<Log::State> Log::current;

Log::Log() : state_(std::make_shared<State>()) {
    current = state_;
    sigset_t all;
    sigset_t former;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &former);
    std::thread([state = state_] { state->run(); }).detach();
    pthread_sigmask(SIG_SETMASK, &former, nullptr);
    imsg_set_writer(State::take, state_.get());
}

uint64_t Log::lost() const {
    const std::lock_guard held(state_->lock);
    return state_->lost;
}

void Log::flush() {
    std::unique_lock held(state_->lock);
    state_->is_changed.wait_for(held, last_wait, [this] { return state_->waiting.empty() && !state_->is_writing; });
}

bool Log::by_lines = false;

bool Log::add_output(const char *bytes, size_t size) {
    if (by_lines)
        return add_lines({bytes, size});
    if (current != nullptr)
        return current->add(STDERR_FILENO, bytes, size, BYTES_MAX / 2);
    [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, bytes, size);
    return true;
}

// Each by itself. With what stands before it a line takes more room than it has bytes.
bool Log::add_lines(std::string_view text) {
    if (current != nullptr && !current->has_room(text.size(), BYTES_MAX / 2))
        return false;
    while (!text.empty()) {
        const auto end = std::min(text.find('\n'), text.size());
        std::string_view line = text.substr(0, end);
        const int severity = severity_of(line);
        imsg_print(severity, "%.*s\n", IMSG_FORMAT, static_cast<int>(line.size()), line.data());
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    return true;
}

void Log::set_options(const LogOptions &options) {
    const int form =
        (options.is_json ? int{IMSG_FORM_JSON} : 0) | (is_journal(STDERR_FILENO) ? int{IMSG_FORM_PRIORITIES} : 0);
    imsg_set_form(form, options.least_severity);
    by_lines = form != 0 || options.least_severity == IMSG_ERROR || options.least_severity == IMSG_WARNING;
}

Log::~Log() {
    current = nullptr;
    imsg_set_writer(nullptr, nullptr);
    std::unique_lock held(state_->lock);
    state_->is_over = true;
    state_->is_changed.notify_all();
    state_->is_changed.wait_for(held, last_wait, [this] { return state_->is_ended; });
}

} // namespace velia::server
