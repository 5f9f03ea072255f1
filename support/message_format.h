// What the families of the support layer that speak share: one bounded formatter and one way out for a message.
#pragma once

#include <cstdarg>
#include <cstddef>

#include <support/imsg.h>

namespace support {

constexpr size_t message_size = 8192;

// The format string behind a table position, or the format itself for IMSG_FORMAT.
const char *format_of(const void *table_or_format, int index);

int format_message(char *buffer, size_t size, const void *table_or_format, int index, va_list arguments);

// Hands a finished message to the sink, or writes it with its prefix to its stream.
void deliver(int severity, const char *subsystem, const void *table_or_format, int index, const char *text);

} // namespace support
