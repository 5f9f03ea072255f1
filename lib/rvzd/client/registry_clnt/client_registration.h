// The courtesy that precedes each fetch.
#pragma once

#include <veliaxdr/rvzd_handle.h>

// Of the client list's module. Weak: a build that leaves that module out fetches all the same, unregistered.
extern "C" [[gnu::weak]] void rvzd_clnt_list_register(rvzd_handle_t *handle);

namespace velia::registry_clnt {

// Tells the handle's broker that this host is one of its clients. Costs next to nothing when it has been told.
inline void register_as_client(rvzd_handle_t *handle) {
    if (rvzd_clnt_list_register != nullptr)
        rvzd_clnt_list_register(handle);
}

} // namespace velia::registry_clnt
