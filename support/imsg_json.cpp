// Messages as objects, for programs that read logs.
#include "imsg_internal.h"

#include <cstdio>

#include <time.h>

namespace velia::support {

namespace {

const char *name_of_severity(int severity) {
    switch (severity) {
    case IMSG_WARNING:
        return "warning";
    case IMSG_ERROR:
        return "error";
    case IMSG_TRACE:
        return "trace";
    default:
        return "info";
    }
}

bool is_follower(unsigned char byte) {
    return (byte & 0xc0) == 0x80;
}

// How many bytes the sign of UTF-8 has that stands there; 0: it is none.
size_t sign_length(const unsigned char *bytes, size_t left) {
    const unsigned char first = bytes[0];
    const size_t length = first < 0x80 ? 1 : first >= 0xc2 && first < 0xe0 ? 2 : first >= 0xe0 && first < 0xf0 ? 3 : 4;
    if ((first >= 0x80 && first < 0xc2) || first > 0xf4 || length > left)
        return 0;
    for (size_t i = 1; i < length; ++i)
        if (!is_follower(bytes[i]))
            return 0;
    // Longer than need be, half of a pair, or beyond the last sign.
    const bool is_none = length > 2 && ((first == 0xe0 && bytes[1] < 0xa0) || (first == 0xed && bytes[1] >= 0xa0) ||
                                        (first == 0xf0 && bytes[1] < 0x90) || (first == 0xf4 && bytes[1] >= 0x90));
    return is_none ? 0 : length;
}

// What is no UTF-8 becomes the sign for what cannot be shown.
void append_string(Output &output, const char *text, size_t length) {
    for (size_t at = 0; at < length;) {
        const auto *bytes = reinterpret_cast<const unsigned char *>(text) + at;
        const size_t sign = sign_length(bytes, length - at);
        char escaped[8];
        if (sign == 0) {
            output.append("\\ufffd");
        } else if (*bytes == '"' || *bytes == '\\') {
            output.append("\\");
            output.append(text + at, 1);
        } else if (*bytes < 0x20 || *bytes == 0x7f) {
            snprintf(escaped, sizeof escaped, "\\u%04x", static_cast<unsigned>(*bytes));
            output.append(escaped);
        } else {
            output.append(text + at, sign);
        }
        at += sign == 0 ? 1 : sign;
    }
}

size_t without_line_feeds(const char *text, size_t length) {
    while (length > 0 && text[length - 1] == '\n')
        --length;
    return length;
}

} // namespace

void append_utc(Output &output) {
    struct timespec now;
    struct tm parts;
    clock_gettime(CLOCK_REALTIME, &now);
    gmtime_r(&now.tv_sec, &parts);
    char text[64];
    const size_t length = strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &parts);
    snprintf(text + length, sizeof text - length, ".%03ldZ", now.tv_nsec / 1000000);
    output.append(text);
}

void append_json(Output &output, int severity, const char *subsystem, const char *origin, const char *text,
                 size_t length) {
    output.append("{\"time\":\"");
    append_utc(output);
    output.append("\",\"severity\":\"");
    output.append(name_of_severity(severity));
    if (subsystem != nullptr) {
        output.append("\",\"subsystem\":\"");
        append_string(output, subsystem, strlen(subsystem));
    }
    output.append("\",\"message\":\"");
    if (origin != nullptr)
        append_string(output, origin, strlen(origin));
    append_string(output, text, without_line_feeds(text, length));
    output.append("\"}\n");
}

} // namespace velia::support
