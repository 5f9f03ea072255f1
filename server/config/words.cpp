// Splitting a line into words: one cursor over the text, one state for each kind of character run.
#include <server/config/words.h>

namespace velia::server {

namespace {

bool is_blank(char c) {
    return c == ' ' || c == '\t' || c == '\r';
}

// Takes what stands between the quotes; false when the closing one is missing.
bool take_quoted(std::string_view line, size_t &at, std::string &word) {
    for (++at; at < line.size(); ++at) {
        if (line[at] == '"') {
            ++at;
            return true;
        }
        const bool escapes = line[at] == '\\' && at + 1 < line.size() && (line[at + 1] == '"' || line[at + 1] == '\\');
        if (escapes)
            ++at;
        word.push_back(line[at]);
    }
    return false;
}

} // namespace

Words split_words(std::string_view line) {
    Words result;
    size_t at = 0;
    while (true) {
        while (at < line.size() && is_blank(line[at]))
            ++at;
        if (at == line.size() || line[at] == '#')
            return result;
        std::string word;
        while (at < line.size() && !is_blank(line[at])) {
            if (line[at] != '"') {
                word.push_back(line[at++]);
            } else if (!take_quoted(line, at, word)) {
                result.error = "Missing closing quotation mark";
                return result;
            }
        }
        result.words.push_back(std::move(word));
    }
}

} // namespace velia::server
