// Passwords pass through no stream and no string, which would leave copies of them behind.
#include <cli/password.h>

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <unistd.h>

#include <cli/messages.h>
#include <support/imsg.h>

namespace velia::cli {

namespace {

constexpr const char *standard_input = "-";

bool refuse(const std::string &name, const char *why) {
    tell_failure(TBS_ST_ERROR, "", "The password could not be read from %s: %s\n", name.c_str(), why);
    return false;
}

} // namespace

Password::~Password() {
    explicit_bzero(text_.data(), text_.size());
}

bool Password::operator==(const Password &other) const {
    return strcmp(text_.data(), other.text_.data()) == 0;
}

// Byte by byte, so that nothing behind the line is taken from who reads on.
bool Password::take(int fd, const std::string &name) {
    text_ = {};
    for (size_t length = 0;; ++length) {
        char byte = '\n';
        ssize_t taken = -1;
        do
            taken = ::read(fd, &byte, 1);
        while (taken < 0 && errno == EINTR);
        if (taken < 0)
            return refuse(name, imsg_strerror(errno));
        if (taken == 0 || byte == '\n')
            return true;
        if (byte == '\0')
            return refuse(name, "it holds a zero byte");
        if (length + 1 == text_.size())
            return refuse(name, "it is too long");
        text_[length] = byte;
    }
}

bool Password::read(const std::string &file_name) {
    if (file_name == standard_input)
        return take(STDIN_FILENO, "standard input");
    const int fd = open(file_name.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return refuse("'" + file_name + "'", imsg_strerror(errno));
    const bool is_read = take(fd, "'" + file_name + "'");
    close(fd);
    return is_read;
}

bool Password::ask(const char *prompt) {
    static_assert(int{IMSG_PASSWORD_SIZE} <= int{RGY_PASSWORD_SIZE});
    switch (imsg_prompt_password(prompt, text_.data())) {
    case IMSG_PASSWORD_ENTERED:
        return true;
    case IMSG_PASSWORD_TOO_LONG:
        return refuse("the terminal", "it is too long");
    case IMSG_PASSWORD_NO_TERMINAL:
        return refuse("the terminal", "there is none");
    default:
        return refuse("the terminal", "none was typed");
    }
}

bool is_typed(const std::string &file_name) {
    return file_name.empty() && isatty(STDIN_FILENO) != 0;
}

} // namespace velia::cli
