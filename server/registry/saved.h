// Saving a registry into one file, also while a daemon works on it; looking whether such a file is whole; and putting
// it in the place of the registry of this host. Each throws StoreError with words for people, and leaves what was
// there.
#pragma once

#include <functional>
#include <string>

#include <server/registry/store.h>

namespace velia::server {

// What is in a file that was found whole.
struct SavedRegistry {
    tbs_uuid_t registry = {};
    uint64_t entries = 0;
    uint64_t changes = 0;
    uint64_t term = 0;
};

// Looks at every page and every record: of the registry of this host, which a daemon may have open, or of a saved one.
SavedRegistry check_registry(const std::string &registry_file);
SavedRegistry check_saved_registry(const std::string &file_name);

// Pages that have been copied, and all of them; false ends it, with a StoreError.
using SaveProgress = std::function<bool(uint64_t done, uint64_t total)>;

// Makes `file_name` a copy of the registry as it is at one moment: complete, looked at and on disk before it has the
// name. Only a registry that was saved there before is replaced.
void save_registry(const std::string &registry_file, const std::string &file_name, const SaveProgress &progress);

// Puts the registry that was saved in `saved` in the place of the one of this host, for which no daemon may work. What
// stood there is kept under the name that is given back, which is empty where there was nothing.
std::string restore_registry(const std::string &saved, const std::string &registry_file);

// Root may make what is the daemon's.
void give_to_owner_of_directory(const std::string &file_name);

// For what is to be kept beside a registry, and those that are already.
std::string free_name_for_former(const std::string &registry_file);

} // namespace velia::server
