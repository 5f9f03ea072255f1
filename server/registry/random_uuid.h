// Names and stamps that nobody else has made.
#pragma once

#include <support/tbs.h>

namespace velia::server {

// Random, version 4. Throws StoreError.
tbs_uuid_t random_uuid();

} // namespace velia::server
