// One look-up and one add of a registry in a PostgreSQL database, beside those of a registry in a file and beside the
// database's own statement of the same shape, all in one run on one machine. Both are in memory: what is compared is
// the way, not the disk.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>

#include <unistd.h>

#include <bench/support/pgbench.h>
#include <server/registry/postgres_store.h>
#include <tests/postgres/server.h>

using namespace velia::server;

namespace {

constexpr int entries = 1000;
constexpr int rounds = 500;
constexpr int turns = 8; // of each in turn; the least counts, since others use the machine, too
constexpr rgy_db_t db = RGY_DB_REGIONS;

double us_each(int count, const std::function<void(int)> &body) {
    const auto begin = std::chrono::steady_clock::now();
    for (int i = 0; i < count; ++i)
        body(i);
    return std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - begin).count() / count;
}

void add(Store &store, const std::string &name) {
    store.add(db, store.stamps(db).pair, name, "-name=" + name + ";", {{"-name", name}});
}

struct Costs {
    double look_up_us = HUGE_VAL;
    double add_us = HUGE_VAL; // the question for the stamps, too

    void take(double look_up, double add) {
        look_up_us = std::min(look_up_us, look_up);
        add_us = std::min(add_us, add);
    }
};

void fill(Store &store) {
    store.together([&] {
        for (int i = 0; i < entries; ++i)
            add(store, std::to_string(i));
    });
}

double look_up_us(Store &store) {
    size_t found = 0;
    const double each_us = us_each(rounds, [&](int i) {
        store.scan({db, "", "-name", std::to_string(i % entries)}, 0, [&](uint64_t, const Record *) {
            ++found;
            return true;
        });
    });
    if (found != rounds)
        exit(EXIT_FAILURE);
    return each_us;
}

double add_us(Store &store) {
    static int number = 0;
    return us_each(rounds, [&](int) { add(store, "more" + std::to_string(++number)); });
}

void print(const char *what, double own_us, double file_us, double base_us) {
    printf("%-8s %8.1f us  in a file %8.1f us  pgbench %8.1f us  ratio to pgbench %.2f\n", what, own_us, file_us,
           base_us, own_us / base_us);
}

} // namespace

int main() {
    const velia::postgres_test::Server server;
    bool is_new = false;
    const auto in_database = open_postgres_store(server.conninfo(), is_new);
    const std::string file = server.directory() / "registry.db";
    const auto in_file = open_sqlite_store(file, is_new);
    fill(*in_database);
    fill(*in_file);
    server.run("CREATE SEQUENCE numbers START 1000000; ANALYZE");
    Costs own;
    Costs beside;
    Costs base;
    for (int turn = 0; turn < turns; ++turn) {
        own.take(look_up_us(*in_database), add_us(*in_database));
        beside.take(look_up_us(*in_file), add_us(*in_file));
        base.take(bench::pgbench_us(server, "prepared", bench::look_up_script, rounds),
                  bench::pgbench_us(server, "simple", bench::add_script, rounds));
    }
    print("look-up", own.look_up_us, beside.look_up_us, base.look_up_us);
    print("add", own.add_us, beside.add_us, base.add_us);
    return EXIT_SUCCESS;
}
