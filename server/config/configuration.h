// Reading the configuration file. The reader is a pure function from text to services and errors; every error is a row
// of the broker's message table with its line, so that all of them can be told at once.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include <server/config/service.h>

namespace velia::server {

enum {
    CONFIG_LINE_LENGTH_MAX = 1023,
    CONFIG_ARGUMENTS_MAX = 32,
    CONFIG_FILE_BYTES_MAX = 1 << 20,
    CONFIG_ERRORS_MAX = 100,
    CONFIG_ACCESS_LINES_MAX = 1000,
    CONFIG_TASKS_MAX = 1000,
};

struct ConfigurationError {
    int message;        // position in the broker's table
    unsigned long line; // 0: the file as a whole
    std::string detail; // for the rows that quote a word
    bool operator==(const ConfigurationError &) const = default;
};

struct ConfigurationResult {
    Configuration configuration;
    std::vector<ConfigurationError> errors;
};

// How names of users and groups become numbers; none: no such name.
struct NameLookup {
    std::function<std::optional<uid_t>(const std::string &)> user;
    std::function<std::optional<gid_t>(const std::string &)> group;
};

NameLookup system_names();

ConfigurationResult parse_configuration(std::string_view text, const NameLookup &names);

// The same for a file; what keeps it from being read is an error, too.
ConfigurationResult read_configuration(const std::string &file_name, const NameLookup &names);

// Tells what a file without errors holds, and what has become of it.
void print_configuration(const std::string &file_name, const Configuration &configuration, const char *what_became);

// Tells each error in the table's words.
void print_configuration_errors(const std::string &file_name, const std::vector<ConfigurationError> &errors);

} // namespace velia::server
