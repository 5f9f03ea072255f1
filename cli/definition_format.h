// Files of jobs in the form that the library's printer writes: the order of lines, indentation, spelling of tags and
// values. Comments stay in front of the line that they stood before.
#pragma once

#include <string>
#include <vector>

#include <cli/definitions.h>

namespace velia::cli {

// The text of a file that was read, formatted; it means the same jobs. Empty, with a finding, where that cannot be.
std::string formatted(const JobFile &file, Findings &findings);

// Every tag that a line of a job may begin with, as it is spelled.
std::vector<std::string> definition_tags();

} // namespace velia::cli
