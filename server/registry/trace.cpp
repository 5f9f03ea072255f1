#include <server/registry/trace.h>

#include <array>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <server/registry/sqlite.h>
#include <support/imsg.h>

namespace velia::server {

namespace {

constexpr const char *mark_word = "Acknowledged: ";
constexpr size_t trace_bytes_max = 8192;

std::string line_of(const RegistryTrace::Mark &mark) {
    std::array<char, TBS_UUID_STR_SIZE> uuid = {};
    std::array<char, 128> line = {};
    snprintf(line.data(), line.size(), "%s%s %020" PRIu64 "\n", mark_word, tbs_uuid_to_str(&mark.registry, uuid.data()),
             mark.changes);
    return line.data();
}

std::string contents_of(int fd) {
    std::string text(trace_bytes_max, '\0');
    const ssize_t size = pread(fd, text.data(), text.size(), 0);
    text.resize(size > 0 ? static_cast<size_t>(size) : 0);
    return text;
}

// Of the line that begins with the word; npos where there is none.
size_t place_of_mark(const std::string &text) {
    const size_t place = text.find(std::string("\n") + mark_word);
    return place == std::string::npos ? place : place + 1;
}

std::optional<RegistryTrace::Mark> mark_in(const std::string &text) {
    const size_t place = place_of_mark(text);
    if (place == std::string::npos)
        return std::nullopt;
    std::array<char, TBS_UUID_STR_SIZE> uuid = {};
    RegistryTrace::Mark mark;
    static_assert(TBS_UUID_STR_SIZE > 36);
    if (sscanf(text.c_str() + place, "Acknowledged: %36s %" SCNu64, uuid.data(), &mark.changes) != 2 ||
        tbs_str_to_uuid(uuid.data(), &mark.registry) != TBS_ST_OK)
        return std::nullopt;
    return mark;
}

// For people, too, who find it alone.
UniqueFd make_trace(const std::string &trace, const std::string &file_name) {
    const std::string text = "There was a registry at \"" + file_name + "\". Remove this file to begin a new one.\n";
    UniqueFd fd(open(trace.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, S_IRUSR | S_IWUSR));
    if (fd) {
        [[maybe_unused]] const ssize_t written = write(fd.get(), text.data(), text.size()); // that it is there says
                                                                                            // enough
        put_directory_on_disk(file_name);
    }
    return fd;
}

} // namespace

std::string trace_of_registry(const std::string &file_name) {
    return file_name + ".made";
}

bool RegistryTrace::is_there() const {
    return access(trace_of_registry(file_name_).c_str(), F_OK) == 0;
}

std::optional<RegistryTrace::Mark> RegistryTrace::mark() const {
    const UniqueFd fd(open(trace_of_registry(file_name_).c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    return fd ? mark_in(contents_of(fd.get())) : std::nullopt;
}

// Somebody has put it in the place of the one that was served here last.
void RegistryTrace::require_not_older(const Mark &found, const std::optional<Mark> &acknowledged) {
    if (acknowledged && tbs_uuid_eq(&found.registry, &acknowledged->registry) != 0 &&
        found.changes < acknowledged->changes)
        throw StoreError("the file is older than what was acknowledged here: put the newer one back, or restore this "
                         "one with rvzd_server --restore-registry");
}

void RegistryTrace::leave() {
    const std::string trace = trace_of_registry(file_name_);
    fd_ = UniqueFd(open(trace.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    if (!fd_ && errno == ENOENT)
        fd_ = make_trace(trace, file_name_);
    if (!fd_ && errno == EEXIST) // another process was quicker
        fd_ = UniqueFd(open(trace.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    if (!fd_)
        throw_system_error();
    const std::string text = contents_of(fd_.get());
    const size_t place = place_of_mark(text);
    place_ = static_cast<off_t>(place == std::string::npos ? text.size() : place);
    if (place_ == 0)
        place_ = -1; // one that could not be written has no line to stand behind
}

void RegistryTrace::note(const Mark &mark) {
    const std::string line = line_of(mark);
    if (fd_ && place_ > 0 && pwrite(fd_.get(), line.data(), line.size(), place_) < 0)
        errno = 0; // it was acknowledged all the same
}

} // namespace velia::server
