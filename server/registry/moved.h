// A registry moved from one store into another, whatever keeps each of them.
#pragma once

#include <array>
#include <string>

#include <server/registry/store.h>

namespace velia::server {

// Entries of each database.
using EntryCounts = std::array<uint64_t, RGY_DB_ALL>;

EntryCounts counts_of(Store &store);

// Makes `to` what `from` is at one moment: names, numbers, stamps, settings. What `to` had is gone. Counts what came;
// throws StoreError, and leaves `to` as it was, where it is not all.
EntryCounts move_registry(Store &from, Store &to);

// The same, into a file that is a registry of SQLite's; it has its name when it is whole and on disk.
void save_into_sqlite(Store &from, const std::string &file_name);

// The registry of this host, for which no daemon may work, moved from where it is kept into this PostgreSQL database,
// or with "sqlite" into the host's file; tells what came. A former file is kept under another name. A database that has
// another registry's entries is refused. Throws StoreError.
void move_registry_of_host(const std::string &to);

} // namespace velia::server
