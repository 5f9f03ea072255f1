// Help texts for a terminal of some width.
#pragma once

#include <cstddef>
#include <string>

namespace velia::cli {

constexpr size_t help_width_usual = 80; // where there is no terminal
constexpr size_t help_width_least = 40; // a narrower terminal breaks lines by itself

// Lines that are too long are broken at blanks, and go on below what they describe. A line of the examples goes on
// behind a backslash, so that it can be pasted into a shell; what is in quotes there is never broken.
std::string wrapped(const std::string &help, size_t width);

// The lines of each paragraph made one.
std::string refilled(const std::string &text);

} // namespace velia::cli
