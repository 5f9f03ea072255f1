// What the commands of settings share: settings by their names, the levels at which they have values, and what these
// are.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include <cli/command.h>
#include <veliaxdr/rvzd_knob.h>

namespace velia::cli {

struct Knob {
    uint32_t id = 0;
    std::string name;
    rvzd_knob_type_t type = KNOB_STRING;
};

// All of them, in the library's order.
const std::vector<Knob> &all_knobs();

// The setting of a name that the parser has let pass.
Knob knob_of_name(const std::string &name);

// Where a value may be, the first in force before the next; the default is the last.
inline constexpr const char *level_names[] = {"user", "host", "site", "default"};
inline constexpr size_t own_levels = 3; // that somebody sets

// The kind of knoblet that the setting has at a level; nothing if it has none there.
std::optional<rvzd_knoblet_kind_t> kind_at(const Knob &knob, const std::string &level);

// A value at a level. Nothing was found, where the status is good, means that none is set there.
struct LevelValue {
    tbs_status_t status = TBS_ST_OK;
    std::optional<std::string> spelling;
};
LevelValue value_at(const Knob &knob, rvzd_knoblet_kind_t kind, const std::string &host);

struct ValueInForce {
    tbs_status_t status = TBS_ST_OK;
    std::string spelling;
    std::string level;
    rvzd_knoblet_kind_t kind = KNOBLET_DEFAULT;
};
// As the library chooses it.
ValueInForce value_in_force(const Knob &knob, const std::string &host);

// Where that value stands, for people: a path, an entry, a template; empty for the default and where it cannot be told.
std::string origin_of(const Knob &knob, rvzd_knoblet_kind_t kind, const std::string &host);

// True, or told why the setting would not take it.
bool is_good_value(const Knob &knob, const std::string &spelling);

// ">= 1024000", "0 to 1440", a list, or empty.
std::string range_of(const Knob &knob);

// Tells of a failure that the library may have told nothing of.
int tell_unread(const Knob &knob, const std::string &level, tbs_status_t status, const std::string &host);
// That the setting has nothing at this level.
int tell_no_level(const Knob &knob, const std::string &level);

// Sets the value at a level, or, with none, takes it away; a failure is told.
tbs_status_t change_value(const Knob &knob, const std::string &level, const std::optional<std::string> &value,
                          const std::string &host);

// The options that several commands have.
Option knob_place(std::string &name);
Option value_place(std::string &value);
Option level_option(std::string &level, bool is_required);

const char *null_if_empty(const std::string &text);

} // namespace velia::cli
