// Escapes and widths. What can be printed, and how wide it is, is asked of the C library's UTF-8, whatever locale the
// user has: results are the same for everybody.
#include <cli/text.h>

#include <algorithm>
#include <climits>
#include <clocale>
#include <cwchar>
#include <string_view>

#include <fmt/core.h>

namespace velia::cli {

namespace {

constexpr int cannot_be_shown = -1;

class Utf8Locale {
public:
    Utf8Locale() : before_(uselocale(utf8())) {}
    ~Utf8Locale() { uselocale(before_); }
    Utf8Locale(const Utf8Locale &) = delete;
    Utf8Locale &operator=(const Utf8Locale &) = delete;

private:
    // Made once; without it nothing but ASCII passes for what can be shown.
    static locale_t utf8() {
        static const locale_t locale = newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
        return locale;
    }

    locale_t before_;
};

// They change nothing but the order in which others show, so that a name can be made to look like another one.
bool turns_direction(wchar_t character) {
    return character == 0x61c || character == 0x200e || character == 0x200f ||
           (character >= 0x202a && character <= 0x202e) || (character >= 0x2066 && character <= 0x2069);
}

struct Character {
    std::string_view bytes;
    int width; // or cannot_be_shown
};

Character first_of(std::string_view text) {
    const auto byte = static_cast<unsigned char>(text[0]);
    if (byte >= 0x20 && byte < 0x7f)
        return {text.substr(0, 1), 1};
    wchar_t character = 0;
    mbstate_t state = {};
    const size_t length = mbrtowc(&character, text.data(), text.size(), &state);
    if (length == 0 || length > MB_LEN_MAX) // a zero byte; what is none, or cut short
        return {text.substr(0, 1), cannot_be_shown};
    return {text.substr(0, length), turns_direction(character) ? cannot_be_shown : wcwidth(character)};
}

template <class Take>
void each_character(std::string_view text, Take &&take) {
    const Utf8Locale locale;
    while (!text.empty()) {
        const auto character = first_of(text);
        take(character);
        text.remove_prefix(character.bytes.size());
    }
}

std::string escape_of(char byte) {
    switch (byte) {
    case '\n':
        return "\\n";
    case '\r':
        return "\\r";
    case '\t':
        return "\\t";
    default:
        return fmt::format("\\x{:02x}", static_cast<unsigned char>(byte));
    }
}

} // namespace

bool is_simple(const std::string &text) {
    return std::all_of(text.begin(), text.end(), [](char c) { return c >= 0x20 && c < 0x7f && c != '\\' && c != '"'; });
}

std::string escaped(const std::string &text) {
    if (is_simple(text))
        return text;
    std::string shown;
    each_character(text, [&](const Character &character) {
        if (character.bytes == "\\")
            shown += "\\\\";
        else if (character.width != cannot_be_shown)
            shown += character.bytes;
        else
            for (const char byte : character.bytes)
                shown += escape_of(byte);
    });
    return shown;
}

size_t width_of(const std::string &text) {
    if (is_simple(text))
        return text.size();
    size_t width = 0;
    each_character(text, [&](const Character &character) {
        if (character.width != cannot_be_shown)
            width += static_cast<size_t>(character.width);
    });
    return width;
}

} // namespace velia::cli
