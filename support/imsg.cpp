// The message printer. A message is formatted into one buffer, given its prefix, and written in one piece, so that
// lines of several threads and processes do not mix.
#include <support/imsg.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include <fcntl.h>
#include <pthread.h>
#include <termios.h>
#include <unistd.h>

#include "message_format.h"

namespace {

constexpr size_t app_name_size = 256;
constexpr size_t line_size = support::message_size + app_name_size + 64;
constexpr size_t password_size = 256;
constexpr int password_entered = 2;

imsg_sink_t message_sink;
void *sink_context;
char app_name[app_name_size];
int log_fd = -1;
pthread_mutex_t name_mutex = PTHREAD_MUTEX_INITIALIZER;

struct Level {
    int severity;
    const char *word;
    const char *color;
};

constexpr Level levels[] = {{IMSG_WARNING, "Warning", "\033[33m"}, {IMSG_ERROR, "Error", "\033[31m"}};

const Level *level_of(int severity) {
    for (const Level &level : levels)
        if (level.severity == severity)
            return &level;
    return nullptr;
}

bool wants_color(int fd) {
    const char *no_color = getenv("NO_COLOR");
    return (no_color == nullptr || *no_color == '\0') && isatty(fd);
}

void write_whole(int fd, const char *bytes, size_t length) {
    while (length > 0) {
        const ssize_t written = write(fd, bytes, length);
        if (written < 0 && errno == EINTR)
            continue;
        if (written <= 0)
            return;
        bytes += written;
        length -= static_cast<size_t>(written);
    }
}

// A bounded line under construction.
struct Line {
    char text[line_size];
    size_t length = 0;

    __attribute__((format(printf, 2, 3))) void add(const char *format, ...) {
        va_list arguments;
        va_start(arguments, format);
        const int added = vsnprintf(text + length, sizeof text - length, format, arguments);
        va_end(arguments);
        if (added > 0)
            length = length + static_cast<size_t>(added) < sizeof text ? length + static_cast<size_t>(added)
                                                                       : sizeof text - 1;
    }
};

void add_time(Line &line) {
    const time_t now = time(nullptr);
    tm broken_down;
    char stamp[32] = "";
    if (localtime_r(&now, &broken_down) != nullptr)
        strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &broken_down);
    line.add("%s ", stamp);
}

void add_prefix(Line &line, const Level &level, bool colored) {
    pthread_mutex_lock(&name_mutex);
    if (app_name[0] != '\0')
        line.add("%s: ", app_name);
    pthread_mutex_unlock(&name_mutex);
    line.add("%s%s:%s ", colored ? level.color : "", level.word, colored ? "\033[0m" : "");
}

void write_message(int severity, const char *text) {
    const bool is_result = severity == IMSG_PLAIN || severity == IMSG_PROGRESS;
    const bool to_log = log_fd >= 0;
    const int fd = to_log ? log_fd : is_result ? STDOUT_FILENO : STDERR_FILENO;
    const Level *level = level_of(severity);
    Line line;
    if (to_log && severity != IMSG_PROGRESS)
        add_time(line);
    if (level != nullptr)
        add_prefix(line, *level, !to_log && wants_color(fd));
    line.add("%s", text);
    if (is_result && !to_log)
        fflush(stdout);
    write_whole(fd, line.text, line.length);
}

// What VELIA_TRACE holds: "subsystem:level,...". A level traces all below it as well.
bool trace_is_asked_for(const char *list, const char *subsystem, int level) {
    const size_t name_length = strlen(subsystem);
    for (const char *item = list; item != nullptr && *item != '\0';) {
        const char *end = strchrnul(item, ',');
        if (strncmp(item, subsystem, name_length) == 0 && item[name_length] == ':' &&
            level <= atoi(item + name_length + 1))
            return true;
        item = *end == ',' ? end + 1 : end;
    }
    return false;
}

bool read_line_without_echo(FILE *terminal, char *line, size_t size) {
    termios shown;
    const bool is_terminal = tcgetattr(fileno(terminal), &shown) == 0;
    if (is_terminal) {
        termios hidden = shown;
        hidden.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        tcsetattr(fileno(terminal), TCSAFLUSH, &hidden);
    }
    const bool entered = fgets(line, static_cast<int>(size), terminal) != nullptr;
    if (is_terminal)
        tcsetattr(fileno(terminal), TCSAFLUSH, &shown);
    return entered;
}

} // namespace

const char *support::format_of(const void *table_or_format, int index) {
    if (index < 0)
        return static_cast<const char *>(table_or_format);
    const auto *table = static_cast<const imsg_table_t *>(table_or_format);
    return index < table->count ? table->texts[index] : "";
}

int support::format_message(char *buffer, size_t size, const void *table_or_format, int index, va_list arguments) {
    buffer[0] = '\0';
    return vsnprintf(buffer, size, format_of(table_or_format, index), arguments);
}

void support::deliver(int severity, const char *subsystem, const void *table_or_format, int index, const char *text) {
    if (message_sink == nullptr)
        return write_message(severity, text);
    const auto *table = index >= 0 ? static_cast<const imsg_table_t *>(table_or_format) : nullptr;
    message_sink(sink_context, severity, subsystem, table, index, text);
}

void imsg_print(int severity, const void *table_or_format, int index, ...) {
    char text[support::message_size];
    va_list arguments;
    va_start(arguments, index);
    support::format_message(text, sizeof text, table_or_format, index, arguments);
    va_end(arguments);
    const char *subsystem = index >= 0 ? static_cast<const imsg_table_t *>(table_or_format)->subsystem_name : "";
    support::deliver(severity, subsystem, table_or_format, index, text);
}

void imsg_print_shared(int severity, const char *subsystem, const void *table_or_format, int index, ...) {
    char text[support::message_size];
    va_list arguments;
    va_start(arguments, index);
    support::format_message(text, sizeof text, table_or_format, index, arguments);
    va_end(arguments);
    support::deliver(severity, subsystem, table_or_format, index, text);
}

int imsg_sprintf(char *buffer, const void *table_or_format, int index, ...) {
    va_list arguments;
    va_start(arguments, index);
    const int length = vsprintf(buffer, support::format_of(table_or_format, index), arguments);
    va_end(arguments);
    return length;
}

int imsg_dynamic_len_snprintf(char **buffer, size_t *size, size_t limit, const char *format, const char *argument) {
    const int length = snprintf(*buffer, *size, format, argument);
    if (length < 0 || static_cast<size_t>(length) < *size)
        return length;
    const size_t needed = static_cast<size_t>(length) + 1;
    if (needed > limit)
        return -1;
    auto *grown = static_cast<char *>(realloc(*buffer, needed));
    if (grown == nullptr)
        return -1;
    *buffer = grown;
    *size = needed;
    return snprintf(grown, needed, format, argument);
}

int imsg_get_desired_verbosity(void) {
    const char *text = getenv("VELIA_VERBOSITY");
    return text != nullptr ? atoi(text) : 0;
}

int imsg_should_trace(const char *subsystem, int level) {
    return trace_is_asked_for(getenv("VELIA_TRACE"), subsystem, level);
}

const char *imsg_strerror(int error_number) {
    static thread_local char text[128];
    return strerror_r(error_number, text, sizeof text);
}

void imsg_set_app_name(const char *name) {
    pthread_mutex_lock(&name_mutex);
    snprintf(app_name, sizeof app_name, "%s", name != nullptr ? name : "");
    pthread_mutex_unlock(&name_mutex);
}

int imsg_init_daemon(const char *log_path) {
    const int fd = open(log_path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0644);
    if (fd < 0)
        return -1;
    if (log_fd >= 0)
        close(log_fd);
    log_fd = fd;
    return 0;
}

int imsg_prompt_password(const char *prompt, char *buffer) {
    FILE *terminal = fopen("/dev/tty", "r+e");
    if (terminal == nullptr)
        return 0;
    fputs(prompt, terminal);
    fflush(terminal);
    char line[password_size];
    const bool entered = read_line_without_echo(terminal, line, sizeof line);
    fputs("\n", terminal);
    fclose(terminal);
    if (entered) {
        line[strcspn(line, "\n")] = '\0';
        strcpy(buffer, line);
    }
    explicit_bzero(line, sizeof line);
    return entered ? password_entered : 0;
}

void imsg_set_sink(imsg_sink_t sink, void *context) {
    message_sink = sink;
    sink_context = context;
}
