// A validator's name is where the words are kept: nothing else of it can be read back.
#include <cli/choices.h>

#include <algorithm>
#include <sstream>

#include <fmt/format.h>

namespace velia::cli {

namespace {

constexpr std::string_view name_head = "one of ";

} // namespace

CLI::Validator offering(const std::vector<std::string> &words,
                        const std::function<std::string(const std::string &)> &check) {
    return CLI::Validator([check](std::string &word) { return check(word); }, "",
                          fmt::format("{}{}", name_head, fmt::join(words, " ")));
}

CLI::Validator one_of(const std::vector<std::string> &words) {
    return offering(words, [words](const std::string &word) {
        return std::find(words.begin(), words.end(), word) != words.end()
                   ? ""
                   : fmt::format("'{}' is none of {}", word, fmt::join(words, ", "));
    });
}

std::vector<std::string> choices_of(CLI::Option &option) {
    std::vector<std::string> words;
    try {
        for (int index = 0;; ++index) {
            const std::string name = option.get_validator(index)->get_name();
            if (!name.starts_with(name_head))
                continue;
            std::istringstream rest(name.substr(name_head.size()));
            for (std::string word; rest >> word;)
                words.push_back(word);
        }
    } catch (const CLI::OptionNotFound &) {
        return words; // behind the last validator
    }
}

} // namespace velia::cli
