// What options are given elsewhere than on the line: in the environment, and in the user's configuration file.
#pragma once

#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include <cli/command.h>

namespace velia::cli {

struct Given {
    std::vector<std::string> values; // several for a list alone
    std::string origin;              // the variable, or file, line and key: what a fault is headed by
};

// What is wrong with a source as a whole.
struct SourceFault : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// What it gives an option of the command with this path. Throws SourceFault.
using Source = std::function<std::optional<Given>(const std::string &path, const Option &option)>;

// "--no-headers" without its hyphens: the name that a file has for it; empty for an option without a long name.
std::string key_of(const Option &option);

// VELIACTL_NO_HEADERS: one rule for all. An empty variable gives nothing, one for a list a value a line.
std::string variable_of(const Option &option);
Source environment();

// Of a file that is read when it is first asked for. One that is not there gives nothing.
Source configuration_file(const std::string &path, const std::vector<Command> &commands, const Options &common,
                          const MoreOptions &more = {});

// Where the user's is: veliactl.toml in XDG_CONFIG_HOME, or in .config of HOME; empty if neither tells.
std::string configuration_path();

} // namespace velia::cli
