// What may stand where a file should be: all that a reader must refuse at once, whoever is at the other end of it.
#pragma once

#include <filesystem>
#include <fstream>
#include <string>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace bad_files {

enum class Kind { pipe, written_pipe, endless_link, device, socket, directory, sparse };

constexpr Kind all_kinds[] = {Kind::pipe,   Kind::written_pipe, Kind::endless_link, Kind::device,
                              Kind::socket, Kind::directory,    Kind::sparse};
constexpr off_t sparse_size = 100 << 20;

// Stands at `path` as long as it lives. Of the two pipes one has no writer, the other one that never closes.
class BadFile {
public:
    BadFile(Kind kind, const std::string &path) : path_(path) {
        std::filesystem::create_directories(std::filesystem::path(path).parent_path());
        std::filesystem::remove(path);
        make(kind);
    }
    ~BadFile() {
        if (descriptor_ >= 0)
            close(descriptor_);
        std::filesystem::remove_all(path_);
    }
    BadFile(const BadFile &) = delete;
    BadFile &operator=(const BadFile &) = delete;

private:
    void make(Kind kind) {
        switch (kind) {
        case Kind::pipe:
        case Kind::written_pipe:
            ASSERT_EQ(mkfifo(path_.c_str(), 0600), 0);
            if (kind == Kind::written_pipe)
                descriptor_ = open(path_.c_str(), O_RDWR | O_CLOEXEC);
            break;
        case Kind::endless_link:
            std::filesystem::create_symlink("/dev/zero", path_);
            break;
        case Kind::device:
            std::filesystem::create_symlink("/dev/full", path_);
            break;
        case Kind::socket:
            make_socket();
            break;
        case Kind::directory:
            std::filesystem::create_directory(path_);
            break;
        case Kind::sparse:
            std::ofstream(path_) << "first line\n";
            ASSERT_EQ(truncate(path_.c_str(), sparse_size), 0);
            break;
        }
    }

    void make_socket() {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        ASSERT_LT(path_.size(), sizeof address.sun_path);
        path_.copy(address.sun_path, sizeof address.sun_path - 1);
        descriptor_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        ASSERT_EQ(bind(descriptor_, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    }

    std::string path_;
    int descriptor_ = -1;
};

// The words of the refusal of a reader with this bound.
inline std::string words(Kind kind, uint64_t file_bytes) {
    if (kind == Kind::directory)
        return "Is a directory";
    return kind == Kind::sparse ? "File is larger than " + std::to_string(file_bytes) + " bytes" : "Not a regular file";
}

// Calls `body(words)` for each kind of bad file at `path`.
template <class Body>
void for_each(const std::string &path, uint64_t file_bytes, Body &&body) {
    for (const Kind kind : all_kinds) {
        SCOPED_TRACE("kind " + std::to_string(static_cast<int>(kind)));
        const BadFile file(kind, path);
        body(words(kind, file_bytes));
    }
}

// A file that its reader has no right to, also where the tests run as root.
class WithoutRight {
public:
    explicit WithoutRight(const std::string &path, std::filesystem::perms left = std::filesystem::perms::none)
        : path_(path) {
        std::filesystem::permissions(path, left);
        if (geteuid() == 0)
            is_root_ = seteuid(nobody) == 0;
    }
    ~WithoutRight() {
        if (is_root_ && seteuid(0) != 0)
            abort();
        std::filesystem::permissions(path_, std::filesystem::perms::owner_all);
    }
    WithoutRight(const WithoutRight &) = delete;
    WithoutRight &operator=(const WithoutRight &) = delete;

private:
    static constexpr uid_t nobody = 65534;
    std::string path_;
    bool is_root_ = false;
};

// How many descriptors this process has open.
inline size_t open_descriptors() {
    size_t count = 0;
    for ([[maybe_unused]] const auto &entry : std::filesystem::directory_iterator("/proc/self/fd"))
        ++count;
    return count;
}

} // namespace bad_files
