// Only the words that lead to a command are looked at here; what stands behind them is the parser's.
#include <cli/misspelling.h>

#include <algorithm>
#include <numeric>

#include <cli/parser.h>

namespace velia::cli {

namespace {

// How many letters have to be put in, left out or replaced.
size_t distance(const std::string &from, const std::string &to) {
    std::vector<size_t> row(to.size() + 1); // to each beginning of `to`
    std::iota(row.begin(), row.end(), size_t{0});
    for (size_t i = 0; i < from.size(); ++i) {
        size_t diagonal = row[0];
        row[0] = i + 1;
        for (size_t j = 0; j < to.size(); ++j) {
            const size_t replaced = diagonal + (from[i] == to[j] ? 0 : 1);
            diagonal = row[j + 1];
            row[j + 1] = std::min({replaced, row[j] + 1, row[j + 1] + 1});
        }
    }
    return row.back();
}

// Empty when more than half of the letters would have to change for each of them.
std::string nearest(const std::string &word, const std::vector<std::string> &names) {
    std::string best;
    size_t least = (word.size() + 1) / 2 + 1; // two neighbours exchanged count twice
    for (const auto &name : names)
        if (const size_t steps = distance(word, name); steps < least) {
            least = steps;
            best = name;
        }
    return best;
}

std::string fault_of_word(Commands commands, const std::string &group, const std::string &word) {
    std::vector<std::string> names;
    for (const auto &command : commands)
        if (const auto path = group_and_name(command); path.group == group && !command.is_hidden)
            names.push_back(path.name);
    const std::string before = group.empty() ? "" : group + " ";
    const std::string meant = nearest(word, names);
    return "There is no command '" + before + word + "'" +
           (meant.empty() ? "" : "; did you mean '" + before + meant + "'?");
}

bool asks_for_help(const std::string &word) {
    for (const auto &option : {help_option, version_option})
        for (const auto &name : names_of(option))
            if (word == name)
                return true;
    return false;
}

// The option's value is the next word.
bool awaits_value(const Options &options, const std::string &word) {
    for (const auto &option : options)
        for (const auto &name : names_of(option))
            if (word == name)
                return !is_switch(option);
    return false;
}

} // namespace

std::string fault_of_command(const Program &program, const std::vector<std::string> &words) {
    const Commands commands = program.commands;
    std::string group;
    for (size_t i = 0; i < words.size(); ++i) {
        const std::string &word = words[i];
        if (asks_for_help(word))
            return "";
        if (word.starts_with('-')) {
            i += awaits_value(program.common, word) ? 1 : 0;
            continue;
        }
        std::string path = group;
        path += (group.empty() ? "" : " ") + word;
        const auto found = std::find_if(commands.begin(), commands.end(),
                                        [&](const Command &command) { return command.path == path; });
        if (found == commands.end())
            return fault_of_word(commands, group, word);
        if (found->make != nullptr)
            return "";
        group = path;
    }
    return "";
}

} // namespace velia::cli
