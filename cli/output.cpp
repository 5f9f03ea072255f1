// Cells and the output forms. Nothing else of the program knows how JSON is written.
#include <cli/output.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
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

std::string json_of(const Cell &cell);

std::string json_of_list(const Cells &list) {
    std::string members;
    for (const auto &member : list)
        members += (members.empty() ? "" : ",") + json_of(member);
    return "[" + members + "]";
}

std::string name_in_json(const std::string &name) {
    return name.starts_with('-') ? name.substr(1) : name;
}

// The values of each name where it first comes.
std::string json_of_object(const Cell &object) {
    const auto &names = object.names();
    std::string members;
    for (size_t i = 0; i < names.size(); ++i) {
        if (std::find(names.begin(), names.begin() + static_cast<ptrdiff_t>(i), names[i]) !=
            names.begin() + static_cast<ptrdiff_t>(i))
            continue;
        Cells values;
        for (size_t k = i; k < names.size(); ++k)
            if (names[k] == names[i])
                values.push_back(object.list()[k]);
        members += (members.empty() ? "" : ",") + json_text(name_in_json(names[i])) + ":" +
                   (values.size() == 1 ? json_of(values[0]) : json_of_list(values));
    }
    return "{" + members + "}";
}

std::string json_of(const Cell &cell) {
    switch (cell.kind()) {
    case Cell::Kind::boolean:
    case Cell::Kind::number:
        return cell.text();
    case Cell::Kind::text:
        return json_text(cell.text());
    case Cell::Kind::list:
        return json_of_list(cell.list());
    case Cell::Kind::object:
        return json_of_object(cell);
    default:
        return "null";
    }
}

// What would end a value where it stands.
constexpr const char *ends_of_value = " \"";
constexpr const char *ends_in_list = " \",";
constexpr const char *ends_in_item = " \",=";

// The dash stands for what is not there.
std::string text_of_value(const std::string &value, const char *ends) {
    if (value.empty())
        return "-";
    std::string text = escaped(value);
    if (value != "-" && value.find_first_of(ends) == std::string::npos)
        return text;
    std::string quoted;
    for (const char c : text)
        quoted += c == '"' ? std::string("\\\"") : std::string(1, c);
    return "\"" + quoted + "\"";
}

std::string text_of(const Cell &cell, const char *ends = ends_of_value);

std::string text_of_members(const Cell &cell) {
    std::string joined;
    for (size_t i = 0; i < cell.list().size(); ++i) {
        const bool is_item = !cell.names().empty();
        joined += joined.empty() ? "" : ",";
        joined += is_item ? cell.names()[i] + "=" : "";
        joined += text_of(cell.list()[i], is_item ? ends_in_item : ends_in_list);
    }
    return joined.empty() ? "-" : joined;
}

std::string text_of(const Cell &cell, const char *ends) {
    if (!cell.shown().empty())
        return text_of_value(cell.shown(), ends);
    switch (cell.kind()) {
    case Cell::Kind::boolean:
    case Cell::Kind::number:
    case Cell::Kind::text:
        return text_of_value(cell.text(), ends);
    case Cell::Kind::list:
    case Cell::Kind::object:
        return text_of_members(cell);
    default:
        return "-";
    }
}

Texts headers_of(std::span<const Column> columns) {
    Texts headers;
    for (const auto &column : columns) {
        std::string header;
        for (const char c : std::string(column.name))
            header += c == '_' ? '-' : static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
        headers.push_back(header);
    }
    return headers;
}

void widen(std::vector<size_t> &widths, const Texts &line) {
    widths.resize(std::max(widths.size(), line.size()));
    for (size_t i = 0; i < line.size(); ++i)
        widths[i] = std::max(widths[i], width_of(line[i]));
}

std::string rule_of(const std::vector<size_t> &widths) {
    std::string rule = "+";
    for (const size_t width : widths)
        rule += std::string(width + 2, '-') + "+";
    return rule + "\n";
}

// With blanks up to the width; a text that came too late to be measured may be wider.
std::string padded(const std::string &text, size_t width) {
    return text + std::string(width - std::min(width_of(text), width), ' ');
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
    return kind_ == other.kind_ && text_ == other.text_ && list_ == other.list_ && names_ == other.names_;
}

Cell Cell::milliseconds(double value) {
    std::string text = fmt::format("{:.3f}", value);
    text.erase(std::max(text.find_last_not_of('0'), text.find('.') + 1) + 1);
    return {Kind::number, text};
}

Cell Cell::told(std::string to_programs, std::string to_people) {
    Cell cell(std::move(to_programs));
    cell.shown_ = std::move(to_people);
    return cell;
}

Cell Cell::object(std::vector<std::string> names, std::vector<Cell> values, std::string shown) {
    Cell cell(Kind::object, "");
    cell.names_ = std::move(names);
    cell.list_ = std::move(values);
    cell.shown_ = std::move(shown);
    return cell;
}

std::string iso_time(const tm &parts, int minutes_east) {
    return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}{}{:02}:{:02}", parts.tm_year + 1900, parts.tm_mon + 1,
                       parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec, minutes_east < 0 ? '-' : '+',
                       std::abs(minutes_east) / 60, std::abs(minutes_east) % 60);
}

Cell time_cell(time_t time, const char *shown) {
    tm parts = {};
    if (time == 0 || localtime_r(&time, &parts) == nullptr)
        return {};
    return Cell::told(iso_time(parts, static_cast<int>(parts.tm_gmtoff / 60)), shown);
}

// Bytes that are no UTF-8 become the sign for what cannot be shown, so that it is JSON all the same.
std::string json_text(const std::string &text) {
    if (is_simple(text))
        return "\"" + text + "\"";
    return without_controls(nlohmann::json(text).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
}

bool format_of_name(const std::string &name, Format &format) {
    const auto found = std::find(std::begin(format_names), std::end(format_names), name);
    if (found == std::end(format_names))
        return false;
    format = static_cast<Format>(found - std::begin(format_names));
    return true;
}

Writer::Writer(const Output &output, Format format, bool with_headers, std::ostream &out)
    : output_(output), format_(format), with_headers_(with_headers), out_(out) {}
Writer::~Writer() = default;

void Writer::add(const Cells &cells) {
    if (cells.size() != output_.columns.size())
        throw std::logic_error("a row has another number of cells than there are columns");
    is_json(format_) ? add_json(cells) : add_line(cells);
    ++row_count_;
}

void Writer::add_json(const Cells &cells) {
    std::string members;
    for (size_t i = 0; i < cells.size(); ++i)
        members += (i == 0 ? "" : ",") + json_text(output_.columns[i].name) + ":" + json_of(cells[i]);
    if (format_ == Format::json && output_.shape == Output::Shape::list)
        out_ << (row_count_ == 0 ? "[\n" : ",\n") << "{" << members << "}";
    else
        out_ << "{" << members << "}\n";
}

void Writer::add_line(const Cells &cells) {
    Texts line;
    std::transform(cells.begin(), cells.end(), std::back_inserter(line),
                   [](const Cell &cell) { return text_of(cell); });
    if (has_head_)
        return write_line(line);
    const auto now = std::chrono::steady_clock::now();
    if (held_.empty())
        first_held_ = now;
    held_.push_back(std::move(line));
    if (held_.size() == measured_rows || now - first_held_ >= measured_time)
        show_all();
}

void Writer::show_all() {
    if (held_.empty())
        return;
    write_head();
    for (const auto &line : held_)
        write_line(line);
    held_.clear();
}

void Writer::write_head() {
    const Texts headers = headers_of(output_.columns);
    if (with_headers_ || format_ == Format::table)
        widen(widths_, headers);
    for (const auto &line : held_)
        widen(widths_, line);
    has_head_ = true;
    if (format_ == Format::table)
        out_ << rule_of(widths_);
    if (with_headers_)
        write_line(headers);
    if (with_headers_ && format_ == Format::table)
        out_ << rule_of(widths_);
}

void Writer::write_line(const Texts &line) {
    if (format_ == Format::table) {
        out_ << bordered(line, widths_);
        return;
    }
    std::string text;
    // The last column ends its line without blanks behind it.
    for (size_t i = 0; i + 1 < line.size(); ++i)
        text += padded(line[i], widths_[i]) + "  ";
    out_ << text << line.back() << '\n';
}

void Writer::finish() {
    show_all();
    if (format_ == Format::json && output_.shape == Output::Shape::list)
        out_ << (empty() ? "[]\n" : "\n]\n");
    if (format_ == Format::table && !empty())
        out_ << rule_of(widths_);
}

void Writer::break_off() {
    show_all();
    if (format_ == Format::json && output_.shape == Output::Shape::list && !empty())
        out_ << "\n";
}

} // namespace velia::cli
