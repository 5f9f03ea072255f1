// Waits for descriptors and for points of time, in one thread.
#pragma once

#include <chrono>
#include <functional>
#include <map>

namespace velia::relay {

using Clock = std::chrono::steady_clock;

class Loop {
public:
    Loop();
    ~Loop();
    Loop(const Loop &) = delete;
    Loop &operator=(const Loop &) = delete;

    // Calls `ready` with what poll() told of the descriptor, in place of what was watched of it before. Whoever closes
    // a descriptor forgets it first.
    using Ready = std::function<void(short)>;
    void watch(int fd, short events, Ready ready);
    void forget(int fd);

    void at(Clock::time_point due, std::function<void()> work);

    // Until stop(), which any thread and any handler of a signal may call.
    void run();
    void stop() const;

private:
    struct Watched {
        short events;
        Ready ready;
        unsigned long number;
    };

    int wait_ms() const;
    void run_due();
    bool run_ready();

    int stop_fd_;
    unsigned long watches_ = 0;
    std::map<int, Watched> watched_;
    std::multimap<Clock::time_point, std::function<void()>> due_;
};

} // namespace velia::relay
