// Passwords that are typed, or read from a file or from standard input; never from the command line, where every user
// of the machine can see them.
#pragma once

#include <array>
#include <string>

#include <veliaxdr/rgy_manage.h>

namespace velia::cli {

// Wiped when it goes.
class Password {
public:
    Password() = default;
    ~Password();
    Password(const Password &) = delete;
    Password &operator=(const Password &) = delete;

    char *text() { return text_.data(); }
    bool is_empty() const { return text_[0] == '\0'; }
    bool operator==(const Password &other) const;

    // The first line of a file, "-" for standard input; any bytes but zero. What is wrong is told.
    bool read(const std::string &file_name);

    // Asks on the terminal. Without an answer, which is told, false.
    bool ask(const char *prompt);

private:
    bool take(int fd, const std::string &name);

    std::array<char, RGY_PASSWORD_SIZE> text_ = {};
};

// Standard input is where a password comes from if it is no terminal and no file was given.
bool is_typed(const std::string &file_name);

} // namespace velia::cli
