// Words of a line, with white space between them.
#pragma once

#include <cstring>

namespace velia {

inline constexpr char blanks[] = " \t\r\n";

// Takes the next word off `*at`, and ends it with a zero; null at the end of the line.
inline char *next_word(char **at) {
    *at += strspn(*at, blanks);
    if (**at == '\0')
        return nullptr;
    char *word = *at;
    *at += strcspn(*at, blanks);
    if (**at != '\0')
        *(*at)++ = '\0';
    return word;
}

} // namespace velia
