// Tables in a database, the registry's and others: made, and moved from version to version, by whichever daemon is
// first.
#pragma once

#include <span>

#include <server/registry/postgres.h>

namespace velia::server {

// Tables that are of one version together.
struct PostgresSchema {
    const char *table; // whose one row has the version
    const char *newer; // what is said of tables of a newer one
    std::span<const char *const> steps;
    void (*put_first_rows)(Postgres &database); // behind the first step
};

// Makes the tables what all the steps make of them. True when there were none before. Throws StoreError for tables of a
// newer version.
bool make_postgres_schema(Postgres &database, const PostgresSchema &schema);

bool has_postgres_schema(Postgres &database, const PostgresSchema &schema);

// Each step leads to the next version; a site's database has had some of them.
std::span<const char *const> postgres_schema_steps();

// The same for the registry's.
bool make_postgres_schema(Postgres &database, std::span<const char *const> steps);

// Whether there is one of this version in the database of this connection string. Throws StoreError.
bool has_postgres_schema(const std::string &conninfo);

// Throws StoreError where there is no registry, or one of a newer version.
void require_postgres_schema(Postgres &database);
void require_postgres_version(uint64_t version);

} // namespace velia::server
