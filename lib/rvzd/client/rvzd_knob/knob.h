// What the files of the settings share: the catalogue, its lock, and the places where values are kept.
//
// rvzd_knob_lock is the outermost of the library's locks: it is held over every operation, the registry's round trips
// included, and site values are read under it through the registry client, which takes its own locks after it.
#pragma once

#include <cstddef>
#include <cstdint>

#include <common/with.h>
#include <support/imsg.h>
#include <support/tbs.h>
#include <veliaxdr/rvzd_knob.h>

namespace velia::rvzd_knob {

inline constexpr char subsystem[] = "rvzd/knob";
inline constexpr char source_file[] = "rvzd_knob";

enum class IntegerRange : uint32_t { none = 0, nonzero = 1, nonnegative = 2, minimum = 3, maximum = 4, between = 5 };
enum class StringRange : uint32_t { none = 0, list = 1, function = 2 };

// Of a knoblet that its row says nothing of all is zero; one that the row denies has its kind.
struct Knoblet {
    uint32_t present;
    rvzd_knoblet_kind_t kind;
    const char *default_spelling; // of a default
    const char *detail;           // of a host's: the subdirectory or null; of a user's: the template
};

constexpr size_t name_size = 64;

struct Knob {
    uint32_t id; // 0 ends the catalogue
    uint16_t name_message;
    uint16_t description_message;
    uint32_t name_ready;
    uint32_t description_ready;
    char name[name_size];
    char *description; // the catalogue's, for as long as the process lives
    size_t description_size;
    rvzd_knob_type_t type;
    bool has_range;
    bool is_file_system_tuning; // for those who read the catalogue; no operation asks
    IntegerRange int_range_kind;
    int32_t int_min; // also the bound of a maximum
    int32_t int_max;
    StringRange str_range_kind;
    const char *str_range_list; // between commas
    tbs_status_t (*str_range_check)(const char *text);
    Knoblet knoblets[KNOBLET_KIND_COUNT]; // by kind
};

constexpr size_t knob_count = RVZD_KNOB_ID_MAX;

// In the order of enumeration. What is fixed of it never changes; names and descriptions come with the first need.
extern Knob rvzd_knobs[knob_count + 1];

// Of the names in that order; 0 for one that is not there yet.
extern uint8_t name_lengths[knob_count];

extern ivlthread_mutex_t rvzd_knob_lock;
extern ForkWatch knob_lock_watch;
inline constexpr Lock<LockRank::settings> knob_lock = {rvzd_knob_lock, knob_lock_watch};

template <class... Arguments>
void print_error(int position, Arguments... arguments) {
    imsg_print(IMSG_ERROR, &_rvzd_knob_rvzd_msg_table, position, arguments...);
}

// The row of an id; null, and printed, if there is none.
Knob *find_knob(uint32_t id);

// Fills the texts of all rows that lack them.
void rvzd_knob_initialize_all_strings();

// These fill the texts at need.
const char *name_of(const Knob &knob);
const char *description_of(const Knob &knob);

const char *type_word(rvzd_knob_type_t type);

// Runs `body` with the lock held, for work on the catalogue alone: a raise waits for its end.
template <class Body>
auto with_catalogue(Body &&body) {
    return with_inhibit([&] {
        take(knob_lock);
        const auto result = body();
        give_back(knob_lock);
        return result;
    });
}

template <class Body>
tbs_status_t with_row(uint32_t id, Body &&body) {
    Knob *knob = find_knob(id);
    return knob != nullptr ? body(*knob) : tbs_status_t{TBS_ST_ERROR};
}

// The frame of the operations on one setting: those that read or write a place, and those that do not.
template <class Body>
tbs_status_t with_knob(uint32_t id, Body &&body) {
    return with_lock(knob_lock, [&] { return with_row(id, body); });
}
template <class Body>
tbs_status_t with_knob_alone(uint32_t id, Body &&body) {
    return with_catalogue([&] { return with_row(id, body); });
}

// Null for a kind that is none.
inline const Knoblet *slot_of(const Knob &knob, rvzd_knoblet_kind_t kind) {
    return kind >= 0 && kind < KNOBLET_KIND_COUNT ? &knob.knoblets[kind] : nullptr;
}

// What the places hold. A reader stores a text for the caller to release with stg_free; null first, and on failure.
// TBS_ST_NOT_FOUND: there is no value. A writer takes a null text for "no value from now on".
tbs_status_t rvzd_knoblet_p_get_site_value_as_string(const Knob &knob, const char *host, char **text);
tbs_status_t rvzd_knoblet_p_set_site_value_as_string(const Knob &knob, const char *host, const char *text);
tbs_status_t rvzd_knoblet_p_get_host_value_as_string(const Knob &knob, const Knoblet &slot, char **text);
tbs_status_t rvzd_knoblet_p_set_host_value_as_string(const Knob &knob, const Knoblet &slot, const char *text);
tbs_status_t rvzd_knoblet_p_get_user_value_as_string(const Knob &knob, const char *detail, char **text);

// The number of the entry that counts.
tbs_status_t find_site_entry(const Knob &knob, const char *host, uint64_t *entry_id);
tbs_status_t host_file_path(const Knob &knob, const Knoblet &slot, char (&path)[TBS_PATH_SIZE]);

// By the slot's own kind; message 7 for one that is none.
tbs_status_t read_knoblet(const Knob &knob, const Knoblet &slot, const char *host, char **text);
tbs_status_t write_knoblet(const Knob &knob, const Knoblet &slot, const char *host, const char *text);

// Spellings into values. What is no value is printed.
tbs_status_t invalid_value(const Knob &knob, const char *text);
tbs_status_t boolean_of_spelling(const Knob &knob, const char *text, tbs_boolean_t *value);
tbs_status_t integer_of_spelling(const Knob &knob, const char *text, int32_t *value);
tbs_status_t check_type(const Knob &knob, rvzd_knob_type_t type);
tbs_status_t check_integer_range(const Knob &knob, int32_t value);
tbs_status_t check_string_range(const Knob &knob, const char *text);

} // namespace velia::rvzd_knob
