// What a command's results look like, from its columns: for people in its help, for programs as a JSON Schema.
#pragma once

#include <string>

#include <cli/parser.h>

namespace velia::cli {

// A section of the help; empty for a command that has no results.
std::string help_of_results(const Command &command);

// The schema of the document that --output json prints; a line of jsonl is one of its items, or all of it.
std::string schema_of(const Command &command);

// An object that has the schema of each command by its path.
std::string schemas_of(const Program &program);

// "text", "integer or null": the words that help texts and documents have for it.
std::string words_of_type(const Column &column);

} // namespace velia::cli
