// The command line as a whole.
#include <cli/commands.h>

#include <cstdlib>
#include <iostream>

#include <cli/choices.h>
#include <support/imsg.h>
#include <veliaxdr/libveliaxdr.h>

namespace velia::cli {

const char exit_status_help[] = "Exit status: 0 done, 1 failed, 2 wrong use, 3 peer unreachable.\n"
                                "Results go to standard output, messages to standard error.\n";

namespace {

constexpr int timeout_max_s = 3600;
constexpr const char *format_variable = "VELIACTL_OUTPUT";

std::string check_format(const std::string &name) {
    Format format;
    return format_of_name(name, format) ? "" : "must be plain, json or table, not '" + name + "'";
}

std::string version_line() {
    char line[LIBVELIAXDR_VERID_SIZE] = "";
    if (libveliaxdr_sprintf_verid(line) < 0)
        return "unknown version";
    std::string text = line;
    while (!text.empty() && text.back() == '\n')
        text.pop_back();
    return text;
}

// A wrong use has one exit status, whatever CLI11 calls it; asking for help is none.
int end_of_parse(const CLI::App &app, const CLI::ParseError &error) {
    const int status = app.exit(error, std::cout, std::cerr);
    return status == 0 ? exit_done : exit_usage;
}

// The default of --output. The parser could look there itself, but it would do so for each command that has the option,
// whichever was called.
bool take_format_of_environment(Settings &settings) {
    const char *name = std::getenv(format_variable);
    if (settings.has_format || name == nullptr || *name == '\0')
        return true;
    const std::string error = check_format(name);
    if (!error.empty()) {
        std::cerr << format_variable << ": " << error << '\n';
        return false;
    }
    return format_of_name(name, settings.format);
}

} // namespace

std::string examples(const std::string &lines) {
    return "Examples:\n  " + lines + "\n\n" + exit_status_help;
}

void add_common_options(CLI::App &command, Settings &settings) {
    command
        .add_option_function<std::string>(
            "-o,--output",
            [&](const std::string &name) { settings.has_format = format_of_name(name, settings.format); },
            "form of the results: plain, json or table (default plain, or what VELIACTL_OUTPUT says)")
        ->type_name("FORM")
        ->check(offering({"plain", "json", "table"}, check_format));
    command.add_flag_callback(
        "--no-headers", [&] { settings.with_headers = false; }, "leave the line of column names out");
    command.add_option("--timeout", settings.timeout_s, "seconds to wait for each answer")
        ->type_name("SECONDS")
        ->capture_default_str()
        ->check(CLI::Range(1, timeout_max_s).description(""));
}

void add_commands(CLI::App &app, Settings &settings, Command &chosen) {
    app.set_version_flag("--version", version_line());
    app.require_subcommand(1);
    app.footer(exit_status_help);
    for (const auto add :
         {add_contact_command, add_probe_command, add_server_commands, add_registry_commands, add_object_commands,
          add_host_commands, add_client_commands, add_time_zone_command, add_pool_map_commands, add_completion_command})
        add(app, settings, chosen);
}

int run(int argc, char **argv) {
    imsg_set_app_name("veliactl");
    CLI::App app("Asks and administers the services of a site.", "veliactl");
    Settings settings;
    Command chosen;
    add_commands(app, settings, chosen);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        return end_of_parse(app, error);
    }
    return take_format_of_environment(settings) ? chosen(settings) : exit_usage;
}

} // namespace velia::cli
