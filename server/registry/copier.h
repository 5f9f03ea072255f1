// Keeps this host's copy of the registry up to date: runs the copying process now and then, one at a time.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include <server/loop/handles.h>

namespace velia::server {

class Copier {
public:
    explicit Copier(uv_loop_t *loop);
    ~Copier();
    Copier(const Copier &) = delete;
    Copier &operator=(const Copier &) = delete;

    // Copies now, unless it did already, and from then on in this interval.
    void start(uint32_t interval_s);

    // Ends it, and kills the process that runs. A `done` that waits is not called.
    void stop();

    // One more copy, and then no more: `done` is called when it has ended, in whatever way. After the deadline what
    // runs is killed.
    void finish(uint64_t deadline_ms, std::function<void()> done);

private:
    struct Process;

    void copy();
    void ended(bool is_success);
    void kill_process();
    void close_process();

    uv_loop_t *loop_;
    TimerHandle interval_timer_;
    TimerHandle deadline_timer_;
    Process *process_ = nullptr; // the one that runs
    uint32_t interval_s_ = 0;    // 0: not started
    bool is_failure_told_ = false;
    bool is_stopped_ = false;     // the process's end is our doing
    bool is_another_due_ = false; // what the process has read so far may be too old
    std::function<void()> done_;
};

} // namespace velia::server
