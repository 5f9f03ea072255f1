// Words that lead to no command, and the command that was probably meant.
#pragma once

#include <string>
#include <vector>

#include <cli/command.h>

namespace velia::cli {

// What is wrong with the words that name the command; empty if nothing is, or if help or nothing at all is asked for.
std::string fault_of_command(Commands commands, const std::vector<std::string> &words);

} // namespace velia::cli
