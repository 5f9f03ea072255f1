// Entries inside operations that keep raises off themselves.
#pragma once

#include <veliaxdr/rgy_entry.h>

namespace velia::registry_clnt {

inline bool is_alive(const rgy_entry_t *entry) {
    return entry != nullptr && entry->magic == RGY_ENTRY_MAGIC;
}

} // namespace velia::registry_clnt
