// Whole files as texts.
#include <support/strutl.h>

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <unistd.h>

#include <support/pfm.h>

#include "refused_file.h"

using namespace velia;

namespace {

constexpr FileBounds read_bounds = {STRUTL_READ_MAX, text_line_bytes_max};
constexpr size_t first_size = 4096;

struct Contents {
    char *bytes;
    size_t length;
    size_t size;

    // Room for one byte more than the terminator; an errno value on failure.
    int make_room() {
        if (size - length > 1)
            return 0;
        const size_t new_size = size != 0 ? size * 2 : first_size;
        auto *room = static_cast<char *>(stg_realloc(bytes, new_size));
        if (room == nullptr)
            return ENOMEM;
        bytes = room;
        size = new_size;
        return 0;
    }
};

// What comes of reading a file whole: an errno value, 0 for success, and whether the file was refused.
struct ReadResult {
    int error_number;
    FileOutcome outcome;
};

// The file may grow while it is read, and need not say how large it is.
ReadResult read_all(TextFile &file, Contents &contents) {
    for (size_t step = 1; step > 0; contents.length += step) {
        const int error_number = contents.make_room();
        if (error_number != 0)
            return {error_number, FileOutcome::ok};
        const FileOutcome outcome =
            file.next_bytes(contents.bytes + contents.length, contents.size - contents.length - 1, step);
        if (outcome != FileOutcome::ok)
            return {file.error_number(), outcome};
    }
    return {0, FileOutcome::ok};
}

// Without success there are no bytes.
ReadResult read_path(const char *path, Contents &contents) {
    TextFile file;
    const FileOutcome outcome = file.open(path, read_bounds);
    ReadResult result = {file.error_number(), outcome};
    if (outcome == FileOutcome::ok) {
        result = read_all(file, contents);
        file.close();
    }
    if (result.error_number != 0) {
        stg_free(contents.bytes);
        contents = {};
    }
    if (is_refused(result.outcome))
        support::print_refused_file(path, file, result.outcome);
    return result;
}

int write_all(int descriptor, const char *text, size_t length) {
    while (length > 0) {
        const ssize_t step = write(descriptor, text, length);
        if (step < 0 && errno != EINTR)
            return errno;
        if (step > 0) {
            text += step;
            length -= static_cast<size_t>(step);
        }
    }
    return 0;
}

int failed(int error_number) {
    errno = error_number;
    return error_number;
}

} // namespace

char *strutl_read(int file_count, const char *path, int reserved, int as_one_text, size_t *length) {
    if (file_count != 1 || reserved != 0 || as_one_text != 1 || path == nullptr) {
        failed(EINVAL);
        return nullptr;
    }
    Contents contents = {};
    pfm_inhibit();
    const int error_number = read_path(path, contents).error_number;
    pfm_enable();
    if (contents.bytes == nullptr) {
        failed(error_number);
        return nullptr;
    }
    contents.bytes[contents.length] = '\0';
    if (length != nullptr)
        *length = contents.length;
    return contents.bytes;
}

// What is no file on a disk has nothing to put there.
int put_on_disk(int descriptor) {
    return fsync(descriptor) == 0 || errno == EINVAL || errno == EROFS ? 0 : errno;
}

// A pipe that nobody reads from is not waited for.
int strutl_write(const char *text, const char *path, int, int) {
    constexpr mode_t mode = 0666;
    const int descriptor = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, mode);
    if (descriptor < 0)
        return failed(errno);
    int error_number = write_all(descriptor, text, strlen(text));
    if (error_number == 0)
        error_number = put_on_disk(descriptor);
    if (close(descriptor) != 0 && error_number == 0)
        error_number = errno;
    return error_number != 0 ? failed(error_number) : 0;
}
