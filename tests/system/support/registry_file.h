// Changes of a site's registry beneath its daemon.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include <tests/system/support/site.h>

namespace velia::system_test {

void change_registry(const Site &site, const std::string &sql);

// Adds entries to a database of the registry, all at once: a hundred thousand in a second. They are found by a listing,
// and by nothing else.
void fill_registry(const Site &site, uint32_t db, size_t entry_count);

// Nobody changes the registry while it lives, or until it is released.
class RegistryLock {
public:
    explicit RegistryLock(const Site &site, const std::string &file = "host/priv/registry.db");
    ~RegistryLock();
    RegistryLock(const RegistryLock &) = delete;
    RegistryLock &operator=(const RegistryLock &) = delete;

    void release();

private:
    void *database_;
};

} // namespace velia::system_test
