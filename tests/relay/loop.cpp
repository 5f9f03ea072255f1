#include <tests/relay/loop.h>

#include <algorithm>
#include <vector>

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace velia::relay {

Loop::Loop() : stop_fd_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

Loop::~Loop() {
    close(stop_fd_);
}

void Loop::watch(int fd, short events, Ready ready) {
    watched_[fd] = {events, std::move(ready), ++watches_};
}

void Loop::forget(int fd) {
    watched_.erase(fd);
}

void Loop::at(Clock::time_point due, std::function<void()> work) {
    due_.emplace(due, std::move(work));
}

void Loop::stop() const {
    eventfd_write(stop_fd_, 1);
}

// Rounded up, so that what is due then is due indeed.
int Loop::wait_ms() const {
    if (due_.empty())
        return -1;
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(due_.begin()->first - Clock::now());
    return static_cast<int>(std::max<int64_t>(left.count(), 0));
}

void Loop::run_due() {
    while (!due_.empty() && due_.begin()->first <= Clock::now()) {
        const auto work = std::move(due_.begin()->second);
        due_.erase(due_.begin());
        work();
    }
}

// False once it is to stop. What one callback forgets or watches anew is not told what poll() saw before.
bool Loop::run_ready() {
    std::vector<pollfd> wanted = {{stop_fd_, POLLIN, 0}};
    std::vector<unsigned long> numbers = {0};
    for (const auto &[fd, watched] : watched_) {
        wanted.push_back({fd, watched.events, 0});
        numbers.push_back(watched.number);
    }
    if (poll(wanted.data(), wanted.size(), wait_ms()) < 0)
        return true;
    for (size_t i = 1; i < wanted.size(); ++i) {
        const auto watched = watched_.find(wanted[i].fd);
        if (wanted[i].revents == 0 || watched == watched_.end() || watched->second.number != numbers[i])
            continue;
        const auto ready = watched->second.ready; // which may forget itself
        ready(wanted[i].revents);
    }
    return wanted[0].revents == 0;
}

void Loop::run() {
    while (run_ready())
        run_due();
}

} // namespace velia::relay
