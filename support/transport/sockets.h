// What both transports do with sockets. Failures are errno values, 0 for none.
#pragma once

#include <cstdint>

#include <sys/socket.h>

namespace velia::support::transport {

// Whether the descriptor is a socket of that type.
int check_type(int descriptor, int type);

// Makes receiving block, for a short while at most: a usual answer comes with one system call, and what takes longer is
// waited for by the clock.
int set_short_receive(int descriptor);
constexpr int64_t short_receive_us = 20'000;

// What a short receive may last in truth: the system counts in ticks.
constexpr int64_t short_receive_at_most_us = short_receive_us + 20'000;

// Connects until the clock shows `until_us`. A failed attempt is broken off, and the socket's mode is as before.
int connect_until(int descriptor, const sockaddr *address, int64_t until_us);

// Ends the connection of a stream socket at once; it can then be connected again, from the port it was bound to.
int disconnect(int descriptor);

} // namespace velia::support::transport
