// A host's values: one file for each setting, named by it, whose first line is the value. It is rewritten in place: a
// reader who comes in between meets an empty file, which is an error and no default.
#include <cerrno>
#include <cstring>
#include <iterator>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <common/refused_file.h>
#include <rvzd/client/rvzd_knob/knob.h>
#include <support/env.h>
#include <support/ks.h>
#include <support/stg.h>
#include <support/strutl.h>

using namespace velia;
using namespace velia::rvzd_knob;

namespace {

constexpr char file_system_directory[] = "lyfsconfig";
constexpr size_t directory_size = 4096;

// Only the first line is ever read, so that the file itself needs no bound.
constexpr FileBounds value_bounds = {UINT64_MAX, 1023};

// "directory/name" below the host data directory; settings of the file system have a directory for each host that has
// its own.
tbs_status_t path_in_data_dir(const char *directory, const char *name, char (&path)[TBS_PATH_SIZE]) {
    const char *own = strcmp(directory, file_system_directory) == 0 ? lyfs_get_host_config_dir() : nullptr;
    const bool has_own = own != nullptr && *own != '\0';
    char file[directory_size];
    if (strutl_concat(file, sizeof file, 5, directory, has_own ? "/" : "", has_own ? own : "", "/", name) != 0)
        return TBS_ST_NAME_TOO_LONG;
    return ks_hostdata_dir(path, sizeof path, file);
}

tbs_status_t take_first_line(TextFile &file, FileOutcome &outcome, char **text) {
    TextLine line;
    outcome = file.next_line(line);
    if (outcome != FileOutcome::ok && outcome != FileOutcome::line_too_long)
        return TBS_ST_ERROR;
    *text = stg_strdup(line.text);
    return *text != nullptr ? TBS_ST_OK : TBS_ST_NO_MEMORY;
}

tbs_status_t read_first_line(const char *path, char **text) {
    TextFile file;
    FileOutcome outcome = file.open(path, value_bounds);
    if (outcome == FileOutcome::absent || outcome == FileOutcome::unreadable)
        return TBS_ST_NOT_FOUND;
    tbs_status_t status = TBS_ST_ERROR;
    if (outcome == FileOutcome::ok) {
        status = take_first_line(file, outcome, text);
        file.close();
    }
    if (is_refused(outcome))
        print_refused_file(subsystem, path, file, outcome);
    return status;
}

// 0, or the errno value. Both parts go out in one piece where the system lets them.
int write_line(int descriptor, const char *text) {
    char line_feed[] = "\n";
    iovec parts[] = {{const_cast<char *>(text), strlen(text)}, {line_feed, 1}};
    iovec *next = parts;
    while (next != std::end(parts)) {
        const ssize_t written = writev(descriptor, next, static_cast<int>(std::end(parts) - next));
        if (written < 0 && errno != EINTR)
            return errno;
        size_t count = written > 0 ? static_cast<size_t>(written) : 0;
        for (; next != std::end(parts) && count >= next->iov_len; ++next)
            count -= next->iov_len;
        if (next != std::end(parts)) {
            next->iov_base = static_cast<char *>(next->iov_base) + count;
            next->iov_len -= count;
        }
    }
    return 0;
}

int write_to_regular_file(int descriptor, const char *text) {
    struct stat status;
    if (fstat(descriptor, &status) != 0)
        return errno;
    return S_ISREG(status.st_mode) ? write_line(descriptor, text) : EINVAL;
}

// A pipe is not waited for.
int rewrite_file(const char *path, const char *text) {
    constexpr mode_t mode = 0666;
    const int descriptor = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, mode);
    if (descriptor < 0)
        return errno;
    const int error_number = write_to_regular_file(descriptor, text);
    const int close_error = close(descriptor) == 0 ? 0 : errno;
    return error_number != 0 ? error_number : close_error;
}

int remove_file(const char *path) {
    return unlink(path) == 0 ? 0 : errno;
}

} // namespace

tbs_status_t velia::rvzd_knob::host_file_path(const Knob &knob, const Knoblet &slot, char (&path)[TBS_PATH_SIZE]) {
    const char *name = name_of(knob);
    return slot.detail != nullptr ? path_in_data_dir(slot.detail, name, path) : tbs_product_host_config_dir(path, name);
}

tbs_status_t velia::rvzd_knob::rvzd_knoblet_p_get_host_value_as_string(const Knob &knob, const Knoblet &slot,
                                                                       char **text) {
    *text = nullptr;
    char path[TBS_PATH_SIZE];
    const auto status = host_file_path(knob, slot, path);
    return status == TBS_ST_OK ? with_inhibit([&] { return read_first_line(path, text); }) : status;
}

tbs_status_t velia::rvzd_knob::rvzd_knoblet_p_set_host_value_as_string(const Knob &knob, const Knoblet &slot,
                                                                       const char *text) {
    char path[TBS_PATH_SIZE];
    const auto status = host_file_path(knob, slot, path);
    if (status != TBS_ST_OK)
        return status;
    const int error_number =
        with_inhibit([&] { return text != nullptr ? rewrite_file(path, text) : remove_file(path); });
    return error_number == 0 ? tbs_status_t{TBS_ST_OK} : tbs_errno2status(error_number);
}
