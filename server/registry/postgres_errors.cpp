#include <server/registry/postgres_errors.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <string_view>

#include <server/registry/store.h>

namespace velia::server {

namespace {

enum class Kind { away, busy, refused };

// A code, or how it begins; the first row that fits counts.
struct Row {
    std::string_view code;
    Kind kind;
    const char *words;
};

constexpr std::array rows = {
    Row{"28P01", Kind::refused, "the password is wrong"},
    Row{"28", Kind::refused, "the server lets this user in from nowhere, or not from here (see its pg_hba.conf)"},
    Row{"3D000", Kind::refused, "the server has no database of this name"},
    Row{"3F000", Kind::refused, "the database has no schema for this user's tables"},
    Row{"42501", Kind::refused, "the database user has no right to this"},
    Row{"42", Kind::refused, "the registry's tables are not as this program has made them"},
    Row{"53100", Kind::refused, "the database's disk is full"},
    Row{"53", Kind::away, "the server has no room for more"},
    Row{"55P03", Kind::busy, "somebody else has held the registry's lock for too long"},
    Row{"57014", Kind::busy, "a statement took longer than it may"},
    Row{"40", Kind::busy, "somebody else was in the way"},
    Row{"25006", Kind::away, "the server takes no changes: it is a standby, or was made read-only"},
    Row{"25P03", Kind::away, "the connection was idle amid a transaction for too long"},
    Row{"57", Kind::away, "the server is going down or coming up"},
    Row{"08", Kind::away, "the connection broke"},
    Row{"", Kind::refused, "the database says"},
};

const Row &row_of(const std::string &code) {
    return *std::find_if(rows.begin(), rows.end(), [&](const Row &row) { return code.starts_with(row.code); });
}

constexpr size_t code_length = 5;

// "FATAL:  28P01: words": the severity may be in any language, the code is not.
size_t place_of_code(const std::string &words) {
    for (size_t at = words.find(":  "); at != std::string::npos; at = words.find(":  ", at + 1)) {
        const size_t begin = at + 3;
        const bool is_code = words.size() > begin + code_length && words[begin + code_length] == ':' &&
                             std::all_of(words.begin() + static_cast<std::ptrdiff_t>(begin),
                                         words.begin() + static_cast<std::ptrdiff_t>(begin + code_length),
                                         [](unsigned char c) { return isdigit(c) != 0 || isupper(c) != 0; });
        if (is_code)
            return begin;
    }
    return std::string::npos;
}

} // namespace

void throw_postgres_error(const std::string &code, const std::string &words) {
    if (code.empty())
        throw StoreAway(words);
    const Row &row = row_of(code);
    const std::string told = std::string(row.words) + ": " + words;
    if (row.kind == Kind::away)
        throw StoreAway(told);
    if (row.kind == Kind::busy)
        throw StoreBusy(told);
    throw StoreError(told);
}

std::string code_in(const std::string &connection_words) {
    const size_t place = place_of_code(connection_words);
    return place == std::string::npos ? "" : connection_words.substr(place, code_length);
}

std::string first_message_in(const std::string &connection_words) {
    const size_t place = place_of_code(connection_words);
    const size_t begin = place == std::string::npos ? 0 : place + code_length + 2;
    const size_t end = std::min(connection_words.find('\n', begin), connection_words.size());
    return begin < end ? connection_words.substr(begin, end - begin) : "no answer";
}

} // namespace velia::server
