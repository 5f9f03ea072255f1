// Telling others how far the daemon is: a service manager by its notification socket, a parent by a descriptor.
#pragma once

#include <string>

#include <server/loop/unique_fd.h>

namespace velia::server {

// Takes NOTIFY_SOCKET out of the environment, so that servers do not inherit it. Without one every call does nothing.
class ServiceManager {
public:
    ServiceManager();
    void send_ready() const { send("READY=1"); }
    void send_reloading() const;
    void send_stopping() const { send("STOPPING=1"); }

private:
    void send(const std::string &state) const;
    std::string socket_name_;
};

// Writes "READY=1\n" and closes, whoever may or may not be reading. Negative: nobody asked.
void send_ready_fd(int fd);

} // namespace velia::server
