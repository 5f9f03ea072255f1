// What a store asks of the registry's database: each statement by the name under which a session prepares it.
#pragma once

#include <server/registry/postgres.h>

namespace velia::server::statements {

// Of a text that is too long as much as shows it.
#define BOUNDED_TEXT "substr(text, 1, 1048577)"
#define TEXT_IF_OF_REGION "CASE WHEN $3 = ''::bytea OR region = ''::bytea OR region = $3 THEN " BOUNDED_TEXT " END"
#define DIGESTS_OF(PARAMETER) "SELECT sha256(value) AS digest FROM unnest(" PARAMETER "::bytea[]) AS value"

#define STAMPS "dtm, svr_dtm, name, copy, coalesce(moved, ''::bytea), version::bigint"
#define ALL_OF_DB "SELECT id, " TEXT_IF_OF_REGION " AS text FROM entry WHERE db = $1 AND id > $2 ORDER BY id LIMIT $4"
#define THOSE_WITH_ITEM                                                                                                \
    "SELECT id, " TEXT_IF_OF_REGION " AS text FROM item JOIN entry ON id = item.entry WHERE item.db = $1 AND "         \
    "item.entry > $2 AND digest = sha256($5) ORDER BY item.entry LIMIT $4"
// One row without an entry where none is found. The rows beside it are one, so they are in the order of the scan;
// whoever reads them looks whether they are.
#define WITH_STAMPS(SCAN)                                                                                              \
    "SELECT id, found.text, " STAMPS " FROM registry LEFT JOIN stamp ON stamp.db = $1 LEFT JOIN (" SCAN                \
    ") AS found ON true"

constexpr PostgresStatement stamp = {"stamp", "SELECT " STAMPS " FROM registry LEFT JOIN stamp ON db = $1"};
constexpr PostgresStatement count = {"count", "SELECT entries FROM stamp WHERE db = $1"};
constexpr PostgresStatement scan_all = {"scan_all", ALL_OF_DB};
constexpr PostgresStatement scan_item = {"scan_item", THOSE_WITH_ITEM};
constexpr PostgresStatement scan_all_stamped = {"scan_all_stamped", WITH_STAMPS(ALL_OF_DB)};
constexpr PostgresStatement scan_item_stamped = {"scan_item_stamped", WITH_STAMPS(THOSE_WITH_ITEM)};
constexpr PostgresStatement bearer = {
    "bearer", "SELECT id FROM entry WHERE db = $1 AND sha256(identity) = sha256($2) AND identity <> ''::bytea"};
// The stamps are compared where they are renewed.
constexpr PostgresStatement add = {
    "add", "WITH stamped AS (UPDATE stamp SET dtm = $4, svr_dtm = $5, entries = entries + 1 "
           "WHERE db = $1 AND dtm = $2 AND svr_dtm = $3 AND NOT EXISTS (SELECT 1 FROM entry WHERE entry.db = $1 AND "
           "sha256(identity) = sha256($8) AND identity <> ''::bytea) RETURNING db), "
           "added AS (INSERT INTO entry (id, db, region, identity, text) SELECT $6::bigint, db, $7::bytea, $8::bytea, "
           "$9::bytea FROM stamped), "
           "items AS (INSERT INTO item (db, digest, entry) SELECT db, digest, $6 FROM stamped, (" DIGESTS_OF(
               "$10") ") AS digests ON CONFLICT DO NOTHING) SELECT 1 FROM stamped"};
constexpr PostgresStatement remove = {
    "remove", "WITH gone AS (DELETE FROM entry WHERE id = $2 AND db = $1 RETURNING " BOUNDED_TEXT " AS text), "
              "items AS (DELETE FROM item WHERE entry = $2 AND EXISTS (SELECT 1 FROM gone)), "
              "stamped AS (UPDATE stamp SET dtm = $3, svr_dtm = $4, entries = entries - 1 "
              "WHERE db = $1 AND EXISTS (SELECT 1 FROM gone)) SELECT text FROM gone"};
constexpr PostgresStatement is_there = {"is_there", "SELECT 1 FROM entry WHERE db = $1 AND id = $2"};
constexpr PostgresStatement change = {"change", "UPDATE entry SET region = $2, identity = $3, text = $4 WHERE id = $1"};
constexpr PostgresStatement put_items = {
    "put_items", "INSERT INTO item (db, digest, entry) SELECT $1::integer, "
                 "digest, $2::bigint FROM (" DIGESTS_OF("$3") ") AS digests ON CONFLICT DO NOTHING"};
constexpr PostgresStatement remove_items = {"remove_items", "DELETE FROM item WHERE entry = $1"};
// Entries of a database that is made like another one: counted at the end, since each version of a row that a
// transaction leaves is passed by the next change of it.
constexpr PostgresStatement put_entry = {
    "put_entry",
    "WITH added AS (INSERT INTO entry (id, db, region, identity, text) VALUES ($1::bigint, $2::integer, $3, "
    "$4, $5)) INSERT INTO item (db, digest, entry) SELECT $2, digest, $1 FROM (" DIGESTS_OF(
        "$6") ") AS digests ON CONFLICT DO NOTHING"};
constexpr PostgresStatement erase_entry = {
    "erase_entry", "WITH items AS (DELETE FROM item WHERE entry = $1) DELETE FROM entry WHERE id = $1"};
constexpr PostgresStatement put_counted_stamps = {
    "put_counted_stamps", "UPDATE stamp SET dtm = $2, svr_dtm = $3, entries = (SELECT count(*) FROM entry WHERE "
                          "entry.db = $1) WHERE db = $1"};
constexpr PostgresStatement put_stamps = {"put_stamps", "UPDATE stamp SET dtm = $2, svr_dtm = $3 WHERE db = $1"};
constexpr PostgresStatement name_registry = {"name_registry", "UPDATE registry SET name = $1"};
constexpr PostgresStatement setting = {"setting", "SELECT value FROM setting WHERE sha256(name) = sha256($1)"};
constexpr PostgresStatement put_setting = {"put_setting",
                                           "INSERT INTO setting (name, value) VALUES ($1, $2) "
                                           "ON CONFLICT (sha256(name)) DO UPDATE SET value = excluded.value"};
constexpr PostgresStatement settings = {"settings", "SELECT name, value FROM setting"};
constexpr PostgresStatement counters = {"counters", "SELECT changes, last_number FROM registry"};
constexpr PostgresStatement size_bytes = {
    "size_bytes",
    "SELECT sum(pg_total_relation_size(oid))::bigint FROM pg_class WHERE relkind = 'r' AND relnamespace = "
    "(SELECT oid FROM pg_namespace WHERE nspname = current_schema()) AND relname IN ('registry', 'writer', "
    "'stamp', 'entry', 'item', 'setting')"};
constexpr PostgresStatement moved_to = {"moved_to", "SELECT coalesce(moved, ''::bytea) FROM registry"};
constexpr PostgresStatement set_moved_to = {"set_moved_to", "UPDATE registry SET moved = nullif($1, ''::bytea)"};

#undef BOUNDED_TEXT
#undef TEXT_IF_OF_REGION
#undef DIGESTS_OF
#undef STAMPS
#undef ALL_OF_DB
#undef THOSE_WITH_ITEM
#undef WITH_STAMPS

} // namespace velia::server::statements
