// The words of one line of the configuration file.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace velia::server {

struct Words {
    std::vector<std::string> words;
    const char *error = nullptr; // what is wrong with the line, or null
};

// Splits at blanks and tabs. "..." makes one word of what it encloses, with \" and \\ inside; "#" where a word would
// begin starts a comment.
Words split_words(std::string_view line);

} // namespace velia::server
