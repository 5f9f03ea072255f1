// The same rows that the parser works from, so that no list of commands has to be kept beside them.
#include <cli/command_tree.h>

#include <cstring>

namespace velia::cli {

namespace {

// The name under which an option's value goes says what may stand there.
Value value_of(const Option &option) {
    const char *name = option.is_place() ? option.name : option.type;
    if (is_switch(option))
        return {};
    if (!option.words.empty())
        return {Value::Kind::words, {option.words.begin(), option.words.end()}};
    if (!option.beginnings.empty())
        return {Value::Kind::beginnings, {option.beginnings.begin(), option.beginnings.end()}};
    if (strcmp(name, "HOST") == 0 || strcmp(name, "OTHER_HOST") == 0)
        return {Value::Kind::hosts, {}};
    return {strcmp(name, "FILE") == 0 ? Value::Kind::files : Value::Kind::anything, {}};
}

void add_option(const Option &option, CommandWords &command) {
    if (option.is_place()) {
        command.positionals.push_back(value_of(option));
        command.repeats_last = std::holds_alternative<std::vector<std::string> *>(option.target);
    } else {
        command.options.push_back({names_of(option), option.help, value_of(option)});
    }
}

// Those of which one is to be chosen stand behind the others, as in the help.
void add_options(const Options &options, CommandWords &command) {
    for (const bool is_choice : {false, true})
        for (const auto &option : options)
            if ((option.one_of != nullptr) == is_choice)
                add_option(option, command);
}

CommandWords words_of_command(const Command &row, const Program &program) {
    CommandWords command;
    command.path = row.path;
    Options options = {help_option};
    if (row.make != nullptr) {
        const auto call = row.make();
        const Options own = call->options();
        options = joined({options, own, common_options_of(row, own, program.common, program.more),
                          row.output != nullptr ? Options{schema_option} : Options()});
    }
    add_options(options, command);
    return command;
}

CommandWords words_of_root(const Options &common) {
    CommandWords root;
    add_options(joined({{help_option, version_option}, common, {schema_option}}), root);
    return root;
}

CommandWords &command_of_path(std::vector<CommandWords> &commands, const std::string &path) {
    for (auto &command : commands)
        if (command.path == path)
            return command;
    return commands.front();
}

} // namespace

std::vector<CommandWords> words_of_program(const Program &program) {
    std::vector<CommandWords> commands = {words_of_root(program.common)};
    for (const auto &row : program.commands) {
        if (row.is_hidden)
            continue;
        const auto [group, name] = group_and_name(row);
        command_of_path(commands, group).subcommands.push_back({name, row.help});
        commands.push_back(words_of_command(row, program));
    }
    return commands;
}

} // namespace velia::cli
