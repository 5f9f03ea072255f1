// The script for fish: the same two tables and the same walk through them as in the other shells. What it offers it
// prints with a help text behind a tab, and fish itself looks what begins like the word.
#include <cli/completion.h>

#include <fmt/core.h>

namespace velia::cli {

namespace {

using Texts = std::vector<std::string>;

constexpr const char *head = R"(# Completion of veliactl for fish, made by "veliactl completion fish".
)";
constexpr const char *engine = R"(
function __veliactl
    set -l typed (commandline -opc)
    set -l current (commandline -ct)
    set -l command ''
    set -l awaited ''
    set -l begun ''
    set -l place 0
    __veliactl_command ''
    for word in $typed[2..]
        if test -n "$awaited"
            set awaited ''
        else if string match -q -- '-*' $word
            if contains -- $word (string replace -r '\t.*' '' -- $__veliactl_valued)
                set awaited $word
            end
        else if contains -- $word (string replace -r '\t.*' '' -- $__veliactl_below)
            set command (string trim -- "$command $word")
            set place 0
            __veliactl_command $command
        else
            set place (math $place + 1)
        end
    end
    if test -z "$awaited"; and string match -q -- '--*=*' $current
        set awaited (string replace -r '=.*' '' -- $current)
        set begun $awaited=
    end
    if test -n "$awaited"
        __veliactl_value "$command|$awaited"
    else if string match -q -- '-*' $current
        printf '%s\n' $__veliactl_valued $__veliactl_flags
        return
    else if set -q __veliactl_below[1]
        printf '%s\n' $__veliactl_below
        return
    else
        if test $place -lt $__veliactl_places
            set place (math $place + 1)
        else
            set place (math $__veliactl_repeats '*' $__veliactl_places)
        end
        __veliactl_value "$command|$place"
    end
    switch $__veliactl_kind
        case files
            __fish_complete_path (string replace -- "$begun" '' $current)
        case hosts
            printf "$begun%s\n" (__fish_print_hostnames) (veliactl complete-words hosts 2>/dev/null)
        case words beginnings
            printf "$begun%s\n" $__veliactl_offered
        case '*'
            test -n "$awaited"; or printf '%s\n' $__veliactl_valued $__veliactl_flags
    end
end

complete -c veliactl -f -a '(__veliactl)'
)";

std::string quoted(const std::string &text) {
    std::string result = "'";
    for (const char c : text)
        result += c == '\'' || c == '\\' ? std::string("\\") + c : std::string(1, c);
    return result + "'";
}

// A word and its help with a tab between, as many as there are.
std::string described(const Texts &words, const Texts &helps) {
    std::string list;
    for (size_t i = 0; i < words.size(); ++i)
        list += fmt::format(" {}\\t{}", quoted(words[i]), quoted(helps[i]));
    return list;
}

std::string subcommands_of(const CommandWords &command) {
    Texts words;
    Texts helps;
    for (const auto &subcommand : command.subcommands) {
        words.push_back(subcommand.name);
        helps.push_back(subcommand.help);
    }
    return described(words, helps);
}

std::string options_of(const CommandWords &command, bool takes_value) {
    Texts words;
    Texts helps;
    for (const auto &option : command.options)
        for (const auto &name : option.names)
            if ((option.value.kind != Value::Kind::none) == takes_value) {
                words.push_back(name);
                helps.push_back(option.help);
            }
    return described(words, helps);
}

std::string command_cases(const std::vector<CommandWords> &commands) {
    std::string cases;
    for (const auto &command : commands)
        cases += fmt::format("        case {}\n            set -g __veliactl_below{}\n            set -g "
                             "__veliactl_valued{}\n            set -g __veliactl_flags{}\n            set -g "
                             "__veliactl_places {}\n            set -g __veliactl_repeats {}\n",
                             quoted(command.path), subcommands_of(command), options_of(command, true),
                             options_of(command, false), command.positionals.size(), command.repeats_last ? 1 : 0);
    return fmt::format("\n# What may follow a command.\nfunction __veliactl_command\n    switch \"$argv[1]\"\n{}    "
                       "end\nend\n",
                       cases);
}

std::string value_case(const std::string &command, const Texts &names, const Value &value) {
    const char *kind = word_of_kind(value.kind);
    if (kind == nullptr)
        return "";
    std::string patterns;
    for (const auto &name : names)
        patterns += fmt::format(" {}", quoted(fmt::format("{}|{}", command, name)));
    std::string words;
    for (const auto &word : value.words)
        words += " " + quoted(word);
    return fmt::format(
        "        case{}\n            set -g __veliactl_kind {}\n            set -g __veliactl_offered{}\n", patterns,
        kind, words);
}

std::string value_cases(const std::vector<CommandWords> &commands) {
    std::string cases;
    for (const auto &command : commands) {
        for (const auto &option : command.options)
            cases += value_case(command.path, option.names, option.value);
        for (size_t i = 0; i < command.positionals.size(); ++i)
            cases += value_case(command.path, {std::to_string(i + 1)}, command.positionals[i]);
    }
    return fmt::format("\n# What may stand as the value of an option, or at a place behind a command.\nfunction "
                       "__veliactl_value\n    set -g __veliactl_kind ''\n    set -g __veliactl_offered\n    switch "
                       "\"$argv[1]\"\n{}    end\nend\n",
                       cases);
}

} // namespace

std::string fish_script(const std::vector<CommandWords> &commands) {
    return head + command_cases(commands) + value_cases(commands) + engine;
}

} // namespace velia::cli
