/* Loaded before the C library: once the file that ENDED_FROM names is there, what is written, given a name and put on
   disk is counted, with ENDED_AMID_SENDING what is sent over sockets, too, and at the one with the number ENDED_AT the
   process is killed before the thing is done. */
#include "file_calls.h"

#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>

static void count(void) {
    static long counted;
    const char *from = getenv("ENDED_FROM");
    const char *at = getenv("ENDED_AT");
    if (from == NULL || at == NULL || access(from, F_OK) != 0)
        return;
    if (__sync_add_and_fetch(&counted, 1) == atol(at))
        raise(SIGKILL);
}

#define COUNTED(RESULT, NAME, PARAMETERS, ARGUMENTS)                                                                   \
    RESULT NAME PARAMETERS {                                                                                           \
        count();                                                                                                       \
        REAL(RESULT, NAME, PARAMETERS);                                                                                \
        return function ARGUMENTS;                                                                                     \
    }

CALLS_WITH_BYTES(COUNTED)
CALLS_WITH_FILES(COUNTED)
CALLS_WITH_TWO_NAMES(COUNTED)
COUNTED(int, unlink, (const char *name), (name))

ssize_t send(int fd, const void *bytes, size_t size, int flags) {
    if (getenv("ENDED_AMID_SENDING") != NULL)
        count();
    REAL(ssize_t, send, (int, const void *, size_t, int));
    return function(fd, bytes, size, flags);
}

/* To files alone: what is said on a socket or a pipe is no state. */
ssize_t write(int fd, const void *bytes, size_t size) {
    if (lseek(fd, 0, SEEK_CUR) >= 0)
        count();
    REAL(ssize_t, write, (int, const void *, size_t));
    return function(fd, bytes, size);
}
