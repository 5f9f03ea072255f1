// What a network may do to a message, and when it does.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <random>
#include <string>

namespace velia::relay {

// Of a message, how likely each is (0 to 1), and how long it may take on its way.
struct Harms {
    double dropped = 0;   // a datagram
    double doubled = 0;   // a datagram
    double reordered = 0; // a datagram: it comes behind its successor
    double corrupted = 0;
    double cut = 0;      // a connection, before, in or behind the message
    double dribbled = 0; // a message on a connection comes in small pieces
    unsigned delay_ms_max = 0;
};

// What befalls one message.
struct Fate {
    bool is_dropped;
    bool is_doubled;
    bool is_reordered;
    bool is_corrupted;
    bool is_cut;
    bool is_dribbled;
    unsigned delay_ms;
    unsigned copy_delay_ms;   // of the second of a doubled message
    unsigned quarters_passed; // of a message on which its connection is cut
    uint32_t spoiling;        // never 0: the bits that are turned over
    unsigned spoiled_choice;  // which of the words that may be spoiled
};

enum class Direction : uint32_t { request, reply };

// The fates of the messages of one client in one direction. That of the n-th message hangs on the seed, the client's
// number, the direction and n alone, whatever others send meanwhile.
class Dice {
public:
    Dice(uint64_t seed, uint64_t client_number, Direction direction);

    Fate next(const Harms &harms);

private:
    bool falls(double probability);
    unsigned up_to(unsigned most);

    std::mt19937_64 random_;
};

enum class Event { message, dropped, doubled, reordered, delayed, corrupted, connection, cut, dribbled };

// How often each has come about; any thread may read it.
class Tally {
public:
    void count(Event event) { ++of(event); }
    uint64_t operator[](Event event) const { return counts_[static_cast<size_t>(event)]; }

    // A line for each, to be read by people.
    std::string text() const;

private:
    static constexpr size_t events = 9;

    std::atomic<uint64_t> &of(Event event) { return counts_[static_cast<size_t>(event)]; }

    std::array<std::atomic<uint64_t>, events> counts_ = {};
};

// Turns bits over in a word that the receiver compares with what it has to be, so that it can tell the message from its
// own: of a call the direction, of a reply the direction or the transaction number. False for a message too short.
bool spoil(std::string &message, size_t header_offset, Direction direction, const Fate &fate);

} // namespace velia::relay
