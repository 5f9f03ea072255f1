// A file is opened without waiting and judged by its descriptor, so that nobody can put another in its place between
// the look and the reading.
#include <common/text_file.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>

#include <sys/stat.h>
#include <unistd.h>

namespace velia {

namespace {

constexpr mode_t permission_bits = 07777;

} // namespace

// A socket cannot be opened at all.
FileOutcome TextFile::outcome_of_failed_open() {
    if (error_number_ == ENOENT)
        return FileOutcome::absent;
    if (error_number_ != ENXIO)
        return FileOutcome::unreadable;
    error_number_ = EINVAL;
    return FileOutcome::not_regular;
}

FileOutcome TextFile::open(const char *path, const FileBounds &bounds, int access) {
    bounds_ = bounds;
    taken_ = 0;
    at_ = filled_ = 0;
    error_number_ = 0;
    is_cut_ = is_at_end_ = false;
    descriptor_ = ::open(path, access | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
    if (descriptor_ < 0) {
        error_number_ = errno;
        return outcome_of_failed_open();
    }
    const FileOutcome outcome = judge();
    if (outcome != FileOutcome::ok)
        close();
    return outcome;
}

// A file that does not say how large it is, as those of the kernel, is measured while it is read.
FileOutcome TextFile::judge() {
    struct stat status;
    if (fstat(descriptor_, &status) != 0) {
        error_number_ = errno;
        return FileOutcome::unreadable;
    }
    if (!S_ISREG(status.st_mode)) {
        error_number_ = S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
        return FileOutcome::not_regular;
    }
    size_bytes_ = static_cast<uint64_t>(status.st_size);
    permissions_ = status.st_mode & permission_bits;
    return judge_size(size_bytes_);
}

FileOutcome TextFile::judge_size(uint64_t size) {
    if (size <= bounds_.file_bytes)
        return FileOutcome::ok;
    error_number_ = EFBIG;
    return FileOutcome::too_large;
}

void TextFile::close() {
    ::close(descriptor_);
    descriptor_ = -1;
}

FileOutcome TextFile::read_some(char *bytes, size_t size, size_t &count) {
    ssize_t taken;
    do
        taken = read(descriptor_, bytes, size);
    while (taken < 0 && errno == EINTR);
    count = taken > 0 ? static_cast<size_t>(taken) : 0;
    if (taken < 0) {
        error_number_ = errno;
        return FileOutcome::unreadable;
    }
    taken_ += count;
    return judge_size(taken_);
}

FileOutcome TextFile::next_bytes(char *bytes, size_t size, size_t &count) {
    count = 0;
    for (size_t step = 1; step > 0 && count < size; count += step) {
        const FileOutcome outcome = read_some(bytes + count, size - count, step);
        if (outcome != FileOutcome::ok)
            return outcome;
    }
    return FileOutcome::ok;
}

// Makes room behind what is left of the buffer, and reads on.
FileOutcome TextFile::fill() {
    memmove(buffer_, buffer_ + at_, filled_ - at_);
    filled_ -= at_;
    at_ = 0;
    size_t count;
    const FileOutcome outcome = read_some(buffer_ + filled_, sizeof buffer_ - 1 - filled_, count);
    filled_ += count;
    is_at_end_ = count == 0;
    return outcome;
}

void TextFile::restore_cut_byte() {
    if (is_cut_)
        buffer_[at_] = cut_byte_;
    is_cut_ = false;
}

// A line's end gives its place to the terminator; so does the first byte of what follows a part of a line, for a while.
void TextFile::give_line(size_t length, bool has_end, TextLine &line) {
    line = {buffer_ + at_, length, has_end};
    at_ += length;
    is_cut_ = at_ < filled_ && !has_end;
    if (is_cut_)
        cut_byte_ = buffer_[at_];
    buffer_[at_] = '\0';
    if (has_end)
        ++at_;
}

FileOutcome TextFile::next_line(TextLine &line) {
    restore_cut_byte();
    for (;;) {
        const size_t left = filled_ - at_;
        const size_t looked_at = left > bounds_.line_bytes ? bounds_.line_bytes + 1 : left;
        const void *end = memchr(buffer_ + at_, '\n', looked_at);
        if (end != nullptr) {
            give_line(static_cast<size_t>(static_cast<const char *>(end) - (buffer_ + at_)), true, line);
            return FileOutcome::ok;
        }
        if (left > bounds_.line_bytes) {
            give_line(bounds_.line_bytes, false, line);
            return FileOutcome::line_too_long;
        }
        if (is_at_end_) {
            give_line(left, false, line);
            return left > 0 ? FileOutcome::ok : FileOutcome::end;
        }
        const FileOutcome outcome = fill();
        if (outcome != FileOutcome::ok)
            return outcome;
    }
}

FileOutcome TextFile::skip_line() {
    TextLine rest;
    FileOutcome outcome;
    do
        outcome = next_line(rest);
    while (outcome == FileOutcome::line_too_long);
    return outcome;
}

const char *TextFile::why(FileOutcome outcome, char (&words)[file_words_size]) const {
    switch (outcome) {
    case FileOutcome::too_large:
        snprintf(words, sizeof words, "File is larger than %" PRIu64 " bytes", bounds_.file_bytes);
        return words;
    case FileOutcome::line_too_long:
        snprintf(words, sizeof words, "Line is longer than %zu bytes", bounds_.line_bytes);
        return words;
    case FileOutcome::not_regular:
        return error_number_ == EISDIR ? strerror_r(EISDIR, words, sizeof words) : "Not a regular file";
    default:
        return strerror_r(error_number_, words, sizeof words);
    }
}

} // namespace velia
