// File operations. A copy takes its place by a rename, so that nobody sees half of it.
#include <support/fileutl.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <unistd.h>

#include <support/pfm.h>

#include "refused_file.h"

using namespace velia;

namespace {

constexpr FileBounds copy_bounds = {FILEUTL_COPY_MAX, text_line_bytes_max};
constexpr size_t copy_size = 64 * 1024;
constexpr size_t path_size = 4096;

// Prints and keeps what an operation came to.
int finish(const char *operation, int error_number, int flags) {
    if (error_number == 0)
        return 0;
    if ((flags & FILEUTL_QUIET) == 0)
        imsg_print(IMSG_ERROR, &_tbs_cmsg_tbs_msg_table, TBS_MSG_OPERATION_FAILED, operation,
                   imsg_strerror(error_number));
    errno = error_number;
    return error_number;
}

// 0, or the errno value.
int write_all(int to, const char *bytes, size_t size) {
    while (size > 0) {
        const ssize_t step = write(to, bytes, size);
        if (step < 0 && errno != EINTR)
            return errno;
        if (step > 0) {
            bytes += step;
            size -= static_cast<size_t>(step);
        }
    }
    return 0;
}

// What a copy came to: an errno value, 0 for success, and how its reading went.
struct CopyResult {
    int error_number;
    FileOutcome outcome;
};

// Until the file has been read to its end.
CopyResult copy_bytes(TextFile &from, int to) {
    char bytes[copy_size];
    for (;;) {
        size_t count;
        const FileOutcome outcome = from.next_bytes(bytes, sizeof bytes, count);
        if (outcome != FileOutcome::ok)
            return {from.error_number(), outcome};
        if (count == 0)
            return {0, FileOutcome::ok};
        const int error_number = write_all(to, bytes, count);
        if (error_number != 0)
            return {error_number, FileOutcome::ok};
    }
}

CopyResult copy_contents(TextFile &from, int to) {
    if (fchmod(to, from.permissions()) != 0)
        return {errno, FileOutcome::ok};
    const CopyResult result = copy_bytes(from, to);
    if (result.error_number != 0)
        return result;
    return {fsync(to) == 0 ? 0 : errno, FileOutcome::ok};
}

// Until then a power failure may bring the former file back. It has its new name for everybody who runs, so a failure
// here is none of the renaming.
void put_names_on_disk(const char *path) {
    char directory[path_size] = ".";
    if (const char *slash = strrchr(path, '/'))
        snprintf(directory, sizeof directory, "%.*s/", static_cast<int>(slash - path), path);
    const int descriptor = open(directory, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (descriptor < 0)
        return;
    fsync(descriptor);
    close(descriptor);
}

CopyResult copy_by_way_of(char *new_path, TextFile &from, const char *to) {
    const int made = mkostemp(new_path, O_CLOEXEC);
    if (made < 0)
        return {errno, FileOutcome::ok};
    CopyResult result = copy_contents(from, made);
    if (close(made) != 0 && result.error_number == 0)
        result.error_number = errno;
    if (result.error_number == 0)
        result.error_number = fileutl_rename(new_path, to);
    if (result.error_number != 0)
        unlink(new_path);
    return result;
}

// A source that is refused is printed as such, and needs no further words.
int copy_file(TextFile &source, const char *from, const char *to, int flags) {
    char new_path[path_size];
    const int length = snprintf(new_path, sizeof new_path, "%s.XXXXXX", to);
    if (length < 0 || static_cast<size_t>(length) >= sizeof new_path)
        return finish("copy", ENAMETOOLONG, flags);
    const FileOutcome outcome = source.open(from, copy_bounds);
    CopyResult result = {outcome == FileOutcome::not_regular ? EINVAL : source.error_number(), outcome};
    if (outcome == FileOutcome::ok) {
        result = copy_by_way_of(new_path, source, to);
        source.close();
    }
    const bool is_said = is_refused(result.outcome) && (flags & FILEUTL_QUIET) == 0;
    if (is_said)
        support::print_refused_file(from, source, result.outcome);
    return finish("copy", result.error_number, is_said ? FILEUTL_QUIET : flags);
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
    if (rename(from, to) != 0)
        return errno;
    put_names_on_disk(to);
    return 0;
}

int fileutl_cp(const char *from, const char *to, int flags) {
    TextFile source;
    pfm_inhibit();
    const int error_number = copy_file(source, from, to, flags);
    pfm_enable();
    if (error_number != 0)
        errno = error_number;
    return error_number;
}

int fileutl_rm(const char *path, int flags) {
    return finish("remove", unlink(path) == 0 ? 0 : errno, flags);
}
