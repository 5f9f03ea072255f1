// A command as data: the words that lead to it, its help, its options, and what is done. Whatever reads a line, prints
// a help or completes a word works from these rows; no command knows how a line is taken apart.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <variant>
#include <vector>

#include <cli/duration.h>
#include <cli/output.h>

namespace velia::cli {

// Exit statuses, told in every command's help.
enum ExitStatus {
    exit_done = 0,
    exit_failed = 1,
    exit_usage = 2,
    exit_unreachable = 3,
    exit_changes = 4, // of what only tells what would be done: there is something
};

// What is wanted of a list.
struct View {
    std::string columns;     // names with commas between; empty: the usual ones
    std::string sort;        // by which of them, behind a hyphen the other way round; empty: as the rows come
    uint64_t limit = 0;      // 0: all rows
    bool is_wide = false;    // with the columns that are there with an option only
    std::string hidden_need; // an option that is given for the sake of the order: its columns are not shown
};

struct Settings {
    Format format = Format::plain;
    bool with_headers = true;
    Duration timeout = std::chrono::seconds(25);
    View view = {};
};

// The member of a command's arguments that an option sets. A bool makes it a switch, an optional text tells an empty
// one from none, and a list takes the option again and again.
using Target = std::variant<bool *, int32_t *, int64_t *, uint64_t *, Duration *, std::string *,
                            std::optional<std::string> *, std::vector<std::string> *>;

// Bounds of a number, both of them good; of a duration in milliseconds.
struct Range {
    int64_t least = 0;
    int64_t most = 0;
};

// What is wrong with a value; empty if nothing is.
using Fault = std::string (*)(const std::string &value);

// The words of which a value is one; a completion offers them.
using Choices = std::span<const char *const>;

// Made where it is used, and gone with the list that it is in: its texts are constants.
struct Option {
    const char *name = ""; // "--prog", "-o,--output"; a place on the line has a bare name, as "HOST"
    const char *type = ""; // of the value, in the help
    const char *help = "";
    Target target = static_cast<bool *>(nullptr);
    std::optional<Range> range = std::nullopt;
    Choices words = {};      // without a fault nothing else is taken
    Choices beginnings = {}; // a completion offers these, and the value goes on behind them
    Fault fault = nullptr;
    const char *needs = nullptr;  // another option, without which this one may not be given
    const char *one_of = nullptr; // the group of options of which exactly one is given
    bool is_required = false;
    bool shows_default = false;

    bool is_place() const { return name[0] != '-'; }
};

using Options = std::vector<Option>;

// It has no value.
bool is_switch(const Option &option);

// Each by itself: "-o", "--output".
std::vector<std::string> names_of(const Option &option);

// One list of several, and one text with a separator between.
Options joined(std::initializer_list<Options> lists);
std::string joined(const std::vector<std::string> &texts, const char *separator);

// A command with its arguments, for one line.
class Call {
public:
    virtual ~Call() = default;
    virtual Options options() = 0;
    virtual int run(const Settings &settings) const = 0;
};

constexpr size_t examples_max = 4;

// One row: a command, or a group of them, which stands before what is in it.
struct Command {
    const char *path = ""; // the words that lead to it, with a blank between
    const char *help = "";
    std::array<const char *, examples_max> examples = {};
    const char *notes = ""; // behind the examples; whole lines
    std::unique_ptr<Call> (*make)() = nullptr;
    const Output *output = nullptr; // its results
    bool has_common_options = true; // --output and the others; false for what prints no results
    bool is_hidden = false;         // from helps and completions: it is for scripts of our own
};

using Commands = std::span<const Command>;

// Options that a command has by its results, besides its own.
using MoreOptions = std::function<Options(const Command &row, const Options &own)>;

// The two parts of its path; the group is empty for what stands below the program itself.
struct GroupAndName {
    std::string group;
    std::string name;
};
GroupAndName group_and_name(const Command &command);

template <auto work, auto options_of>
class CallOf;
template <class Arguments, int (*work)(const Arguments &, const Settings &), Options (*options_of)(Arguments &)>
class CallOf<work, options_of> final : public Call {
    Options options() override { return options_of(arguments_); }
    int run(const Settings &settings) const override { return work(arguments_, settings); }

    Arguments arguments_;
};
// For what a row has under `make`: the work of a command, and the options that fill its arguments.
template <auto work, auto options_of>
std::unique_ptr<Call> call_of() {
    return std::make_unique<CallOf<work, options_of>>();
}

// Of a command that takes none.
struct NoArguments {};
Options no_options(NoArguments &arguments);

} // namespace velia::cli
