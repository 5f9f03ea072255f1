// Rows made into what the parser's library wants. That library is large and its templates dear, so no other file of the
// program includes it.
#include <cli/parser.h>

#include <algorithm>
#include <map>
#include <sstream>

#include <CLI/CLI.hpp>

#include <cli/misspelling.h>
#include <cli/schema.h>

namespace velia::cli {

namespace {

constexpr const char *exit_status_help = "Exit status: 0 done, 1 failed, 2 wrong use, 3 peer unreachable.\n"
                                         "Results go to standard output, messages to standard error.\n";

CLI::Option *add_value(CLI::App &app, const Option &option, bool *value) {
    return app.add_flag(option.name, *value, option.help);
}

CLI::Option *add_value(CLI::App &app, const Option &option, std::optional<std::string> *value) {
    return app
        .add_option_function<std::string>(
            option.name, [value](const std::string &text) { *value = text; }, option.help)
        ->type_name(option.type);
}

// One value for each time that the option is given, so that what follows is a place again.
CLI::Option *add_value(CLI::App &app, const Option &option, std::vector<std::string> *values) {
    CLI::Option *added = app.add_option(option.name, *values, option.help)->type_name(option.type);
    return option.is_place() ? added : added->allow_extra_args(false);
}

std::string fault_of_duration(const std::string &text, const Range &range) {
    const auto duration = duration_of_text(text);
    if (!duration)
        return "'" + text + "' is no number of seconds";
    if (duration->count() >= range.least && duration->count() <= range.most)
        return "";
    return "Value " + text + " not in range " + text_of_duration(Duration(range.least)) + " to " +
           text_of_duration(Duration(range.most));
}

CLI::Option *add_value(CLI::App &app, const Option &option, Duration *value) {
    return app
        .add_option_function<std::string>(
            option.name, [value](const std::string &text) { *value = *duration_of_text(text); }, option.help)
        ->type_name(option.type)
        ->default_str(option.shows_default ? text_of_duration(*value) : "")
        ->check(
            CLI::Validator([range = *option.range](std::string &text) { return fault_of_duration(text, range); }, ""));
}

template <class Value>
CLI::Option *add_value(CLI::App &app, const Option &option, Value *value) {
    CLI::Option *added = app.add_option(option.name, *value, option.help)->type_name(option.type);
    if constexpr (std::is_integral_v<Value>)
        if (option.range)
            added->check(CLI::Range(static_cast<Value>(option.range->least), static_cast<Value>(option.range->most))
                             .description(""));
    return added;
}

std::string fault_of_words(const std::string &value, Choices words) {
    if (std::find(words.begin(), words.end(), value) != words.end())
        return "";
    std::string all;
    for (const char *word : words)
        all += (all.empty() ? "" : ", ") + std::string(word);
    return "'" + value + "' is none of " + all;
}

void add_checks(CLI::Option &added, const Option &option) {
    if (option.fault != nullptr)
        added.check(CLI::Validator([fault = option.fault](std::string &value) { return fault(value); }, ""));
    else if (!option.words.empty())
        added.check(
            CLI::Validator([words = option.words](std::string &value) { return fault_of_words(value, words); }, ""));
}

void add_option(CLI::App &app, const Option &option) {
    CLI::Option *added = std::visit([&](auto *value) { return add_value(app, option, value); }, option.target);
    add_checks(*added, option);
    added->required(option.is_required);
    if (option.shows_default && !std::holds_alternative<Duration *>(option.target))
        added->capture_default_str();
}

// The group of that name in the command, made with its first option.
CLI::App &group_of(CLI::App &command, std::map<std::string, CLI::App *> &groups, const char *name) {
    CLI::App *&group = groups[name];
    if (group == nullptr) {
        group = command.add_option_group(name, "one of");
        group->require_option(1);
    }
    return *group;
}

void add_options(CLI::App &command, const Options &options) {
    std::map<std::string, CLI::App *> groups;
    for (const auto &option : options)
        add_option(option.one_of != nullptr ? group_of(command, groups, option.one_of) : command, option);
    for (const auto &option : options)
        if (option.needs != nullptr)
            command.get_option(option.name)->needs(command.get_option(option.needs));
}

std::string foot_of(const Command &row) {
    std::string foot;
    for (const char *example : row.examples)
        if (example != nullptr)
            foot += "  " + std::string(example) + "\n";
    if (foot.empty())
        return exit_status_help;
    const std::string notes = *row.notes != '\0' ? "\n" + refilled(row.notes) : "";
    return help_of_results(row) + "Examples:\n" + foot + notes + "\n" + exit_status_help;
}

// Below the group that its path leads to, which stands there by now.
CLI::App &add_subcommand(CLI::App &program, const Command &row) {
    const auto [group_name, name] = group_and_name(row);
    CLI::App *group = group_name.empty() ? &program : program.get_subcommand(group_name);
    CLI::App *command = group->add_subcommand(name, row.help);
    command->footer(foot_of(row));
    return *command;
}

std::string failure_text(const std::string &program, const std::string &fault) {
    return program + ": Error: " + fault + "\nRun with --help for more information.\n";
}

// A switch that is answered by a text, whatever else is or is not given.
void add_answer(CLI::App &app, const Option &option, const std::function<std::string()> &answer) {
    app.add_flag_callback(
        option.name, [answer] { throw CLI::CallForVersion(answer(), 0); }, option.help);
}

// The library's tree of one program, whose leaves have a call each.
class Tree {
public:
    explicit Tree(const Program &program) : app_(program.help, program.name), help_width_(program.help_width) {
        app_.set_help_flag(help_option.name, help_option.help);
        app_.set_version_flag(version_option.name, program.version, version_option.help);
        app_.require_subcommand(1);
        app_.footer(exit_status_help);
        app_.failure_message([name = program.name](const CLI::App *, const CLI::Error &error) {
            return failure_text(name, error.what());
        });
        add_options(app_, program.common);
        add_answer(app_, schema_option, [&program] { return schemas_of(program); });
        for (const auto &row : program.commands)
            add(row, program.common);
    }

    Line parse(std::vector<std::string> words, std::ostream &out, std::ostream &errors) {
        std::reverse(words.begin(), words.end()); // as the library wants them
        try {
            app_.parse(std::move(words));
        } catch (const CLI::ParseError &error) {
            // A wrong use has one exit status, whatever the library calls it; asking for help is none.
            std::ostringstream help;
            const int status = app_.exit(error, help, errors);
            out << (error.get_name() == "CallForHelp" ? wrapped(help.str(), help_width_) : help.str());
            return {nullptr, status == 0 ? exit_done : exit_usage, error.what()};
        }
        return {std::move(calls_[chosen_]), exit_done, ""};
    }

private:
    void add(const Command &row, const Options &common) {
        CLI::App &command = add_subcommand(app_, row);
        if (row.make == nullptr) {
            command.require_subcommand(1);
            return;
        }
        calls_.push_back(row.make());
        add_options(command, calls_.back()->options());
        if (row.has_common_options)
            add_options(command, common);
        if (row.output != nullptr)
            add_answer(command, schema_option, [row] { return schema_of(row); });
        command.callback([this, index = calls_.size() - 1] { chosen_ = index; });
    }

    CLI::App app_;
    size_t help_width_;
    std::vector<std::unique_ptr<Call>> calls_;
    size_t chosen_ = 0;
};

} // namespace

Line parse(const Program &program, const std::vector<std::string> &words, std::ostream &out, std::ostream &errors) {
    // The library's own words would be that a command is missing.
    const std::string fault = fault_of_command(program, words);
    if (fault.empty())
        return Tree(program).parse(words, out, errors);
    errors << failure_text(program.name, fault);
    return {nullptr, exit_usage, fault};
}

} // namespace velia::cli
