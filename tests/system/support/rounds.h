// Client processes that look up and add through a relay, or straight, and what came of it.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include <tests/relay/relay.h>
#include <tests/system/support/daemon.h>

namespace velia::system_test {

// A call of a client: where it failed, and when it was made, in microseconds of the monotonic clock.
struct RoundCall {
    std::string name;
    int status;
    int64_t begin_us;
    int64_t end_us;

    // That others were quicker, or that an entry is not there, is an answer.
    bool is_failed() const;
};

// From when to when a daemon was stopped.
struct Stop {
    int64_t begin_us;
    int64_t end_us;
};

// All calls of all clients, and how the registry compares with what they were told.
struct RoundFigures {
    std::vector<RoundCall> calls;
    size_t added = 0;   // entries that a client was told of
    size_t missing = 0; // of these, those that are not there
    size_t doubled = 0; // entries that are there more than once
    size_t failed = 0;  // calls
    size_t refused = 0; // adds, because others were quicker

    // Failed calls that no part of a stop fell into.
    size_t failed_outside(const std::vector<Stop> &stops) const;

    int64_t duration_us(double share) const; // of the calls: 0.5 for the median, 1 for the longest
};

class Rounds {
public:
    static constexpr uint32_t program = 390600;

    struct Wanted {
        std::string transport; // "udp" or "tcp"
        uint16_t port;         // where the clients think the daemon is
        int processes;
        int rounds;           // of each process
        int64_t limit_ms = 0; // of each call
    };

    // The clients have a root directory of their own in the site's, with the port in it.
    Rounds(const Site &site, const Wanted &wanted);

    // Until all have ended, or after `deadline_s` none; false then, or if one gave up.
    bool wait(double deadline_s);

    // Until so many calls that began since then were answered.
    bool answered_since(int64_t since_us, size_t count);

    // Stops the daemon for so long, and until so many calls have failed since.
    Stop stop_until_failed(const Daemon &daemon, size_t count, double least_s = 0);

    // Asks them to end. Their last calls are told as all others.
    void stop() const;

    std::string output() const;
    std::vector<RoundCall> calls();

    // Once they have ended: looks the registry through, without a relay.
    RoundFigures figures();

private:
    // What a client has written up to a position, so that no line is read twice however long it writes.
    struct Told {
        std::streamoff position = 0;
        std::vector<RoundCall> calls; // by their beginnings
        std::vector<std::string> added;
    };

    std::string output_name(size_t client) const;
    void read_on();
    // Of the calls that end at that moment or later; a client makes one after the other.
    size_t count_since(int64_t since_us, bool (*is_counted)(const RoundCall &call, int64_t since_us));

    const Site &site_;
    std::vector<std::unique_ptr<Child>> clients_;
    std::vector<Told> told_; // by each of them
};

// A daemon that is master of the registry and starts the server that the clients look up.
std::unique_ptr<Daemon> daemon_for_rounds(const Site &site);

int64_t monotonic_us();

} // namespace velia::system_test
