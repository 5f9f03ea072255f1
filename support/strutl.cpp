// Bounded copies and joins.
#include <support/strutl.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include <strings.h>

namespace {

const char *text_or_empty(const char *text) {
    return text != nullptr ? text : "";
}

size_t joined_length(int count, va_list strings) {
    size_t length = 0;
    for (int i = 0; i < count; ++i)
        length += strlen(text_or_empty(va_arg(strings, const char *)));
    return length;
}

void append_strings(char *at, int count, va_list strings) {
    for (int i = 0; i < count; ++i) {
        const char *text = text_or_empty(va_arg(strings, const char *));
        const size_t length = strlen(text);
        memcpy(at, text, length);
        at += length;
    }
    *at = '\0';
}

char *concat_in(stg_area_t area, int count, va_list strings) {
    va_list again;
    va_copy(again, strings);
    auto *joined = static_cast<char *>(stg_alloc(area, joined_length(count, again) + 1));
    va_end(again);
    if (joined != nullptr)
        append_strings(joined, count, strings);
    return joined;
}

// The strings behind those that already stand in the destination.
struct Append {
    size_t standing;
    int skipped;
};

Append append_from(const char *destination, int count, va_list strings) {
    const char *first = count > 0 ? va_arg(strings, const char *) : nullptr;
    if (first == nullptr || first != destination)
        return {0, 0};
    return {strlen(destination), 1};
}

} // namespace

int strutl_concat(char *destination, size_t size, int count, ...) {
    va_list strings;
    va_start(strings, count);
    const Append append = append_from(destination, count, strings);
    va_end(strings);

    va_start(strings, count);
    const bool fits = joined_length(count, strings) < size;
    va_end(strings);
    if (!fits) {
        if (append.skipped == 0 && size > 0)
            destination[0] = '\0';
        return 1;
    }

    va_start(strings, count);
    if (append.skipped > 0)
        (void)va_arg(strings, const char *);
    append_strings(destination + append.standing, count - append.skipped, strings);
    va_end(strings);
    return 0;
}

char *strutl_concat_heap(int count, ...) {
    va_list strings;
    va_start(strings, count);
    char *joined = concat_in(STG_HEAP_AREA, count, strings);
    va_end(strings);
    return joined;
}

char *strutl_concat_area(stg_area_t area, int count, ...) {
    va_list strings;
    va_start(strings, count);
    char *joined = concat_in(area, count, strings);
    va_end(strings);
    return joined;
}

int strutl_cpy_buf(char *destination, const char *source, size_t size) {
    if (size == 0)
        return 1;
    const char *text = text_or_empty(source);
    const size_t length = strnlen(text, size);
    const size_t copied = length < size ? length : size - 1;
    memmove(destination, text, copied);
    destination[copied] = '\0';
    return length < size ? 0 : 1;
}

int strutl_snprintf(char *destination, size_t size, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const int length = vsnprintf(destination, size, format, arguments);
    va_end(arguments);
    return length >= 0 && static_cast<size_t>(length) < size ? 0 : 1;
}

char *strutl_ncpy(char *destination, const char *source, size_t length) {
    const size_t copied = strnlen(source, length);
    memcpy(destination, source, copied);
    destination[copied] = '\0';
    return destination;
}

int strutl_stricoll(const char *left, const char *right) {
    return strcasecmp(text_or_empty(left), text_or_empty(right));
}
