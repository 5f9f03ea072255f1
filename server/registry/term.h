// The term of a master: a number that grows each time that a host becomes the master of a registry, and goes with the
// copies. Of two hosts that take themselves for the master, the one with the lower term has been superseded.
#pragma once

#include <cstdint>
#include <string>

#include <server/registry/store.h>

namespace velia::server {

// Settings of a store.
constexpr const char *term_setting = "term";             // of the data here; none: they are of before there were terms
constexpr const char *term_host_setting = "term-host";   // who was the master then
constexpr const char *heard_term_setting = "heard-term"; // the highest that another host has told of, if it is higher
constexpr const char *heard_host_setting = "heard-host"; // whose it is

// 0 for what is no number.
uint64_t term_of_text(const std::string &text);

// Of one registry here, as the daemon's loop has it.
struct Term {
    uint64_t number = 0;
    std::string host;
    uint64_t heard = 0; // 0: of none that is higher
    std::string heard_host;

    bool is_superseded() const { return heard > number; }
};

Term term_of(Store &store);

// A new term begins here, above all that was heard of; what was heard is no matter any more.
void begin_term(Store &store, const std::string &own_name);

// The data here are of this term from now on.
void take_term(Store &store, uint64_t number, const std::string &host);

// True when it is higher than all that was known, and has been noted.
bool hear_of_term(Store &store, uint64_t number, const std::string &host);

} // namespace velia::server
