// Words that lead to no command, and the command that was probably meant.
#pragma once

#include <string>
#include <vector>

#include <cli/parser.h>

namespace velia::cli {

// What is wrong with the words that name the command; empty if nothing is, or if help or nothing at all is asked for.
std::string fault_of_command(const Program &program, const std::vector<std::string> &words);

} // namespace velia::cli
