// Tells when a process has ended, a child's or another's.
#pragma once

#include <functional>

#include <server/loop/handles.h>
#include <server/loop/unique_fd.h>

namespace velia::server {

class ProcessWatch {
public:
    // The status is that of waitpid; 0 for a process that is no child. One that is not there any more is told in a
    // round to come, too.
    ProcessWatch(uv_loop_t *loop, int32_t process, std::function<void(int status)> on_end);

    void send(int signal_number) const;

private:
    void end();

    int32_t process_;
    std::function<void(int status)> on_end_;
    UniqueFd fd_;
    PollHandle poll_;
};

} // namespace velia::server
