#include <server/daemon/private_files.h>

#include <array>
#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <unistd.h>

#include <support/imsg.h>
#include <support/tbs.h>

namespace velia::server {

namespace {

constexpr mode_t all_rights = 07777;

struct DirectoryCloser {
    void operator()(DIR *directory) const { closedir(directory); }
};

bool is_loose(const struct stat &status) {
    return S_ISREG(status.st_mode) && (status.st_mode & all_rights & ~private_mode) != 0;
}

void print_loose(const std::string &path, mode_t mode) {
    imsg_print(IMSG_WARNING, "\"%s\" was open to others, by the mode %04o; it is not any more.\n", IMSG_FORMAT,
               path.c_str(), static_cast<unsigned>(mode & all_rights));
}

void print_failure(const std::string &path, const char *why) {
    imsg_print(IMSG_ERROR, "\"%s\" cannot be kept from others: %s\n", IMSG_FORMAT, path.c_str(), why);
}

bool secure(int directory, const char *name, const std::string &path) {
    struct stat status = {};
    if (fstatat(directory, name, &status, AT_SYMLINK_NOFOLLOW) != 0)
        return true; // gone meanwhile
    if (S_ISLNK(status.st_mode)) {
        print_failure(path, "it is a symbolic link");
        return false;
    }
    if (!is_loose(status))
        return true;
    if (fchmodat(directory, name, status.st_mode & private_mode, 0) != 0) {
        print_failure(path, imsg_strerror(errno));
        return false;
    }
    print_loose(path, status.st_mode);
    return true;
}

} // namespace

bool secure_private_files() {
    std::array<char, TBS_PATH_SIZE> path;
    if (tbs_product_host_priv_dir(path.data(), "") != TBS_ST_OK)
        return true;
    const std::unique_ptr<DIR, DirectoryCloser> directory(opendir(path.data()));
    bool are_secure = true;
    while (directory != nullptr) {
        const dirent *entry = readdir(directory.get());
        if (entry == nullptr)
            break;
        are_secure =
            secure(dirfd(directory.get()), entry->d_name, path.data() + std::string(entry->d_name)) && are_secure;
    }
    return are_secure;
}

int open_private_log(const std::string &path) {
    const int fd = open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY | O_NOFOLLOW | O_NONBLOCK,
                        private_mode); // a pipe that nobody reads is refused, and not waited for
    struct stat status = {};
    if (fd >= 0 && fstat(fd, &status) == 0 && is_loose(status) && fchmod(fd, status.st_mode & private_mode) == 0)
        print_loose(path, status.st_mode);
    return fd;
}

void share_with_host(const char *config_file) {
    constexpr mode_t public_mode = 0644;
    std::array<char, TBS_PATH_SIZE> path;
    if (tbs_product_host_config_dir(path.data(), config_file) == TBS_ST_OK)
        chmod(path.data(), public_mode);
}

} // namespace velia::server
