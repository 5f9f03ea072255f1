// The message printer. A message is formatted whole, headed, and handed to the kernel by one write, so that messages of
// several threads and processes do not mix.
#include <support/imsg.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <pthread.h>
#include <time.h>
#include <unistd.h>

#include <support/pfm.h>
#include <support/stg.h>

#include "forked_locks.h"
#include "imsg_internal.h"

namespace {

using velia::support::Output;
using velia::support::write_all;

constexpr size_t usual_text_size = 1024;
constexpr size_t app_name_size = 1024; // a path and a process number

pthread_mutex_t printer_lock = PTHREAD_MUTEX_INITIALIZER;
char app_name[app_name_size];
int log_descriptor = -1;
bool is_inside_a_line; // the log, or without one standard error, after its last message
imsg_sink_t message_sink;
void *sink_context;
imsg_writer_t message_writer;
void *writer_context;
int message_form;                // IMSG_FORM_...
int least_severity = IMSG_TRACE; // of what is written
bool is_last_wanted = true;

void lock_printer() {
    velia::support::free_in_children(printer_lock);
    pthread_mutex_lock(&printer_lock);
}

// How a severity is shown.
struct Heading {
    const char *word;
    const char *colour;
};

Heading heading_of(int severity) {
    switch (severity) {
    case IMSG_WARNING:
        return {"Warning: ", "\033[1;33m"};
    case IMSG_ERROR:
        return {"Error: ", "\033[1;31m"};
    default:
        return {nullptr, nullptr};
    }
}

int stream_descriptor(int severity) {
    return severity == IMSG_PLAIN || severity == IMSG_PROGRESS ? STDOUT_FILENO : STDERR_FILENO;
}

bool is_coloured(int descriptor) {
    const char *no_color = getenv("NO_COLOR");
    return (no_color == nullptr || *no_color == '\0') && isatty(descriptor);
}

// Of how much interest a severity is; errors most of all.
int rank_of(int severity) {
    switch (severity) {
    case IMSG_ERROR:
        return 0;
    case IMSG_WARNING:
        return 1;
    case IMSG_TRACE:
        return 3;
    default:
        return 2;
    }
}

// The text of one message on the stack, or on the heap when it is long. Without memory for a long one, its beginning.
struct Text {
    char usual[usual_text_size];
    char *bytes;
    size_t length;

    void format(const char *format_text, va_list arguments) {
        va_list again;
        va_copy(again, arguments);
        bytes = usual;
        const int wanted = vsnprintf(usual, sizeof usual, format_text, arguments);
        length = wanted > 0 ? static_cast<size_t>(wanted) : 0;
        if (length >= sizeof usual)
            format_at_length(format_text, again);
        va_end(again);
    }

    void format_at_length(const char *format_text, va_list arguments) {
        auto *room = static_cast<char *>(malloc(length + 1));
        if (room == nullptr) {
            length = sizeof usual - 1;
            return;
        }
        vsnprintf(room, length + 1, format_text, arguments);
        bytes = room;
    }

    void release() {
        if (bytes != usual)
            free(bytes);
    }
};

// A warning or an error begins a line: not every text before it ended its own.
void append_heading(Output &output, int severity, bool coloured) {
    const Heading heading = heading_of(severity);
    if (heading.word == nullptr)
        return;
    if (is_inside_a_line)
        output.append("\n");
    output.append(app_name[0] != '\0' ? app_name : program_invocation_short_name);
    output.append(": ");
    if (coloured)
        output.append(heading.colour);
    output.append(heading.word);
    if (coloured)
        output.append("\033[0m");
}

// As a journal takes them from the beginning of a line.
void append_priority(Output &output, int severity) {
    if ((message_form & IMSG_FORM_PRIORITIES) == 0)
        return;
    constexpr const char *priorities[] = {"<3>", "<4>", "<6>", "<7>"};
    output.append(priorities[rank_of(severity)]);
}

void append_time(Output &output) {
    velia::support::append_utc(output);
    output.append(" ");
}

void write_out(int descriptor, const Output &output) {
    if (message_writer != nullptr)
        message_writer(writer_context, descriptor, output.bytes, output.length);
    else
        write_all(descriptor, output.bytes, output.length);
}

// Heads every line by the time; a message without a newline leaves its line to be continued.
void write_to_log(const Output &message) {
    Output lines = {};
    for (size_t at = 0; at < message.length;) {
        if (!is_inside_a_line)
            append_time(lines);
        const auto *end = static_cast<const char *>(memchr(message.bytes + at, '\n', message.length - at));
        const size_t stop = end != nullptr ? static_cast<size_t>(end - message.bytes) + 1 : message.length;
        lines.append(message.bytes + at, stop - at);
        is_inside_a_line = end == nullptr;
        at = stop;
    }
    write_out(log_descriptor, lines);
    lines.release();
}

// What the program itself has put into its stream comes before the message.
void write_to_stream(int severity, const Output &message) {
    fflush(severity == IMSG_PLAIN || severity == IMSG_PROGRESS ? stdout : stderr);
    const int descriptor = stream_descriptor(severity);
    write_out(descriptor, message);
    if (descriptor == STDERR_FILENO && message.length > 0)
        is_inside_a_line = message.bytes[message.length - 1] != '\n';
}

// Whether it is wanted. What goes on with a message has its fate.
bool is_within_level(int severity) {
    if (severity != IMSG_CONTINUATION)
        is_last_wanted = rank_of(severity) <= rank_of(least_severity);
    return is_last_wanted;
}

// An object a line, whatever the message ends with; a time of its own, so that no other stands before it.
void write_object(int severity, const char *subsystem, const char *origin, const Text &text) {
    Output line = {};
    if (log_descriptor < 0)
        append_priority(line, severity);
    velia::support::append_json(line, severity, subsystem, origin, text.bytes, text.length);
    write_out(log_descriptor >= 0 ? log_descriptor : stream_descriptor(severity), line);
    line.release();
}

// To a stream, each line headed by its priority.
void write_with_priorities(int severity, const Output &message) {
    Output lines = {};
    for (size_t at = 0; at < message.length;) {
        const auto *end = static_cast<const char *>(memchr(message.bytes + at, '\n', message.length - at));
        const size_t stop = end != nullptr ? static_cast<size_t>(end - message.bytes) + 1 : message.length;
        if (at > 0 || !is_inside_a_line)
            append_priority(lines, severity);
        lines.append(message.bytes + at, stop - at);
        at = stop;
    }
    write_to_stream(severity, lines);
    lines.release();
}

void write_message(int severity, const char *subsystem, const char *origin, const Text &text) {
    if (!is_within_level(severity))
        return;
    if ((message_form & IMSG_FORM_JSON) != 0)
        return write_object(severity, subsystem, origin, text);
    const bool coloured = log_descriptor < 0 && heading_of(severity).word != nullptr && is_coloured(STDERR_FILENO);
    Output message = {};
    append_heading(message, severity, coloured);
    if (origin != nullptr)
        message.append(origin);
    message.append(text.bytes, text.length);
    if (log_descriptor >= 0)
        write_to_log(message);
    else if ((message_form & IMSG_FORM_PRIORITIES) != 0)
        write_with_priorities(severity, message);
    else
        write_to_stream(severity, message);
    message.release();
}

const imsg_table_t *table_of(const void *table_or_format, int index) {
    return index == IMSG_FORMAT ? nullptr : static_cast<const imsg_table_t *>(table_or_format);
}

// The text to format by; null for a position that the table does not have.
const char *text_of(const void *table_or_format, int index) {
    if (index == IMSG_FORMAT)
        return static_cast<const char *>(table_or_format);
    const imsg_table_t *table = table_of(table_or_format, index);
    return table != nullptr && index >= 0 && index < table->count ? table->texts[index] : nullptr;
}

void format_missing(Text &text, const char *subsystem, int index, ...) {
    va_list arguments;
    va_start(arguments, index);
    text.format("message %2$d of \"%1$s\" is missing\n", arguments);
    va_end(arguments);
    (void)subsystem;
}

} // namespace

void velia::support::write_all(int descriptor, const char *bytes, size_t size) {
    for (size_t written = 0; written < size;) {
        const ssize_t step = write(descriptor, bytes + written, size - written);
        if (step < 0 && errno != EINTR)
            return;
        written += step > 0 ? static_cast<size_t>(step) : 0;
    }
}

void velia::support::print_message(int severity, const char *subsystem, const void *table_or_format, int index,
                                   const char *origin, va_list arguments) {
    const int caller_errno = errno;
    const char *format = text_of(table_or_format, index);
    pfm_inhibit();
    Text text;
    if (format != nullptr)
        text.format(format, arguments);
    else
        format_missing(text, subsystem, index, subsystem, index);
    if (message_sink != nullptr) {
        message_sink(sink_context, severity, subsystem, table_of(table_or_format, index), index, text.bytes);
    } else {
        lock_printer();
        write_message(severity, subsystem, origin, text);
        pthread_mutex_unlock(&printer_lock);
    }
    text.release();
    errno = caller_errno;
    pfm_enable();
}

void imsg_print(int severity, const void *table_or_format, int index, ...) {
    const imsg_table_t *table = table_of(table_or_format, index);
    va_list arguments;
    va_start(arguments, index);
    velia::support::print_message(severity, table != nullptr ? table->subsystem_name : nullptr, table_or_format, index,
                                  nullptr, arguments);
    va_end(arguments);
}

void imsg_print_shared(int severity, const char *subsystem, const void *table_or_format, int index, ...) {
    va_list arguments;
    va_start(arguments, index);
    velia::support::print_message(severity, subsystem, table_or_format, index, nullptr, arguments);
    va_end(arguments);
}

int imsg_sprintf(char *buffer, const void *table_or_format, int index, ...) {
    const char *format = text_of(table_or_format, index);
    if (buffer == nullptr || format == nullptr)
        return -1;
    va_list arguments;
    va_start(arguments, index);
    // The interface has no size: room for the whole text is the caller's promise.
    const int length = vsnprintf(buffer, INT_MAX, format, arguments);
    va_end(arguments);
    return length;
}

int imsg_dynamic_len_snprintf(char **buffer, size_t *size, size_t limit, const char *format, const char *argument) {
    const int length = snprintf(nullptr, 0, format, argument);
    if (length < 0)
        return -1;
    const size_t needed = static_cast<size_t>(length) + 1;
    if (needed > limit)
        return -1;
    const size_t wanted = needed > *size ? needed : *size;
    const size_t new_size = wanted < limit ? wanted : limit;
    if (*buffer == nullptr || needed > *size) {
        auto *room = static_cast<char *>(stg_realloc(*buffer, new_size));
        if (room == nullptr)
            return -1;
        *buffer = room;
        *size = new_size;
    }
    return snprintf(*buffer, *size, format, argument);
}

const char *imsg_strerror(int error_number) {
    static thread_local char unknown[48];
    const char *text = strerrordesc_np(error_number);
    if (text != nullptr)
        return text;
    snprintf(unknown, sizeof unknown, "Unknown error %d", error_number);
    return unknown;
}

void imsg_set_app_name(const char *name) {
    lock_printer();
    snprintf(app_name, sizeof app_name, "%s", name != nullptr ? name : "");
    pthread_mutex_unlock(&printer_lock);
}

// A descriptor in use is replaced in place, so that no message meets a closed one. A pipe that nobody reads is refused,
// and not waited for.
int imsg_init_daemon(const char *log_path) {
    constexpr mode_t log_mode = 0640;
    const int opened = open(log_path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, log_mode);
    if (opened < 0)
        return errno;
    fcntl(opened, F_SETFL, O_APPEND);
    lock_printer();
    if (log_descriptor < 0) {
        log_descriptor = opened;
    } else {
        dup3(opened, log_descriptor, O_CLOEXEC);
        close(opened);
    }
    is_inside_a_line = false;
    pthread_mutex_unlock(&printer_lock);
    return 0;
}

void imsg_set_sink(imsg_sink_t sink, void *context) {
    message_sink = sink;
    sink_context = context;
}

void imsg_set_writer(imsg_writer_t writer, void *context) {
    lock_printer();
    message_writer = writer;
    writer_context = context;
    pthread_mutex_unlock(&printer_lock);
}

void imsg_set_form(int form, int least) {
    lock_printer();
    message_form = form;
    least_severity = least;
    pthread_mutex_unlock(&printer_lock);
}
