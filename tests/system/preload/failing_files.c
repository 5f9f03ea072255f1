/* Loaded before the C library: while the file that FAILING_FILES names is there, what is made, written, put on disk and
   given a name below its directory is counted. The file's words are a label, with which the count begins anew, the
   number of the thing that fails, "once" or "on" for whether those behind it do, too, "short" for a write that does
   half of it before, and the errno. A thing that has failed leaves "LABEL.failed" beside the file.

   What programs say is not counted: files whose name ends with ".out" or ".err", which stand for a terminal. */
#include "file_calls.h"

#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/syscall.h>

enum { word_size = 64, path_size = 4096 };

struct order {
    char label[word_size];
    char how[word_size];
    long at;
    int error_number;
};

static int read_order(const char *file, struct order *order) {
    char text[4 * word_size] = "";
    const int fd = (int)syscall(SYS_openat, AT_FDCWD, file, O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return 0;
    const ssize_t size = syscall(SYS_read, fd, text, sizeof text - 1);
    syscall(SYS_close, fd);
    return size > 0 &&
           sscanf(text, "%63s %ld %63s %d", order->label, &order->at, order->how, &order->error_number) == 4;
}

/* How many things there were under this label, this one included. */
static long count(const char *label) {
    static char counted_label[word_size];
    static long counted;
    static int is_taken;
    while (__sync_lock_test_and_set(&is_taken, 1))
        usleep(10);
    if (strcmp(counted_label, label) != 0) {
        strcpy(counted_label, label);
        counted = 0;
    }
    const long number = ++counted;
    __sync_lock_release(&is_taken);
    return number;
}

static void leave_word(const char *file, const char *label) {
    char name[path_size + word_size];
    snprintf(name, sizeof name, "%.*s/%s.failed", (int)(strrchr(file, '/') - file), file, label);
    const int fd = (int)syscall(SYS_openat, AT_FDCWD, name, O_WRONLY | O_CREAT | O_CLOEXEC, 0666);
    if (fd >= 0)
        syscall(SYS_close, fd);
}

static int ends_with(const char *text, const char *end) {
    const size_t length = strlen(text);
    return length >= strlen(end) && strcmp(text + length - strlen(end), end) == 0;
}

static int is_of_interest(const char *path, const char *file) {
    const size_t directory = (size_t)(strrchr(file, '/') - file) + 1;
    return strncmp(path, file, directory) == 0 && !ends_with(path, ".out") && !ends_with(path, ".err");
}

enum fate { GOES_ON, FAILS, IS_SHORT };

/* Of the thing that is about to be done to this file. */
static enum fate fate_of(const char *path) {
    const char *file = getenv("FAILING_FILES");
    struct order order;
    if (file == NULL || !is_of_interest(path, file) || !read_order(file, &order))
        return GOES_ON;
    const long number = count(order.label);
    if (number < order.at || (number > order.at && strcmp(order.how, "once") == 0))
        return GOES_ON;
    leave_word(file, order.label);
    errno = order.error_number;
    return number == order.at && strcmp(order.how, "short") == 0 ? IS_SHORT : FAILS;
}

static enum fate fate_of_open(int fd) {
    char link[word_size];
    char path[path_size] = "";
    const int error_number = errno;
    snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
    const ssize_t length = readlink(link, path, sizeof path - 1);
    errno = error_number;
    return length > 0 ? fate_of(path) : GOES_ON;
}

#define FAILING_WRITE(RESULT, NAME, PARAMETERS, ARGUMENTS)                                                             \
    RESULT NAME PARAMETERS {                                                                                           \
        REAL(RESULT, NAME, PARAMETERS);                                                                                \
        const enum fate fate = fate_of_open(fd);                                                                       \
        if (fate == FAILS)                                                                                             \
            return -1;                                                                                                 \
        if (fate == IS_SHORT && size > 1)                                                                              \
            size /= 2;                                                                                                 \
        return function ARGUMENTS;                                                                                     \
    }
#define FAILING_WITH_FILE(RESULT, NAME, PARAMETERS, ARGUMENTS)                                                         \
    RESULT NAME PARAMETERS {                                                                                           \
        REAL(RESULT, NAME, PARAMETERS);                                                                                \
        return fate_of_open(fd) == GOES_ON ? function ARGUMENTS : -1;                                                  \
    }
#define FAILING_WITH_NAMES(RESULT, NAME, PARAMETERS, ARGUMENTS)                                                        \
    RESULT NAME PARAMETERS {                                                                                           \
        REAL(RESULT, NAME, PARAMETERS);                                                                                \
        return fate_of(to) == GOES_ON ? function ARGUMENTS : -1;                                                       \
    }

CALLS_WITH_BYTES(FAILING_WRITE)
FAILING_WRITE(ssize_t, write, (int fd, const void *bytes, size_t size), (fd, bytes, size))
CALLS_WITH_FILES(FAILING_WITH_FILE)
FAILING_WITH_FILE(int, fallocate, (int fd, int mode, off_t at, off_t size), (fd, mode, at, size))
FAILING_WITH_FILE(int, fallocate64, (int fd, int mode, off64_t at, off64_t size), (fd, mode, at, size))
CALLS_WITH_TWO_NAMES(FAILING_WITH_NAMES)

/* One that is there needs no room. */
#define FAILING_OPEN(NAME)                                                                                             \
    int NAME(const char *path, int flags, ...) {                                                                       \
        va_list rest;                                                                                                  \
        va_start(rest, flags);                                                                                         \
        const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(rest, mode_t) : 0;                                         \
        va_end(rest);                                                                                                  \
        REAL(int, NAME, (const char *, int, ...));                                                                     \
        const int is_made = (flags & O_CREAT) != 0 && access(path, F_OK) != 0;                                         \
        return is_made && fate_of(path) != GOES_ON ? -1 : function(path, flags, mode);                                 \
    }

FAILING_OPEN(open)
FAILING_OPEN(open64)
