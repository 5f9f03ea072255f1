#include <server/registry/postgres_schema.h>

#include <array>
#include <cstdlib>

#include <server/registry/random_uuid.h>

namespace velia::server {

namespace {

// Texts are bytes, since those of clients need not be of any one encoding. What an index is over has a bound, so that
// is their digest. The one row of "registry" is the lock of all changes: whoever has it is alone.
constexpr const char *first_step = R"(
CREATE TABLE registry (one boolean PRIMARY KEY DEFAULT true CHECK (one), version integer NOT NULL, name bytea NOT NULL,
                       copy bytea NOT NULL, changes bigint NOT NULL, last_number bigint NOT NULL);
CREATE TABLE writer (name bytea PRIMARY KEY, transaction bigint NOT NULL, at timestamptz NOT NULL DEFAULT now());
CREATE TABLE stamp (db integer PRIMARY KEY, dtm bytea NOT NULL, svr_dtm bytea NOT NULL, entries bigint NOT NULL);
CREATE TABLE entry (id bigint PRIMARY KEY, db integer NOT NULL, region bytea NOT NULL, identity bytea NOT NULL,
                    text bytea NOT NULL);
CREATE INDEX entry_of_db ON entry (db, id);
CREATE UNIQUE INDEX entry_identity ON entry (db, sha256(identity)) WHERE identity <> ''::bytea;
CREATE TABLE item (db integer NOT NULL, digest bytea NOT NULL, entry bigint NOT NULL, PRIMARY KEY (db, digest, entry));
CREATE INDEX item_of_entry ON item (entry);
CREATE TABLE setting (name bytea NOT NULL, value bytea NOT NULL);
CREATE UNIQUE INDEX setting_name ON setting (sha256(name));
)";

// Where it has been moved to; nothing while it is served from here. It is in the row that each change locks.
constexpr const char *second_step = "ALTER TABLE registry ADD COLUMN moved bytea";

constexpr const char *newer_registry = "the registry was written by a newer version of this program";

constexpr std::array steps = {first_step, second_step};

// Of this program among all that use a database. It is let go of at the end of the transaction.
constexpr const char *lock_schema = "BEGIN; SET LOCAL lock_timeout = 10000; "
                                    "SELECT pg_advisory_xact_lock(hashtextextended('rvzd_server registry ' || "
                                    "current_schema(), 0))";

constexpr PostgresStatement put_registry = {
    "put_registry",
    "INSERT INTO registry (version, name, copy, changes, last_number) VALUES ($1::integer, $2, $3, 0, 0)"};
constexpr PostgresStatement put_stamp = {"put_stamp", "INSERT INTO stamp VALUES ($1, $2, $3, 0)"};

size_t version_of(Postgres &database, const PostgresSchema &schema) {
    const PostgresRows rows = database.run(std::string("SELECT version FROM ") + schema.table);
    return rows.count() == 1 ? static_cast<size_t>(atoll(rows.text(0, 0).c_str())) : 0;
}

void put_first_rows(Postgres &database) {
    database.run(put_registry, uint32_t{0}, random_uuid(), random_uuid());
    for (uint32_t db = 0; db < RGY_DB_ALL; ++db)
        database.run(put_stamp, db, random_uuid(), random_uuid());
}

PostgresSchema registry_schema(std::span<const char *const> all) {
    return {"registry", newer_registry, all, put_first_rows};
}

bool take_steps(Postgres &database, const PostgresSchema &schema) {
    const bool is_new = !has_postgres_schema(database, schema);
    const size_t version = is_new ? 0 : version_of(database, schema);
    if (version > schema.steps.size())
        throw StoreError(schema.newer);
    for (size_t step = version; step < schema.steps.size(); ++step) {
        database.run(schema.steps[step]);
        if (step == 0)
            schema.put_first_rows(database);
    }
    if (version < schema.steps.size())
        database.run(std::string("UPDATE ") + schema.table + " SET version = " + std::to_string(schema.steps.size()));
    return is_new;
}

} // namespace

std::span<const char *const> postgres_schema_steps() {
    return steps;
}

// Asked of the catalogue's table: what a session remembers of names may be older than the lock that it has waited for.
bool has_postgres_schema(Postgres &database, const PostgresSchema &schema) {
    return database
               .run(std::string("SELECT EXISTS (SELECT 1 FROM pg_class WHERE relname = '") + schema.table +
                    "' AND relnamespace = (SELECT oid FROM pg_namespace WHERE nspname = current_schema()))")
               .bytes(0, 0) == "t";
}

void require_postgres_version(uint64_t version) {
    if (version > steps.size())
        throw StoreError(newer_registry);
}

void require_postgres_schema(Postgres &database) {
    const PostgresSchema schema = registry_schema(steps);
    if (!has_postgres_schema(database, schema))
        throw StoreError("the registry's tables are gone from the database");
    require_postgres_version(version_of(database, schema));
}

bool make_postgres_schema(Postgres &database, const PostgresSchema &schema) {
    if (has_postgres_schema(database, schema) && version_of(database, schema) == schema.steps.size())
        return false;
    try {
        database.run(lock_schema);
        const bool is_new = take_steps(database, schema);
        database.run("COMMIT");
        return is_new;
    } catch (const StoreError &) {
        database.drop(); // and with it all that was begun
        throw;
    }
}

bool has_postgres_schema(const std::string &conninfo) {
    Postgres database(conninfo);
    database.connect();
    const PostgresSchema schema = registry_schema(steps);
    return has_postgres_schema(database, schema) && version_of(database, schema) == schema.steps.size();
}

bool make_postgres_schema(Postgres &database, std::span<const char *const> all) {
    return make_postgres_schema(database, registry_schema(all));
}

} // namespace velia::server
