// A client that looks servers up and adds to the registry, round after round, and tells how each call went.
#pragma once

#include <cstdint>
#include <string>

struct RoundsWanted {
    const char *host;
    uint32_t program;
    uint32_t protocol;
    std::string name;      // of the client, in the entries that it adds
    int count;             // of rounds
    std::string stop_file; // ends earlier where this exists
    int64_t limit_ms;      // of each call; 0 for the library's own
};

// For each call prints "CALL STATUS BEGIN END", the points of time in microseconds of the monotonic clock; and for each
// entry that is in the registry "added TITLE". What fails is done again until it succeeds, as a user would. False when
// something would not succeed at all.
bool run_rounds(const RoundsWanted &wanted);
