// One look-up and one add of a registry in a PostgreSQL database, beside those of a registry in a file and beside the
// database's own statement of the same shape, all in one run on one machine. Both are in memory: what is compared is
// the way, not the disk.
#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <string>

#include <unistd.h>

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

// What pgbench says of a script: the average in microseconds; nothing where it failed.
double pgbench_us(const velia::postgres_test::Server &server, const char *mode, const std::string &script) {
    const std::string file = server.directory() / "script";
    std::ofstream(file) << script;
    const std::string command = "/usr/lib/postgresql/15/bin/pgbench -n -M " + std::string(mode) + " -c 1 -t " +
                                std::to_string(rounds) + " -f " + file + " \"" + server.conninfo() + "\" 2>&1";
    FILE *output = popen(command.c_str(), "r");
    std::array<char, 256> line = {};
    double average_ms = 0;
    while (output != nullptr && fgets(line.data(), line.size(), output) != nullptr)
        sscanf(line.data(), "latency average = %lf ms", &average_ms);
    if (output == nullptr || pclose(output) != 0 || average_ms <= 0)
        exit(EXIT_FAILURE);
    return average_ms * 1000;
}

const std::string look_up_script =
    "\\set n random(0, 999)\n"
    "SELECT id, substr(text, 1, 1048577) FROM item JOIN entry ON id = item.entry WHERE item.db = 4 AND item.entry > 0 "
    "AND digest = sha256('\\x00000005'::bytea || convert_to('-name' || :n, 'UTF8')) ORDER BY item.entry LIMIT 50;\n";

// The same statements in as few round trips as the store makes: "\;" joins some of them.
const std::string add_script =
    "SELECT dtm, svr_dtm, name, copy FROM registry LEFT JOIN stamp ON db = 4;\n"
    "BEGIN\\; SET LOCAL lock_timeout = 10000\\; SELECT changes, last_number FROM registry FOR UPDATE;\n"
    "WITH stamped AS (UPDATE stamp SET dtm = dtm, svr_dtm = svr_dtm, entries = entries + 1 WHERE db = 4 AND NOT EXISTS "
    "(SELECT 1 FROM entry WHERE entry.db = 4 AND sha256(identity) = sha256('none'::bytea) AND identity <> ''::bytea) "
    "RETURNING db), number AS (SELECT nextval('numbers') AS n), "
    "added AS (INSERT INTO entry SELECT n, db, ''::bytea, convert_to('w' || n, 'UTF8'), "
    "convert_to('-name=w' || n || ';', 'UTF8') FROM stamped, number) "
    "INSERT INTO item SELECT db, sha256(convert_to('-name' || n, 'UTF8')), n FROM stamped, number "
    "ON CONFLICT DO NOTHING;\n"
    "UPDATE registry SET changes = changes + 1, last_number = last_number + 1\\; "
    "INSERT INTO writer (name, transaction) VALUES ('w', 1) ON CONFLICT (name) DO UPDATE SET transaction = 1, "
    "at = now()\\; SET LOCAL statement_timeout = 0\\; COMMIT;\n";

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
        base.take(pgbench_us(server, "prepared", look_up_script), pgbench_us(server, "simple", add_script));
    }
    print("look-up", own.look_up_us, beside.look_up_us, base.look_up_us);
    print("add", own.add_us, beside.add_us, base.add_us);
    return EXIT_SUCCESS;
}
