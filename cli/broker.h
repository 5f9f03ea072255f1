// Reaching the broker of a host within a time of the user's choice.
#pragma once

#include <cstdint>
#include <string>

#include <cli/duration.h>
#include <support/tbs.h>
#include <veliaxdr/rvzd_handle.h>

namespace velia::cli {

struct Reach {
    bool answered = false;
    double round_trip_ms = 0;
    std::string address; // that answered
};

// Sends one contact to each address of the host until one answers; each has the time-out. What fails is printed.
// The library's own first contact waits for its fixed time, which is too long for a user who asked for less.
Reach reach_broker(const std::string &host, uint32_t protocol, Duration timeout);

// Of each call made through the handle.
void set_timeout(rvzd_handle_t *handle, Duration timeout);

// A datagram is sent again after a while, and the RPC library looks at the time-out only then.
void wait_no_longer(CLIENT *client, Duration timeout);

std::string text_of_address(const ks_sockaddr_storage_t &address);

// The names of the two that a server may be asked for by, and each as an index of rvzd_protocol_names.
inline constexpr const char *transports[] = {"udp", "tcp"};
uint32_t protocol_of_name(const std::string &name);

} // namespace velia::cli
