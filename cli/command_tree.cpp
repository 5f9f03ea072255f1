// Reads the parser's own tree, so that no list of commands has to be kept beside it.
#include <cli/command_tree.h>

#include <cli/choices.h>

namespace velia::cli {

namespace {

// The name under which an option's value goes says what may stand there.
Value value_of(CLI::Option &option, const std::string &name) {
    if (option.get_items_expected_max() == 0)
        return {};
    const auto words = choices_of(option);
    if (!words.empty())
        return {Value::Kind::words, words};
    if (name == "HOST")
        return {Value::Kind::hosts, {}};
    return {name == "FILE" ? Value::Kind::files : Value::Kind::anything, {}};
}

std::string first_line(const std::string &text) {
    return text.substr(0, text.find('\n'));
}

OptionWords words_of_option(CLI::Option &option) {
    OptionWords words;
    for (const auto &name : option.get_snames())
        words.names.push_back("-" + name);
    for (const auto &name : option.get_lnames())
        words.names.push_back("--" + name);
    words.help = first_line(option.get_description());
    words.value = value_of(option, option.get_type_name());
    return words;
}

// The options of a group of options are those of the command that it is in, but for its own --help.
void add_options(CLI::App &app, CommandWords &command) {
    for (CLI::Option *option : app.get_options([](CLI::Option *) { return true; })) {
        const bool is_of_group = app.get_name().empty() && option == app.get_help_ptr();
        if (is_of_group || option->get_group().empty())
            continue;
        if (!option->get_positional()) {
            command.options.push_back(words_of_option(*option));
            continue;
        }
        command.positionals.push_back(value_of(*option, option->get_name(true)));
        command.repeats_last = option->get_items_expected_max() > 1;
    }
    for (CLI::App *below : app.get_subcommands([](CLI::App *) { return true; }))
        if (below->get_name().empty())
            add_options(*below, command);
}

void add_command(CLI::App &app, const std::string &path, std::vector<CommandWords> &commands) {
    CommandWords command;
    command.path = path;
    add_options(app, command);
    const auto subcommands =
        app.get_subcommands([](CLI::App *below) { return !below->get_name().empty() && !below->get_group().empty(); });
    for (CLI::App *below : subcommands)
        command.subcommands.push_back({below->get_name(), first_line(below->get_description())});
    commands.push_back(std::move(command));
    for (CLI::App *below : subcommands)
        add_command(*below, path.empty() ? below->get_name() : path + " " + below->get_name(), commands);
}

} // namespace

std::vector<CommandWords> words_of_tree(CLI::App &app) {
    std::vector<CommandWords> commands;
    add_command(app, "", commands);
    return commands;
}

} // namespace velia::cli
