// Attribute text: words "name" or "name=value" between commas, looked up in place.
#include <cstring>
#include <string_view>

#include <rvzd/client/registry_clnt/registry_clnt.h>
#include <support/strutl.h>
#include <veliaxdr/rgy_entry.h>

using namespace velia::registry_clnt;

namespace {

constexpr size_t length_bound = 1024; // of a name, and of a value

// A word's parts, as places in the text. `value` is null in a word without one.
struct Word {
    char *name;
    char *name_end;
    char *value;
    char *value_end;

    std::string_view name_text() const { return {name, name_end}; }
    bool is_too_long() const {
        return static_cast<size_t>(name_end - name) >= length_bound ||
               static_cast<size_t>(value_end - value) >= length_bound;
    }
};

// The blanks before an equal sign belong to the name; those behind it to nobody. A semicolon ends the word. No value
// stands behind an equal sign that nothing follows. A word that begins with its equal sign has no name, not an empty
// one, and nothing of it is read.
Word read_word(char *token) {
    Word word = {};
    word.name = token + strspn(token, white_space);
    word.name_end = word.name + strcspn(word.name, "=;,");
    if (word.name == word.name_end || *word.name_end != '=')
        return word;
    char *value = word.name_end + 1;
    value += strspn(value, white_space);
    const size_t length = strcspn(value, ";,");
    if (length > 0) {
        word.value = value;
        word.value_end = value + length;
    }
    return word;
}

void hand_out(const Word &word, char *&out) {
    if (word.value != nullptr)
        *word.value_end = '\0';
    *word.name_end = '\0';
    out = word.value;
}

} // namespace

tbs_status_t rgy_find_attrval(char *text, const char *name, char **out) {
    if (out == nullptr)
        return TBS_ST_INVALID_ARG;
    *out = nullptr;
    if (text == nullptr || name == nullptr)
        return TBS_ST_INVALID_ARG;
    for (char *token = strutl_tokenize(text, ","); token != nullptr; token = strutl_tokenize(nullptr, ",")) {
        const Word word = read_word(token);
        if (word.is_too_long())
            return TBS_ST_INVALID_ARG;
        if (word.name == word.name_end || word.name_text() != name)
            continue;
        hand_out(word, *out);
        return TBS_ST_OK;
    }
    return TBS_ST_NOT_FOUND;
}
