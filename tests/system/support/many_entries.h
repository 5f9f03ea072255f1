// Many entries in a registry.
#pragma once

#include <cstddef>
#include <cstdint>

#include <tests/system/support/site.h>

namespace velia::system_test {

// Adds entries to a database of the site's registry, beneath its daemon and all at once: a hundred thousand in a
// second. They are found by a listing, and by nothing else.
void fill_registry(const Site &site, uint32_t db, size_t entry_count);

} // namespace velia::system_test
