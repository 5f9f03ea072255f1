/* What the C library does to files, for preloads that let something happen at the n-th of these things: rows of a
   result, a name, parameters, and what is handed on. */
#ifndef TESTS_SYSTEM_PRELOAD_FILE_CALLS_H
#define TESTS_SYSTEM_PRELOAD_FILE_CALLS_H

#include <dlfcn.h>
#include <sys/types.h>
#include <unistd.h>

/* To an open file, with as many bytes as are given or to as many. */
#define CALLS_WITH_BYTES(CALL)                                                                                         \
    CALL(ssize_t, pwrite, (int fd, const void *bytes, size_t size, off_t at), (fd, bytes, size, at))                   \
    CALL(ssize_t, pwrite64, (int fd, const void *bytes, size_t size, off64_t at), (fd, bytes, size, at))

#define CALLS_WITH_FILES(CALL)                                                                                         \
    CALL(int, fsync, (int fd), (fd))                                                                                   \
    CALL(int, fdatasync, (int fd), (fd))                                                                               \
    CALL(int, ftruncate, (int fd, off_t size), (fd, size))                                                             \
    CALL(int, ftruncate64, (int fd, off64_t size), (fd, size))

#define CALLS_WITH_TWO_NAMES(CALL)                                                                                     \
    CALL(int, rename, (const char *from, const char *to), (from, to))                                                  \
    CALL(int, link, (const char *from, const char *to), (from, to))

/* Declares `function` as the C library's own. */
#define REAL(RESULT, NAME, PARAMETERS)                                                                                 \
    RESULT(*function) PARAMETERS;                                                                                      \
    *(void **)&function = dlsym(RTLD_NEXT, #NAME)

#endif
