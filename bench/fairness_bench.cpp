// How soon good clients are served while others ask for what costs much: 16 of them look up and add, half over UDP and
// half over TCP, during each attack and during all together. And what the daemon does without one: look-ups a second of
// 64 clients, what 1,000 connections cost, and how long one request of each kind keeps the loop, of a million entries.
#include <bench/support/site.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <sqlite3.h>

#include <tests/system/support/attacks.h>
#include <tests/system/support/raw.h>
#include <veliaxdr/rvzd_procedure_rows.hpp>

using velia::system_test::Attack;
using velia::system_test::Bytes;
namespace procedures = velia::procedures;

namespace {

using Clock = std::chrono::steady_clock;

constexpr uint32_t slow_program = 390700;
constexpr int entries = 200'000;
constexpr int good_clients = 16;
constexpr int throughput_clients = 64;
constexpr auto attack_time = std::chrono::seconds(4);
constexpr auto throughput_time = std::chrono::seconds(3);
constexpr int answer_wait_ms = 10'000;
constexpr ssize_t bytes_without_entry = 100; // a reply that has none is shorter
constexpr double usual_most_ms = 20;         // of 99 of 100
constexpr double longest_most_ms = 100;

void run_sql(const std::string &file, const std::string &sql) {
    sqlite3 *database = nullptr;
    if (sqlite3_open(file.c_str(), &database) != SQLITE_OK ||
        sqlite3_exec(database, sql.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK) {
        fprintf(stderr, "%s: %s\n", file.c_str(), sqlite3_errmsg(database));
        exit(1);
    }
    sqlite3_close(database);
}

void fill(const std::string &file, int count) {
    run_sql(file, "INSERT INTO entry (db, region, identity, text) WITH RECURSIVE number(i) AS (SELECT 1 UNION ALL "
                  "SELECT i + 1 FROM number WHERE i < " +
                      std::to_string(count) + ") SELECT " + std::to_string(int{RGY_DB_REGIONS}) +
                      ", CAST('east' AS BLOB), x'', CAST('-name=region' || i || ';-region=east;' AS BLOB) FROM number;"
                      "INSERT INTO item SELECT db, CAST('-name' AS BLOB), CAST('region' || id AS BLOB), id FROM entry "
                      "WHERE id <= 1000 ON CONFLICT DO NOTHING");
}

template <class Procedure, class Request>
Bytes call_of(const Procedure &procedure, Request request, uint32_t xid) {
    Bytes message = velia::system_test::call_message(xid, RVZD_PROGRAM, RVZD_VERSION, procedure.number);
    // Updates want to know who asks: credentials in place of none.
    Bytes credentials;
    for (const uint32_t word : {1U, 20U, 0U, 0U, 1000U, 1000U, 0U, 0U, 0U})
        velia::system_test::put_word(credentials, word);
    message.resize(24);
    message.insert(message.end(), credentials.begin(), credentials.end());
    std::array<char, 8192> arguments;
    XDR stream;
    xdrmem_create(&stream, arguments.data(), arguments.size(), XDR_ENCODE);
    procedure.xdr_request(&stream, &request);
    message.insert(message.end(), arguments.data(), arguments.data() + xdr_getpos(&stream));
    return message;
}

Bytes look_up_call(uint32_t xid) {
    static char key[] = "-name";
    static char region[] = "";
    std::string name = "region" + std::to_string(1 + xid % 1000);
    rvzd_registry_findbystring_req_t request = {};
    request.db = RGY_DB_REGIONS;
    request.version = RGY_PROTOCOL_VERSION;
    request.region = region;
    request.max_entries = 1;
    request.item_key = key;
    request.lookup_string = name.data();
    return call_of(procedures::rgy_findbystring_entry, request, xid);
}

class Client {
public:
    Client(uint16_t port, bool is_tcp)
        : is_tcp_(is_tcp), fd_(socket(AF_INET, (is_tcp ? SOCK_STREAM : SOCK_DGRAM) | SOCK_CLOEXEC, 0)) {
        address_.sin_family = AF_INET;
        address_.sin_port = htons(port);
        address_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        connect(fd_, reinterpret_cast<sockaddr *>(&address_), sizeof address_);
    }
    ~Client() { close(fd_); }
    Client(const Client &) = delete;
    Client &operator=(const Client &) = delete;

    void send(const Bytes &message) const {
        const Bytes bytes = is_tcp_ ? velia::system_test::as_record(message) : message;
        ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    }
    // The reply message; empty when none comes.
    Bytes receive() const {
        Bytes bytes(65536);
        pollfd readable = {fd_, POLLIN, 0};
        const ssize_t count = poll(&readable, 1, answer_wait_ms) > 0 ? recv(fd_, bytes.data(), bytes.size(), 0) : 0;
        bytes.resize(count > 0 ? static_cast<size_t>(count) : 0);
        if (is_tcp_ && bytes.size() >= 4)
            bytes.erase(bytes.begin(), bytes.begin() + 4);
        return bytes;
    }
    int fd() const { return fd_; }

private:
    bool is_tcp_;
    int fd_;
    sockaddr_in address_ = {};
};

struct Figures {
    std::vector<double> times_ms;
    size_t unanswered = 0;
    size_t added = 0;
};

// Looks up, and now and then adds, until told to stop.
class GoodClient {
public:
    GoodClient(uint16_t port, int number, bool adds, const std::atomic<bool> &is_over)
        : client_(port, number % 2 != 0), number_(number), adds_(adds), is_over_(is_over), thread_([this] { run(); }) {}

    Figures take() {
        thread_.join();
        return std::move(figures_);
    }

private:
    Bytes ask(const Bytes &call) {
        const auto begin = Clock::now();
        client_.send(call);
        Bytes reply = client_.receive();
        figures_.times_ms.push_back(std::chrono::duration<double, std::milli>(Clock::now() - begin).count());
        figures_.unanswered += reply.empty() ? 1 : 0;
        return reply;
    }
    template <class Procedure, class Reply>
    bool decode(const Procedure &procedure, Bytes &bytes, Reply &reply) {
        constexpr size_t results_at = 24;
        if (bytes.size() <= results_at)
            return false;
        XDR stream;
        xdrmem_create(&stream, reinterpret_cast<char *>(bytes.data()) + results_at,
                      static_cast<u_int>(bytes.size() - results_at), XDR_DECODE);
        return procedure.xdr_reply(&stream, &reply) != FALSE;
    }
    void add() {
        rvzd_registry_get_id_req_t question = {};
        question.db = RGY_DB_VIEW_TAG;
        question.version = RGY_PROTOCOL_VERSION;
        Bytes bytes = ask(call_of(procedures::rgy_get_id, question, ++xid_));
        rvzd_registry_get_id_reply_t stamps = {};
        if (!decode(procedures::rgy_get_id, bytes, stamps))
            return;
        static std::atomic<uint64_t> tags; // of all attacks: none is there already
        std::string text = "-tag=t" + std::to_string(++tags) + ";";
        rvzd_registry_add_req_t request = {};
        request.db = RGY_DB_VIEW_TAG;
        request.version = RGY_PROTOCOL_VERSION;
        request.dtm = stamps.dtm;
        request.flex_text = text.data();
        bytes = ask(call_of(procedures::rgy_add_entry, request, ++xid_));
        rvzd_null_reply_t reply = {};
        if (decode(procedures::rgy_add_entry, bytes, reply) && reply.header.status == TBS_ST_OK)
            ++figures_.added;
    }
    void run() {
        for (int i = 0; !is_over_; ++i) {
            ask(look_up_call(++xid_));
            if (adds_ && i % 10 == number_ % 10)
                add();
            usleep(1000); // a site's clients have other things to do
        }
    }

    Client client_;
    int number_;
    bool adds_;
    const std::atomic<bool> &is_over_;
    Figures figures_;
    uint32_t xid_ = 1;
    std::thread thread_;
};

// Whoever holds the database for changes keeps every change waiting; look-ups go on.
constexpr const char *attack_on_changes = "lock";

bool measure(const char *name, const bench::Site &site, const std::vector<std::string> &attack_names) {
    const bool adds = std::find(attack_names.begin(), attack_names.end(), attack_on_changes) == attack_names.end();
    const velia::system_test::Target target = {site.port(), site.root() + "/host/priv/registry.db", slow_program};
    std::vector<std::unique_ptr<Attack>> attacks;
    for (const auto &attack : attack_names)
        attacks.push_back(std::make_unique<Attack>(attack, target));
    std::atomic<bool> is_over = false;
    std::vector<std::unique_ptr<GoodClient>> clients;
    for (int i = 0; i < good_clients; ++i)
        clients.push_back(std::make_unique<GoodClient>(site.port(), i, adds, is_over));
    std::this_thread::sleep_for(attack_time);
    is_over = true;
    Figures all;
    for (const auto &client : clients) {
        const Figures figures = client->take();
        all.times_ms.insert(all.times_ms.end(), figures.times_ms.begin(), figures.times_ms.end());
        all.unanswered += figures.unanswered;
        all.added += figures.added;
    }
    std::sort(all.times_ms.begin(), all.times_ms.end());
    const double usual_ms = all.times_ms.at(all.times_ms.size() * 99 / 100);
    const double longest_ms = all.times_ms.back();
    const bool is_met = usual_ms <= usual_most_ms && longest_ms <= longest_most_ms && all.unanswered == 0;
    printf("%-22s %8zu calls %6zu added  median %7.3f ms  99%% %8.3f ms  longest %9.3f ms  unanswered %zu%s\n", name,
           all.times_ms.size(), all.added, all.times_ms[all.times_ms.size() / 2], usual_ms, longest_ms, all.unanswered,
           is_met ? "" : "   MISSED");
    return is_met;
}

// Look-ups a second of clients that wait for their answers, driven by two threads.
double look_ups_a_second(uint16_t port, bool is_tcp) {
    std::atomic<bool> is_over = false;
    std::atomic<size_t> answers = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < 2; ++t)
        threads.emplace_back([&, t] {
            std::vector<std::unique_ptr<Client>> clients;
            std::vector<pollfd> waits;
            uint32_t xid = static_cast<uint32_t>(t) << 24;
            for (int i = 0; i < throughput_clients / 2; ++i) {
                clients.push_back(std::make_unique<Client>(port, is_tcp));
                waits.push_back({clients.back()->fd(), POLLIN, 0});
                clients.back()->send(look_up_call(++xid));
            }
            std::array<char, 4096> reply;
            while (!is_over && poll(waits.data(), waits.size(), 100) >= 0)
                for (size_t i = 0; i < waits.size(); ++i)
                    if ((waits[i].revents & POLLIN) != 0) {
                        answers += recv(waits[i].fd, reply.data(), reply.size(), 0) > bytes_without_entry ? 1 : 0;
                        clients[i]->send(look_up_call(++xid));
                    }
        });
    std::this_thread::sleep_for(throughput_time);
    const double rate = static_cast<double>(answers) / std::chrono::duration<double>(throughput_time).count();
    is_over = true;
    for (auto &thread : threads)
        thread.join();
    return rate;
}

int64_t resident_kib(pid_t pid) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(status, line);)
        if (line.starts_with("VmRSS:"))
            return std::strtoll(line.c_str() + 6, nullptr, 10);
    return 0;
}

bool measure_connections(const bench::Site &site) {
    constexpr int connections = 1000;
    const int64_t before_kib = resident_kib(site.pid());
    std::vector<std::unique_ptr<Client>> clients;
    for (int i = 0; i < connections; ++i) {
        clients.push_back(std::make_unique<Client>(site.port(), true));
        clients.back()->send(look_up_call(static_cast<uint32_t>(i)));
        clients.back()->receive();
    }
    const int64_t cost_kib = resident_kib(site.pid()) - before_kib;
    const bool is_met = cost_kib <= 10 * 1024;
    printf("%-22s %8lld KiB%s\n", "1,000 connections", static_cast<long long>(cost_kib), is_met ? "" : "   MISSED");
    return is_met;
}

// What the loop's thread has had of a processor, once it waits again: so how busy the machine is tells nothing.
int64_t loop_ns(pid_t pid) {
    const std::string task = "/proc/" + std::to_string(pid) + "/task/" + std::to_string(pid);
    for (int64_t before = -1;;) {
        int64_t now = 0;
        std::string state;
        std::ifstream(task + "/schedstat") >> now;
        std::ifstream(task + "/stat") >> state >> state >> state;
        if (now == before && state == "S")
            return now;
        before = now;
        usleep(200);
    }
}

struct LoopRequest {
    const char *name;
    Bytes (*call)(uint32_t xid);
};

template <class Request>
Request of_regions() {
    static char nothing[] = "";
    Request request = {};
    request.db = RGY_DB_REGIONS;
    request.version = RGY_PROTOCOL_VERSION;
    if constexpr (requires { request.region; })
        request.region = nothing;
    if constexpr (requires { request.max_entries; })
        request.max_entries = 1000;
    return request;
}

Bytes region_call(const char *region, uint32_t xid) {
    auto request = of_regions<rvzd_registry_get_req_t>();
    request.region = const_cast<char *>(region);
    return call_of(procedures::rgy_get_entry, request, xid);
}

// As much as one datagram holds.
Bytes patterns_call(uint32_t xid) {
    static char pattern[] = "*x*y";
    std::vector<char *> patterns(900, pattern);
    auto request = of_regions<rvzd_registry_get_pattern_req_t>();
    request.patterns = patterns.data();
    request.patterns_length = static_cast<int64_t>(patterns.size());
    request.pattern_count = static_cast<int32_t>(patterns.size());
    return call_of(procedures::rgy_get_pattern_entry, request, xid);
}

Bytes attribute_call(uint32_t xid) {
    static char key[] = "-attribute";
    static char nobody[] = "nobody";
    auto request = of_regions<rvzd_registry_findbyattr_req_t>();
    request.item_key = key;
    request.attr_name = nobody;
    request.attr_value = nobody;
    return call_of(procedures::rgy_findbyattr_entry, request, xid);
}

const LoopRequest loop_requests[] = {
    {"look-up by name", look_up_call},
    {"listing of all", [](uint32_t xid) { return region_call("", xid); }},
    {"listing of a region that nobody has", [](uint32_t xid) { return region_call("nobody", xid); }},
    {"patterns", patterns_call},
    {"attribute that nobody has", attribute_call},
    {"databases with their counts",
     [](uint32_t xid) {
         return call_of(procedures::rgy_get_db_list, rvzd_registry_get_db_req_t{{}, RGY_PROTOCOL_VERSION, RGY_DB_ALL},
                        xid);
     }},
    {"stamps",
     [](uint32_t xid) { return call_of(procedures::rgy_get_id, of_regions<rvzd_registry_get_id_req_t>(), xid); }},
    {"add with old stamps",
     [](uint32_t xid) {
         static char text[] = "-name=new;";
         auto request = of_regions<rvzd_registry_add_req_t>();
         request.flex_text = text;
         return call_of(procedures::rgy_add_entry, request, xid);
     }},
    {"removal",
     [](uint32_t xid) {
         auto request = of_regions<rvzd_registry_remove_req_t>();
         request.entry_id = 2000 + xid;
         return call_of(procedures::rgy_remove_entry, request, xid);
     }},
    {"registration of a client",
     [](uint32_t xid) { return call_of(procedures::clnt_list_register, rvzd_clnt_list_register_req_t{}, xid); }},
    {"list of servers", [](uint32_t xid) { return call_of(procedures::list_servers, rvzd_list_servers_req_t{}, xid); }},
};

// What one request takes of the loop, with a million entries.
bool measure_loop(const bench::Site &site) {
    constexpr int million = 1'000'000;
    constexpr int times = 40;
    constexpr double most_us = 1000;
    fill(site.root() + "/host/priv/registry.db", million - entries);
    bool is_met = true;
    uint32_t xid = 1;
    for (const auto &[name, call] : loop_requests) {
        const Client client(site.port(), true);
        std::vector<double> times_us;
        for (int i = 0; i < times; ++i) {
            const Bytes bytes = call(++xid);
            const int64_t before_ns = loop_ns(site.pid());
            client.send(bytes);
            client.receive();
            times_us.push_back(static_cast<double>(loop_ns(site.pid()) - before_ns) / 1000);
        }
        std::sort(times_us.begin(), times_us.end());
        const bool is_short = times_us.back() <= most_us;
        printf("fairness/loop  %-36s median %7.1f us  most %7.1f us%s\n", name, times_us[times / 2], times_us.back(),
               is_short ? "" : "   MISSED");
        is_met &= is_short;
    }
    return is_met;
}

std::vector<std::string> all_but_on_changes() {
    std::vector<std::string> names = Attack::names();
    std::erase(names, attack_on_changes);
    return names;
}

void prepare(const bench::Site &site) {
    fill(site.root() + "/host/priv/registry.db", entries);
    const std::string words = "printf 'secret\\n' | '" BENCH_DAEMON "' --set-registry-password";
    if (system(words.c_str()) != 0)
        exit(1);
    std::ofstream(site.root() + "/host/config/rvzd_server.conf", std::ios::app)
        << "access 127.0.0.0/8 read,register,write,administer\noption connections 1200\nudp shared " << slow_program
        << " 1 - - - /bin/sh -c \"sleep 600\"\n";
    kill(site.pid(), SIGHUP);
}

} // namespace

// `--benchmark_filter=REGEX` chooses among the names, as with the other benchmarks.
int main(int argc, char **argv) {
    std::string filter = ".*";
    for (int i = 1; i < argc; ++i)
        if (const std::string word = argv[i]; word.starts_with("--benchmark_filter="))
            filter = word.substr(strlen("--benchmark_filter="));
    const std::regex wanted(filter);
    std::vector<std::string> names = {"fairness/connections", "fairness/look_ups", "fairness/none"};
    for (const auto &attack : Attack::names())
        names.push_back("fairness/" + attack);
    names.emplace_back("fairness/all");
    names.emplace_back("fairness/loop");
    std::erase_if(names, [&](const std::string &name) { return !std::regex_search(name, wanted); });
    if (names.empty())
        return 0;
    setenv("VELIA_BENCH_PROCESSORS", "any", 0);
    setvbuf(stdout, nullptr, _IOLBF, 0);
    const int errors = dup(STDERR_FILENO); // what the daemon says of the attacks is not read
    dup2(open("/dev/null", O_WRONLY | O_CLOEXEC), STDERR_FILENO);
    const bench::Site site(BENCH_DAEMON, BENCH_SAMPLE_SERVER);
    dup2(errors, STDERR_FILENO);
    prepare(site);
    bool is_met = true;
    for (const auto &name : names) {
        if (name == "fairness/look_ups")
            for (const bool is_tcp : {false, true})
                printf("%-22s %8.0f look-ups a second over %s\n", name.c_str(), look_ups_a_second(site.port(), is_tcp),
                       is_tcp ? "TCP" : "UDP");
        else if (name == "fairness/connections")
            is_met &= measure_connections(site);
        else if (name == "fairness/loop")
            is_met &= measure_loop(site);
        else if (name == "fairness/none")
            is_met &= measure(name.c_str(), site, {});
        else if (name == "fairness/all")
            is_met &= measure(name.c_str(), site, all_but_on_changes());
        else
            is_met &= measure(name.c_str(), site, {name.substr(strlen("fairness/"))});
    }
    return is_met ? 0 : 1;
}
