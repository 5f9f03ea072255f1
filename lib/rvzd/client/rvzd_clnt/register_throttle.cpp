#include <rvzd/client/rvzd_clnt/register_throttle.h>

#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <rvzd/client/rvzd_clnt/rvzd_clnt.h>
#include <support/strutl.h>

namespace velia::rvzd_clnt {

namespace {

constexpr char directory_name[] = "cache";
constexpr mode_t directory_mode = 01777; // of all users, who leave each other's notes alone
constexpr mode_t file_mode = 0644;

bool path_of_directory(char (&path)[TBS_PATH_SIZE]) {
    return tbs_product_host_config_dir(path, directory_name) == TBS_ST_OK;
}

bool path_of_note(const char *kind, const char *key, char (&path)[TBS_PATH_SIZE]) {
    char directory[TBS_PATH_SIZE];
    if (strchr(key, '/') != nullptr || !path_of_directory(directory))
        return false;
    return strutl_concat(path, sizeof path, 5, directory, "/", kind, "_", key) == 0;
}

// A file of its own for each process until it is renamed.
bool path_of_new_note(const char *path, char (&new_path)[TBS_PATH_SIZE]) {
    return strutl_snprintf(new_path, sizeof new_path, "%s.%d", path, static_cast<int>(getpid())) == 0;
}

// The library's clock, not the file system's, so that both sides of the comparison are one clock.
bool write_note(const char *path) {
    const int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, file_mode);
    if (fd < 0)
        return false;
    const timespec now = {now_s(), 0};
    const timespec times[] = {now, now};
    const bool is_stamped = futimens(fd, times) == 0;
    return close(fd) == 0 && is_stamped;
}

} // namespace

bool was_noted(const char *kind, const char *key, int64_t seconds) {
    char path[TBS_PATH_SIZE];
    struct stat status;
    if (!path_of_note(kind, key, path) || lstat(path, &status) != 0 || !S_ISREG(status.st_mode))
        return false;
    const int64_t age_s = now_s() - status.st_mtime;
    return age_s >= 0 && age_s <= seconds;
}

void note(const char *kind, const char *key) {
    char directory[TBS_PATH_SIZE];
    char path[TBS_PATH_SIZE];
    char new_path[TBS_PATH_SIZE];
    if (!path_of_directory(directory) || !path_of_note(kind, key, path) || !path_of_new_note(path, new_path))
        return;
    if (mkdir(directory, directory_mode) == 0)
        chmod(directory, directory_mode); // whatever the process's mask says
    if (!write_note(new_path) || rename(new_path, path) != 0)
        unlink(new_path);
}

} // namespace velia::rvzd_clnt
