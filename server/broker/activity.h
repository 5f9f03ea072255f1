// What can be seen of a server from outside: whether a call waits in its sockets, and how long it has had a processor.
// By that one that nobody has called is told from one that is stuck.
#pragma once

#include <cstdint>
#include <istream>
#include <vector>

#include <veliaxdr/rvzd_wire.h>

namespace velia::server {

// Where a server listens, by one transport.
struct ServedPort {
    rvzd_protocol_in_t protocol = RVZD_PROTOCOL_UDP;
    uint16_t port = 0;
};

// Whether the rows of one of the system's tables of sockets ("/proc/net/udp" and its kin) tell of bytes, or of
// connections, that wait to be taken at this local port.
bool has_unread(std::istream &table, uint16_t port);

// Whether anything waits at one of these ports; of this host's tables.
bool has_unread(const std::vector<ServedPort> &ports);

// What the process has had of the processors since its start; 0 for one that is not there.
int64_t processor_ms(int32_t pid);

} // namespace velia::server
