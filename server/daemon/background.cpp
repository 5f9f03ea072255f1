// The fork comes after the sockets are bound and before the event loop is made, which does not survive a fork.
#include <server/daemon/background.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <sys/stat.h>

#include <server/daemon/private_files.h>
#include <server/messages.h>
#include <support/tbs.h>

namespace velia::server {

namespace {

constexpr int first_own_fd = 3;
constexpr int descriptors_looked_at = 1024;

std::string redirected_log; // where messages go, if not to the terminal

[[noreturn]] void wait_for_child(int fd) {
    char word = 0;
    ssize_t count = 0;
    do {
        count = read(fd, &word, 1);
    } while (count < 0 && errno == EINTR);
    _exit(count == 1 ? EXIT_SUCCESS : EXIT_FAILURE);
}

void leave_terminal() {
    setsid();
    if (chdir("/") != 0)
        return; // nowhere to go is no reason not to serve
    const UniqueFd null(open("/dev/null", O_RDWR | O_CLOEXEC));
    dup2(null.get(), STDIN_FILENO);
}

std::string log_path(const std::string &name) {
    if (name.find('/') != std::string::npos)
        return name;
    std::array<char, TBS_PATH_SIZE> path;
    return tbs_product_log_dir(path.data(), name.c_str()) == TBS_ST_OK ? path.data() : "";
}

} // namespace

void Background::ParentEnd::reset_with_word() {
    // A parent that is gone has nobody to tell.
    if (fd && write(fd.get(), "", 1) != 1)
        errno = 0;
    fd.reset();
}

bool Background::enter() {
    std::array<int, 2> ends;
    if (pipe2(ends.data(), O_CLOEXEC) != 0) {
        print(IMSG_ERROR, MSG_FORK_FAILED, imsg_strerror(errno));
        return false;
    }
    UniqueFd reader(ends[0]);
    to_parent_.fd = UniqueFd(ends[1]);
    const pid_t pid = fork();
    if (pid < 0) {
        print(IMSG_ERROR, MSG_FORK_FAILED, imsg_strerror(errno));
        return false;
    }
    if (pid > 0) {
        to_parent_.fd.reset();
        wait_for_child(reader.get());
    }
    leave_terminal();
    return true;
}

bool redirect_to_log(const std::string &name) {
    redirected_log = log_path(name);
    const char *path = redirected_log.c_str();
    const UniqueFd fd(open_private_log(path));
    const int error_number = !fd ? errno : imsg_init_daemon(path);
    if (error_number != 0) {
        imsg_print_shared(IMSG_ERROR, "xdr/rvzd", &_tbs_cmsg_tbs_msg_table, TBS_MSG_CANNOT_OPEN, path,
                          imsg_strerror(error_number));
        return false;
    }
    fcntl(fd.get(), F_SETFL, O_APPEND); // servers write to it, too
    dup2(fd.get(), STDOUT_FILENO);
    dup2(fd.get(), STDERR_FILENO);
    return true;
}

void reopen_log() {
    if (!redirected_log.empty())
        redirect_to_log(std::string(redirected_log));
}

void close_descriptors_on_exec() {
    if (close_range(first_own_fd, ~0U, CLOSE_RANGE_CLOEXEC) == 0)
        return;
    for (int fd = first_own_fd; fd < descriptors_looked_at; ++fd)
        fcntl(fd, F_SETFD, FD_CLOEXEC);
}

} // namespace velia::server
