// File operations. A copy takes its place by a rename, so that nobody sees half of it.
#include <support/fileutl.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <unistd.h>

#include <support/tbs.h>

namespace {

constexpr size_t copy_size = 64 * 1024;

int told(const char *operation, int error_number, int flags) {
    if (error_number == 0)
        return 0;
    if ((flags & FILEUTL_QUIET) == 0)
        imsg_print(IMSG_ERROR, &_tbs_cmsg_tbs_msg_table, TBS_MSG_OPERATION_FAILED, operation,
                   imsg_strerror(error_number));
    errno = error_number;
    return error_number;
}

// 0 once the file has been read to its end, else the errno value.
int copy_bytes(int from, int to) {
    char bytes[copy_size];
    for (;;) {
        const ssize_t taken = read(from, bytes, sizeof bytes);
        if (taken == 0)
            return 0;
        if (taken < 0 && errno != EINTR)
            return errno;
        for (ssize_t given = 0; given < taken;) {
            const ssize_t step = write(to, bytes + given, static_cast<size_t>(taken - given));
            if (step < 0 && errno != EINTR)
                return errno;
            given += step > 0 ? step : 0;
        }
    }
}

int copy_contents(int from, int to) {
    constexpr mode_t permissions = 07777;
    struct stat status;
    if (fstat(from, &status) != 0)
        return errno;
    if (!S_ISREG(status.st_mode))
        return EINVAL;
    if (fchmod(to, status.st_mode & permissions) != 0)
        return errno;
    const int error_number = copy_bytes(from, to);
    if (error_number != 0)
        return error_number;
    return fsync(to) == 0 ? 0 : errno;
}

int copy_by_way_of(char *new_path, int from, const char *to) {
    const int made = mkostemp(new_path, O_CLOEXEC);
    if (made < 0)
        return errno;
    int error_number = copy_contents(from, made);
    if (close(made) != 0 && error_number == 0)
        error_number = errno;
    if (error_number == 0 && rename(new_path, to) != 0)
        error_number = errno;
    if (error_number != 0)
        unlink(new_path);
    return error_number;
}

int copy_file(const char *from, const char *to) {
    char new_path[4096];
    const int length = snprintf(new_path, sizeof new_path, "%s.XXXXXX", to);
    if (length < 0 || static_cast<size_t>(length) >= sizeof new_path)
        return ENAMETOOLONG;
    const int source = open(from, O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
    if (source < 0)
        return errno;
    const int error_number = copy_by_way_of(new_path, source, to);
    close(source);
    return error_number;
}

} // namespace

int fileutl_pname_equal(const char *left, const char *right) {
    return strcmp(left, right) == 0;
}

int fileutl_exists(const char *path, int) {
    struct stat status;
    return stat(path, &status) == 0;
}

int fileutl_stat(const char *path, int follow, struct stat *result) {
    return follow != 0 ? stat(path, result) : lstat(path, result);
}

int fileutl_rename(const char *from, const char *to) {
    return rename(from, to) == 0 ? 0 : errno;
}

int fileutl_cp(const char *from, const char *to, int flags) {
    return told("copy", copy_file(from, to), flags);
}

int fileutl_rm(const char *path, int flags) {
    return told("remove", unlink(path) == 0 ? 0 : errno, flags);
}
