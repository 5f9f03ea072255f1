// Words of a command line. One reader cuts a text into words; the parser and the splitter both use it.
#include <support/clp.h>

#include <cctype>
#include <cstring>

#include <support/strutl.h>

struct clp_hdl {
    stg_area_t area;
    const clp_flag_t *flags;
    char **words;
    uint32_t word_count;
    uint32_t next_word;
    const char *last_flag;
};

namespace {

// No locale has a blank among the printing characters of ASCII, which most are.
bool is_blank(char character) {
    const bool is_printing = character > ' ' && character <= '~';
    return !is_printing && isspace(static_cast<unsigned char>(character)) != 0;
}

// A cursor over the text. Words are written without quotes and escapes; they are never longer than their spelling.
struct WordReader {
    const char *at;

    bool skip_blanks() {
        while (is_blank(*at))
            ++at;
        return *at != '\0';
    }

    // Copies the next word to `room` (null: only measures it). False for one that does not end.
    bool take(char *room, size_t &length) {
        length = 0;
        char quote = '\0';
        for (; *at != '\0' && (quote != '\0' || !is_blank(*at)); ++at) {
            if (quote == '\0' && (*at == '"' || *at == '\'')) {
                quote = *at;
                continue;
            }
            if (*at == quote) {
                quote = '\0';
                continue;
            }
            if (*at == '\\' && quote != '\'' && *++at == '\0')
                return false;
            if (room != nullptr)
                room[length] = *at;
            ++length;
        }
        return quote == '\0';
    }
};

// How many words the text has; false with the offset of the first that does not end.
bool count_words(const char *text, uint32_t &count, size_t &error_position) {
    WordReader reader = {text};
    count = 0;
    while (reader.skip_blanks()) {
        const auto begin = static_cast<size_t>(reader.at - text);
        size_t length = 0;
        if (!reader.take(nullptr, length)) {
            error_position = begin;
            return false;
        }
        ++count;
    }
    return true;
}

char *word_at(WordReader &reader, stg_area_t area) {
    WordReader measuring = reader;
    size_t length = 0;
    measuring.take(nullptr, length);
    auto *word = static_cast<char *>(stg_alloc(area, length + 1));
    if (word == nullptr)
        return nullptr;
    reader.take(word, length);
    word[length] = '\0';
    return word;
}

// An area frees what it holds by itself.
void release_words(stg_area_t area, char **words, uint32_t count) {
    if (area != STG_HEAP_AREA)
        return;
    for (uint32_t i = 0; i < count; ++i)
        stg_free(words[i]);
    stg_free(words);
}

// The words of a text whose words are known to end; null without memory.
char **read_words(const char *text, uint32_t count, stg_area_t area) {
    auto **words = static_cast<char **>(stg_alloc(area, count * sizeof(char *)));
    if (words == nullptr)
        return nullptr;
    WordReader reader = {text};
    for (uint32_t i = 0; i < count; ++i) {
        reader.skip_blanks();
        words[i] = word_at(reader, area);
        if (words[i] == nullptr) {
            release_words(area, words, i);
            return nullptr;
        }
    }
    return words;
}

int row_of(const clp_flag_t *flags, const char *word) {
    for (int i = 0; flags[i].name != nullptr; ++i) {
        if (strcmp(flags[i].name, word) == 0)
            return i;
    }
    return -1;
}

bool needs_quotes(const char *word) {
    return *word == '\0' || strpbrk(word, " \t\v\f\r\"'\\") != nullptr;
}

bool is_escaped(char character, int escape) {
    return character == '"' || character == static_cast<char>(escape);
}

// The word's length as written, its blank or terminator included.
size_t written_length(const char *word, int escape) {
    constexpr size_t quotes_and_blank = 3;
    size_t length = quotes_and_blank;
    for (; *word != '\0'; ++word)
        length += is_escaped(*word, escape) ? 2 : 1;
    return length;
}

char *write_word(char *at, const char *word, int escape) {
    const bool quoted = needs_quotes(word) || strchr(word, escape) != nullptr;
    if (quoted)
        *at++ = '"';
    for (; *word != '\0'; ++word) {
        if (is_escaped(*word, escape))
            *at++ = static_cast<char>(escape);
        *at++ = *word;
    }
    if (quoted)
        *at++ = '"';
    return at;
}

// 0 if a word cannot be written.
size_t joined_size(uint32_t count, char *const *vector, int escape) {
    size_t size = 1;
    for (uint32_t i = 0; i < count; ++i) {
        if (vector[i] == nullptr || strchr(vector[i], '\n') != nullptr)
            return 0;
        size += written_length(vector[i], escape);
    }
    return size;
}

} // namespace

clp_hdl_t clp_create_hdl_using_string(const char *text, const clp_flag_t *flags, stg_area_t area) {
    uint32_t count = 0;
    size_t error_position = 0;
    if (text == nullptr || !count_words(text, count, error_position))
        return nullptr;
    char **words = read_words(text, count, area);
    if (words == nullptr)
        return nullptr;
    auto *parser = static_cast<clp_hdl *>(stg_alloc(area, sizeof(clp_hdl)));
    if (parser == nullptr) {
        release_words(area, words, count);
        return nullptr;
    }
    *parser = {area, flags, words, count, 0, nullptr};
    return parser;
}

int clp_get_next_flag_value(clp_hdl_t parser, int, int *index) {
    if (parser->next_word == parser->word_count)
        return CLP_END;
    const char *word = parser->words[parser->next_word];
    const int row = row_of(parser->flags, word);
    if (row < 0 && word[0] == '-' && word[1] != '\0')
        return CLP_UNKNOWN_FLAG;
    ++parser->next_word;
    if (row < 0)
        return CLP_ARGUMENT;
    parser->last_flag = word;
    *index = row;
    return CLP_FLAG;
}

int clp_get_last_flag_name(clp_hdl_t parser, int, size_t size, char *buffer) {
    if (parser->last_flag == nullptr)
        return 1;
    return strutl_cpy_buf(buffer, parser->last_flag, size);
}

int clp_get_next_arg(clp_hdl_t parser, char **argument) {
    if (parser->next_word == parser->word_count)
        return 1;
    *argument = parser->words[parser->next_word++];
    return 0;
}

void clp_unget_arg(clp_hdl_t parser) {
    if (parser->next_word > 0)
        --parser->next_word;
}

void clp_destroy_hdl(clp_hdl_t *parser) {
    if (parser == nullptr || *parser == nullptr)
        return;
    clp_hdl *ended = *parser;
    *parser = nullptr;
    if (ended->area != STG_HEAP_AREA)
        return;
    release_words(ended->area, ended->words, ended->word_count);
    stg_free(ended);
}

int clp_parse_string(const char *text, int, uint32_t *count, char ***vector, size_t *error_position, stg_area_t area) {
    *count = 0;
    *vector = nullptr;
    uint32_t word_count = 0;
    size_t position = 0;
    const bool is_well_formed = text != nullptr && count_words(text, word_count, position);
    if (!is_well_formed && error_position != nullptr)
        *error_position = position;
    if (!is_well_formed)
        return 1;
    if (word_count == 0)
        return 0;
    char **words = read_words(text, word_count, area != nullptr ? area : STG_HEAP_AREA);
    if (words == nullptr)
        return 1;
    *count = word_count;
    *vector = words;
    return 0;
}

int clp_argv_to_string(uint32_t count, char *const *vector, int, int escape, char **text) {
    *text = nullptr;
    const size_t size = joined_size(count, vector, escape);
    auto *joined = size != 0 ? static_cast<char *>(stg_malloc(size)) : nullptr;
    if (joined == nullptr)
        return 1;
    char *at = joined;
    for (uint32_t i = 0; i < count; ++i) {
        if (i > 0)
            *at++ = ' ';
        at = write_word(at, vector[i], escape);
    }
    *at = '\0';
    *text = joined;
    return 0;
}
