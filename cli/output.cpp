// The output forms.
#include <cli/output.h>

#include <algorithm>
#include <cctype>
#include <iterator>
#include <stdexcept>

#include <fmt/format.h>

namespace velia::cli {

namespace {

using Texts = std::vector<std::string>;

std::string text_of(const Cell &cell) {
    if (cell.is_null())
        return "-";
    if (cell.is_string()) {
        const auto text = cell.get<std::string>();
        return text.empty() ? "-" : text;
    }
    if (!cell.is_array())
        return cell.dump();
    std::string joined;
    for (const auto &member : cell)
        joined += (joined.empty() ? "" : ",") + text_of(member);
    return joined.empty() ? "-" : joined;
}

Texts texts_of(const std::vector<Cell> &cells) {
    Texts texts;
    std::transform(cells.begin(), cells.end(), std::back_inserter(texts), text_of);
    return texts;
}

Texts headers_of(const std::vector<std::string> &columns) {
    Texts headers;
    for (const auto &column : columns) {
        std::string header;
        for (const char c : column)
            header += c == '_' ? '-' : static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
        headers.push_back(header);
    }
    return headers;
}

std::vector<size_t> widths_of(const std::vector<Texts> &lines) {
    std::vector<size_t> widths;
    for (const auto &line : lines) {
        widths.resize(std::max(widths.size(), line.size()));
        for (size_t i = 0; i < line.size(); ++i)
            widths[i] = std::max(widths[i], line[i].size());
    }
    return widths;
}

std::string rule_of(const std::vector<size_t> &widths) {
    std::string rule = "+";
    for (const size_t width : widths)
        rule += std::string(width + 2, '-') + "+";
    return rule + "\n";
}

std::string bordered(const Texts &line, const std::vector<size_t> &widths) {
    std::string text = "|";
    for (size_t i = 0; i < line.size(); ++i)
        text += fmt::format(" {:<{}} |", line[i], widths[i]);
    return text + "\n";
}

} // namespace

bool format_of_name(const std::string &name, Format &format) {
    if (name == "plain")
        format = Format::plain;
    else if (name == "json")
        format = Format::json;
    else if (name == "table")
        format = Format::table;
    else
        return false;
    return true;
}

void Results::add(std::vector<Cell> cells) {
    if (cells.size() != columns_.size())
        throw std::logic_error("a row has another number of cells than there are columns");
    rows_.push_back(std::move(cells));
}

void Results::print(Format format, bool with_headers, std::ostream &out) const {
    switch (format) {
    case Format::json:
        return print_json(out);
    case Format::table:
        return print_table(with_headers, out);
    case Format::plain:
        return print_plain(with_headers, out);
    }
}

void Results::print_json(std::ostream &out) const {
    for (const auto &row : rows_) {
        Cell object = Cell::object();
        for (size_t i = 0; i < columns_.size(); ++i)
            object[columns_[i]] = row[i];
        out << object.dump(-1, ' ', false, Cell::error_handler_t::replace) << '\n';
    }
}

void Results::print_plain(bool with_headers, std::ostream &out) const {
    if (rows_.empty())
        return;
    std::vector<Texts> lines;
    if (with_headers)
        lines.push_back(headers_of(columns_));
    std::transform(rows_.begin(), rows_.end(), std::back_inserter(lines), texts_of);
    const auto widths = widths_of(lines);
    for (const auto &line : lines) {
        std::string text;
        // The last column ends its line without blanks behind it.
        for (size_t i = 0; i + 1 < line.size(); ++i)
            text += fmt::format("{:<{}}  ", line[i], widths[i]);
        out << text << line.back() << '\n';
    }
}

void Results::print_table(bool with_headers, std::ostream &out) const {
    if (rows_.empty())
        return;
    std::vector<Texts> lines = {headers_of(columns_)};
    std::transform(rows_.begin(), rows_.end(), std::back_inserter(lines), texts_of);
    const auto widths = widths_of(lines);
    const auto rule = rule_of(widths);
    out << rule;
    if (with_headers)
        out << bordered(lines[0], widths) << rule;
    for (size_t i = 1; i < lines.size(); ++i)
        out << bordered(lines[i], widths);
    out << rule;
}

} // namespace velia::cli
