// The printer's inside, for the other families.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include <support/imsg_form.h>

namespace velia::support {

// A growing text, of usual length on the stack. What there is no memory for is cut, so that the message itself still
// comes out.
struct Output {
    char usual[1024];
    char *bytes; // null until there are any
    size_t length;
    size_t size;

    void append(const char *text, size_t text_length) {
        if (bytes == nullptr) {
            bytes = usual;
            size = sizeof usual;
        }
        const size_t room = size - length;
        if (room < text_length && !grow(length + text_length))
            text_length = room;
        memcpy(bytes + length, text, text_length);
        length += text_length;
    }

    void append(const char *text) { append(text, strlen(text)); }

    bool grow(size_t least_size) {
        const size_t new_size = least_size * 2;
        auto *room = static_cast<char *>(realloc(bytes != usual ? bytes : nullptr, new_size));
        if (room == nullptr)
            return false;
        if (bytes == usual)
            memcpy(room, usual, length);
        bytes = room;
        size = new_size;
        return true;
    }

    void release() {
        if (bytes != usual)
            free(bytes);
    }
};

// The time of now, to the millisecond.
void append_utc(Output &output);

// A message as an object of one line. The subsystem and the origin may be null.
void append_json(Output &output, int severity, const char *subsystem, const char *origin, const char *text,
                 size_t length);

// Prints one message. `origin` (may be null) is text that the streams show between the heading and the message, and
// that a sink does not see.
void print_message(int severity, const char *subsystem, const void *table_or_format, int index, const char *origin,
                   va_list arguments);

// Writes all of it, whatever the descriptor takes at a time; gives up on an error.
void write_all(int descriptor, const char *bytes, size_t size);

} // namespace velia::support
