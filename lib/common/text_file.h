// The one bounded reader of files that others may have written. It belongs to the foundation: every layer may use it,
// and it uses only the C library, so no raise can land in it and nothing of it is exported.
//
// What is read is a regular file within its bounds and nothing else: a pipe or a device is refused without waiting for
// it, a file that is too large costs no memory, and one that grows while it is read is given up at its bound.
//
//     TextFile file;
//     FileOutcome outcome = file.open(path, configuration_file);
//     for (TextLine line; outcome == FileOutcome::ok && (outcome = file.next_line(line)) == FileOutcome::ok;)
//         use(line.text);
//     file.close();
//
// A file that was opened has to be closed by its user, who holds raises off until then.
#pragma once

#include <cstddef>
#include <cstdint>

#include <fcntl.h>
#include <sys/types.h>

namespace velia {

enum class FileOutcome {
    ok,
    end,           // nothing is left
    absent,        // no such file
    not_regular,   // a directory, pipe, device or socket
    too_large,     // more bytes than the bound
    line_too_long, // the line goes on behind what was given
    unreadable,    // error_number() says why
};

// A file that is there and is not to be read, whoever asks.
constexpr bool is_refused(FileOutcome outcome) {
    return outcome == FileOutcome::not_regular || outcome == FileOutcome::too_large;
}

struct FileBounds {
    uint64_t file_bytes;
    size_t line_bytes; // without the line's end; at most text_line_bytes_max
};

constexpr size_t text_line_bytes_max = 8192;

// Files that people write, and lists that grow with the site.
constexpr FileBounds configuration_file = {1 << 20, 1023};
constexpr FileBounds list_file = {16 << 20, text_line_bytes_max};

// Stands in the reader's buffer until the next call.
struct TextLine {
    char *text;    // terminated, and the caller's to change
    size_t length; // also of a line that holds zero bytes
    bool has_end;  // false at the end of a file whose last line has no line feed
};

constexpr size_t file_words_size = 128;

class TextFile {
public:
    // ok, or why there is nothing to read and nothing to close. `access` is O_RDONLY, or O_RDWR for a file that is only
    // for those who may also write it. Never makes a file.
    FileOutcome open(const char *path, const FileBounds &bounds, int access = O_RDONLY);

    // ok, end, too_large, unreadable, or line_too_long with as much of the line as the bound allows: the next call goes
    // on behind that, and skip_line passes over the rest.
    FileOutcome next_line(TextLine &line);
    FileOutcome skip_line();

    // The other way to read: up to `size` bytes, fewer only at the end of the file, 0 behind it. ok, too_large or
    // unreadable. A file is read either by lines or by bytes.
    FileOutcome next_bytes(char *bytes, size_t size, size_t &count);

    void close();

    // Of the file as it was opened.
    uint64_t size_bytes() const { return size_bytes_; }
    mode_t permissions() const { return permissions_; }

    // Why an outcome came, in words that name the bound it is about; in `words`, or the C library's own.
    const char *why(FileOutcome outcome, char (&words)[file_words_size]) const;
    // For callers who report by errno values: EISDIR for a directory, EINVAL for what else is not regular, EFBIG.
    int error_number() const { return error_number_; }

private:
    FileOutcome outcome_of_failed_open();
    FileOutcome judge();
    FileOutcome judge_size(uint64_t size);
    FileOutcome read_some(char *bytes, size_t size, size_t &count);
    FileOutcome fill();
    void restore_cut_byte();
    void give_line(size_t length, bool has_end, TextLine &line);

    int descriptor_;
    int error_number_;
    FileBounds bounds_;
    uint64_t size_bytes_;
    mode_t permissions_;
    uint64_t taken_; // bytes read so far
    size_t at_;      // where in the buffer the next line begins
    size_t filled_;  // where its bytes end
    bool is_cut_;    // a terminator stands at `at_`, in the place of `cut_byte_`
    char cut_byte_;
    bool is_at_end_;
    char buffer_[text_line_bytes_max + 2]; // the longest line, a byte that shows that it is longer, a terminator
};

} // namespace velia
