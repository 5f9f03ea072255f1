// A process with both its ends in hand: it is given what it reads, and listened to, to its end.
#include <cli/daemon_program.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>

#include <fcntl.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

extern char **environ; // NOLINT(readability-redundant-declaration): POSIX has it in no header

namespace velia::cli {

namespace {

constexpr const char *daemon_name = "rvzd_server";
constexpr size_t errors_max = 65536; // of which more is read, and dropped

struct Pipe {
    std::array<int, 2> ends = {-1, -1};

    bool open() { return pipe2(ends.data(), O_CLOEXEC) == 0; }
    void close_end(size_t end) {
        if (ends[end] >= 0)
            close(ends[end]);
        ends[end] = -1;
    }
    ~Pipe() {
        close_end(0);
        close_end(1);
    }
};

bool write_line(int fd, const char *text) {
    return write(fd, text, strlen(text)) == static_cast<ssize_t>(strlen(text)) && write(fd, "\n", 1) == 1;
}

std::string read_to_end(int fd) {
    std::string text;
    std::array<char, 4096> piece;
    for (;;) {
        const ssize_t count = read(fd, piece.data(), piece.size());
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0)
            return text;
        text.append(piece.data(), std::min(static_cast<size_t>(count), errors_max - text.size()));
    }
}

// A file in memory, which takes whatever comes without anybody who reads it meanwhile.
std::string text_in(int fd) {
    std::string text(errors_max, '\0');
    const ssize_t count = pread(fd, text.data(), text.size(), 0);
    text.resize(count > 0 ? static_cast<size_t>(count) : 0);
    return text;
}

int start(const std::string &program, std::vector<std::string> &words, const Pipe &input, int output,
          const Pipe &errors, pid_t &pid) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, input.ends[0], STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
    if (errors.ends[1] >= 0)
        posix_spawn_file_actions_adddup2(&actions, errors.ends[1], STDERR_FILENO);
    std::string name = program;
    std::vector<char *> all = {name.data()};
    for (auto &word : words)
        all.push_back(word.data());
    all.push_back(nullptr);
    const int error_number = posix_spawnp(&pid, program.c_str(), &actions, nullptr, all.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    return error_number;
}

int status_of_end(pid_t pid) {
    int state = 0;
    while (waitpid(pid, &state, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(state) ? WEXITSTATUS(state) : 128 + WTERMSIG(state);
}

} // namespace

std::string daemon_program(const std::string &given) {
    if (!given.empty())
        return given;
    std::error_code error;
    const auto own = std::filesystem::read_symlink("/proc/self/exe", error);
    for (const char *folder : {".", "../sbin", "../libexec"}) {
        const auto path = own.parent_path() / folder / daemon_name;
        if (!error && access(path.c_str(), X_OK) == 0)
            return path.lexically_normal().string();
    }
    return daemon_name;
}

ProgramEnd run_program(const std::string &program, std::vector<std::string> words, const char *line, Errors errors) {
    ProgramEnd end;
    Pipe in;
    Pipe err;
    Pipe out; // of which one end is used: a file
    out.ends[0] = memfd_create("output", MFD_CLOEXEC);
    if (out.ends[0] < 0 || !in.open() || (errors == Errors::kept && !err.open())) {
        end.error_number = errno;
        return end;
    }
    pid_t pid = 0;
    end.error_number = start(program, words, in, out.ends[0], err, pid);
    in.close_end(0);
    err.close_end(1);
    if (end.error_number != 0)
        return end;
    const bool is_written = line == nullptr || write_line(in.ends[1], line);
    in.close_end(1);
    if (errors == Errors::kept)
        end.errors = read_to_end(err.ends[0]);
    end.status = status_of_end(pid);
    end.output = text_in(out.ends[0]);
    if (!is_written && end.status == 0)
        end.status = 1;
    return end;
}

} // namespace velia::cli
