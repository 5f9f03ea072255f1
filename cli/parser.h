// A command line taken apart by the rows of the commands. What stands behind this is the one place that knows the
// parser's library.
#pragma once

#include <ostream>
#include <string>
#include <vector>

#include <cli/command.h>
#include <cli/given.h>
#include <cli/wrap.h>

namespace velia::cli {

// What the parser answers by itself: the first of every command, the other of the program.
inline constexpr Option help_option = {.name = "-h,--help", .help = "Print this help message and exit"};
inline constexpr Option version_option = {.name = "--version", .help = "Display program version information and exit"};

inline constexpr Option schema_option = {.name = "--schema", .help = "Print the JSON Schema of the results and exit"};

struct Program {
    const char *name = "";
    const char *help = "";
    std::string version;
    std::vector<Command> commands;
    Options common; // in front of a command, or behind one that has them
    size_t help_width = help_width_usual;
    std::vector<Source> sources = {}; // of options that the line does not give; the first that knows decides
    MoreOptions more = {};            // behind a command
};

// All that a command takes besides its own, which are given.
Options common_options_of(const Command &row, const Options &own, const Options &common, const MoreOptions &more);

// What is said of a line that is wrong.
std::string failure_text(const std::string &program, const std::string &fault);

// What becomes of a line.
struct Line {
    std::unique_ptr<Call> call;     // to be run; null if all has been said
    int status = exit_done;         // then
    std::string fault;              // what is wrong with the line, without the words around it
    const Output *output = nullptr; // of the call
};

// The words behind the program's name. Help goes to `out`, what is wrong with the line to `errors`.
Line parse(const Program &program, const std::vector<std::string> &words, std::ostream &out, std::ostream &errors);

} // namespace velia::cli
