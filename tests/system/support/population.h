// Many servers in a broker's table. Each is a registration of a child process that does nothing else but live. The
// benchmarks use it, too, and so it knows no framework of tests.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <sys/types.h>

#include <veliaxdr/rvzd_handle.h>
#include <veliaxdr/rvzd_wire.h>

namespace velia::system_test {

class Population {
public:
    static constexpr uint32_t first_program = 500000;

    Population() = default;
    ~Population();
    Population(const Population &) = delete;
    Population &operator=(const Population &) = delete;

    // Registers one more server with the handle's broker, which must be on this host; the broker's status. Servers are
    // numbered from 0: number n has program `first_program` + n, version 1 over TCP, and port 1000 + n.
    tbs_status_t add(rvzd_handle_t *handle, const std::string &path);

    // Whose registration the server with this number is.
    pid_t process_of(size_t number) const { return members_.at(number / servers_of_a_process).pid; }

private:
    static constexpr size_t servers_of_a_process = 8;

    struct Member {
        pid_t pid;
        int orders; // a socket: an order there, the broker's status back
    };

    bool add_member(rvzd_handle_t *handle);

    std::vector<Member> members_;
    size_t count_ = 0;
};

} // namespace velia::system_test
