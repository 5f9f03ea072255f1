// Files of entries, one a line: read whole, or told what is wrong with them.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include <cli/json_lines.h>

namespace velia::cli {

// An entry, and where it stands.
struct NumberedEntry {
    EntryLine entry;
    uint64_t line;
};
using EntriesOfDbs = std::map<rgy_db_t, std::vector<NumberedEntry>>;

// Standard input for "-". The exit status: every bad line has been told otherwise.
int read_entry_file(const std::string &file, EntriesOfDbs &entries);

// That the system refuses something with the file.
int tell_file_trouble(const std::string &file, const char *what);

} // namespace velia::cli
