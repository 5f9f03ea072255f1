// The commands as a flat list of words that can be written into a shell's script.
#pragma once

#include <string>
#include <vector>

#include <cli/parser.h>

namespace velia::cli {

// What may stand where a value is wanted.
struct Value {
    enum class Kind { none, anything, words, beginnings, files, hosts };
    Kind kind = Kind::none;
    std::vector<std::string> words; // of Kind::words and Kind::beginnings
};

struct OptionWords {
    std::vector<std::string> names; // as typed: "-o", "--output"
    std::string help;
    Value value;
};

struct Subcommand {
    std::string name;
    std::string help;
};

struct CommandWords {
    std::string path; // the words that lead to it, with blanks between; empty for the program itself
    std::vector<Subcommand> subcommands;
    std::vector<OptionWords> options;
    std::vector<Value> positionals;
    bool repeats_last = false; // the last positional may be given again and again
};

// The program and all its commands, with the common options and those that the parser answers by itself.
std::vector<CommandWords> words_of_program(const Program &program);

} // namespace velia::cli
