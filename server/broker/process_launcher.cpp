// A server is started with the reading end of its lifeline as descriptor 3 and its sockets behind it, and learns of
// them from its last argument: "-S3:4,udp:5,tcp". Every other descriptor of the daemon is closed by exec.
#include <server/broker/process_launcher.h>

#include <cerrno>
#include <csignal>
#include <fcntl.h>

#include <server/messages.h>
#include <server/rpc/sockets.h>
#include <veliaxdr/rvzd_socket.h>

namespace velia::server {

namespace {

constexpr int lifeline_fd = 3;
constexpr int first_socket_fd = 4;

void set_blocking(int fd) {
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK);
}

uv_stdio_container_t inherited(int fd) {
    uv_stdio_container_t container = {};
    container.flags = UV_INHERIT_FD;
    container.data.fd = fd;
    return container;
}

// The daemon's own output is the servers', too.
std::vector<uv_stdio_container_t> descriptors_of(const UniqueFd &lifeline, const std::vector<UniqueFd> &sockets) {
    std::vector<uv_stdio_container_t> descriptors(1);
    descriptors[0].flags = UV_IGNORE;
    descriptors.push_back(inherited(STDOUT_FILENO));
    descriptors.push_back(inherited(STDERR_FILENO));
    descriptors.push_back(inherited(lifeline.get()));
    for (const auto &socket : sockets)
        descriptors.push_back(inherited(socket.get()));
    return descriptors;
}

LaunchResult failed_start(const Service &service, int uv_code) {
    switch (uv_code) {
    case UV_E2BIG:
        return {0, MSG_COMMAND_TOO_LONG, service.path};
    case UV_EAGAIN:
    case UV_ENOMEM:
        return {0, MSG_FORK_FAILED, uv_strerror(uv_code)};
    default:
        return {0, MSG_COMMAND_FAILED, service.path + ": " + uv_strerror(uv_code)};
    }
}

void set_account(uv_process_options_t &options, const Service &service) {
    if (service.group && *service.group != getegid()) {
        options.flags |= UV_PROCESS_SETGID;
        options.gid = *service.group;
    }
    if (service.user && *service.user != geteuid()) {
        options.flags |= UV_PROCESS_SETUID;
        options.uid = *service.user;
    }
}

} // namespace

struct ProcessLauncher::Child {
    uv_process_t process = {};
    ProcessLauncher *launcher;
};

ProcessLauncher::ProcessLauncher(uv_loop_t *loop, std::vector<ks_sockaddr_storage_t> addresses, OnExit on_exit)
    : loop_(loop), addresses_(std::move(addresses)), on_exit_(std::move(on_exit)) {}

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
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
        return {0, MSG_FORK_FAILED, imsg_strerror(errno)};
    return spawn(service, sockets, UniqueFd(ends[0]), UniqueFd(ends[1]), std::move(start_switch));
}

LaunchResult ProcessLauncher::spawn(const Service &service, const std::vector<UniqueFd> &sockets,
                                    UniqueFd lifeline_of_server, UniqueFd lifeline_of_ours, std::string start_switch) {
    auto descriptors = descriptors_of(lifeline_of_server, sockets);
    auto words = service.arguments;
    words.insert(words.begin(), service.path);
    words.push_back(std::move(start_switch));
    std::vector<char *> arguments;
    arguments.reserve(words.size() + 1);
    for (auto &word : words)
        arguments.push_back(word.data());
    arguments.push_back(nullptr);

    uv_process_options_t options = {};
    options.file = service.path.c_str();
    options.args = arguments.data();
    options.stdio = descriptors.data();
    options.stdio_count = static_cast<int>(descriptors.size());
    set_account(options, service);
    options.exit_cb = [](uv_process_t *process, int64_t code, int signal_number) {
        const auto *child = static_cast<Child *>(process->data);
        child->launcher->lifelines_.erase(process->pid);
        child->launcher->on_exit_(process->pid, {code, signal_number});
        uv_close(reinterpret_cast<uv_handle_t *>(process),
                 [](uv_handle_t *handle) { delete static_cast<Child *>(handle->data); });
    };
    auto *child = new Child{{}, this};
    child->process.data = child;
    const int code = uv_spawn(loop_, &child->process, &options);
    if (code != 0) {
        uv_close(reinterpret_cast<uv_handle_t *>(&child->process),
                 [](uv_handle_t *handle) { delete static_cast<Child *>(handle->data); });
        return failed_start(service, code);
    }
    lifelines_[child->process.pid] = std::move(lifeline_of_ours);
    return {child->process.pid, 0, {}};
}

void ProcessLauncher::cut_lifeline(int32_t pid) {
    lifelines_.erase(pid);
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
