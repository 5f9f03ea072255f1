/* Loaded before the C library: what is put on disk and what is renamed is noted in the file that FILES_NOTED names, one
   line each; at the line that is FILES_KILLED_AT the process is killed before the thing is done, and at FILES_FULL_AT
   nothing finds room on the disk. */
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

enum { line_size = 9000, path_size = 4096 };

static void note(const char *line) {
    const char *name = getenv("FILES_NOTED");
    const char *end = getenv("FILES_KILLED_AT");
    const int fd = name != NULL ? open(name, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666) : -1;
    if (fd < 0 || dprintf(fd, "%s\n", line) < 0)
        abort();
    close(fd);
    if (end != NULL && strcmp(line, end) == 0)
        raise(SIGKILL);
}

int fsync(int fd) {
    char link[64];
    char path[path_size] = "";
    char line[line_size];
    snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
    if (readlink(link, path, sizeof path - 1) < 0)
        abort();
    snprintf(line, sizeof line, "fsync %s", path);
    note(line);
    const char *full = getenv("FILES_FULL_AT");
    if (full != NULL && strcmp(line, full) == 0) {
        errno = ENOSPC;
        return -1;
    }
    int (*real)(int);
    *(void **)&real = dlsym(RTLD_NEXT, "fsync");
    return real(fd);
}

int rename(const char *from, const char *to) {
    char line[line_size];
    snprintf(line, sizeof line, "rename %s %s", from, to);
    note(line);
    int (*real)(const char *, const char *);
    *(void **)&real = dlsym(RTLD_NEXT, "rename");
    return real(from, to);
}
