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

enum class MoveState { moved, was_moved, would_move };

struct RegistryMove {
    MoveState state = MoveState::would_move;
    std::string place; // where to, for people
    EntryCounts here = {};
    EntryCounts there = {};
    std::string kept; // the file that stood there
};

// The registry of this host, for which no daemon may work, moved from where it is kept into this PostgreSQL database,
// or with "sqlite" into the host's file. Where it was it is marked, and nobody serves it from there any more: what is
// killed half way is moved by doing the same again, and what failed is served from where it was. What is there already
// stays. A former file is kept under another name. A database that has another registry's entries is refused, as is
// one from which other hosts serve this one. Throws StoreError. `is_tried`: all is looked at, nothing is done.
RegistryMove move_registry_of_host(const std::string &to, bool is_tried);

// For people, and for programs: a line a database, of what was done, its name, its entries here and there, the file
// that was put aside, and where that is, between tabs.
void tell_move(const RegistryMove &move);
void tell_move_in_rows(const RegistryMove &move);

} // namespace velia::server
