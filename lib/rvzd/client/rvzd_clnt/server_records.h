// Walking the packed records of a server list reply: each is looked at only where it stands whole within the bytes
// used.
#pragma once

#include <veliaxdr/rvzd_servers.h>

namespace velia::rvzd_clnt {

// The record that begins `at` bytes into `buffer`, of whose bytes `used` hold records; null if it does not end there.
inline rvzd_server_entry_t *whole_record_at(char *buffer, uint64_t used, uint64_t at) {
    if (at > used || used - at < sizeof(rvzd_server_entry_t))
        return nullptr;
    auto *entry = reinterpret_cast<rvzd_server_entry_t *>(buffer + at);
    return rvzd_server_entry_size(entry->name_length) <= used - at ? entry : nullptr;
}

} // namespace velia::rvzd_clnt
