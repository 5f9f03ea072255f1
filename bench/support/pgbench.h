// What a database's own measuring program makes of statements like those of the registry's store: the least that they
// cost without it.
#pragma once

#include <array>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

#include <tests/postgres/server.h>

namespace bench {

// What pgbench says of a script: the average in microseconds; nothing where it failed.
inline double pgbench_us(const velia::postgres_test::Server &server, const char *mode, const std::string &script,
                         int rounds) {
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

inline const std::string look_up_script =
    "\\set n random(0, 999)\n"
    "SELECT id, substr(text, 1, 1048577) FROM item JOIN entry ON id = item.entry WHERE item.db = 4 AND item.entry > 0 "
    "AND digest = sha256('\\x00000005'::bytea || convert_to('-name' || :n, 'UTF8')) ORDER BY item.entry LIMIT 50;\n";

// The same statements in as few round trips as the store makes: "\;" joins some of them.
inline const std::string add_script =
    "SELECT dtm, svr_dtm, name, copy, coalesce(moved, ''::bytea) FROM registry LEFT JOIN stamp ON db = 4;\n"
    "BEGIN\\; SET LOCAL lock_timeout = 10000\\; SELECT changes, last_number, coalesce(encode(moved, "
    "'escape'), '') FROM registry FOR UPDATE;\n"
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

} // namespace bench
