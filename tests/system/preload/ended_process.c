/* Loaded before the C library: once the file that ENDED_FROM names is there, what is written, given a name and put on
   disk is counted, and at the one with the number ENDED_AT the process is killed before the thing is done. */
#include <dlfcn.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/types.h>
#include <unistd.h>

static void count(void) {
    static long counted;
    const char *from = getenv("ENDED_FROM");
    const char *at = getenv("ENDED_AT");
    if (from == NULL || at == NULL || access(from, F_OK) != 0)
        return;
    if (__sync_add_and_fetch(&counted, 1) == atol(at))
        raise(SIGKILL);
}

static void *real(const char *name) {
    return dlsym(RTLD_NEXT, name);
}

/* A function of the C library that does a thing: its result, its name, its parameters and what is handed on. */
#define COUNTED(RESULT, NAME, PARAMETERS, ARGUMENTS)                                                                   \
    RESULT NAME PARAMETERS {                                                                                           \
        RESULT(*function) PARAMETERS;                                                                                  \
        count();                                                                                                       \
        *(void **)&function = real(#NAME);                                                                             \
        return function ARGUMENTS;                                                                                     \
    }

COUNTED(ssize_t, pwrite, (int fd, const void *bytes, size_t size, off_t at), (fd, bytes, size, at))
COUNTED(ssize_t, pwrite64, (int fd, const void *bytes, size_t size, off64_t at), (fd, bytes, size, at))
COUNTED(int, fsync, (int fd), (fd))
COUNTED(int, fdatasync, (int fd), (fd))
COUNTED(int, ftruncate, (int fd, off_t size), (fd, size))
COUNTED(int, ftruncate64, (int fd, off64_t size), (fd, size))
COUNTED(int, rename, (const char *from, const char *to), (from, to))
COUNTED(int, link, (const char *from, const char *to), (from, to))
COUNTED(int, unlink, (const char *name), (name))

/* To files alone: what is said on a socket or a pipe is no state. */
ssize_t write(int fd, const void *bytes, size_t size) {
    ssize_t (*function)(int, const void *, size_t);
    if (lseek(fd, 0, SEEK_CUR) >= 0)
        count();
    *(void **)&function = real("write");
    return function(fd, bytes, size);
}
