// A site for benchmarks: a root directory of its own, a real daemon on loopback that is the registry master, too, and a
// sample server that it may start.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include <sys/types.h>

namespace bench {

// A port on which a server can listen over UDP and over TCP. Not one of those that clients are given: of these,
// thousands may be in use by connections that have ended.
uint16_t free_port();

class Site {
public:
    // Starts the daemon and waits until it serves; on another port if one is taken meanwhile. Ends the program with
    // words when it does not come up.
    Site(const std::string &daemon, const std::string &sample_server);
    ~Site();
    Site(const Site &) = delete;
    Site &operator=(const Site &) = delete;

    // Ends the daemon and starts it again with these lines behind its configuration; `between` finds its files alone.
    void restart(const std::string &lines, const std::function<void()> &between);

    uint16_t port() const { return port_; }
    const std::string &root() const { return root_; }
    pid_t pid() const { return daemon_; }
    static constexpr const char *host = "bench-host";
    static constexpr uint32_t sample_program = 390600;

private:
    bool start();

    const std::string daemon_program_;
    std::string root_;
    uint16_t port_ = 0;
    pid_t daemon_ = -1;
};

} // namespace bench
