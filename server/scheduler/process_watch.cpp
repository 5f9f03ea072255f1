#include <server/scheduler/process_watch.h>

#include <csignal>
#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <sys/wait.h>

namespace velia::server {

namespace {

UniqueFd open_process(int32_t process) {
    UniqueFd fd(static_cast<int>(syscall(SYS_pidfd_open, process, 0)));
    return fd ? std::move(fd) : UniqueFd(eventfd(1, EFD_CLOEXEC | EFD_NONBLOCK)); // is readable at once
}

} // namespace

ProcessWatch::ProcessWatch(uv_loop_t *loop, int32_t process, std::function<void(int status)> on_end)
    : process_(process), on_end_(std::move(on_end)), fd_(open_process(process)),
      poll_(loop, fd_.get(), event_target<&ProcessWatch::end>(*this)) {
    poll_.watch(UV_READABLE);
}

void ProcessWatch::send(int signal_number) const {
    syscall(SYS_pidfd_send_signal, fd_.get(), signal_number, nullptr, 0);
}

void ProcessWatch::end() {
    int status = 0;
    poll_.watch(0);
    if (waitpid(process_, &status, WNOHANG) != process_)
        status = 0;
    std::exchange(on_end_, nullptr)(status); // may be the end of this object
}

} // namespace velia::server
