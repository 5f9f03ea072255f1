// The registry from a client to the database and back: one look-up against a bare call with the same bytes and against
// a well-known server's GET, a scan of many entries, and acknowledged updates against bare commits.
#include <bench/comparisons/other_servers.h>
#include <bench/support/check.h>
#include <bench/support/ratio.h>
#include <bench/support/site.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <sys/resource.h>

#include <server/registry/service.h>
#include <server/registry/sqlite.h>
#include <support/credmap.h>
#include <support/ks.h>
#include <veliaxdr/rgy_fetch.h>
#include <veliaxdr/rgy_site.h>
#include <veliaxdr/rgy_wire.h>

namespace {

using bench::check;

constexpr int scanned_entries = 100000;
constexpr int64_t batch_entries = 100;
constexpr const char *wanted = "entry777";
constexpr const char *some_text = ";-hostname=build7;-region=east;-owner=somebody;";

const bench::Site *site;

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

void look_up(const char *name) {
    rgy_cursor_t *cursor = nullptr;
    rgy_entry_t *entry = nullptr;
    int64_t count = 0;
    check(rgy_findbystring_entry(RGY_DB_CT_SERVERS, nullptr, nullptr, RGY_ITEM_NAME, name, &cursor, 1, &entry,
                                 &count) == TBS_ST_OK &&
              count == 1,
          "look-up");
    rgy_delete_entry(&entry);
    rgy_close_cursor(&cursor);
}

void UncachedLookup(benchmark::State &state) {
    rgy_cache_action(0);
    for (auto _ : state)
        look_up(wanted);
}

// One after the other, and so none that the daemon still has in memory.
void LookupOfEachEntry(benchmark::State &state) {
    rgy_cache_action(0);
    static int number;
    for (auto _ : state)
        look_up(("entry" + std::to_string(1 + number++ % scanned_entries)).c_str());
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

template <class Server>
void register_get(const char *name, const Server &server) {
    benchmark::RegisterBenchmark(name, [name, &server](benchmark::State &state) {
        for (auto _ : state)
            check(server.get(), name);
    })->UseRealTime();
}

BENCHMARK(BareLookup)->UseRealTime();
BENCHMARK(UncachedLookup)->UseRealTime();
BENCHMARK(LookupOfEachEntry)->UseRealTime();
BENCHMARK(ScanOf100000)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BareCommit)->UseRealTime();
BENCHMARK(AcknowledgedAdd)->UseRealTime();

} // namespace

int main(int argc, char **argv) {
    const bench::Site own_site(BENCH_DAEMON, BENCH_SAMPLE_SERVER);
    site = &own_site;
    fill_database();
    std::vector<bench::Ratio> ratios = {{"UncachedLookup", "BareLookup", 1.10}, {"AcknowledgedAdd", "BareCommit", 0}};
    const auto key_value_server = bench::KeyValueServer::start();
    const auto coordinator = bench::Coordinator::start(site->root() + "/coordinator");
    if (key_value_server != nullptr) {
        register_get("RedisGet", *key_value_server);
        ratios.push_back({"UncachedLookup", "RedisGet", 1.0});
        ratios.push_back({"LookupOfEachEntry", "RedisGet", 0});
    }
    if (coordinator != nullptr) {
        register_get("ZooKeeperGet", *coordinator);
        ratios.push_back({"UncachedLookup", "ZooKeeperGet", 0.25});
    }
    return bench::run(argc, argv, ratios);
}
