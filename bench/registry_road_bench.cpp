// The registry from a client to the database and back: one look-up against a bare call with the same bytes and against
// a well-known server's GET, a scan of many entries, and acknowledged updates against bare commits.
#include <bench/support/ratio.h>
#include <bench/support/site.h>

#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <netinet/tcp.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#ifdef BENCH_WITH_ZOOKEEPER
#include <zookeeper/zookeeper.h>
#endif

#include <server/registry/service.h>
#include <server/registry/sqlite.h>
#include <support/credmap.h>
#include <support/ks.h>
#include <veliaxdr/rgy_fetch.h>
#include <veliaxdr/rgy_site.h>
#include <veliaxdr/rgy_wire.h>

namespace {

constexpr int scanned_entries = 100000;
constexpr int64_t batch_entries = 100;
constexpr const char *wanted = "entry777";
constexpr const char *some_text = ";-hostname=build7;-region=east;-owner=somebody;";

const bench::Site *site;

void check(bool ok, const char *what) {
    if (ok)
        return;
    fprintf(stderr, "%s failed\n", what);
    exit(1);
}

// Behind the daemon's back: what is measured is not how they come in.
void fill_database() {
    velia::server::Sqlite database(velia::server::registry_file());
    velia::server::Transaction transaction(database);
    velia::server::Statement entry(database,
                                   "INSERT INTO entry (id, db, region, identity, text) VALUES (?1, ?2, x'', x'', ?3)");
    velia::server::Statement item(database, "INSERT INTO item (db, key, value, entry) VALUES (?1, ?2, ?3, ?4)");
    for (int i = 1; i <= scanned_entries; ++i) {
        const std::string name = "entry" + std::to_string(i);
        const auto id = static_cast<uint64_t>(i);
        entry.with(id, uint32_t{RGY_DB_CT_SERVERS}, "-name=" + name + some_text).run();
        item.with(uint32_t{RGY_DB_CT_SERVERS}, std::string_view("-name"), name, id).run();
    }
    transaction.commit();
}

void UncachedLookup(benchmark::State &state) {
    rgy_cache_action(0);
    for (auto _ : state) {
        rgy_cursor_t *cursor = nullptr;
        rgy_entry_t *entry = nullptr;
        int64_t count = 0;
        check(rgy_findbystring_entry(RGY_DB_CT_SERVERS, nullptr, nullptr, RGY_ITEM_NAME, wanted, &cursor, 1, &entry,
                                     &count) == TBS_ST_OK &&
                  count == 1,
              "look-up");
        rgy_delete_entry(&entry);
        rgy_close_cursor(&cursor);
    }
}

CLIENT *bare_client() {
    rvzd_handle_t *handle = nullptr;
    check(rvzd_get_handle(bench::Site::host, &handle) == TBS_ST_OK, "handle");
    rvzd_server_addr_t broker;
    rvzd_get_addr(handle, &broker);
    rvzd_free_handle(handle);
    int fd = -1;
    CLIENT *client = ks_clntudp_create_sockaddr(&broker.addrs[0].base, RVZD_PROGRAM, RVZD_VERSION, 3, 0, &fd);
    check(client != nullptr, "client");
    clnt_control(client, CLSET_FD_CLOSE, nullptr);
    client->cl_auth = credmap_authunix_create_nobody();
    return client;
}

void BareLookup(benchmark::State &state) {
    CLIENT *client = bare_client();
    uint64_t sequence = 0;
    const auto text = [](const char *constant) { return const_cast<char *>(constant); };
    for (auto _ : state) {
        rvzd_registry_findbystring_req_t request = {
            {1, sequence++}, RGY_DB_CT_SERVERS, RGY_PROTOCOL_VERSION, {}, text(""), 0, 1, text("-name"), text(wanted)};
        rvzd_registry_get_reply_t reply = {};
        check(clnt_call(client, RVZD_PROC_RGY_FINDBYSTRING_ENTRY,
                        reinterpret_cast<xdrproc_t>(xdr_rvzd_registry_findbystring_req_t), &request,
                        reinterpret_cast<xdrproc_t>(xdr_rvzd_registry_get_reply_t), &reply,
                        (timeval{25, 0})) == RPC_SUCCESS &&
                  reply.count == 1,
              "call");
        clnt_freeres(client, reinterpret_cast<xdrproc_t>(xdr_rvzd_registry_get_reply_t), &reply);
    }
    auth_destroy(client->cl_auth);
    clnt_destroy(client);
}

int64_t peak_memory_kib() {
    rusage usage = {};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

void ScanOf100000(benchmark::State &state) {
    int64_t entries = 0;
    const int64_t before_kib = peak_memory_kib();
    for (auto _ : state) {
        rgy_cursor_t *cursor = nullptr;
        std::array<rgy_entry_t *, batch_entries> batch = {};
        do {
            int64_t count = 0;
            check(rgy_get_entry(RGY_DB_CT_SERVERS, nullptr, nullptr, &cursor, batch_entries, batch.data(), &count) ==
                      TBS_ST_OK,
                  "scan");
            for (size_t i = 0; cursor != nullptr && i < static_cast<size_t>(count); ++i, ++entries)
                rgy_delete_entry(&batch[i]);
        } while (cursor != nullptr);
    }
    check(entries == int64_t{scanned_entries} * static_cast<int64_t>(state.iterations()), "count of entries");
    state.counters["entries"] = benchmark::Counter(static_cast<double>(entries), benchmark::Counter::kIsRate);
    state.counters["peak_growth_KiB"] = static_cast<double>(peak_memory_kib() - before_kib);
}

void AcknowledgedAdd(benchmark::State &state) {
    rvzd_handle_t *handle = nullptr;
    check(rvzd_get_handle_prim(bench::Site::host, 1, &handle) == TBS_ST_OK, "handle");
    static uint64_t number;
    for (auto _ : state) {
        rgy_dtm_pair_t stamps;
        check(rvzd_rgy_get_id(handle, RGY_DB_DOMAINS, RGY_PROTOCOL_VERSION, &stamps) == TBS_ST_OK, "stamps");
        const std::string text = "-domain=d" + std::to_string(++number) + some_text;
        check(rvzd_rgy_add_entry(handle, RGY_DB_DOMAINS, RGY_PROTOCOL_VERSION, &stamps, text.c_str()) == TBS_ST_OK,
              "add");
    }
    rvzd_free_handle(handle);
}

// One row a transaction, in a database of the same kind on the same disk.
void BareCommit(benchmark::State &state) {
    velia::server::Sqlite database(site->root() + "/bare.db");
    database.run("PRAGMA journal_mode = WAL");
    database.run("PRAGMA synchronous = FULL");
    database.run("CREATE TABLE IF NOT EXISTS entry (id INTEGER PRIMARY KEY, text BLOB)");
    velia::server::Statement insert(database, "INSERT INTO entry (text) VALUES (?1)");
    for (auto _ : state) {
        velia::server::Transaction transaction(database);
        insert.with(std::string("-domain=d") + some_text).run();
        transaction.commit();
    }
}

// Another server to compare with, as a silent child of this process.
class OtherServer {
public:
    explicit OtherServer(std::vector<std::string> words) : child_(fork()) {
        if (child_ != 0)
            return;
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        const int null = open("/dev/null", O_RDWR);
        dup2(null, STDOUT_FILENO);
        dup2(null, STDERR_FILENO);
        std::vector<char *> arguments;
        for (auto &word : words)
            arguments.push_back(word.data());
        arguments.push_back(nullptr);
        execvp(arguments.front(), arguments.data());
        _exit(1);
    }
    ~OtherServer() {
        kill(child_, SIGKILL);
        waitpid(child_, nullptr, 0);
    }
    OtherServer(const OtherServer &) = delete;
    OtherServer &operator=(const OtherServer &) = delete;

private:
    pid_t child_;
};

// A key-value server that everybody knows, spoken to in its own plain protocol.
class KeyValueServer {
public:
    KeyValueServer()
        : port_(static_cast<uint16_t>(site->port() + 1)),
          server_({"redis-server", "--port", std::to_string(port_), "--bind", "127.0.0.1", "--save", "", "--appendonly",
                   "no"}) {
        connect_to_it();
        ask("*3\r\n$3\r\nSET\r\n$8\r\nentry777\r\n$54\r\n-name=entry777;-hostname=build7;-region=east;-owner="
            "someb\r\n");
    }
    ~KeyValueServer() { close(fd_); }
    KeyValueServer(const KeyValueServer &) = delete;
    KeyValueServer &operator=(const KeyValueServer &) = delete;

    void get() { check(ask("*2\r\n$3\r\nGET\r\n$8\r\nentry777\r\n") > 50, "GET"); }

private:
    void connect_to_it() {
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_port = htons(port_);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        for (int tries = 0; tries < 500; ++tries) {
            fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
            if (connect(fd_, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0)
                break;
            close(fd_);
            usleep(10000);
        }
        const int on = 1;
        check(setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) == 0, "the key-value server");
    }
    ssize_t ask(const std::string &request) const {
        char reply[256];
        check(send(fd_, request.data(), request.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(request.size()), "send");
        return recv(fd_, reply, sizeof reply, 0);
    }

    uint16_t port_;
    OtherServer server_;
    int fd_ = -1;
};

void RedisGet(benchmark::State &state) {
    KeyValueServer server;
    for (auto _ : state)
        server.get();
}

#ifdef BENCH_WITH_ZOOKEEPER

// A coordination service in its own process, through its own C client.
class Coordinator {
public:
    Coordinator()
        : port_(std::to_string(site->port() + 2)),
          server_({"java", "-cp", "/usr/share/java/zookeeper.jar", "org.apache.zookeeper.server.ZooKeeperServerMain",
                   port_, site->root() + "/coordinator"}) {
        zoo_set_debug_level(ZOO_LOG_LEVEL_ERROR);
        zoo_set_log_stream(fopen("/dev/null", "we"));
        handle_ = zookeeper_init(("127.0.0.1:" + port_).c_str(), nullptr, 30000, nullptr, nullptr, 0);
        check(handle_ != nullptr, "the coordinator's client");
        for (int tries = 0; tries < 3000 && zoo_state(handle_) != ZOO_CONNECTED_STATE; ++tries)
            usleep(10000);
        check(zoo_create(handle_, "/entry777", some_text, static_cast<int>(strlen(some_text)), &ZOO_OPEN_ACL_UNSAFE, 0,
                         nullptr, 0) == ZOK,
              "the coordinator's node");
    }
    ~Coordinator() { zookeeper_close(handle_); }
    Coordinator(const Coordinator &) = delete;
    Coordinator &operator=(const Coordinator &) = delete;

    void get() {
        char bytes[256];
        int length = sizeof bytes;
        check(zoo_get(handle_, "/entry777", 0, bytes, &length, nullptr) == ZOK && length > 40, "get");
    }

private:
    std::string port_;
    OtherServer server_;
    zhandle_t *handle_;
};

void ZooKeeperGet(benchmark::State &state) {
    static Coordinator coordinator; // slow to start
    for (auto _ : state)
        coordinator.get();
}

#endif

BENCHMARK(BareLookup)->UseRealTime();
BENCHMARK(UncachedLookup)->UseRealTime();
BENCHMARK(ScanOf100000)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BareCommit)->UseRealTime();
BENCHMARK(AcknowledgedAdd)->UseRealTime();

} // namespace

int main(int argc, char **argv) {
    const bench::Site own_site(BENCH_DAEMON, BENCH_SAMPLE_SERVER);
    site = &own_site;
    fill_database();
    std::vector<bench::Ratio> ratios = {{"UncachedLookup", "BareLookup", 1.10}, {"AcknowledgedAdd", "BareCommit", 0}};
    if (std::filesystem::exists("/usr/bin/redis-server")) {
        benchmark::RegisterBenchmark("RedisGet", RedisGet)->UseRealTime();
        ratios.push_back({"UncachedLookup", "RedisGet", 1.3});
    } else {
        printf("redis-server is not installed, so there is no comparison with it.\n");
    }
#ifdef BENCH_WITH_ZOOKEEPER
    benchmark::RegisterBenchmark("ZooKeeperGet", ZooKeeperGet)->UseRealTime();
    ratios.push_back({"UncachedLookup", "ZooKeeperGet", 0.25});
#else
    printf("The client of ZooKeeper is not installed, so there is no comparison with it.\n");
#endif
    return bench::run(argc, argv, ratios);
}
