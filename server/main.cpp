// rvzd_server, the rendezvous daemon: from the command line to the loop and out again.
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fcntl.h>
#include <iostream>
#include <optional>
#include <string>

#include <arpa/inet.h>
#include <sys/stat.h>
#include <unistd.h>

#include <server/daemon/background.h>
#include <server/daemon/command_line.h>
#include <server/daemon/daemon.h>
#include <server/daemon/log.h>
#include <server/daemon/private_files.h>
#include <server/messages.h>
#include <server/registry/copy.h>
#include <server/registry/look.h>
#include <server/registry/moved.h>
#include <server/registry/postgres.h>
#include <server/registry/postgres_attempt.h>
#include <server/registry/saved.h>
#include <server/registry/service.h>
#include <server/scheduler/keeper.h>
#include <server/scheduler/moved_jobs.h>
#include <support/fileutl.h>
#include <support/ks.h>
#include <veliaxdr/rgy_manage.h>
#include <veliaxdr/rvzd_socket.h>

using namespace velia::server;

namespace {

constexpr const char *default_log_file = "rvzd_server_log";

// Process number on a file, as long as the daemon runs.
class PidFile {
public:
    explicit PidFile(const std::string &name) : name_(name) {
        if (!name_.empty() && !is_written())
            print_failure();
    }
    ~PidFile() {
        if (!name_.empty())
            unlink(name_.c_str());
    }
    PidFile(const PidFile &) = delete;
    PidFile &operator=(const PidFile &) = delete;

private:
    bool is_written() const {
        const std::string new_name = name_ + ".new";
        const std::string text = std::to_string(getpid()) + "\n";
        unlink(new_name.c_str()); // whatever was left there, or laid there for us to follow
        UniqueFd fd(open(new_name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, private_mode));
        if (fd && write(fd.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size()) &&
            fsync(fd.get()) == 0 && fileutl_rename(new_name.c_str(), name_.c_str()) == 0)
            return true;
        const int error_number = errno;
        unlink(new_name.c_str());
        errno = error_number;
        return false;
    }
    void print_failure() const {
        imsg_print_shared(IMSG_ERROR, "xdr/rvzd", &_tbs_cmsg_tbs_msg_table, TBS_MSG_CANNOT_OPEN, name_.c_str(),
                          imsg_strerror(errno));
    }

    std::string name_;
};

// A loop that waits for the handles' ends before its own.
class Loop {
public:
    Loop() { uv_loop_init(&loop_); }
    ~Loop() {
        uv_run(&loop_, UV_RUN_NOWAIT);
        uv_loop_close(&loop_);
    }
    Loop(const Loop &) = delete;
    Loop &operator=(const Loop &) = delete;
    uv_loop_t *get() { return &loop_; }

private:
    uv_loop_t loop_ = {};
};

uint16_t port_of(const CommandLine &line) {
    if (line.port != 0)
        return static_cast<uint16_t>(line.port);
    uint16_t port = 0;
    rvzd_get_port(nullptr, &port, AF_UNSPEC);
    return ntohs(port);
}

void serve(const CommandLine &line, Listeners listeners, const Configuration &configuration, Background &background,
           Log &log) {
    const ServiceManager manager;
    const PidFile pid_file(line.pid_file);
    print_listeners(listeners);
    if (line.rpcbind)
        register_with_rpcbind(listeners);
    {
        Loop loop;
        Daemon daemon(loop.get(), std::move(listeners), line.config_file, configuration, manager);
        print(IMSG_PLAIN, MSG_UP_AND_RUNNING);
        log.flush(); // whoever waits for us finds it said
        background.came_up();
        send_ready_fd(line.ready_fd);
        manager.send_ready();
        daemon.run();
    }
    if (line.rpcbind)
        unregister_from_rpcbind();
}

// A file named relative to where the daemon was started is found again from where it then runs.
void make_absolute(std::string &path) {
    if (path.empty() || path.front() == '/')
        return;
    char *directory = getcwd(nullptr, 0);
    if (directory != nullptr)
        path = std::string(directory) + "/" + path;
    free(directory);
}

// The running daemon looks at the database for each question, so the new password counts at once.
int set_registry_password() {
    umask(private_umask);
    std::array<char, RGY_PASSWORD_SIZE> password = {};
    static_assert(int{IMSG_PASSWORD_SIZE} <= int{RGY_PASSWORD_SIZE});
    if (isatty(STDIN_FILENO) != 0) {
        if (imsg_prompt_password("Registry password: ", password.data()) != IMSG_PASSWORD_ENTERED)
            return EXIT_FAILURE;
    } else if (!std::cin.getline(password.data(), password.size()) && !std::cin.eof()) {
        imsg_print(IMSG_ERROR, "The password is longer than %d bytes\n", IMSG_FORMAT, RGY_PASSWORD_SIZE - 1);
        return EXIT_FAILURE;
    }
    bool is_new = false;
    const auto store = open_registry(is_new);
    Registry(*store).set_password(password.data());
    return EXIT_SUCCESS;
}

template <class Work>
int told_work(const char *what, const std::string &file_name, Work &&work) {
    umask(private_umask);
    try {
        work();
        return EXIT_SUCCESS;
    } catch (const StoreError &error) {
        imsg_print(IMSG_ERROR, "%s \"%s\": %s\n", IMSG_FORMAT, what, file_name.c_str(), error.what());
        return EXIT_FAILURE;
    }
}

int save_registry_to(const std::string &file_name) {
    return told_work("The registry was not saved in", file_name, [&] {
        if (is_registry_shared())
            existing_registry()->save_to(file_name);
        else
            save_registry(registry_file(), file_name, {});
        imsg_print(IMSG_PLAIN, "The registry is saved in \"%s\".\n", IMSG_FORMAT, file_name.c_str());
    });
}

// The lock of a daemon's place tells whether one runs.
int restore_registry_from(const std::string &file_name) {
    const auto place = LocalPlace::take();
    return !place ? EXIT_FAILURE : told_work("The registry was not restored from", file_name, [&] {
        if (is_registry_shared())
            throw StoreError("the registry is in a database: restore that with the database's own programs");
        const std::string kept = restore_registry(file_name, registry_file());
        if (!kept.empty())
            imsg_print(IMSG_PLAIN, "The former registry is kept in \"%s\".\n", IMSG_FORMAT, kept.c_str());
        imsg_print(IMSG_PLAIN, "The registry is restored from \"%s\".\n", IMSG_FORMAT, file_name.c_str());
    });
}

// Beside a daemon all can be looked at.
int move_registry_to(const CommandLine &line) {
    const std::string &place_name = line.move_registry;
    const auto place = line.dry_run ? std::nullopt : LocalPlace::take();
    return !place && !line.dry_run
               ? EXIT_FAILURE
               : told_work("The registry was not moved to",
                           place_name == "sqlite" ? registry_file() : told_conninfo(place_name), [&] {
                               const RegistryMove move = move_registry_of_host(place_name, line.dry_run);
                               line.rows ? tell_move_in_rows(move) : tell_move(move);
                           });
}

int move_jobs_to(const std::string &place_name, uint32_t take_over_s) {
    const auto place = LocalPlace::take();
    return !place ? EXIT_FAILURE
                  : told_work("The jobs were not moved to",
                              place_name == "sqlite" ? jobs_file() : told_conninfo(place_name),
                              [&] { move_jobs_of_host(place_name, take_over_s); });
}

int check_registry_in(const std::string &given) {
    const std::string file_name = given.empty() ? registry_file() : given;
    return told_work("The registry is not whole in", file_name, [&] {
        if (given.empty() && is_registry_shared())
            throw StoreError("the registry is in a database: name a file that was saved");
        const auto found = given.empty() ? check_registry(file_name) : check_saved_registry(file_name);
        imsg_print(IMSG_PLAIN, "\"%s\" is whole: %llu entries, %llu changes, term %llu.\n", IMSG_FORMAT,
                   file_name.c_str(), static_cast<unsigned long long>(found.entries),
                   static_cast<unsigned long long>(found.changes), static_cast<unsigned long long>(found.term));
    });
}

// What works on the registry without a daemon finds it where the daemon does. Without a configuration file it is in
// this host's own.
bool take_store_of(const CommandLine &line, uint32_t &take_over_s) {
    struct stat status = {};
    if (line.check_config || (stat(line.config_file.c_str(), &status) != 0 && errno == ENOENT))
        return true;
    const auto read = read_configuration(line.config_file, system_names());
    print_configuration_errors(line.config_file, read.errors);
    keep_registry_in(read.configuration.registry_database);
    read_registry_from_copy(read.configuration.reads_from_copy);
    take_over_s = read.configuration.options.take_over_s;
    return read.errors.empty();
}

// What is done without a daemon, and with what status; nothing where a daemon is to serve.
std::optional<int> run_single_work(const CommandLine &line) {
    uint32_t take_over_s = Options{}.take_over_s;
    if ((line.set_registry_password || line.is_single_work()) && !take_store_of(line, take_over_s))
        return EXIT_FAILURE;
    if (!line.move_registry.empty())
        return move_registry_to(line);
    if (!line.move_jobs.empty())
        return move_jobs_to(line.move_jobs, take_over_s);
    if (line.set_registry_password)
        return set_registry_password();
    if (!line.save_registry.empty())
        return save_registry_to(line.save_registry);
    if (!line.restore_registry.empty())
        return restore_registry_from(line.restore_registry);
    if (line.check_registry)
        return check_registry_in(*line.check_registry);
    if (line.copy_registry) {
        umask(private_umask);
        return run_copy();
    }
    if (line.look_at_site) {
        umask(private_umask);
        return run_look();
    }
    return std::nullopt;
}

int run(CommandLine &line, std::optional<Log> &log) {
    if (const auto status = run_single_work(line))
        return *status;
    make_absolute(line.config_file);
    make_absolute(line.pid_file);
    const auto read = read_configuration(line.config_file, system_names());
    if (!read.errors.empty()) {
        print_configuration_errors(line.config_file, read.errors);
        return EXIT_FAILURE;
    }
    if (line.check_config) {
        print_configuration(line.config_file, read.configuration, "is right");
        return EXIT_SUCCESS;
    }
    Log::set_options(read.configuration.log);
    keep_registry_in(read.configuration.registry_database);
    read_registry_on_in(read.configuration.registry_replica);
    read_registry_from_copy(read.configuration.reads_from_copy);
    run_with_configuration(line.config_file);
    umask(private_umask);
    auto place = LocalPlace::take();
    if (!place || !secure_private_files())
        return EXIT_FAILURE;
    auto listeners = open_listeners(line.listen, port_of(line));
    if (!listeners)
        return EXIT_FAILURE;
    listeners->local = place->listen(listeners->addresses);
    if (!line.foreground && line.log_file.empty())
        line.log_file = default_log_file;
    if (line.log_file.find('/') != std::string::npos)
        make_absolute(line.log_file);
    if (!line.log_file.empty() && !redirect_to_log(line.log_file))
        return EXIT_FAILURE;
    Background background;
    if (!line.foreground && !background.enter())
        return EXIT_FAILURE;
    log.emplace();
    serve(line, std::move(*listeners), read.configuration, background, *log);
    return EXIT_SUCCESS;
}

} // namespace

int main(int argc, char **argv) {
    if (argc > 1 && strcmp(argv[1], keep_run_switch) == 0)
        return keep_run(argc, argv);
    ks_system_init(argc, argv, nullptr);
    imsg_set_app_name("rvzd_server");
    close_descriptors_on_exec();
    CommandLine line;
    int exit_status = EXIT_FAILURE;
    std::optional<Log> log;   // until the last message
    signal(SIGXFSZ, SIG_IGN); // what a file cannot hold is the trouble of whoever wanted it written
    try {
        if (!parse_command_line(argc, argv, line, exit_status))
            return exit_status;
        exit_status = run(line, log);
    } catch (const std::exception &error) {
        imsg_print(IMSG_ERROR, "%s\n", IMSG_FORMAT, error.what());
    }
    if (!line.is_single_work())
        print(exit_status == 0 ? IMSG_PLAIN : IMSG_ERROR, MSG_EXITING, exit_status);
    if (PostgresAttempt::are_under_way()) { // in libraries that would be tidied up below them
        log.reset();
        fflush(nullptr);
        _exit(exit_status);
    }
    return exit_status;
}
