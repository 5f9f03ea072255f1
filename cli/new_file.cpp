#include <cli/new_file.h>

#include <cerrno>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <support/fileutl.h>

namespace velia::cli {

namespace {

bool is_no_plain_file(const std::string &name) {
    struct stat status = {};
    return stat(name.c_str(), &status) == 0 && !S_ISREG(status.st_mode) && !S_ISDIR(status.st_mode);
}

bool put_directory_on_disk(const std::string &file_name) {
    const std::string directory = file_name.substr(0, file_name.rfind('/') + 1);
    const int fd = open(directory.empty() ? "." : directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const bool is_on_disk = fd >= 0 && fsync(fd) == 0;
    if (fd >= 0)
        close(fd);
    return is_on_disk;
}

} // namespace

NewFile::NewFile(const std::string &name, mode_t mode)
    : name_(name), is_in_place_(is_no_plain_file(name)), unfinished_(is_in_place_ ? name : name + ".new") {
    if (is_in_place_) {
        fd_ = open(name_.c_str(), O_WRONLY | O_CLOEXEC | O_NOCTTY);
        return;
    }
    unlink(unfinished_.c_str());
    fd_ = open(unfinished_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, mode);
}

NewFile::~NewFile() {
    if (fd_ < 0)
        return;
    close(fd_);
    if (!is_in_place_)
        unlink(unfinished_.c_str());
}

bool NewFile::write_all(const void *bytes, size_t size) const {
    const auto *at = static_cast<const char *>(bytes);
    while (size > 0) {
        const ssize_t written = write(fd_, at, size);
        if (written <= 0 && errno != EINTR)
            return false;
        if (written > 0) {
            at += written;
            size -= static_cast<size_t>(written);
        }
    }
    return true;
}

bool NewFile::finish() {
    if (is_in_place_)
        return close(std::exchange(fd_, -1)) == 0;
    if (fsync(fd_) != 0 || fileutl_rename(unfinished_.c_str(), name_.c_str()) != 0)
        return false;
    close(std::exchange(fd_, -1));
    return put_directory_on_disk(name_);
}

} // namespace velia::cli
