// The registry in a PostgreSQL database from its clients' side: one look-up and one add through a daemon, beside a call
// that the daemon answers from memory and the database's own statement of the same shape; and look-ups per second of
// two daemons over those of one; and what a piece of a listing costs that is read on of a standby. Many short turns of
// each, one after the other, since others use the machine, too: the least and the median of them, and the median of the
// ratios within a turn.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <bench/support/check.h>
#include <bench/support/pgbench.h>
#include <tests/system/support/daemon.h>
#include <tests/system/support/registry_calls.h>
#include <veliaxdr/rgy_site.h>
#include <veliaxdr/rvzd_daemon.h>

using bench::check;
using velia::system_test::Daemon;
using velia::system_test::Site;

namespace {

constexpr int entries = 1000;
constexpr int rounds = 200;
constexpr int turns = 21;
constexpr int clients = 4;
constexpr int rounds_of_client = 500;

double us_each(int count, const std::function<void(int)> &body) {
    const auto begin = std::chrono::steady_clock::now();
    for (int i = 0; i < count; ++i)
        body(i);
    return std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - begin).count() / count;
}

class Figures {
public:
    void take(double figure) { figures_.push_back(figure); }
    double median() {
        std::sort(figures_.begin(), figures_.end());
        return figures_.at(figures_.size() / 2);
    }
    double least() const { return *std::min_element(figures_.begin(), figures_.end()); }

private:
    std::vector<double> figures_;
};

void look_up(const char *host, const std::string &name) {
    rgy_cursor_t *cursor = nullptr;
    rgy_entry_t *entry = nullptr;
    int64_t count = 0;
    check(rgy_findbystring_entry(RGY_DB_REGIONS, host, nullptr, RGY_ITEM_NAME, name.c_str(), &cursor, 1, &entry,
                                 &count) == TBS_ST_OK &&
              count == 1,
          "look-up");
    rgy_delete_entry(&entry);
    rgy_close_cursor(&cursor);
}

void add(const std::string &name) {
    check(velia::system_test::add(RGY_DB_REGIONS, "-name=" + name + ";") == TBS_ST_OK, "add");
}

void call() {
    rvzd_registry_state_reply_t reply = {};
    check(rvzd_registry_state(velia::system_test::own_handle("alpha").get(), nullptr, 0, "", &reply) == TBS_ST_OK,
          "call");
    rvzd_registry_state_free(&reply);
}

// All entries, in pieces; what one of them takes.
double us_of_piece(const char *host) {
    constexpr int64_t piece_max = 50;
    rvzd_handle_t *handle = nullptr;
    check(rvzd_get_handle_proto(host, RVZD_PROTOCOL_TCP, &handle) == TBS_ST_OK, "connection");
    rgy_dtm_pair_t stamps = {};
    uint64_t cursor = 0;
    int pieces = 0;
    const auto begin = std::chrono::steady_clock::now();
    do {
        int64_t count = 0;
        rgy_elist_t piece = rgy_elist_alloc(piece_max);
        check(rvzd_rgy_get_entry(handle, RGY_DB_REGIONS, RGY_PROTOCOL_VERSION, "", &stamps, &cursor, piece_max, piece,
                                 &count) == TBS_ST_OK,
              "listing");
        rgy_elist_free(piece, piece_max);
        ++pieces;
    } while (cursor != 0);
    const std::chrono::duration<double, std::micro> took = std::chrono::steady_clock::now() - begin;
    rvzd_free_handle(handle);
    check(pieces > entries / piece_max, "all pieces");
    return took.count() / pieces;
}

const std::vector<const char *> one_host = {"alpha"};
const std::vector<const char *> two_hosts = {"alpha", "beta"};

// Of so many clients, each a process, spread over the daemons.
double look_ups_per_s(const std::vector<const char *> &hosts) {
    std::vector<pid_t> processes;
    const auto begin = std::chrono::steady_clock::now();
    for (size_t client = 0; client < clients; ++client) {
        const pid_t process = fork();
        if (process == 0) {
            rgy_cache_action(0);
            for (int i = 0; i < rounds_of_client; ++i)
                look_up(hosts.at(client % hosts.size()), std::to_string(i % entries));
            _exit(0);
        }
        processes.push_back(process);
    }
    for (const pid_t process : processes) {
        int status = -1;
        waitpid(process, &status, 0);
        check(status == 0, "client");
    }
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begin;
    return clients * rounds_of_client / took.count();
}

// What a process has had of processors, which others on the machine change little.
double processor_s(pid_t process) {
    std::ifstream file("/proc/" + std::to_string(process) + "/stat");
    std::string text;
    std::getline(file, text);
    std::istringstream words(text.substr(text.rfind(')') + 1));
    std::string passed;
    for (int i = 0; i < 11; ++i)
        words >> passed;
    double user = 0;
    double system = 0;
    check(bool(words >> user >> system), "processor time");
    return (user + system) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

// Of those that serve the daemons.
double processor_s(const velia::postgres_test::Server &server) {
    std::istringstream processes(
        server.ask("SELECT string_agg(pid::text, ' ') FROM pg_stat_activity WHERE application_name = 'rvzd_server'"));
    double sum = 0;
    for (pid_t process = 0; processes >> process;)
        sum += processor_s(process);
    return sum;
}

double processor_s_of_clients() {
    rusage usage = {};
    getrusage(RUSAGE_CHILDREN, &usage);
    const auto seconds = [](const timeval &time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

// Of look-ups alone, with a daemon that serves all of them.
struct Processors {
    double daemon = 0;
    double database = 0;
    double clients = 0;
};
Processors processors_of_look_up(const Daemon &daemon, const velia::postgres_test::Server &server) {
    const Processors before = {processor_s(daemon.pid()), processor_s(server), processor_s_of_clients()};
    for (int turn = 0; turn < turns; ++turn)
        look_ups_per_s(one_host);
    constexpr double us_of_one = 1e6 / (turns * clients * rounds_of_client);
    return {(processor_s(daemon.pid()) - before.daemon) * us_of_one,
            (processor_s(server) - before.database) * us_of_one,
            (processor_s_of_clients() - before.clients) * us_of_one};
}

std::unique_ptr<Daemon> started(const Site &site, const std::string &root, const char *host, const char *address) {
    for (const char *directory : {"host/config", "host/priv", "host/data", "log"})
        std::filesystem::create_directories(site.path(root + directory));
    if (!root.empty() && !std::filesystem::exists(site.path(root + "config")))
        std::filesystem::create_symlink(site.path("config"), site.path(root + "config"));
    site.write(root + "host/config/rgy_svr.conf", "master");
    site.write(root + "host/config/rgy_hosts.conf", std::string(host) + "\n\n");
    velia::system_test::Child::Options options;
    options.environment = {"VELIA_ROOT=" + site.path(root), std::string("VELIA_HOSTNAME=") + host};
    auto daemon = std::make_unique<Daemon>(site, std::vector<std::string>{"--listen", address}, options);
    check(daemon->is_ready(), "daemon");
    return daemon;
}

// A cost beside what is to be compared with it, both taken in the same turns.
struct Compared {
    Figures own;
    Figures base;
    Figures ratios;

    void take(double own_us, double base_us) {
        own.take(own_us);
        base.take(base_us);
        ratios.take(own_us / base_us);
    }
    void print(const char *what, const char *beside) {
        printf("%-34s least %7.1f us, median %7.1f  %s least %7.1f us, median %7.1f  ratio %.2f of the least, %.2f the "
               "median\n",
               what, own.least(), own.median(), beside, base.least(), base.median(), own.least() / base.least(),
               ratios.median());
    }
};

void print_loads() {
    double loads[3] = {};
    check(getloadavg(loads, 3) == 3, "loads");
    printf("load of the machine in the last minute, with this: %.1f\n", loads[0]);
}

} // namespace

int main() {
    const Site site;
    const velia::postgres_test::Server server;
    const std::string configuration =
        velia::system_test::trusted_hosts + std::string("option store postgresql \"") + server.conninfo() + "\"\n";
    site.configure(configuration);
    const auto alpha = started(site, "", "alpha", "127.0.0.1");
    auto beta = started(site, "beta/", "beta", "127.0.0.2");
    for (int i = 0; i < entries; ++i)
        add(std::to_string(i));
    server.run("CREATE SEQUENCE numbers START 1000000; ANALYZE");
    rgy_cache_action(0);
    Figures calls, of_one, of_two, ratios;
    Compared look_ups, adds;
    for (int turn = 0; turn < turns; ++turn) {
        const double call_us = us_each(rounds, [](int) { call(); });
        const double look_up_us = us_each(rounds, [](int i) { look_up("alpha", std::to_string(i % entries)); });
        look_ups.take(look_up_us, bench::pgbench_us(server, "prepared", bench::look_up_script, rounds) + call_us);
        const double add_us = us_each(rounds, [&](int i) { add("more" + std::to_string(turn * rounds + i)); });
        adds.take(add_us, bench::pgbench_us(server, "simple", bench::add_script, rounds) + 2 * call_us);
        calls.take(call_us);
        const bool is_one_first = turn % 2 == 0;
        const double first = look_ups_per_s(is_one_first ? one_host : two_hosts);
        const double second = look_ups_per_s(is_one_first ? two_hosts : one_host);
        of_one.take(is_one_first ? first : second);
        of_two.take(is_one_first ? second : first);
        ratios.take(is_one_first ? second / first : first / second);
    }
    printf("a call that is answered from memory: least %.1f us, median %.1f\n", calls.least(), calls.median());
    look_ups.print("a look-up through a daemon", "pgbench and a call");
    adds.print("an add through a daemon, two calls", "pgbench and two calls");
    printf("look-ups of %d clients: one daemon %.0f/s, two %.0f/s (medians), ratio %.2f (median of the turns')\n",
           clients, of_one.median(), of_two.median(), ratios.median());
    const Processors processors = processors_of_look_up(*alpha, server);
    printf("of processors a look-up takes: the daemon's %.1f us, the database's %.1f, the client's %.1f\n",
           processors.daemon, processors.database, processors.clients);
    const velia::postgres_test::Server standby(velia::postgres_test::Server::StandbyOf{server});
    Figures of_primary;
    for (int turn = 0; turn < turns; ++turn)
        of_primary.take(us_of_piece("beta"));
    beta.reset();
    site.configure(configuration + "option store-replica \"" + standby.conninfo() + "\"\n");
    beta = started(site, "beta/", "beta", "127.0.0.2");
    Figures of_standby;
    for (int turn = 0; turn < turns; ++turn)
        of_standby.take(us_of_piece("beta"));
    check(standby.ask("SELECT count(*) FROM pg_stat_activity WHERE application_name = 'rvzd_server'") != "0",
          "reading of the standby");
    printf("a piece of a listing: of the primary least %.1f us, median %.1f; of a standby %.1f, %.1f\n",
           of_primary.least(), of_primary.median(), of_standby.least(), of_standby.median());
    print_loads();
    return EXIT_SUCCESS;
}
