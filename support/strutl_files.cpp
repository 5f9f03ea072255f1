// Whole files as texts.
#include <support/strutl.h>

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr size_t first_size = 4096;

// Reads up to `size` bytes, fewer at the end of the file; negative with errno set.
ssize_t read_some(int descriptor, char *bytes, size_t size) {
    for (;;) {
        const ssize_t step = read(descriptor, bytes, size);
        if (step >= 0 || errno != EINTR)
            return step;
    }
}

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

// 0, or the errno value. The file may grow while it is read, and need not say how large it is.
int read_all(int descriptor, Contents &contents) {
    for (;;) {
        const int error_number = contents.make_room();
        if (error_number != 0)
            return error_number;
        const ssize_t step =
            read_some(descriptor, contents.bytes + contents.length, contents.size - contents.length - 1);
        if (step < 0)
            return errno;
        if (step == 0)
            return 0;
        contents.length += static_cast<size_t>(step);
        if (contents.length > STRUTL_READ_MAX)
            return EFBIG;
    }
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
    const int descriptor = open(path, O_RDONLY | O_CLOEXEC | O_NOCTTY);
    if (descriptor < 0)
        return nullptr;
    Contents contents = {};
    const int error_number = read_all(descriptor, contents);
    close(descriptor);
    if (error_number != 0) {
        stg_free(contents.bytes);
        failed(error_number);
        return nullptr;
    }
    contents.bytes[contents.length] = '\0';
    if (length != nullptr)
        *length = contents.length;
    return contents.bytes;
}

int strutl_write(const char *text, const char *path, int, int) {
    constexpr mode_t mode = 0666;
    const int descriptor = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOCTTY, mode);
    if (descriptor < 0)
        return failed(errno);
    int error_number = write_all(descriptor, text, strlen(text));
    if (close(descriptor) != 0 && error_number == 0)
        error_number = errno;
    return error_number != 0 ? failed(error_number) : 0;
}
