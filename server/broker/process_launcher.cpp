// A server is started with the reading end of its lifeline as descriptor 3 and its sockets behind it, and learns of
// them from its last argument: "-S3:4,udp:5,tcp". Every other descriptor of the daemon is closed by exec.
#include <server/broker/process_launcher.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <server/broker/service_process.h>
#include <server/daemon/log.h>
#include <server/messages.h>
#include <server/rpc/sockets.h>
#include <veliaxdr/rvzd_socket.h>

namespace velia::server {

namespace {

constexpr int lifeline_fd = 3;
constexpr int first_socket_fd = 4;

constexpr size_t output_piece_bytes = 16384;
constexpr int last_pieces_max = 16;
constexpr uint64_t room_look_ms = 20;

void set_blocking(int fd) {
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK);
}

void set_non_blocking(int fd) {
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
}

const char *words_of(int error_number) {
    return uv_strerror(uv_translate_sys_error(error_number));
}

LaunchResult failed_start(const Service &service, int error_number) {
    switch (error_number) {
    case E2BIG:
        return {0, MSG_COMMAND_TOO_LONG, service.path};
    case EAGAIN:
    case ENOMEM:
    case EMFILE:
        return {0, MSG_FORK_FAILED, words_of(error_number)};
    default:
        return {0, MSG_COMMAND_FAILED, service.path + ": " + words_of(error_number)};
    }
}

struct Pipe {
    UniqueFd reader;
    UniqueFd writer;

    bool open(int flags) {
        int ends[2];
        if (pipe2(ends, flags) != 0)
            return false;
        reader.reset(ends[0]);
        writer.reset(ends[1]);
        return true;
    }
};

} // namespace

// What a server writes to its standard output and error: it has a pipe of its own there, and nothing of the log's.
class ProcessLauncher::Output {
public:
    Output(uv_loop_t *loop, UniqueFd fd, std::function<void()> on_end)
        : fd_(std::move(fd)), on_end_(std::move(on_end)), poll_(loop, fd_.get(), event_target<&Output::copy>(*this)),
          room_timer_(loop, [this] { copy(); }) {
        poll_.watch(UV_READABLE);
    }

    // With what has come until now.
    ~Output() {
        for (int i = 0; i < last_pieces_max && copy_some() == Copied::some; ++i) {
        }
    }
    Output(const Output &) = delete;
    Output &operator=(const Output &) = delete;

private:
    enum class Copied { some, nothing, all, no_room };

    // What the log has no room for waits here, and then in the pipe, and then the server waits.
    Copied copy_some() {
        if (!piece_.empty() && !Log::add_output(piece_.data(), piece_.size()))
            return Copied::no_room;
        piece_.resize(output_piece_bytes);
        const ssize_t count = read(fd_.get(), piece_.data(), piece_.size());
        piece_.resize(count > 0 ? static_cast<size_t>(count) : 0);
        if (count < 0 && (errno == EAGAIN || errno == EINTR))
            return Copied::nothing;
        if (count <= 0)
            return Copied::all;
        if (!Log::add_output(piece_.data(), piece_.size()))
            return Copied::no_room;
        piece_.clear();
        return Copied::some;
    }
    void copy() {
        const Copied copied = copy_some();
        poll_.watch(copied == Copied::some || copied == Copied::nothing ? UV_READABLE : 0);
        if (copied == Copied::no_room)
            room_timer_.start(room_look_ms);
        else if (copied == Copied::all)
            std::exchange(on_end_, nullptr)(); // is the end of this object
    }

    UniqueFd fd_;
    std::string piece_; // that was read and not taken
    std::function<void()> on_end_;
    PollHandle poll_;
    TimerHandle room_timer_;
};

ProcessLauncher::ProcessLauncher(uv_loop_t *loop, std::vector<ks_sockaddr_storage_t> addresses, OnExit on_exit)
    : loop_(loop), addresses_(std::move(addresses)), on_exit_(std::move(on_exit)),
      end_signal_(loop, SIGCHLD, [this] { take_ends(); }) {}

ProcessLauncher::~ProcessLauncher() = default;

void ProcessLauncher::take_ends() {
    std::vector<std::pair<int32_t, int>> ended;
    for (const auto &[pid, lifeline] : children_)
        if (int status = 0; waitpid(pid, &status, WNOHANG) == pid)
            ended.emplace_back(pid, status);
    for (const auto &[pid, status] : ended) {
        children_.erase(pid);
        const bool is_exit = WIFEXITED(status);
        on_exit_(pid, {is_exit ? WEXITSTATUS(status) : 0, is_exit ? 0 : WTERMSIG(status)});
    }
}

bool ProcessLauncher::open_sockets(const Service &service, std::vector<UniqueFd> &sockets, std::string &start_switch,
                                   LaunchResult &failure) const {
    start_switch = "-S" + std::to_string(lifeline_fd) + ":";
    for (const auto transport : {RVZD_PROTOCOL_UDP, RVZD_PROTOCOL_TCP}) {
        if (!service.serves(service.program, service.version, transport))
            continue;
        for (const auto &address : addresses_) {
            SocketFault fault;
            const int type = transport == RVZD_PROTOCOL_UDP ? SOCK_DGRAM : SOCK_STREAM;
            auto fd = open_listening_socket({address, type, false, service.program}, &fault);
            if (!fd) {
                failure = {0, fault.message, imsg_strerror(fault.error_number)};
                return false;
            }
            set_blocking(fd.get());
            if (!sockets.empty())
                start_switch += ':';
            start_switch += std::to_string(first_socket_fd + static_cast<int>(sockets.size())) + "," +
                            rvzd_protocol_names[transport];
            sockets.push_back(std::move(fd));
        }
    }
    return true;
}

LaunchResult ProcessLauncher::launch(const Service &service) {
    std::vector<UniqueFd> sockets;
    std::string start_switch;
    LaunchResult failure;
    if (!open_sockets(service, sockets, start_switch, failure))
        return failure;
    return spawn(service, sockets, std::move(start_switch));
}

LaunchResult ProcessLauncher::spawn(const Service &service, const std::vector<UniqueFd> &sockets,
                                    std::string start_switch) {
    const auto &account = accounts_.of(service);
    if (!account)
        return {0, MSG_COMMAND_FAILED,
                service.path + ": no group is known of user " + std::to_string(service.user.value_or(0))};
    Pipe lifeline;
    Pipe output;
    const UniqueFd null(open("/dev/null", O_RDONLY | O_CLOEXEC));
    if (!null || !lifeline.open(O_CLOEXEC) || !output.open(O_CLOEXEC))
        return {0, MSG_FORK_FAILED, imsg_strerror(errno)};
    set_non_blocking(output.reader.get());
    std::vector<int> descriptors = {null.get(), output.writer.get(), output.writer.get(), lifeline.reader.get()};
    for (const auto &socket : sockets)
        descriptors.push_back(socket.get());
    auto words = service.arguments;
    words.insert(words.begin(), service.path);
    words.push_back(std::move(start_switch));
    int error_number = 0;
    const pid_t pid = start_process({words, environment_of(*account), *account, descriptors}, &error_number);
    if (pid < 0)
        return failed_start(service, error_number);
    children_[pid] = std::move(lifeline.writer);
    const uint64_t number = ++outputs_so_far_;
    outputs_[number] =
        std::make_unique<Output>(loop_, std::move(output.reader), [this, number] { outputs_.erase(number); });
    return {pid, 0, {}};
}

void ProcessLauncher::cut_lifeline(int32_t pid) {
    if (const auto child = children_.find(pid); child != children_.end())
        child->second.reset();
}

int ProcessLauncher::kill_now(int32_t pid) {
    return kill(pid, SIGKILL) == 0 || errno == ESRCH ? 0 : errno;
}

bool ProcessLauncher::exists(int32_t pid) {
    return kill(pid, 0) == 0 || errno == EPERM;
}

bool ProcessLauncher::waits_for_calls(int32_t pid, const std::vector<ServedPort> &ports, int64_t age_ms) {
    return processor_ms(pid) * 2 < age_ms && !has_unread(ports);
}

} // namespace velia::server
