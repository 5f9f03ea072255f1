// Every line of a help is broken by itself; which column it goes on in is seen from its own blanks.
#include <cli/wrap.h>

#include <algorithm>
#include <sstream>
#include <vector>

namespace velia::cli {

namespace {

constexpr const char *examples_title = "Examples:";
constexpr size_t example_indent = 6;

using Words = std::vector<std::string>;

// What cannot be broken: up to a blank, which in quotes is no end.
Words words_of(const std::string &text, bool has_quotes) {
    Words words(1);
    char quote = '\0';
    for (const char c : text) {
        if (c == ' ' && quote == '\0') {
            if (!words.back().empty())
                words.emplace_back();
            continue;
        }
        words.back() += c;
        if (has_quotes && (c == quote || (quote == '\0' && (c == '\'' || c == '"'))))
            quote = quote == '\0' ? c : '\0';
    }
    if (words.back().empty())
        words.pop_back();
    return words;
}

// Where the description stands behind a name and two blanks; the line's own beginning if there is none.
size_t description_column(const std::string &line) {
    const size_t begin = std::min(line.find_first_not_of(' '), line.size());
    const size_t gap = begin == 0 ? std::string::npos : line.find("  ", begin);
    return gap == std::string::npos ? begin : std::min(line.find_first_not_of(' ', gap), line.size());
}

struct Shape {
    size_t indent;        // of the lines that go on
    const char *line_end; // of those that are gone on with
    bool has_quotes;
};

std::string broken(const std::string &line, size_t width, const Shape &shape) {
    const size_t head = description_column(line);
    std::string text;
    std::string current = line.substr(0, head);
    bool is_begun = false; // the current line has a word
    const size_t end_size = std::char_traits<char>::length(shape.line_end);
    for (const auto &word : words_of(line.substr(head), shape.has_quotes)) {
        if (is_begun && current.size() + 1 + word.size() + end_size > width) {
            text += current + shape.line_end + "\n";
            current = std::string(shape.indent, ' ');
            is_begun = false;
        }
        current += (is_begun ? " " : "") + word;
        is_begun = true;
    }
    return text + current;
}

// A description far to the right would be left no place.
size_t indent_of(const std::string &line, size_t width) {
    const size_t column = description_column(line);
    return column <= width * 2 / 3 ? column : std::min(line.find_first_not_of(' '), width / 4) + 2;
}

} // namespace

std::string wrapped(const std::string &help, size_t width) {
    std::istringstream lines(help);
    std::string text;
    bool is_example = false;
    for (std::string line; std::getline(lines, line);) {
        is_example = line == examples_title || (is_example && !line.empty());
        const Shape shape = is_example ? Shape{example_indent, " \\", true} : Shape{indent_of(line, width), "", false};
        text += (line.size() > width ? broken(line, width, shape) : line) + "\n";
    }
    return text;
}

std::string refilled(const std::string &text) {
    std::istringstream lines(text);
    std::string paragraphs;
    bool is_open = false; // a paragraph
    for (std::string line; std::getline(lines, line);) {
        if (line.empty())
            paragraphs += is_open ? "\n\n" : "";
        else
            paragraphs += (is_open ? " " : "") + line;
        is_open = !line.empty();
    }
    return paragraphs + (is_open ? "\n" : "");
}

} // namespace velia::cli
