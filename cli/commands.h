// What the command groups share: the settings of every command, and how a command ends.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include <CLI/CLI.hpp>

#include <cli/output.h>

namespace velia::cli {

// Exit statuses, told in every command's help.
enum ExitStatus { exit_done = 0, exit_failed = 1, exit_usage = 2, exit_unreachable = 3 };

extern const char exit_status_help[];

// The foot of a command's help: examples, the first behind no blanks and the others each behind "\n  ".
std::string examples(const std::string &lines);

struct Settings {
    Format format = Format::plain;
    bool has_format = false; // by the switch
    bool with_headers = true;
    int timeout_s = 25;
};

// The command that the line names; run once the whole line is parsed.
using Command = std::function<int(const Settings &)>;

// Options that every command has.
void add_common_options(CLI::App &command, Settings &settings);

void add_contact_command(CLI::App &app, Settings &settings, Command &chosen);
void add_probe_command(CLI::App &app, Settings &settings, Command &chosen);
void add_server_commands(CLI::App &app, Settings &settings, Command &chosen);
void add_registry_commands(CLI::App &app, Settings &settings, Command &chosen);
void add_object_commands(CLI::App &app, Settings &settings, Command &chosen);
void add_host_commands(CLI::App &app, Settings &settings, Command &chosen);
void add_client_commands(CLI::App &app, Settings &settings, Command &chosen);
void add_time_zone_command(CLI::App &app, Settings &settings, Command &chosen);
void add_pool_map_commands(CLI::App &app, Settings &settings, Command &chosen);
void add_completion_command(CLI::App &app, Settings &settings, Command &chosen);

// All of them.
void add_commands(CLI::App &app, Settings &settings, Command &chosen);

// Parses the line and runs its command.
int run(int argc, char **argv);

} // namespace velia::cli
