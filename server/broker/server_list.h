// The server table as a client's flat buffer wants it.
#pragma once

#include <map>
#include <vector>

#include <server/broker/process.h>

namespace velia::server {

struct ServerListPiece {
    std::vector<char> records; // rvzd_server_entry_t, one behind the other
    bool at_end = true;
};

// The registrations behind `cookie`, in the order in which they were made, as many as fit `size_bytes`. A registration
// keeps its cookie for life, so that a walk neither repeats nor misses one because others went.
ServerListPiece list_servers(const std::map<int32_t, Process> &processes, uint64_t cookie, uint64_t size_bytes);

} // namespace velia::server
