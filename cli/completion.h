// Scripts that complete the words of a command line in a shell, made from the tree of commands.
#pragma once

#include <string>
#include <vector>

#include <cli/command_tree.h>

namespace velia::cli {

std::string bash_script(const std::vector<CommandWords> &commands);
std::string zsh_script(const std::vector<CommandWords> &commands);

} // namespace velia::cli
