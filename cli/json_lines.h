// Entries of the registry as lines of JSON, and read again: {"db":"regions","id":7,"items":{"name":"east"}}.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <veliaxdr/rgy_entry.h>

namespace velia::cli {

struct EntryLine {
    rgy_db_t db = 0;
    uint64_t id = 0; // 0: it has none
    std::string flex_text;
};

struct EntryItem {
    std::string name; // without its hyphen
    std::vector<std::string> values;
};

// In the order in which they stand first; nothing for what is no entry.
std::optional<std::vector<EntryItem>> entry_items(const std::string &flex_text);

// Without a line feed. An item that comes again has a list of its values. A text that JSON cannot hold as it is, since
// it is no UTF-8, or has items of no known name, stands as "bytes" in hexadecimal digits.
std::string line_of(const EntryLine &entry);

// Nothing, and what is wrong with the line.
std::optional<EntryLine> entry_of_line(const std::string &line, std::string &why);

} // namespace velia::cli
