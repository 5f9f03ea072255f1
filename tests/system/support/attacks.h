// Callers who ask for costly work, or for none at all, all the time, from an address of their own. The benchmarks use
// them, too, and so they know no framework of tests.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

namespace velia::system_test {

// A daemon on 127.0.0.1.
struct Target {
    uint16_t port;
    std::string registry_file;
    uint32_t slow_program; // a service whose server never registers
};

class Attack {
public:
    // Begins; `name` is one of names().
    Attack(const std::string &name, const Target &target);
    ~Attack();
    Attack(const Attack &) = delete;
    Attack &operator=(const Attack &) = delete;

    // How often it has come to its end and begun anew.
    size_t rounds() const { return rounds_; }

    // patterns   5,000 patterns in one datagram
    // region     listings of a region that nobody has, 140 in one piece over TCP
    // passwords  64 checks at once
    // unknown    look-ups of a server that is not there, each of which is told
    // hoarders   as many connections as can be had, which ask and read nothing
    // waiting    look-ups that wait for a server
    // foreign    look-ups from thousands of sockets, none of which asks twice
    // lock       the database, held for changes by another process for a second at a time
    static const std::vector<std::string> &names();

private:
    const Target target_;
    std::atomic<bool> is_over_ = false;
    std::atomic<size_t> rounds_ = 0;
    std::thread thread_;
};

} // namespace velia::system_test
