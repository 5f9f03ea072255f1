// veliactl registry move: this host's registry taken to a database that several hosts serve, or back into a file. The
// daemon's program does it, while no daemon runs here; what it tells is put into rows.
#include <cli/registry.h>

#include <array>
#include <charconv>
#include <cstring>
#include <sstream>
#include <vector>

#include <cli/commands.h>
#include <cli/daemon_program.h>
#include <cli/messages.h>
#include <cli/results.h>
#include <support/imsg.h>

namespace velia::cli {

namespace {

struct Arguments {
    std::string to;
    std::string config;
    std::string daemon;
    bool is_dry_run = false;
};

Options options_of(Arguments &arguments) {
    return {{.name = "--to",
             .type = "PLACE",
             .help = "the connection string of a PostgreSQL database, or sqlite: this host's file",
             .target = &arguments.to,
             .is_required = true},
            {.name = "--config",
             .type = "FILE",
             .help = "the daemon's configuration, which says where the registry is (default: the daemon's own)",
             .target = &arguments.config},
            {.name = "--server",
             .type = "FILE",
             .help = "the daemon's program, which moves it (default: rvzd_server beside veliactl, or on PATH)",
             .target = &arguments.daemon},
            {.name = "--dry-run",
             .help = "only tell what would be done; the daemon may run",
             .target = &arguments.is_dry_run}};
}

int move(const Arguments &arguments, const Settings &settings);

constexpr Column columns[] = {
    {"action", Type::text, "moved, or was moved: it was there already; with --dry-run would move"},
    {"db", Type::text, "database"},
    {"entries", Type::integer, "where it was"},
    {"entries_there", Type::integer, "where it is to be"},
    {"place", Type::text, "that one, without what is secret"},
    {"kept", Type::text, "the file that stood there, under the name that it has now", true}};
constexpr Output output = {Output::Shape::list, columns};

constexpr const char *notes =
    R"(The daemon of this host must not run; those of other hosts on a database that the registry leaves serve it no more. Where it
was it is marked as moved, and nobody serves it from there: so there are never two. What is killed half way, or fails, is done by
the same command once more. Behind it, write the option store into the daemon's configuration, or take it out, and start
the daemon.
)";

constexpr Command commands[] = {
    {.path = "registry move",
     .help = "Move this host's registry into a PostgreSQL database, or back into its file",
     .examples = {"veliactl registry move --to \"host=db1,db2 dbname=velia user=velia\" --dry-run",
                  "veliactl registry move --to sqlite --output json"},
     .notes = notes,
     .make = call_of<move, options_of>,
     .output = &output},
};

std::vector<std::string> words_of(const Arguments &arguments) {
    std::vector<std::string> words = {"--move-registry", arguments.to, "--rows"};
    if (arguments.is_dry_run)
        words.emplace_back("--dry-run");
    if (!arguments.config.empty())
        words.insert(words.end(), {"--config", arguments.config});
    return words;
}

// "ACTION DB NUMBER NUMBER KEPT PLACE", between tabs; nothing for what is no such row.
std::optional<Cells> cells_of(const std::string &line) {
    std::array<std::string, std::size(columns)> words;
    std::istringstream stream(line);
    for (std::string &word : words)
        if (!std::getline(stream, word, '\t'))
            return std::nullopt;
    std::array<uint64_t, 2> numbers = {};
    for (size_t i = 0; i < numbers.size(); ++i) {
        const std::string &word = words.at(i + 2);
        const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), numbers.at(i));
        if (error != std::errc() || end != word.data() + word.size())
            return std::nullopt;
    }
    const std::string &kept = words[4];
    return Cells{words[0], words[1], numbers[0], numbers[1], words[5], kept.empty() ? Cell() : Cell(kept)};
}

// Its lines, without the program's name and the kind of message.
std::vector<std::string> words_in(const std::string &errors) {
    std::vector<std::string> words;
    std::istringstream lines(errors);
    for (std::string line; std::getline(lines, line);) {
        for (const char *before : {"rvzd_server: ", "Error: ", "Warning: "})
            if (line.starts_with(before))
                line.erase(0, strlen(before));
        if (!line.empty())
            words.push_back(line);
    }
    return words;
}

// The last line tells what came of it, where it did not end well; the others are warnings.
std::string reason_in(const ProgramEnd &end) {
    if (end.status < 0)
        return imsg_strerror(end.error_number);
    auto words = words_in(end.errors);
    std::string reason = "exit status " + std::to_string(end.status);
    if (end.status != 0 && !words.empty()) {
        reason = words.back();
        words.pop_back();
    }
    for (const std::string &word : words)
        imsg_print(IMSG_WARNING, "%s\n", IMSG_FORMAT, word.c_str());
    return reason;
}

int move(const Arguments &arguments, const Settings &settings) {
    const std::string program = daemon_program(arguments.daemon);
    const auto end = run_program(program, words_of(arguments), nullptr, Errors::kept);
    const std::string reason = reason_in(end);
    if (end.status != 0) {
        tell_failure(TBS_ST_ERROR, "", "The registry was not moved by %s: %s\n", program.c_str(), reason.c_str());
        return exit_failed;
    }
    Results results(output, settings, arguments.is_dry_run ? Results::Of::look : Results::Of::change);
    std::istringstream lines(end.output);
    for (std::string line; std::getline(lines, line);)
        if (auto cells = cells_of(line))
            results.add(std::move(*cells));
    results.finish();
    return exit_done;
}

} // namespace

const Commands registry_move_commands = commands;

} // namespace velia::cli
