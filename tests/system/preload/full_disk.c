/*
 * Loaded before the C library: as long as the file that DISK_IS_FULL names is there, no file takes anything more, but
 * those in whose name DISK_HAS_ROOM_FOR stands: they have been given their room before.
 */
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/types.h>
#include <unistd.h>

static int has_room(int fd) {
    const char *part = getenv("DISK_HAS_ROOM_FOR");
    char link[64];
    char name[4096];
    if (part == NULL)
        return 0;
    snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
    const ssize_t length = readlink(link, name, sizeof name - 1);
    name[length > 0 ? length : 0] = '\0';
    return strstr(name, part) != NULL;
}

static int is_full(int fd) {
    const char *file = getenv("DISK_IS_FULL");
    struct stat facts;
    if (file == NULL || access(file, F_OK) != 0 || fstat(fd, &facts) != 0 || !S_ISREG(facts.st_mode) || has_room(fd))
        return 0;
    errno = ENOSPC;
    return 1;
}

#define REFUSED_WHEN_FULL(RESULT, NAME, PARAMETERS, ARGUMENTS)                                                         \
    RESULT NAME PARAMETERS {                                                                                           \
        RESULT(*function) PARAMETERS;                                                                                  \
        if (is_full(fd))                                                                                               \
            return -1;                                                                                                 \
        *(void **)&function = dlsym(RTLD_NEXT, #NAME);                                                                 \
        return function ARGUMENTS;                                                                                     \
    }

REFUSED_WHEN_FULL(ssize_t, pwrite, (int fd, const void *bytes, size_t size, off_t offset), (fd, bytes, size, offset))
REFUSED_WHEN_FULL(ssize_t, pwrite64, (int fd, const void *bytes, size_t size, off64_t offset),
                  (fd, bytes, size, offset))
REFUSED_WHEN_FULL(int, fallocate, (int fd, int mode, off_t offset, off_t size), (fd, mode, offset, size))
REFUSED_WHEN_FULL(int, fallocate64, (int fd, int mode, off64_t offset, off64_t size), (fd, mode, offset, size))
REFUSED_WHEN_FULL(int, ftruncate, (int fd, off_t size), (fd, size))
REFUSED_WHEN_FULL(int, ftruncate64, (int fd, off64_t size), (fd, size))

/* Whoever asks is told so. */
#define HAS_NO_ROOM_WHEN_FULL(NAME)                                                                                    \
    int NAME(const char *path, struct NAME *facts) {                                                                   \
        int (*function)(const char *, struct NAME *);                                                                  \
        const char *file = getenv("DISK_IS_FULL");                                                                     \
        *(void **)&function = dlsym(RTLD_NEXT, #NAME);                                                                 \
        const int result = function(path, facts);                                                                      \
        if (file != NULL && access(file, F_OK) == 0)                                                                   \
            facts->f_bavail = 0;                                                                                       \
        return result;                                                                                                 \
    }

HAS_NO_ROOM_WHEN_FULL(statvfs)
HAS_NO_ROOM_WHEN_FULL(statvfs64)
