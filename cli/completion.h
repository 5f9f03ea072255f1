// Scripts that complete the words of a command line in a shell, made from the tree of commands.
#pragma once

#include <string>
#include <vector>

#include <cli/command_tree.h>

namespace velia::cli {

std::string bash_script(const std::vector<CommandWords> &commands);
std::string zsh_script(const std::vector<CommandWords> &commands);
std::string fish_script(const std::vector<CommandWords> &commands);

// How the scripts name what may stand somewhere; null for what they offer nothing for.
const char *word_of_kind(Value::Kind kind);

// A shell may be handed it as a word: a host can tell any name for itself, and shells expand what they are offered.
bool is_safe_word(const std::string &word);

} // namespace velia::cli
