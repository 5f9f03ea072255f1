// Cells and the output forms. Nothing else of the program knows how JSON is written.
#include <cli/output.h>

#include <algorithm>
#include <cctype>
#include <iterator>
#include <stdexcept>

#include <fmt/core.h>
#include <nlohmann/json.hpp>

#include <cli/text.h>

namespace velia::cli {

namespace {

using Texts = std::vector<std::string>;

// JSON leaves DEL and the control characters U+0080 to U+009F as they are; a terminal may obey those, too.
std::string without_controls(const std::string &json) {
    std::string text;
    for (size_t i = 0; i < json.size(); ++i) {
        const auto byte = static_cast<unsigned char>(json[i]);
        const auto next = static_cast<unsigned char>(i + 1 < json.size() ? json[i + 1] : 0);
        if (byte == 0x7f)
            text += "\\u007f";
        else if (byte == 0xc2 && next < 0xa0)
            text += fmt::format("\\u{:04x}", static_cast<unsigned char>(json[++i]));
        else
            text += json[i];
    }
    return text;
}

// Bytes that are no UTF-8 become the sign for what cannot be shown, so that it is JSON all the same.
std::string quoted(const std::string &text) {
    return without_controls(nlohmann::json(text).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
}

std::string json_of_list(const Cells &list);

std::string json_of(const Cell &cell) {
    switch (cell.kind()) {
    case Cell::Kind::boolean:
    case Cell::Kind::number:
        return cell.text();
    case Cell::Kind::text:
        return quoted(cell.text());
    case Cell::Kind::list:
        return json_of_list(cell.list());
    default:
        return "null";
    }
}

std::string json_of_list(const Cells &list) {
    std::string members;
    for (const auto &member : list)
        members += (members.empty() ? "" : ",") + json_of(member);
    return "[" + members + "]";
}

std::string text_of_list(const Cells &list);

std::string text_of(const Cell &cell) {
    switch (cell.kind()) {
    case Cell::Kind::boolean:
    case Cell::Kind::number:
    case Cell::Kind::text:
        return cell.text().empty() ? "-" : escaped(cell.text());
    case Cell::Kind::list:
        return text_of_list(cell.list());
    default:
        return "-";
    }
}

std::string text_of_list(const Cells &list) {
    std::string joined;
    for (const auto &member : list)
        joined += (joined.empty() ? "" : ",") + text_of(member);
    return joined.empty() ? "-" : joined;
}

Texts texts_of(const Cells &cells) {
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
            widths[i] = std::max(widths[i], width_of(line[i]));
    }
    return widths;
}

std::string rule_of(const std::vector<size_t> &widths) {
    std::string rule = "+";
    for (const size_t width : widths)
        rule += std::string(width + 2, '-') + "+";
    return rule + "\n";
}

// With blanks up to the width.
std::string padded(const std::string &text, size_t width) {
    return text + std::string(width - width_of(text), ' ');
}

std::string bordered(const Texts &line, const std::vector<size_t> &widths) {
    std::string text = "|";
    for (size_t i = 0; i < line.size(); ++i)
        text += " " + padded(line[i], widths[i]) + " |";
    return text + "\n";
}

} // namespace

Cell::Cell(Kind kind, std::string text) : kind_(kind), text_(std::move(text)) {}
Cell::Cell() = default;
Cell::Cell(std::nullptr_t) {}
Cell::Cell(bool value) : Cell(Kind::boolean, value ? "true" : "false") {}
Cell::Cell(int32_t number) : Cell(Kind::number, std::to_string(number)) {}
Cell::Cell(uint32_t number) : Cell(Kind::number, std::to_string(number)) {}
Cell::Cell(int64_t number) : Cell(Kind::number, std::to_string(number)) {}
Cell::Cell(uint64_t number) : Cell(Kind::number, std::to_string(number)) {}
Cell::Cell(const char *text) : Cell(Kind::text, text) {}
Cell::Cell(std::string text) : Cell(Kind::text, std::move(text)) {}
Cell::Cell(std::vector<Cell> list) : kind_(Kind::list), list_(std::move(list)) {}
Cell::Cell(const Cell &other) = default;
Cell::Cell(Cell &&other) noexcept = default;
Cell &Cell::operator=(const Cell &other) = default;
Cell &Cell::operator=(Cell &&other) noexcept = default;
Cell::~Cell() = default;

bool Cell::operator==(const Cell &other) const {
    return kind_ == other.kind_ && text_ == other.text_ && list_ == other.list_;
}

Cell Cell::milliseconds(double value) {
    std::string text = fmt::format("{:.3f}", value);
    text.erase(std::max(text.find_last_not_of('0'), text.find('.') + 1) + 1);
    return {Kind::number, text};
}

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

Results::Results(std::vector<std::string> columns) : columns_(std::move(columns)) {}
Results::~Results() = default;

void Results::add(Cells cells) {
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
        std::string members;
        for (size_t i = 0; i < columns_.size(); ++i)
            members += (i == 0 ? "" : ",") + quoted(columns_[i]) + ":" + json_of(row[i]);
        out << "{" << members << "}\n";
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
            text += padded(line[i], widths[i]) + "  ";
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
