// The daemon's command line.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace velia::server {

struct CommandLine {
    std::string config_file;
    std::string log_file;
    std::string pid_file;
    std::vector<std::string> listen;
    uint32_t port = 0; // 0: the site's
    int ready_fd = -1;
    bool foreground = false;
    bool rpcbind = false;
    bool set_registry_password = false;
    bool copy_registry = false;
    bool look_at_site = false;
    bool check_config = false;
    std::string save_registry;                 // to this file
    std::string restore_registry;              // from this file
    std::string move_registry;                 // into this database, or "sqlite": into this host's file
    bool dry_run = false;                      // that is only looked at
    bool rows = false;                         // and told for programs
    std::string move_jobs;                     // the same
    std::optional<std::string> check_registry; // a saved one; the empty name: this host's

    // It is no daemon, and its end is nobody's concern but of who started it.
    bool is_single_work() const {
        return copy_registry || look_at_site || check_config || check_registry || !save_registry.empty() ||
               !restore_registry.empty() || !move_registry.empty() || !move_jobs.empty();
    }
};

enum { EXIT_USAGE = 2 };

// Fills `line`; false with the exit status when there is nothing to run: a wrong use, --help, --version.
bool parse_command_line(int argc, char **argv, CommandLine &line, int &exit_status);

} // namespace velia::server
