// The number that a text begins with, read as "%u" and "%d" of scanf read it: behind white space, with a sign if it has
// one, its low 32 bits if it is too large. Opening a stream over the text, as scanf does, costs several times as much.
#pragma once

#include <cstdint>
#include <cstdlib>

namespace velia {

// Moves `text` behind the number. False, with nothing moved, where there is none.
inline bool take_leading_number(const char *&text, uint32_t &number) {
    char *end = nullptr;
    const unsigned long value = strtoul(text, &end, 10);
    if (end == text)
        return false;
    number = static_cast<uint32_t>(value);
    text = end;
    return true;
}

inline bool take_leading_number(const char *&text, int32_t &number) {
    char *end = nullptr;
    const long value = strtol(text, &end, 10);
    if (end == text)
        return false;
    number = static_cast<int32_t>(value);
    text = end;
    return true;
}

// A text that may go on behind its number.
template <class Number>
bool read_leading_number(const char *text, Number &number) {
    return take_leading_number(text, number);
}

} // namespace velia
