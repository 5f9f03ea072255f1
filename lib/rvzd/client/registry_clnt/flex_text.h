// Flex text inside operations that keep raises off themselves.
#pragma once

#include <veliaxdr/rgy_entry.h>

namespace velia::registry_clnt {

// rgy_expand_flex_entry without a clean-up frame: the caller has raises inhibited.
tbs_status_t expand(const char *text, rgy_flex_entry_t &out);

// Room for one item more; false, with all as it was, without storage.
bool make_room(rgy_flex_entry_t &flex);

} // namespace velia::registry_clnt
