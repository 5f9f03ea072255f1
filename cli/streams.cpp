// Where results go, and where all else.
#include <cli/streams.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <iostream>
#include <streambuf>
#include <utility>

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <support/imsg.h>

namespace velia::cli {

namespace {

// A standard stream that is closed would hand its number to the next socket, and messages would go to a peer. What
// takes the place cannot be used in the stream's own direction, so that its use fails as it would have.
void fill_closed_descriptors() {
    for (const auto &[fd, mode] :
         {std::pair(STDIN_FILENO, O_WRONLY), {STDOUT_FILENO, O_RDONLY}, {STDERR_FILENO, O_RDONLY}})
        if (fcntl(fd, F_GETFD) < 0)
            open("/dev/null", mode); // the lowest number that is free
}

// A reader that has gone is an error as any other: a change may have been made, and is to be told of. Caught rather
// than ignored, so that a program that this one starts has the usual.
void survive_broken_pipes() {
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    action.sa_flags = SA_RESTART;
    sigaction(SIGPIPE, &action, nullptr);
}

} // namespace

class ResultsBuffer final : public std::streambuf {
public:
    explicit ResultsBuffer(int fd) : before_(std::cout.rdbuf(this)), fd_(fd) { be_empty(); }
    ~ResultsBuffer() override {
        std::cout.rdbuf(before_);
        close(fd_);
    }

    int fd() const { return fd_; }
    int error_number() const { return error_number_; }

private:
    int_type overflow(int_type byte) override {
        if (!write_out())
            return traits_type::eof();
        if (!traits_type::eq_int_type(byte, traits_type::eof()))
            sputc(traits_type::to_char_type(byte));
        return traits_type::not_eof(byte);
    }
    int sync() override { return write_out() ? 0 : -1; }

    void be_empty() { setp(bytes_.data(), bytes_.data() + bytes_.size()); }

    // What is behind a failure is given up, too: results with a hole would pass for whole ones.
    bool write_out() {
        for (const char *at = pbase(); error_number_ == 0 && at < pptr();) {
            const ssize_t written = write(fd_, at, static_cast<size_t>(pptr() - at));
            if (written > 0)
                at += written;
            else if (errno != EINTR)
                error_number_ = errno;
        }
        be_empty();
        return error_number_ == 0;
    }

    std::array<char, 65536> bytes_;
    std::streambuf *before_;
    int fd_;
    int error_number_ = 0;
};

namespace {

ResultsBuffer *current; // of the stream that lives

int results_fd() {
    return current != nullptr ? current->fd() : STDOUT_FILENO;
}

// Once: what comes behind is lost, too.
void tell_of_loss(int error_number) {
    static bool is_told = false;
    if (!std::exchange(is_told, true))
        imsg_print(IMSG_ERROR, "Standard output cannot be written: %s\n", IMSG_FORMAT, imsg_strerror(error_number));
}

} // namespace

ResultsStream::ResultsStream() {
    fill_closed_descriptors();
    survive_broken_pipes();
    buffer_ = std::make_unique<ResultsBuffer>(fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
    dup2(STDERR_FILENO, STDOUT_FILENO);
    current = buffer_.get();
}

ResultsStream::~ResultsStream() {
    current = nullptr;
}

bool flush_results() {
    if (std::cout.flush())
        return true;
    tell_of_loss(current != nullptr ? current->error_number() : EIO);
    return false;
}

bool wait_while_read(Duration time) {
    pollfd output = {results_fd(), 0, 0};
    if (poll(&output, 1, static_cast<int>(time.count())) <= 0)
        return true;
    tell_of_loss(EPIPE);
    return false;
}

bool is_terminal_for_results() {
    return isatty(results_fd()) != 0;
}

std::optional<size_t> columns_of_results() {
    const char *columns = std::getenv("COLUMNS");
    if (const long count = columns != nullptr ? strtol(columns, nullptr, 10) : 0; count > 0)
        return static_cast<size_t>(count);
    winsize size = {};
    if (ioctl(results_fd(), TIOCGWINSZ, &size) == 0 && size.ws_col > 0)
        return size.ws_col;
    return std::nullopt;
}

} // namespace velia::cli
