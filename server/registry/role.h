// The role of this host as a registry server. Its file is rewritten in place, so whoever is killed amid that leaves
// half a word or none; the registry's own database remembers the last role that stood there whole, and that one goes
// on.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include <server/registry/store.h>

namespace velia::server {

// What the file says: a value of RGY_SVR_..., NONE also where there is no file; nothing where it cannot be told, for
// which the library has had words.
std::optional<int32_t> role_in_file();

// Another text after each time that the file is written.
std::string mark_of_role_file();

// The role that this store remembers; NONE if it never had one.
int32_t remembered_role(Store &store);
void remember_role(Store &store, int32_t role);

// The store in this file; null where there is none, and none is made. Not for a file that this process has open
// already: the system drops a process's locks on a file when any of its descriptors of it is closed. Throws StoreError.
std::unique_ptr<Store> existing_store(const std::string &registry_file);

// What goes on where the file says nothing, and tells it: what the store remembers; NONE without a store.
int32_t last_role(Store *store);

} // namespace velia::server
