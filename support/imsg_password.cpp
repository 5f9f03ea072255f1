// Reads a password from the terminal. Keys are read one by one with echo and signal keys off, so that the terminal is
// put back before the interrupt key takes effect.
#include <support/imsg.h>

#include <cerrno>
#include <csignal>
#include <cstring>

#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include "imsg_internal.h"

namespace {

using velia::support::write_all;

enum class Key { character, erase, kill, end_of_line, end_of_input, interrupt };

Key key_of(unsigned char byte, const termios &settings) {
    if (byte == '\n' || byte == '\r')
        return Key::end_of_line;
    if (byte == settings.c_cc[VINTR])
        return Key::interrupt;
    if (byte == settings.c_cc[VEOF])
        return Key::end_of_input;
    if (byte == settings.c_cc[VKILL])
        return Key::kill;
    return byte == settings.c_cc[VERASE] || byte == '\b' ? Key::erase : Key::character;
}

// False at the end of input.
bool read_byte(int terminal, unsigned char &byte) {
    ssize_t taken;
    do {
        taken = read(terminal, &byte, 1);
    } while (taken < 0 && errno == EINTR);
    return taken == 1;
}

// The end-of-input key ends a line, too, once something has been typed.
int ended(size_t length, bool is_too_long) {
    if (is_too_long)
        return IMSG_PASSWORD_TOO_LONG;
    return length > 0 ? IMSG_PASSWORD_ENTERED : IMSG_PASSWORD_CANCELLED;
}

int read_keys(int terminal, const termios &settings, char *buffer, bool &is_interrupted) {
    size_t length = 0;
    bool is_too_long = false;
    unsigned char byte;
    while (read_byte(terminal, byte)) {
        switch (key_of(byte, settings)) {
        case Key::interrupt:
            is_interrupted = true;
            return IMSG_PASSWORD_CANCELLED;
        case Key::end_of_line:
            buffer[length] = '\0';
            return is_too_long ? IMSG_PASSWORD_TOO_LONG : IMSG_PASSWORD_ENTERED;
        case Key::end_of_input:
            buffer[length] = '\0';
            return ended(length, is_too_long);
        case Key::kill:
            length = 0;
            is_too_long = false;
            break;
        case Key::erase:
            length -= length > 0 ? 1 : 0;
            break;
        case Key::character:
            is_too_long = is_too_long || length == IMSG_PASSWORD_SIZE - 1;
            if (!is_too_long)
                buffer[length++] = static_cast<char>(byte);
            break;
        }
    }
    return IMSG_PASSWORD_CANCELLED;
}

int ask_on(int terminal, const char *prompt, char *buffer, bool &is_interrupted) {
    termios settings;
    if (tcgetattr(terminal, &settings) != 0)
        return IMSG_PASSWORD_NO_TERMINAL;
    termios silent = settings;
    silent.c_lflag &= ~static_cast<tcflag_t>(ECHO | ECHONL | ICANON | ISIG);
    silent.c_cc[VMIN] = 1;
    silent.c_cc[VTIME] = 0;
    tcsetattr(terminal, TCSAFLUSH, &silent);
    write_all(terminal, prompt, strlen(prompt));
    const int result = read_keys(terminal, settings, buffer, is_interrupted);
    tcsetattr(terminal, TCSAFLUSH, &settings);
    write_all(terminal, "\n", 1);
    return result;
}

} // namespace

int imsg_prompt_password(const char *prompt, char *buffer) {
    buffer[0] = '\0';
    const int terminal = open("/dev/tty", O_RDWR | O_CLOEXEC | O_NOCTTY);
    if (terminal < 0)
        return IMSG_PASSWORD_NO_TERMINAL;
    bool is_interrupted = false;
    const int result = ask_on(terminal, prompt, buffer, is_interrupted);
    close(terminal);
    if (result != IMSG_PASSWORD_ENTERED)
        explicit_bzero(buffer, IMSG_PASSWORD_SIZE);
    if (is_interrupted)
        raise(SIGINT);
    return result;
}
