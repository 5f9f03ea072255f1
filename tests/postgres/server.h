// A database server of a test's own: in a directory that goes with it, over a Unix socket there, and ended with the
// process that started it. It refuses root, so where the test is root's it is another user's.
#pragma once

#include <filesystem>
#include <string>
#include <sys/types.h>

namespace velia::postgres_test {

class Server {
public:
    // Throws std::runtime_error with what the programs said.
    Server();
    // A standby of that one, which serves readers until it is promoted.
    struct StandbyOf {
        const Server &primary;
    };
    explicit Server(StandbyOf standby_of);
    // A machine for one, without data.
    struct Empty {};
    explicit Server(Empty /*empty*/);
    ~Server();
    Server(const Server &) = delete;
    Server &operator=(const Server &) = delete;

    // Started again over what it has; with more of its switches, and "NAME=value" in its environment.
    void start(const std::string &switches = "", const std::string &environment = "");
    void stop();     // at once, as a machine that is switched off
    void kill_all(); // by SIGKILL, with all its processes

    // Forgets what it has and becomes a standby of that one.
    void follow(const Server &primary);
    // From now on nothing is committed before a standby has it, too; waits until one does.
    void demand_standby() const;
    void demand_no_standby() const;
    // Takes changes from now on, by itself.
    void promote() const;

    // How its superuser reaches it.
    std::string conninfo() const;
    std::string conninfo_as(const std::string &user, const std::string &more = "") const;

    // Of its socket, too.
    const std::filesystem::path &directory() const { return directory_; }

    // As its superuser. Throws std::runtime_error.
    void run(const std::string &sql, const std::string &database = "postgres") const;
    std::string ask(const std::string &sql, const std::string &database = "postgres") const;

    // A line for a shell, as its administrator would give it there. Throws std::runtime_error with what was said.
    void run_line(const std::string &line) const;

    // Until it says "t".
    void wait_for(const std::string &condition) const;

    // How often its log has these words.
    size_t count_in_log(const std::string &words) const;

    // Who may come in how: the lines of pg_hba.conf, which are read at once.
    void set_access(const std::string &lines) const;

private:
    void run_program(const std::string &words) const;
    void wait_until_it_answers() const;

    std::filesystem::path directory_;
    pid_t process_ = 0;
};

// The one of this process.
Server &server();

} // namespace velia::postgres_test
