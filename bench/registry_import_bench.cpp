// Many entries brought into the registry over one connection, in requests of some hundred, against a bare loop that
// inserts the same rows on the same disk: the entry and its items, a transaction for as many as a request holds.
#include <bench/support/ratio.h>
#include <bench/support/site.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include <server/registry/sqlite.h>
#include <server/registry/store.h>
#include <veliaxdr/rgy_wire.h>

namespace {

constexpr int entries_a_round = 2000;
constexpr int entries_a_request = 500;

const bench::Site *site;

void check(bool ok, const char *what) {
    if (ok)
        return;
    fprintf(stderr, "%s failed\n", what);
    exit(1);
}

// Another one each time, for both sides.
std::string text_of(uint64_t number) {
    return "-name=region" + std::to_string(number) + ";-title=one of many;-owner=somebody;";
}

void tell_rate(benchmark::State &state) {
    state.counters["entries"] =
        benchmark::Counter(static_cast<double>(state.iterations()) * entries_a_round, benchmark::Counter::kIsRate);
}

void send_request(rvzd_handle_t *handle, uint64_t &number) {
    std::vector<std::string> texts;
    for (int i = 0; i < entries_a_request; ++i)
        texts.push_back(text_of(++number));
    std::vector<rgy_change_t> changes;
    for (auto &text : texts)
        changes.push_back({0, text.data()});
    rgy_dtm_pair_t stamps = {};
    uint32_t failed = 0;
    uint32_t passed = 0;
    check(rvzd_rgy_change_entries(handle, RGY_DB_REGIONS, RGY_PROTOCOL_VERSION, &stamps, RGY_CHANGE_PASS_STANDING,
                                  nullptr, 0, changes.data(), static_cast<int64_t>(changes.size()), &failed,
                                  &passed) == TBS_ST_OK,
          "change");
}

void Import(benchmark::State &state) {
    rvzd_handle_t *handle = nullptr;
    check(rvzd_get_handle_prim_proto(bench::Site::host, RVZD_PROTOCOL_TCP, 1, 0, &handle) == TBS_ST_OK, "handle");
    static uint64_t number;
    for (auto _ : state)
        for (int sent = 0; sent < entries_a_round; sent += entries_a_request)
            send_request(handle, number);
    rvzd_free_handle(handle);
    tell_rate(state);
}

void insert_as_many(velia::server::Sqlite &database, uint64_t &number) {
    velia::server::Transaction transaction(database);
    velia::server::Statement entry(database, "INSERT INTO entry (db, region, identity, text) VALUES (?1, x'', ?2, ?3)");
    velia::server::Statement item(database, "INSERT INTO item (db, key, value, entry) VALUES (?1, ?2, ?3, ?4)");
    for (int i = 0; i < entries_a_request; ++i) {
        const std::string name = "region" + std::to_string(++number);
        entry.with(uint32_t{RGY_DB_REGIONS}, std::string_view(name), std::string_view(text_of(number))).run();
        const auto id = static_cast<uint64_t>(database.last_row_id());
        for (const auto &[key, value] : {std::pair<std::string_view, std::string_view>{"-name", name},
                                         {"-title", "one of many"},
                                         {"-owner", "somebody"}})
            item.with(uint32_t{RGY_DB_REGIONS}, key, value, id).run();
    }
    transaction.commit();
}

void BareInserts(benchmark::State &state) {
    const std::string file = site->root() + "/bare.db";
    bool is_new = false;
    velia::server::open_sqlite_store(file, is_new); // the tables of a registry
    velia::server::Sqlite database(file);
    database.run("PRAGMA synchronous = FULL");
    static uint64_t number;
    for (auto _ : state)
        for (int inserted = 0; inserted < entries_a_round; inserted += entries_a_request)
            insert_as_many(database, number);
    tell_rate(state);
}

BENCHMARK(BareInserts)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(Import)->UseRealTime()->Unit(benchmark::kMillisecond);

} // namespace

// 5,000 entries in a second at least.
int main(int argc, char **argv) {
    const bench::Site own_site(BENCH_DAEMON, BENCH_SAMPLE_SERVER);
    site = &own_site;
    return bench::run(argc, argv, {{"Import", "BareInserts", 0}}, {{"Import", entries_a_round / 5000.0 * 1e9}});
}
