// A whole site on loopback for one test: a root directory with its configuration, a free port, names for hosts. It is
// this process's site, too, so that the library's clients in the test use it.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <sys/types.h>

namespace velia::system_test {

class Site {
public:
    // Hosts "alpha" (127.0.0.1, and this host's name), "beta" (127.0.0.2), "six" (::1), "both" (::1 and 127.0.0.1),
    // "away" (127.0.0.9, for one that a daemon listens elsewhere than).
    Site();
    ~Site();
    Site(const Site &) = delete;
    Site &operator=(const Site &) = delete;

    const std::filesystem::path &root() const { return root_; }
    uint16_t port() const { return port_; }
    std::string path(const std::string &name) const { return (root_ / name).string(); }

    std::string write(const std::string &name, const std::string &text) const;
    std::string read(const std::string &name) const;

    // Makes another user the owner of all that is there, and lets everybody see it.
    void give_to(uid_t user) const;

    // The daemon's configuration file.
    void configure(const std::string &text) const { write("rvzd_server.conf", text); }

private:
    std::filesystem::path root_;
    uint16_t port_;
};

// Lines of the configuration that let other hosts of a site change and administer, as which addresses of loopback
// serve.
inline constexpr const char *trusted_hosts = "access 127.0.0.0/8 read,register,write,administer\n";

// A line of the configuration for the sample server. `control` "-" for the defaults.
std::string sample_line(uint32_t program, const std::string &kind, const std::string &control,
                        const std::string &arguments = "--quiet-seconds 1", const std::string &transports = "udp,tcp");

// The same for a shell script in place of a server.
std::string script_line(uint32_t program, const std::string &kind, const std::string &control,
                        const std::string &script);

// Looks every few milliseconds whether it holds; false when it does not within `deadline_s`.
bool eventually(const std::function<bool()> &condition, double deadline_s = 10);

} // namespace velia::system_test
