// A client that registers views until it is told to stop.
#pragma once

#include <cstdint>
#include <string>

// Registers views of its own and, in turn with them, views that other clients register, too; the latter are named by
// their number alone. Prints the counts so far as one line "own N common N refused N stale N" after each, and ends when
// `stop_file` exists. False when a registration failed.
bool register_views(uint8_t client, const std::string &stop_file);
