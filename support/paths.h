// Paths below the installation's root, for the other families.
#pragma once

#include <cstddef>

#include <support/tbs.h>

namespace velia::support {

// The root directory itself; lives as long as the environment is not changed.
const char *root_directory();

// Writes root "/" directory ["/" file_name] to the buffer; the empty text and TBS_ST_NAME_TOO_LONG if it does not fit.
tbs_status_t path_below_root(char *buffer, size_t size, const char *directory, const char *file_name);

} // namespace velia::support
