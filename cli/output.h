// The forms in which every command gives its results: plain (aligned columns that awk and grep can take), json (one
// document), jsonl (one object a line) and table (with borders). A row is written as it comes, so that a list of any
// length takes the same memory. No form holds a control character of a value.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <ostream>
#include <span>
#include <string>
#include <vector>

namespace velia::cli {

enum class Format { plain, json, jsonl, table };
inline constexpr const char *format_names[] = {"plain", "json", "jsonl", "table"};

// By its name on the command line; false for another name.
bool format_of_name(const std::string &name, Format &format);
inline bool is_json(Format format) {
    return format == Format::json || format == Format::jsonl;
}

// What a column holds. Types are told in help texts and in the schemas that programs read.
enum class Type { text, integer, number, time, texts, items, attributes };

// In the order in which a row reads. NOLINTNEXTLINE(clang-analyzer-optin.performance.Padding)
struct Column {
    const char *name = ""; // as a member's name; headers are made of it
    Type type = Type::text;
    const char *help = "";
    bool may_be_null = false;
    const char *needs = nullptr;    // an option, without which there is no such column
    const char *sorts_as = nullptr; // another name for the order by it
    bool largest_first = false;     // in that order
};

// The results of a command: one object, or any number of them.
struct Output {
    enum class Shape { one, list };
    Shape shape = Shape::one;
    std::span<const Column> columns;
};

// What stands in one place of a result. What a file of commands does with cells is compiled once, in output.cpp.
class Cell {
public:
    enum class Kind { null, boolean, number, text, list, object };

    Cell();
    Cell(std::nullptr_t);
    Cell(bool value);
    Cell(int32_t number);
    Cell(uint32_t number);
    Cell(int64_t number);
    Cell(uint64_t number);
    Cell(const char *text);
    Cell(std::string text);
    Cell(std::vector<Cell> list);
    Cell(const Cell &other);
    Cell(Cell &&other) noexcept;
    Cell &operator=(const Cell &other);
    Cell &operator=(Cell &&other) noexcept;
    ~Cell();

    // To three decimals, without zeros behind them but one.
    static Cell milliseconds(double value);

    // A text that JSON has in other words than people have.
    static Cell told(std::string to_programs, std::string to_people);

    // Members in their order, as many names as values. People are shown "name=value" with commas between, or `shown` if
    // that is not empty; JSON has no hyphen before a name, and a list where a name comes again.
    static Cell object(std::vector<std::string> names, std::vector<Cell> values, std::string shown = "");

    bool operator==(const Cell &other) const;

    Kind kind() const { return kind_; }
    const std::string &text() const { return text_; } // of a boolean or a number in JSON's words
    const std::string &shown() const { return shown_; }
    const std::vector<Cell> &list() const { return list_; } // also of an object's members
    const std::vector<std::string> &names() const { return names_; }

private:
    Cell(Kind kind, std::string text);

    Kind kind_ = Kind::null;
    std::string text_;
    std::string shown_; // to people, in place of the text; empty for the same
    std::vector<Cell> list_;
    std::vector<std::string> names_;
};

using Cells = std::vector<Cell>;

// 2026-11-21T23:01:05+01:00, and what people are shown of it. A time of none is null.
Cell time_cell(time_t time, const char *shown);
std::string iso_time(const tm &parts, int minutes_east);

// A text as JSON has it, in its quotes.
std::string json_text(const std::string &text);

// Writes rows of named columns. A cell that is null shows as "-", a list as its members with commas between. In plain
// and table a value with a blank or a double quote, in a list also with a comma, as an item also with an equal sign,
// stands in double quotes.
class Writer {
public:
    // Aligned columns are as wide as these rows need, or as those of the first second.
    static constexpr size_t measured_rows = 100;
    static constexpr std::chrono::seconds measured_time{1};

    Writer(const Output &output, Format format, bool with_headers, std::ostream &out);
    ~Writer();

    // As many cells as there are columns.
    void add(const Cells &cells);
    bool empty() const { return row_count_ == 0; }

    // Whether all that was added has been written; if not, it is by show_all.
    bool is_all_shown() const { return held_.empty(); }
    void show_all();

    // Nothing more comes, and nothing is missing. Without this a document is not closed, so that it is seen to be none.
    void finish();

    // Nothing more comes, though something is missing.
    void break_off();

private:
    using Texts = std::vector<std::string>;

    void add_json(const Cells &cells);
    void add_line(const Cells &cells);
    void write_head();
    void write_line(const Texts &line);

    Output output_;
    Format format_;
    bool with_headers_;
    std::ostream &out_;
    size_t row_count_ = 0;
    bool has_head_ = false;
    std::vector<Texts> held_; // until the widths are known
    std::chrono::steady_clock::time_point first_held_;
    std::vector<size_t> widths_;
};

} // namespace velia::cli
