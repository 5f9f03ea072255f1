// The three forms in which every command gives its results: plain (aligned columns that awk and grep can take), json
// (one object a line) and table (with borders). None of them holds a control character of a value.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

namespace velia::cli {

enum class Format { plain, json, table };

// By its name on the command line or in VELIACTL_OUTPUT; false for another name.
bool format_of_name(const std::string &name, Format &format);

// What stands in one place of a result. What a file of commands does with cells is compiled once, in output.cpp.
class Cell {
public:
    enum class Kind { null, boolean, number, text, list };

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

    bool operator==(const Cell &other) const;

    Kind kind() const { return kind_; }
    const std::string &text() const { return text_; } // of a boolean or a number in JSON's words
    const std::vector<Cell> &list() const { return list_; }

private:
    Cell(Kind kind, std::string text);

    Kind kind_ = Kind::null;
    std::string text_;
    std::vector<Cell> list_;
};

using Cells = std::vector<Cell>;

// Rows of named columns. A cell that is null shows as "-", a list as its members with commas between.
class Results {
public:
    explicit Results(std::vector<std::string> columns);
    ~Results();

    // As many cells as there are columns.
    void add(Cells cells);
    bool empty() const { return rows_.empty(); }
    void print(Format format, bool with_headers, std::ostream &out) const;

private:
    void print_json(std::ostream &out) const;
    void print_plain(bool with_headers, std::ostream &out) const;
    void print_table(bool with_headers, std::ostream &out) const;

    std::vector<std::string> columns_;
    std::vector<Cells> rows_;
};

} // namespace velia::cli
