// What all know who look into a registry's file without the rules over it.
#pragma once

#include <server/registry/sqlite.h>

namespace velia::server {

constexpr int64_t registry_schema_version = 1;

// The first number, or the first text, of the answer; 0 and the empty text where there is none.
int64_t number_answer(Sqlite &database, const char *question);
std::string text_answer(Sqlite &database, const char *question);

// Throws for what this program, and none before it, has made.
void require_registry(Sqlite &database);

// How many entries each database has, and how often anything was changed.
void make_totals(Sqlite &database);
uint64_t stored_changes(Sqlite &database); // none were counted in a registry of before

} // namespace velia::server
