// The names of databases and items.
#pragma once

#include <cstdint>

namespace velia::registry_clnt {

// The key of an item; the empty key for an index that no item has.
const char *item_key(uint32_t item);

} // namespace velia::registry_clnt
