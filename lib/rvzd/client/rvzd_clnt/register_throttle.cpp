#include <rvzd/client/rvzd_clnt/register_throttle.h>

#include <climits>
#include <cstring>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <common/with.h>
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

// What the names of a note's files begin with; behind it stands the number of the user whose note it is, since nobody
// can replace another's.
bool stem_of_note(const char *kind, const char *key, char (&stem)[NAME_MAX]) {
    return strchr(key, '/') == nullptr && strutl_concat(stem, sizeof stem, 4, kind, "_", key, ".") == 0;
}

bool path_of_own_note(const char *directory, const char *stem, char (&path)[TBS_PATH_SIZE]) {
    return strutl_snprintf(path, sizeof path, "%s/%s%u", directory, stem, static_cast<unsigned>(geteuid())) == 0;
}

// A file of its own for each process until it is renamed, with a name that is no user's.
bool path_of_new_note(const char *path, char (&new_path)[TBS_PATH_SIZE]) {
    return strutl_snprintf(new_path, sizeof new_path, "%s.new%d", path, static_cast<int>(getpid())) == 0;
}

bool is_note_of_a_user(const char *name, const char *stem) {
    const size_t length = strlen(stem);
    if (strncmp(name, stem, length) != 0 || name[length] == '\0')
        return false;
    return name[length + strspn(name + length, "0123456789")] == '\0';
}

bool is_fresh(int directory_fd, const char *name, int64_t seconds) {
    struct stat status;
    if (fstatat(directory_fd, name, &status, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISREG(status.st_mode))
        return false;
    const int64_t age_s = now_s() - status.st_mtime;
    return age_s >= 0 && age_s <= seconds;
}

// A directory with more entries than any site has notes is not looked through to its end.
bool has_fresh_note(DIR *directory, const char *stem, int64_t seconds) {
    constexpr int entries_max = 4096;
    for (int seen = 0; seen < entries_max; ++seen) {
        const dirent *entry = readdir(directory);
        if (entry == nullptr)
            return false;
        if (is_note_of_a_user(entry->d_name, stem) && is_fresh(dirfd(directory), entry->d_name, seconds))
            return true;
    }
    return false;
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
    char stem[NAME_MAX];
    if (!path_of_directory(path) || !stem_of_note(kind, key, stem))
        return false;
    return with_inhibit([&] {
        DIR *directory = opendir(path);
        if (directory == nullptr)
            return false;
        const bool is_noted = has_fresh_note(directory, stem, seconds);
        closedir(directory);
        return is_noted;
    });
}

void note(const char *kind, const char *key) {
    char directory[TBS_PATH_SIZE];
    char stem[NAME_MAX];
    char path[TBS_PATH_SIZE];
    char new_path[TBS_PATH_SIZE];
    if (!path_of_directory(directory) || !stem_of_note(kind, key, stem) || !path_of_own_note(directory, stem, path) ||
        !path_of_new_note(path, new_path))
        return;
    if (mkdir(directory, directory_mode) == 0)
        chmod(directory, directory_mode); // whatever the process's mask says
    if (!write_note(new_path) || rename(new_path, path) != 0)
        unlink(new_path);
}

} // namespace velia::rvzd_clnt
