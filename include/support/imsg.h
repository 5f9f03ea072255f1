/*
 * The message printer: tables of texts, severities, verbosity and traces.
 *
 *     imsg_print(IMSG_ERROR, &my_table, 3, path, imsg_strerror(errno));
 *     if (imsg_get_desired_verbosity() >= 2 && imsg_should_trace("my subsystem", 2))
 *         imsg_print(IMSG_TRACE, "step %d\n", IMSG_FORMAT, step);
 *
 * Severities 0 and 1 go to standard output, all others to standard error, each message by one write. Warnings and
 * errors are headed "app: Warning: " and "app: Error: ", in colour if standard error is a terminal and NO_COLOR is not
 * set. The printer adds no newline. All operations may be called from any thread; messages do not mix. A null for a
 * "%s" prints as "(null)". Posted raises do not land while a message is being written.
 */
#ifndef VELIA_SUPPORT_IMSG_H
#define VELIA_SUPPORT_IMSG_H

#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* One subsystem's messages. Code refers to a message by its position in `texts`. */
typedef struct imsg_table {
    const char *catalog_name;
    const char *subsystem_name;
    uint16_t set;
    uint16_t count;
    const char *const *texts;
    const uint16_t *numbers;
} imsg_table_t;

enum {
    IMSG_PLAIN = 0,
    IMSG_PROGRESS = 1,
    IMSG_WARNING = 4,
    IMSG_ERROR = 6,
    IMSG_CONTINUATION = 7,
    IMSG_TRACE = 8,
};

/* Index that says: the argument before it is a format string, not a table. */
enum { IMSG_FORMAT = -1 };

/*
 * Prints a message: `table_or_format` is a format string if `index` is IMSG_FORMAT, else an imsg_table_t in which
 * `index` is a position. The arguments are those of printf for that text. A position that the table does not have
 * prints the subsystem and the position instead. The second form names the subsystem in place of the table's own.
 */
void imsg_print(int severity, const void *table_or_format, int index, ...);
void imsg_print_shared(int severity, const char *subsystem, const void *table_or_format, int index, ...);

/*
 * Formats into `buffer`, which must have room for the whole text: for texts of known length only. Returns the length,
 * negative (with `buffer` untouched) for a null argument or a position that the table does not have.
 */
int imsg_sprintf(char *buffer, const void *table_or_format, int index, ...);

/*
 * Formats `argument` by `format`, which has one %s, into `*buffer`, a stg_ block of `*size` bytes, which is replaced by
 * a larger one when the text needs it; both are then updated. With a null `*buffer` a block of `*size` bytes (at least
 * 1) is made. Never more than `limit` bytes. Returns the length; negative if the text and its terminator need more
 * than `limit`, or without memory: the buffer then is as it was, still the caller's.
 */
int imsg_dynamic_len_snprintf(char **buffer, size_t *size, size_t limit, const char *format, const char *argument);

/*
 * The trace level of the run: VELIA_VERBOSITY, or the highest level in VELIA_TRACE if that is higher; 0 by default.
 */
int imsg_get_desired_verbosity(void);

/*
 * Non-zero if `subsystem` (compared without case) is traced at `level`: VELIA_TRACE is a list "subsystem:level,...";
 * a name without a level is traced at every level, "all" is every subsystem, of several entries for a subsystem any
 * may grant. Without VELIA_TRACE every subsystem is traced up to VELIA_VERBOSITY. At most 32 entries are kept, of 63
 * characters each. Both variables are read at the first question; what is no number or no name in them, and what is
 * too much, is passed over and told then, once.
 */
int imsg_should_trace(const char *subsystem, int level);

/* Take the place of VELIA_VERBOSITY and VELIA_TRACE (null: none) from now on. For the options of a program. */
void imsg_set_desired_verbosity(int level);
void imsg_set_trace(const char *trace_list);

/* The text of an errno value. Not to be freed; lives until the same thread asks again. */
const char *imsg_strerror(int error_number);

/* The name in front of later warnings and errors, copied up to 63 characters. By default the program's file name. */
void imsg_set_app_name(const char *name);

/*
 * Appends later messages of every severity to the file `log_path`, which is made if need be, each line headed by the
 * time in UTC. Called again, with the same path or another, it opens afresh, which is how a log is rotated. Returns
 * 0, or the errno value of the failed open, and messages go where they went before.
 */
int imsg_init_daemon(const char *log_path);

/* Least size of a password buffer, the terminator included. */
enum { IMSG_PASSWORD_SIZE = 256 };

/* Results of imsg_prompt_password. */
enum {
    IMSG_PASSWORD_NO_TERMINAL = -1,
    IMSG_PASSWORD_CANCELLED = 0,
    IMSG_PASSWORD_TOO_LONG = 1,
    IMSG_PASSWORD_ENTERED = 2
};

/*
 * Shows `prompt` on the controlling terminal and reads a line from it without echo into `buffer` of
 * IMSG_PASSWORD_SIZE bytes. Returns IMSG_PASSWORD_ENTERED; IMSG_PASSWORD_CANCELLED at the end of input and for the
 * interrupt key, which is then also delivered as SIGINT; IMSG_PASSWORD_TOO_LONG; or IMSG_PASSWORD_NO_TERMINAL. On all
 * but the first `buffer` is the empty text. The terminal is left as it was found. Blocks until there is an answer.
 */
int imsg_prompt_password(const char *prompt, char *buffer);

/*
 * Where finished messages go instead of the streams; null restores them. `table` is null and `index` -1 for a message
 * given as a format string. Set before threads start, or while none prints.
 */
typedef void (*imsg_sink_t)(void *context, int severity, const char *subsystem, const imsg_table_t *table, int index,
                            const char *text);
void imsg_set_sink(imsg_sink_t sink, void *context);

/*
 * What writes messages to their stream or to the log, headed as they are, instead of the printer, which waits until the
 * descriptor takes them; null restores that. It is called by one thread at a time, and must not print.
 */
typedef void (*imsg_writer_t)(void *context, int descriptor, const char *bytes, size_t size);
void imsg_set_writer(imsg_writer_t writer, void *context);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
