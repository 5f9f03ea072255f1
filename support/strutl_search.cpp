// Searches, tokens and white space.
#include <support/strutl.h>

#include <cctype>
#include <cstring>

namespace {

constexpr char path_separator = '/';

int found_at(const char *text, const char *place, size_t *position) {
    if (place == nullptr)
        return 0;
    if (position != nullptr)
        *position = static_cast<size_t>(place - text);
    return 1;
}

bool is_inside(const char *text, size_t start) {
    return text != nullptr && strnlen(text, start) == start;
}

// The terminator is no character of the text; -2 is none of any text.
int character_meant(int wanted) {
    if (wanted == STRUTL_PATH_SEPARATOR)
        return path_separator;
    const int character = static_cast<unsigned char>(wanted);
    return character != 0 ? character : -2;
}

const char *find_last(const char *text, size_t start, int character) {
    for (size_t at = strlen(text); at > start; --at) {
        if (static_cast<unsigned char>(text[at - 1]) == character)
            return text + at - 1;
    }
    return nullptr;
}

size_t count_places(const char *text, const char *wanted) {
    size_t count = 0;
    for (const char *at = strstr(text, wanted); at != nullptr; at = strstr(at + strlen(wanted), wanted))
        ++count;
    return count;
}

char *append(char *at, const char *text, size_t length) {
    memcpy(at, text, length);
    return at + length;
}

void replace_into(char *result, const char *text, size_t start, const char *wanted, const char *replacement) {
    const char *from = text;
    for (const char *at = strstr(text + start, wanted); at != nullptr; at = strstr(from, wanted)) {
        result = append(result, from, static_cast<size_t>(at - from));
        result = append(result, replacement, strlen(replacement));
        from = at + strlen(wanted);
    }
    append(result, from, strlen(from) + 1);
}

thread_local char *tokens_left;

} // namespace

int strutl_match_prefix(const char *text, const char *prefix, const char **end) {
    const size_t length = strlen(prefix);
    if (strncmp(text, prefix, length) != 0)
        return 1;
    if (end != nullptr)
        *end = text + length;
    return 0;
}

int strutl_find_char(const char *text, size_t start, int wanted, size_t *position) {
    const int character = character_meant(wanted);
    if (!is_inside(text, start) || character < 0)
        return 0;
    return found_at(text, strchr(text + start, character), position);
}

int strutl_find_char_from(const char *text, size_t start, const char *wanted_set, size_t *position) {
    if (!is_inside(text, start))
        return 0;
    return found_at(text, strpbrk(text + start, wanted_set), position);
}

int strutl_find_last_char(const char *text, size_t start, int wanted, size_t *position) {
    if (!is_inside(text, start))
        return 0;
    return found_at(text, find_last(text, start, character_meant(wanted)), position);
}

int strutl_find_str(const char *text, size_t start, const char *wanted, size_t *position) {
    if (!is_inside(text, start))
        return 0;
    return found_at(text, strstr(text + start, wanted), position);
}

int strutl_find_replace_substr(const char *text, size_t start, const char *wanted, const char *replacement,
                               char **result) {
    *result = nullptr;
    if (!is_inside(text, start) || *wanted == '\0')
        return 0;
    const size_t places = count_places(text + start, wanted);
    if (places == 0)
        return 0;
    const size_t size = strlen(text) - places * strlen(wanted) + places * strlen(replacement) + 1;
    auto *replaced = static_cast<char *>(stg_malloc(size));
    if (replaced == nullptr)
        return 0;
    replace_into(replaced, text, start, wanted, replacement);
    *result = replaced;
    return 1;
}

char *strutl_tokenize(char *text, const char *separators) {
    char *at = text != nullptr ? text : tokens_left;
    if (at == nullptr)
        return nullptr;
    return strtok_r(at, separators, &tokens_left);
}

char *strutl_strip_whitespace(char *text, int leading, int trailing) {
    size_t length = strlen(text);
    if (trailing != 0) {
        while (length > 0 && isspace(static_cast<unsigned char>(text[length - 1])))
            text[--length] = '\0';
    }
    size_t front = 0;
    if (leading != 0) {
        while (isspace(static_cast<unsigned char>(text[front])))
            ++front;
        memmove(text, text + front, length - front + 1);
    }
    return text;
}
