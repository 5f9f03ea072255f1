#include <tests/postgres/server.h>

#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <memory>
#include <poll.h>
#include <pwd.h>
#include <stdexcept>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include <libpq-fe.h>

namespace velia::postgres_test {

namespace {

constexpr const char *superuser = "tester";
constexpr int start_attempts = 600;
constexpr int attempt_pause_ms = 50;

using Connection = std::unique_ptr<PGconn, void (*)(PGconn *)>;
using Result = std::unique_ptr<PGresult, void (*)(PGresult *)>;

// Containers often have little memory there; a server takes some 50 MiB.
bool has_room_in_memory() {
    constexpr uintmax_t enough = uintmax_t{1} << 30;
    std::error_code error;
    const auto space = std::filesystem::space("/dev/shm", error);
    return !error && space.available >= enough && access("/dev/shm", W_OK) == 0;
}

// A socket's path is short, whatever the directory for tests is.
std::filesystem::path new_directory() {
    std::string name = has_room_in_memory() ? "/dev/shm/velia-pg-XXXXXX" : "/tmp/velia-pg-XXXXXX";
    if (mkdtemp(name.data()) == nullptr)
        throw std::runtime_error("no directory for a database server");
    return name;
}

const passwd *account() {
    const passwd *entry = getpwnam("postgres");
    return entry != nullptr ? entry : getpwnam("nobody");
}

std::filesystem::path directory_of_account() {
    std::filesystem::path directory = new_directory();
    const passwd *entry = account();
    if (geteuid() == 0 && entry != nullptr && chown(directory.c_str(), entry->pw_uid, entry->pw_gid) != 0)
        throw std::runtime_error("the directory cannot be given away");
    return directory;
}

std::vector<pid_t> children_of(pid_t process) {
    const std::string id = std::to_string(process);
    std::ifstream list("/proc/" + id + "/task/" + id + "/children");
    return {std::istream_iterator<pid_t>(list), {}};
}

// In the child.
void become_account() {
    if (geteuid() != 0)
        return;
    const passwd *entry = account();
    if (entry == nullptr || setgid(entry->pw_gid) != 0 || setuid(entry->pw_uid) != 0)
        _exit(EXIT_FAILURE);
}

// One word at each blank.
[[noreturn]] void run_here(const std::string &words, const std::string &log) {
    const int fd = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    dup2(fd, STDOUT_FILENO);
    dup2(fd, STDERR_FILENO);
    execl("/bin/sh", "sh", "-c", ("exec " + words).c_str(), nullptr);
    _exit(EXIT_FAILURE);
}

std::string read_file(const std::filesystem::path &name) {
    std::ifstream file(name);
    return {std::istreambuf_iterator<char>(file), {}};
}

} // namespace

Server::Server() : directory_(directory_of_account()) {
    run_program(std::string(INITDB_PROGRAM) + " --no-sync --auth=trust --encoding=UTF8 --locale=C --username=" +
                superuser + " --pgdata=" + (directory_ / "data").string());
    start();
}

Server::Server(StandbyOf standby_of) : directory_(directory_of_account()) {
    follow(standby_of.primary);
}

Server::Server(Empty /*empty*/) : directory_(directory_of_account()) {}

Server::~Server() {
    stop();
    std::filesystem::remove_all(directory_);
}

void Server::run_program(const std::string &words) const {
    const pid_t child = fork();
    if (child == 0) {
        become_account();
        run_here(words, directory_ / "log");
    }
    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) != child || status != 0)
        throw std::runtime_error(words + ":\n" + read_file(directory_ / "log"));
}

void Server::start(const std::string &switches, const std::string &environment) {
    process_ = fork();
    if (process_ == 0) {
        setpgid(0, 0);
        become_account();
        prctl(PR_SET_PDEATHSIG, SIGQUIT); // a change of the user takes it back
        run_here("env " + environment + " " POSTGRES_PROGRAM " -D " + (directory_ / "data").string() + " -k " +
                     directory_.string() +
                     " -c listen_addresses= -c fsync=off -c max_connections=100 -c dynamic_shared_memory_type=mmap " +
                     switches,
                 directory_ / "log");
    }
    wait_until_it_answers();
}

void Server::wait_until_it_answers() const {
    for (int i = 0; i < start_attempts; ++i) {
        if (PQping(conninfo().c_str()) == PQPING_OK)
            return;
        if (waitpid(process_, nullptr, WNOHANG) != 0)
            break;
        poll(nullptr, 0, attempt_pause_ms);
    }
    throw std::runtime_error("the database server does not answer:\n" + read_file(directory_ / "log"));
}

void Server::stop() {
    if (process_ <= 0)
        return;
    kill(process_, SIGQUIT);
    waitpid(process_, nullptr, 0);
    process_ = 0;
}

void Server::run_line(const std::string &line) const {
    const std::filesystem::path programs = std::filesystem::canonical(INITDB_PROGRAM).parent_path();
    std::ofstream(directory_ / "line") << "export PGHOST=" << directory_.string()
                                       << " PGDATA=" << (directory_ / "data").string() << " PGUSER=" << superuser
                                       << " PGDATABASE=postgres PATH=" << programs.string() << ":$PATH\n"
                                       << line << '\n';
    run_program("sh " + (directory_ / "line").string());
}

// It is stopped first: it would start others in place of those that go.
void Server::kill_all() {
    if (process_ <= 0)
        return;
    kill(process_, SIGSTOP);
    for (const pid_t child : children_of(process_))
        kill(child, SIGKILL);
    kill(process_, SIGKILL);
    waitpid(process_, nullptr, 0);
    process_ = 0;
}

// What the primary demands of its commits comes with its settings, and is not what a standby that is promoted demands.
void Server::follow(const Server &primary) {
    stop();
    std::filesystem::remove_all(directory_ / "data");
    run_program(std::string(PG_BASEBACKUP_PROGRAM) +
                " --no-sync --checkpoint=fast --pgdata=" + (directory_ / "data").string() +
                " --dbname=host=" + primary.directory_.string() + "\\ user=" + superuser);
    std::ofstream(directory_ / "data/standby.signal").flush();
    std::ofstream(directory_ / "data/postgresql.auto.conf")
        << "primary_conninfo = 'host=" << primary.directory_.string() << " user=" << superuser << "'\n";
    start();
}

void Server::demand_standby() const {
    ask("ALTER SYSTEM SET synchronous_standby_names = '*'");
    ask("SELECT pg_reload_conf()");
    wait_for("SELECT count(*) > 0 FROM pg_stat_replication WHERE sync_state = 'sync'");
}

void Server::demand_no_standby() const {
    ask("ALTER SYSTEM RESET synchronous_standby_names");
    ask("SELECT pg_reload_conf()");
}

void Server::promote() const {
    ask("SELECT pg_promote()");
    wait_for("SELECT NOT pg_is_in_recovery()");
}

void Server::wait_for(const std::string &condition) const {
    for (int i = 0; i < start_attempts; ++i) {
        if (ask(condition) == "t")
            return;
        poll(nullptr, 0, attempt_pause_ms);
    }
    throw std::runtime_error("never true: " + condition + "\n" + read_file(directory_ / "log"));
}

std::string Server::conninfo() const {
    return conninfo_as(superuser);
}

std::string Server::conninfo_as(const std::string &user, const std::string &more) const {
    return "host=" + directory_.string() + " dbname=postgres user=" + user + " " + more;
}

std::string Server::ask(const std::string &sql, const std::string &database) const {
    const Connection connection(PQconnectdb((conninfo() + "dbname=" + database).c_str()), PQfinish);
    const Result result(PQexec(connection.get(), sql.c_str()), PQclear);
    const auto status = PQresultStatus(result.get());
    if (status != PGRES_TUPLES_OK && status != PGRES_COMMAND_OK)
        throw std::runtime_error(PQerrorMessage(connection.get()));
    return PQntuples(result.get()) > 0 ? PQgetvalue(result.get(), 0, 0) : "";
}

void Server::run(const std::string &sql, const std::string &database) const {
    ask(sql, database);
}

size_t Server::count_in_log(const std::string &words) const {
    const std::string log = read_file(directory_ / "log");
    size_t count = 0;
    for (size_t at = log.find(words); at != std::string::npos; at = log.find(words, at + 1))
        ++count;
    return count;
}

void Server::set_access(const std::string &lines) const {
    std::ofstream(directory_ / "data/pg_hba.conf") << lines;
    ask("SELECT pg_reload_conf()");
}

Server &server() {
    static Server the_server;
    return the_server;
}

} // namespace velia::postgres_test
