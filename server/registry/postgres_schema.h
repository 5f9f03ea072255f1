// The registry's tables in a database: made, and moved from version to version, by whichever daemon is first.
#pragma once

#include <span>

#include <server/registry/postgres.h>

namespace velia::server {

// Each step leads to the next version; a site's database has had some of them.
std::span<const char *const> postgres_schema_steps();

// Makes the tables what all the steps make of them. True when there was no registry before. Throws StoreError for
// tables of a newer version.
bool make_postgres_schema(Postgres &database, std::span<const char *const> steps);

// Whether there is a registry there.
bool has_postgres_schema(Postgres &database);

} // namespace velia::server
