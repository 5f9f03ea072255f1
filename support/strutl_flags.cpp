// Sets of flags, and numbers, as texts.
#include <support/strutl.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <strings.h>

#include <support/ivlthread.h>

namespace {

// A name within a list, without the white space around it.
struct Name {
    const char *begin;
    size_t length;
};

bool is_space(char character) {
    return isspace(static_cast<unsigned char>(character)) != 0;
}

Name stripped(Name name) {
    while (name.length > 0 && is_space(name.begin[0])) {
        ++name.begin;
        --name.length;
    }
    while (name.length > 0 && is_space(name.begin[name.length - 1]))
        --name.length;
    return name;
}

bool read_bits(const Name &name, uint32_t &bits) {
    constexpr size_t digits_at = 2;
    constexpr size_t digits_max = 8;
    if (name.length <= digits_at || name.length > digits_at + digits_max || strncasecmp(name.begin, "0x", 2) != 0)
        return false;
    uint32_t value = 0;
    for (size_t i = digits_at; i < name.length; ++i) {
        const auto digit = static_cast<unsigned char>(name.begin[i]);
        if (!isxdigit(digit))
            return false;
        value = value << 4 | static_cast<uint32_t>(isdigit(digit) ? digit - '0' : (digit | 0x20) - 'a' + 10);
    }
    bits = value;
    return true;
}

// Most names are told from others by their first characters.
bool may_begin_alike(const char *left, const char *right) {
    constexpr int case_bit = 0x20;
    return ((*left ^ *right) & ~case_bit) == 0;
}

bool has_name(const strutl_flag_item_t &item, const Name &name) {
    return (name.length == 0 || may_begin_alike(item.name, name.begin)) &&
           strncasecmp(item.name, name.begin, name.length) == 0 && item.name[name.length] == '\0';
}

bool value_of(const Name &name, const strutl_flag_item_t *table, size_t count, uint32_t &value) {
    for (size_t i = 0; i < count; ++i) {
        if (has_name(table[i], name)) {
            value = table[i].value;
            return true;
        }
    }
    return read_bits(name, value);
}

// The texts that a thread was given last.
struct Given {
    static constexpr unsigned text_count = 5;
    char *texts[text_count];
    unsigned next;
};

ivlthread_key_t given_key;
ivlthread_once_t given_once;

void release_given(void *state) {
    auto *given = static_cast<Given *>(state);
    for (char *text : given->texts)
        free(text);
    free(given);
}

int make_given_key() {
    return ivlthread_key_create(&given_key, release_given);
}

Given *given_texts() {
    ivlthread_once(&given_once, make_given_key);
    auto *given = static_cast<Given *>(ivlthread_get_tls(given_key));
    if (given != nullptr)
        return given;
    given = static_cast<Given *>(ivlthread_alloc_tls(sizeof(Given)));
    if (given != nullptr && ivlthread_set_tls(given_key, given) == 0)
        return given;
    free(given);
    return nullptr;
}

struct Writer {
    char *at;
    const char *separator;
    bool is_first;

    void name(const char *text) {
        at = stpcpy(is_first ? at : stpcpy(at, separator), text);
        is_first = false;
    }
};

size_t longest_text(const char *separator, const strutl_flag_item_t *table, size_t count) {
    constexpr size_t number_size = sizeof "0x12345678";
    size_t size = number_size;
    for (size_t i = 0; i < count; ++i)
        size += strlen(table[i].name) + strlen(separator);
    return size + strlen(separator);
}

// Several names may share bits; a name is given if all its bits are set.
void write_flags(uint32_t mask, Writer &writer, const strutl_flag_item_t *table, size_t count) {
    uint32_t nameless = mask;
    for (size_t i = 0; i < count; ++i) {
        const uint32_t bits = table[i].value;
        const bool is_given = mask == 0 ? bits == 0 && writer.is_first : bits != 0 && (mask & bits) == bits;
        if (is_given)
            writer.name(table[i].name);
        nameless &= ~(is_given ? bits : 0);
    }
    char number[16];
    snprintf(number, sizeof number, "0x%x", nameless);
    if (nameless != 0)
        writer.name(number);
}

// The factor of a size suffix; 0 for none of them.
int64_t factor_of(char suffix) {
    switch (tolower(static_cast<unsigned char>(suffix))) {
    case 'k':
        return int64_t{1} << 10;
    case 'm':
        return int64_t{1} << 20;
    case 'g':
        return int64_t{1} << 30;
    default:
        return 0;
    }
}

} // namespace

uint32_t strutl_flags_from_str(const char *text, int, const char *separators, const strutl_flag_item_t *table,
                               size_t count, size_t *position) {
    uint32_t mask = 0;
    const char *at = text;
    for (;;) {
        const size_t item_length = strcspn(at, separators);
        const Name name = stripped({at, item_length});
        uint32_t value = 0;
        if (!value_of(name, table, count, value)) {
            if (position != nullptr)
                *position = static_cast<size_t>(name.begin - text);
            return 0;
        }
        mask |= value;
        at += item_length;
        if (*at == '\0')
            break;
        ++at;
    }
    if (position != nullptr)
        *position = static_cast<size_t>(at - text);
    return mask;
}

const char *strutl_flags_to_str(uint32_t mask, const char *separator, const strutl_flag_item_t *table, size_t count) {
    Given *given = given_texts();
    auto *text = static_cast<char *>(stg_malloc(longest_text(separator, table, count)));
    if (given == nullptr || text == nullptr) {
        stg_free(text);
        return nullptr;
    }
    Writer writer = {text, separator, true};
    *text = '\0';
    write_flags(mask, writer, table, count);
    char *&place = given->texts[given->next++ % Given::text_count];
    stg_free(place);
    place = text;
    return text;
}

int strutl_kstr_or_str_to_long(const char *text, int64_t *result, int flag) {
    if (text == nullptr)
        return 1;
    char *end = nullptr;
    errno = 0;
    const long long number = strtoll(text, &end, 10);
    if (end == text || errno == ERANGE)
        return 1;
    int64_t value = number;
    const int64_t factor = flag != 0 ? factor_of(*end) : 0;
    if (factor != 0) {
        if (__builtin_mul_overflow(value, factor, &value))
            return 1;
        ++end;
    }
    while (is_space(*end))
        ++end;
    if (*end != '\0')
        return 1;
    *result = value;
    return 0;
}
