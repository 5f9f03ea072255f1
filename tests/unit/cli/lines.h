// Command lines as a test gives them to the parser.
#pragma once

#include <sstream>
#include <string>
#include <vector>

#include <cli/parser.h>

namespace velia::cli::test {

// What a line brings forth before its command is run.
struct Parsed {
    std::unique_ptr<Call> call;
    int status = exit_done;
    std::string output;
    std::string errors;
};

inline Parsed parsed(const Program &program, const std::vector<std::string> &words) {
    std::ostringstream out;
    std::ostringstream errors;
    Line line = parse(program, words, out, errors);
    return {std::move(line.call), line.status, out.str(), errors.str()};
}

inline std::string help_of(const Program &program, std::vector<std::string> words) {
    words.emplace_back("--help");
    return parsed(program, words).output;
}

} // namespace velia::cli::test
