/*
 * The message printer: tables of texts, severities, verbosity and traces.
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

void imsg_print(int severity, const void *table_or_format, int index, ...);
void imsg_print_shared(int severity, const char *subsystem, const void *table_or_format, int index, ...);
int imsg_sprintf(char *buffer, const void *table_or_format, int index, ...);
int imsg_dynamic_len_snprintf(char **buffer, size_t *size, size_t limit, const char *format, const char *argument);
int imsg_get_desired_verbosity(void);
int imsg_should_trace(const char *subsystem, int level);
const char *imsg_strerror(int error_number);
void imsg_set_app_name(const char *name);
int imsg_init_daemon(const char *log_path); /* 0 on success */
int imsg_prompt_password(const char *prompt, char *buffer);

/*
 * Where finished messages go instead of the streams; null restores them. `table` is null and `index` -1 for a message
 * given as a format string. Set before threads start, or while none prints.
 */
typedef void (*imsg_sink_t)(void *context, int severity, const char *subsystem, const imsg_table_t *table, int index,
                            const char *text);
void imsg_set_sink(imsg_sink_t sink, void *context);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
