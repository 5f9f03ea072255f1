// The harms as options of a command line. For the two programs alone that have them.
#pragma once

#include <string>

#include <CLI/CLI.hpp>

#include <tests/relay/harms.h>

namespace velia::relay {

inline void add_harms(CLI::App &app, Harms &harms, uint64_t &seed) {
    const auto add_chance = [&](const std::string &name, double &value, const std::string &help) {
        app.add_option(name, value, help)->check(CLI::Range(0.0, 1.0))->type_name("CHANCE")->capture_default_str();
    };
    add_chance("--drop", harms.dropped, "that a datagram is lost");
    add_chance("--double", harms.doubled, "that a datagram comes twice");
    add_chance("--reorder", harms.reordered, "that a datagram comes behind its successor");
    add_chance("--corrupt", harms.corrupted, "that bits of a message are turned over");
    add_chance("--cut", harms.cut, "that a connection is reset before, in or behind a record");
    add_chance("--dribble", harms.dribbled, "that a record comes in small pieces");
    app.add_option("--delay", harms.delay_ms_max, "the longest that a message may take on its way")->type_name("MS");
    app.add_option("--seed", seed, "of all chances")->capture_default_str();
}

} // namespace velia::relay
