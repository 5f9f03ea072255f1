// Runs the daemon's own program now and then, one process at a time: what keeps this host's copy of the registry up to
// date, or looks whom the other hosts of the site take for the master. Each new reason of failure is told once.
#pragma once

#include <cstdint>
#include <ctime>
#include <functional>
#include <string>
#include <vector>

#include <server/loop/handles.h>
#include <server/loop/unique_fd.h>

namespace velia::server {

// Of the daemon, which its processes read, too; an absolute path. Empty: the usual one.
void run_with_configuration(const std::string &file_name);

// Runs this program with an option and waits for its end, for so long at most; false where it had to be killed or could
// not be started. For a daemon that does not serve yet.
bool run_to_end(const char *option, int deadline_ms);

class Copier {
public:
    // The option is the process's only argument; `ended` is called behind each one that was not stopped.
    Copier(uv_loop_t *loop, const char *option, std::function<void()> ended);
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

    // Of the wall's clock, in seconds; 0: never.
    time_t ended_at() const { return ended_at_; }
    time_t succeeded_at() const { return succeeded_at_; }

    // Of the last one; empty if it was not in vain.
    const std::string &failure() const { return failure_; }

private:
    struct Process;

    void copy();
    void ended(bool is_success);
    void take_words(bool is_success);
    void kill_process();
    void close_process();

    uv_loop_t *loop_;
    const std::string option_;
    const std::function<void()> on_end_;
    TimerHandle interval_timer_;
    TimerHandle deadline_timer_;
    Process *process_ = nullptr; // the one that runs
    uint32_t interval_s_ = 0;    // 0: not started
    UniqueFd words_;             // what it says on standard error
    std::string told_;           // the reason that was told last
    std::string failure_;
    time_t ended_at_ = 0;
    time_t succeeded_at_ = 0;
    bool is_stopped_ = false;     // the process's end is our doing
    bool is_another_due_ = false; // what the process has read so far may be too old
    std::function<void()> done_;
};

} // namespace velia::server
