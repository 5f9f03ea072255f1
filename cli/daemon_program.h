// The daemon's program, where a command of the tool needs it for what only the program itself can do.
#pragma once

#include <string>
#include <vector>

namespace velia::cli {

// The one that was given, or else beside this program, where a package has it, or on PATH.
std::string daemon_program(const std::string &given = "");

struct ProgramEnd {
    int status = -1;      // its exit status; -1 for one that could not be started, with `error_number`
    int error_number = 0; // else 0
    std::string errors;   // what it said on standard error, where that was asked for
    std::string output;   // and on standard output, as far as it is text of some size
};

// Runs it with the words behind its name. It reads the line, if there is one, of which no copy is made, and then an
// end. What it says of a good end is for its caller.
enum class Errors { shown, kept };
ProgramEnd run_program(const std::string &program, std::vector<std::string> words, const char *line, Errors errors);

} // namespace velia::cli
