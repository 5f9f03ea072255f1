// The three forms in which every command gives its results: plain (aligned columns that awk and grep can take), json
// (one object a line) and table (with borders).
#pragma once

#include <ostream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace velia::cli {

enum class Format { plain, json, table };

// By its name on the command line or in VELIACTL_OUTPUT; false for another name.
bool format_of_name(const std::string &name, Format &format);

using Cell = nlohmann::ordered_json;

// Rows of named columns. A cell that is null shows as "-", a list as its members with commas between.
class Results {
public:
    explicit Results(std::vector<std::string> columns) : columns_(std::move(columns)) {}

    // As many cells as there are columns.
    void add(std::vector<Cell> cells);
    bool empty() const { return rows_.empty(); }
    void print(Format format, bool with_headers, std::ostream &out) const;

private:
    void print_json(std::ostream &out) const;
    void print_plain(bool with_headers, std::ostream &out) const;
    void print_table(bool with_headers, std::ostream &out) const;

    std::vector<std::string> columns_;
    std::vector<std::vector<Cell>> rows_;
};

} // namespace velia::cli
