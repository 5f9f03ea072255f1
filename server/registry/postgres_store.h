// The registry in a PostgreSQL database, which several daemons may serve at once.
#pragma once

#include <memory>
#include <string>

#include <server/registry/store.h>

namespace velia::server {

// One that has been moved elsewhere is opened only by whoever moves it; and whoever only reads, of a replica, makes
// nothing.
enum class PostgresUse { serving, moving, reading };

// Opens the registry in this database, and makes it if there is none; `is_new` tells which. What is read on may be read
// of a replica; empty: there is none. Throws StoreAway where the database is not reached, StoreError where it refuses,
// or where a newer version of this program has made it, StoreMoved.
std::unique_ptr<Store> open_postgres_store(const std::string &conninfo, bool &is_new,
                                           PostgresUse use = PostgresUse::serving, const std::string &replica = "");

} // namespace velia::server
