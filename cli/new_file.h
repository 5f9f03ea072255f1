// A file that a command makes: complete under its name, or not there.
#pragma once

#include <cstddef>
#include <string>

#include <sys/types.h>

namespace velia::cli {

// Until it is finished it is NAME.new, which is gone again unless it was. A device or a pipe is written to as it is.
class NewFile {
public:
    NewFile(const std::string &name, mode_t mode);
    ~NewFile();
    NewFile(const NewFile &) = delete;
    NewFile &operator=(const NewFile &) = delete;

    bool is_open() const { return fd_ >= 0; }
    bool write_all(const void *bytes, size_t size) const;

    // On disk under its name, and that it has it.
    bool finish();

private:
    const std::string name_;
    const bool is_in_place_;
    const std::string unfinished_;
    int fd_ = -1;
};

} // namespace velia::cli
