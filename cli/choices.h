// Words of which one must be given. The checks of an option carry them, so that what is checked, what is told in an
// error and what a shell completes are one list.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

namespace velia::cli {

CLI::Validator one_of(const std::vector<std::string> &words);

// As above, for an option that takes other words, too.
CLI::Validator offering(const std::vector<std::string> &words,
                        const std::function<std::string(const std::string &)> &check);

// The words that an option offers; none if it takes anything.
std::vector<std::string> choices_of(CLI::Option &option);

} // namespace velia::cli
