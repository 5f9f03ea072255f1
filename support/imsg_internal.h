// The printer's inside, for the other families.
#pragma once

#include <cstdarg>

#include <support/imsg.h>

namespace velia::support {

// Prints one message. `origin` (may be null) is text that the streams show between the heading and the message, and
// that a sink does not see.
void print_message(int severity, const char *subsystem, const void *table_or_format, int index, const char *origin,
                   va_list arguments);

// Writes all of it, whatever the descriptor takes at a time; gives up on an error.
void write_all(int descriptor, const char *bytes, size_t size);

} // namespace velia::support
