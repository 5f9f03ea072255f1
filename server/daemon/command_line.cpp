// Switches and their checks; what is wrong with them is told before anything is opened.
#include <server/daemon/command_line.h>

#include <array>
#include <fcntl.h>
#include <iostream>

#include <CLI/CLI.hpp>

#include <support/tbs.h>
#include <veliaxdr/libveliaxdr.h>

namespace velia::server {

namespace {

constexpr const char *footer = R"(Signals:
  SIGHUP           read the configuration file again; a faulty file changes nothing
  SIGTERM, SIGINT  end all servers and go

Exit status: 0 ended on request, 1 failed, 2 wrong use.

Examples:
  rvzd_server -f /etc/velia/rvzd_server.conf
  VELIA_ROOT=/tmp/site rvzd_server --foreground --listen 127.0.0.2 --port 40371 -f site.conf)";

std::string default_config_file() {
    std::array<char, TBS_PATH_SIZE> path;
    return tbs_product_host_config_dir(path.data(), "rvzd_server.conf") == TBS_ST_OK ? path.data() : "";
}

std::string version_line() {
    std::array<char, LIBVELIAXDR_VERID_SIZE> line;
    if (libveliaxdr_sprintf_verid(line.data()) < 0)
        return "unknown version";
    std::string text = line.data();
    while (text.ends_with('\n'))
        text.pop_back();
    return text;
}

std::string check_descriptor(const std::string &text) {
    int fd = -1;
    const bool is_number = CLI::detail::lexical_cast(text, fd);
    return is_number && fcntl(fd, F_GETFD) >= 0 ? "" : "'" + text + "' is no open descriptor";
}

void declare(CLI::App &app, CommandLine &line) {
    line.config_file = default_config_file();
    app.add_option("-f,--config", line.config_file, "configuration file")->type_name("FILE")->capture_default_str();
    app.add_flag("--foreground", line.foreground, "stay in the foreground; messages go to the terminal");
    app.add_option("--listen", line.listen, "address or host to listen on, may be repeated; default: all")
        ->type_name("ADDRESS")
        ->allow_extra_args(false)
        ->take_all();
    app.add_option("--port", line.port, "port instead of the site's")
        ->type_name("PORT")
        ->check(CLI::Range(1, 65535).description(""));
    app.add_option("--ready-fd", line.ready_fd, "descriptor to write READY=1 to, and close, once clients are served")
        ->type_name("FD")
        ->check(CLI::Validator(check_descriptor, ""));
    app.add_option("--pid-file", line.pid_file, "file for the process number, removed at the end")->type_name("FILE");
    app.add_option("--log-file", line.log_file, "log file, in the log directory unless it is a path")
        ->type_name("FILE");
    app.add_flag("--rpcbind", line.rpcbind, "register with rpcbind");
    app.add_flag("--set-registry-password", line.set_registry_password,
                 "read the registry's password from standard input, keep its hash, and end; an empty one removes it");
    app.add_flag(
        "--copy-registry", line.copy_registry,
        "copy the registry of the master that the hosts file names, and end; a running standby does so itself");
    app.add_option("--save-registry", line.save_registry,
                   "save this host's registry in FILE, also while its daemon works, and end")
        ->type_name("FILE");
    app.add_option("--restore-registry", line.restore_registry,
                   "put the registry that was saved in FILE in the place of this host's, which is kept, and end; the "
                   "daemon must not run")
        ->type_name("FILE");
    app.add_option("--move-registry", line.move_registry,
                   "move the registry from where the configuration has it into the PostgreSQL database of this "
                   "connection string, or with \"sqlite\" into this host's file, and end; no daemon of it may run")
        ->type_name("PLACE");
    auto *move = app.get_option("--move-registry");
    app.add_flag("--dry-run", line.dry_run, "only tell what --move-registry would do; a daemon may run")->needs(move);
    app.add_flag("--rows", line.rows, "tell what --move-registry did for programs: lines of words between tabs")
        ->needs(move);
    app.add_option(
           "--move-jobs", line.move_jobs,
           "move the jobs of the scheduler in the same way, with their runs, and end; no daemon of them may run")
        ->type_name("PLACE");
    app.add_option("--check-registry", line.check_registry,
                   "look whether the registry that was saved in FILE, or without FILE this host's, is whole, and end")
        ->type_name("FILE")
        ->expected(0, 1);
    app.add_flag("--look-at-site", line.look_at_site,
                 "ask the site's other hosts whom they take for the master, and end; a running master does so itself");
    app.add_flag("--check-config", line.check_config,
                 "read the configuration file, tell its faults, and end; a running daemon is left alone");
    app.set_version_flag("--version", version_line());
    app.footer(footer);
}

} // namespace

bool parse_command_line(int argc, char **argv, CommandLine &line, int &exit_status) {
    CLI::App app(
        "The rendezvous daemon: tells clients where the servers of this host listen, and starts them on demand.",
        "rvzd_server");
    declare(app, line);
    try {
        app.parse(argc, argv);
        return true;
    } catch (const CLI::ParseError &error) {
        exit_status = app.exit(error, std::cout, std::cerr) == 0 ? 0 : static_cast<int>(EXIT_USAGE);
        return false;
    }
}

} // namespace velia::server
