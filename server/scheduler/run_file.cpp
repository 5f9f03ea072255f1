#include <server/scheduler/run_file.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

namespace velia::server {

namespace {

constexpr off_t room_bytes = run_messages_max + 256;

// Takes "WORD " off the text and the number behind it.
bool take_number(std::string_view &text, std::string_view word, int64_t &number, char behind) {
    if (!text.starts_with(word))
        return false;
    const char *begin = text.data() + word.size();
    const auto [end, error] = std::from_chars(begin, text.data() + text.size(), number);
    if (error != std::errc() || end == text.data() + text.size() || *end != behind)
        return false;
    text.remove_prefix(static_cast<size_t>(end - text.data()) + 1);
    return true;
}

std::string line(const char *word, int64_t number) {
    return std::string(word) + std::to_string(number) + "\n";
}

} // namespace

RunNotes read_notes(std::string_view text) {
    RunNotes notes;
    int64_t keeper = 0;
    int64_t process = 0;
    int64_t ended = 0;
    int64_t status = 0;
    int64_t length = 0;
    if (take_number(text, "keeper ", keeper, '\n'))
        notes.keeper = static_cast<int32_t>(keeper);
    if (take_number(text, "process ", process, '\n'))
        notes.process = static_cast<int32_t>(process);
    if (take_number(text, "ended ", ended, ' ') && take_number(text, "", status, ' ') &&
        take_number(text, "", length, '\n') && length >= 0 && text.size() > static_cast<size_t>(length) &&
        text[static_cast<size_t>(length)] == '\n') {
        notes.ended = ended;
        notes.exit_status = static_cast<uint32_t>(status);
        notes.messages = text.substr(0, static_cast<size_t>(length));
    }
    return notes;
}

std::string keeper_note(int32_t keeper) {
    return line("keeper ", keeper);
}

std::string process_note(int32_t process) {
    return line("process ", process);
}

std::string end_note(int64_t ended, uint32_t exit_status, std::string_view messages) {
    return "ended " + std::to_string(ended) + " " + std::to_string(exit_status) + " " +
           std::to_string(messages.size()) + "\n" + std::string(messages) + "\n";
}

RunPaths run_paths(const std::string &directory, const RunRow &run) {
    const std::string name = directory + "/" + std::to_string(run.job) + "." + std::to_string(run.started);
    return {name + ".run", name + ".out"};
}

// What fallocate takes is read back as zeros, which no line begins with.
UniqueFd make_run_file(const std::string &path) {
    UniqueFd fd(open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, S_IRUSR | S_IWUSR));
    if (fd && flock(fd.get(), LOCK_EX | LOCK_NB) == 0 &&
        (fallocate(fd.get(), 0, 0, room_bytes) == 0 || errno == EOPNOTSUPP))
        return fd;
    const int error_number = errno;
    fd.reset();
    errno = error_number;
    return fd;
}

std::optional<RunNotes> read_run_file(const std::string &path) {
    const UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
    if (!fd)
        return std::nullopt;
    std::string text(room_bytes, '\0');
    const ssize_t count = read(fd.get(), text.data(), text.size());
    text.resize(count > 0 ? static_cast<size_t>(count) : 0);
    return read_notes(text);
}

std::optional<OutputPiece> read_output(const std::string &path, uint64_t offset, size_t size_max) {
    const UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
    struct stat facts = {};
    if (!fd || fstat(fd.get(), &facts) != 0)
        return std::nullopt;
    OutputPiece piece = {static_cast<uint64_t>(facts.st_size), {}};
    if (offset >= piece.total)
        return piece;
    piece.bytes.resize(std::min<uint64_t>(size_max, piece.total - offset));
    const ssize_t count = pread(fd.get(), piece.bytes.data(), piece.bytes.size(), static_cast<off_t>(offset));
    piece.bytes.resize(count > 0 ? static_cast<size_t>(count) : 0);
    return piece;
}

bool is_kept(const std::string &path) {
    const UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
    return fd && flock(fd.get(), LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK;
}

} // namespace velia::server
