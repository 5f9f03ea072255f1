// Rows made into what the parser's library wants. That library is large and its templates dear, so no other file of the
// program includes it.
#include <cli/parser.h>

#include <algorithm>
#include <map>
#include <set>
#include <sstream>

#include <CLI/CLI.hpp>

#include <cli/misspelling.h>
#include <cli/schema.h>

namespace velia::cli {

namespace {

constexpr const char *exit_status_help = "Exit status: 0 done, 1 failed, 2 wrong use, 3 peer unreachable,\n"
                                         "130 interrupted.\n"
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
    if (row.is_hidden)
        command->group("");
    return *command;
}

// A switch that is answered by a text, whatever else is or is not given.
void add_answer(CLI::App &app, const Option &option, const std::function<std::string()> &answer) {
    app.add_flag_callback(
        option.name, [answer] { throw CLI::CallForVersion(answer(), 0); }, option.help);
}

constexpr const char *elsewhere_help =
    "Every option can be given by a variable, too, as VELIACTL_OUTPUT, or in veliactl.toml; the line decides, then the "
    "variable, then the file.\n\n";
constexpr const char *elsewhere_flag = "--given-elsewhere"; // known to nobody; stands in front of every line

bool is_given(const CLI::App &app, const std::string &name) {
    const CLI::Option *option = app.get_option_no_throw(name);
    return option != nullptr && option->count() > 0;
}

// The library heads a fault with the name of the option, which its origin tells already.
std::string without_name(const std::string &fault, const Option &option) {
    const std::string head = "--" + key_of(option) + ": ";
    return fault.starts_with(head) ? fault.substr(head.size()) : fault;
}

// What is given elsewhere comes between the line and the defaults: it is handed on when the line has been read, and
// nothing has been made of it yet.
class Elsewhere {
public:
    Elsewhere(CLI::App &root, CLI::App &command, const char *path, Options options)
        : root_(root), command_(command), path_(path), options_(std::move(options)) {
        for (const auto &option : options_)
            if (!option.is_place() && (is_given("--" + key_of(option))))
                settle(option);
    }

    void take(const Source &source) {
        const auto settled_before = settled_; // of a group a source may give one option too many, which is told
        for (const auto &option : options_)
            if (!option.is_place() && !settled_before.contains(key_of(option)) &&
                (option.one_of == nullptr || !settled_before.contains(option.one_of)) &&
                (option.needs == nullptr || is_given(option.needs)))
                take(source, option);
    }

private:
    bool is_given(const std::string &name) const { return cli::is_given(command_, name) || cli::is_given(root_, name); }
    void settle(const Option &option) {
        settled_.insert(key_of(option));
        if (option.one_of != nullptr)
            settled_.insert(option.one_of);
    }
    void take(const Source &source, const Option &option) {
        const auto given = source(path_, option);
        if (!given)
            return;
        settle(option);
        try {
            apply(option, given->values);
        } catch (const CLI::Error &error) {
            throw CLI::ValidationError(given->origin, without_name(error.what(), option));
        }
    }
    void apply(const Option &option, const std::vector<std::string> &values) {
        if (!std::holds_alternative<std::vector<std::string> *>(option.target) && values.size() != 1)
            throw CLI::ValidationError("one value is wanted, not " + std::to_string(values.size()));
        if (is_switch(option) && values[0] == "false")
            return;
        if (is_switch(option) && values[0] != "true")
            throw CLI::ValidationError("'" + values[0] + "' is neither true nor false");
        CLI::Option &added = *command_.get_option("--" + key_of(option));
        for (const auto &value : values)
            added.add_result(value);
        if (!values.empty())
            added.run_callback();
    }

    CLI::App &root_;
    CLI::App &command_;
    const char *path_;
    Options options_;
    std::set<std::string> settled_; // keys, and groups of which one is chosen
};

// The library's tree of one program, whose leaves have a call each.
class Tree {
public:
    explicit Tree(const Program &program)
        : app_(program.help, program.name), help_width_(program.help_width), common_(program.common),
          more_(program.more), sources_(program.sources) {
        app_.set_help_flag(help_option.name, help_option.help);
        app_.set_version_flag(version_option.name, program.version, version_option.help);
        app_.require_subcommand(1);
        app_.footer(std::string(elsewhere_help) + exit_status_help);
        app_.failure_message([name = program.name](const CLI::App *, const CLI::Error &error) {
            return failure_text(name, error.what());
        });
        app_.add_flag_callback(elsewhere_flag, [this] { take_elsewhere(); })->group("");
        add_options(app_, program.common);
        add_answer(app_, schema_option, [&program] { return schemas_of(program); });
        for (const auto &row : program.commands)
            add(row);
    }

    Line parse(std::vector<std::string> words, std::ostream &out, std::ostream &errors) {
        words.insert(words.begin(), elsewhere_flag);
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
        return {std::move(calls_[chosen_]), exit_done, "", chosen_output_};
    }

private:
    void add(const Command &row) {
        CLI::App &command = add_subcommand(app_, row);
        if (row.make == nullptr) {
            command.require_subcommand(1);
            return;
        }
        calls_.push_back(row.make());
        const Options own = calls_.back()->options();
        add_options(command, own);
        add_options(command, common_options_of(row, own, common_, more_));
        if (row.output != nullptr)
            add_answer(command, schema_option, [row] { return schema_of(row); });
        command.callback([this, index = calls_.size() - 1, output = row.output] {
            chosen_ = index;
            chosen_output_ = output;
        });
        leaves_[&command] = {row, calls_.size() - 1};
    }

    // Only a command that is going to run wants it.
    void take_elsewhere() {
        CLI::App *command = &app_;
        while (!command->get_subcommands().empty())
            command = command->get_subcommands().front();
        const auto leaf = leaves_.find(command);
        if (leaf == leaves_.end() || is_given(*command, "--help") || is_given(*command, schema_option.name))
            return;
        const auto &[row, index] = leaf->second;
        const Options own = calls_[index]->options();
        Elsewhere elsewhere(app_, *command, row.path, joined({own, common_options_of(row, own, common_, more_)}));
        try {
            for (const auto &source : sources_)
                elsewhere.take(source);
        } catch (const SourceFault &fault) {
            throw CLI::ValidationError(fault.what());
        }
    }

    struct Leaf {
        Command row;
        size_t index; // of its call
    };

    CLI::App app_;
    size_t help_width_;
    Options common_;
    MoreOptions more_;
    std::vector<Source> sources_;
    std::map<const CLI::App *, Leaf> leaves_;
    std::vector<std::unique_ptr<Call>> calls_;
    size_t chosen_ = 0;
    const Output *chosen_output_ = nullptr;
};

} // namespace

Options common_options_of(const Command &row, const Options &own, const Options &common, const MoreOptions &more) {
    return joined({row.has_common_options ? common : Options(), more ? more(row, own) : Options()});
}

std::string failure_text(const std::string &program, const std::string &fault) {
    return program + ": Error: " + fault + "\nRun with --help for more information.\n";
}

Line parse(const Program &program, const std::vector<std::string> &words, std::ostream &out, std::ostream &errors) {
    // The library's own words would be that a command is missing.
    const std::string fault = fault_of_command(program, words);
    if (fault.empty())
        return Tree(program).parse(words, out, errors);
    errors << failure_text(program.name, fault);
    return {nullptr, exit_usage, fault};
}

} // namespace velia::cli
