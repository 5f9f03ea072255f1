// Which ids and names the definitions before one have taken, so that each is compared with a few others and not with
// all.
#pragma once

#include <cstdint>

namespace velia::sched_utl_parse {

// A definition by its place and what its key hashes to, so that few definitions have to be looked at.
struct Slot {
    uint32_t place_and_one; // 0: free
    uint32_t hash;
};

// Places of definitions in their array, found by a key of theirs. Zeros are an empty one.
struct Places {
    Slot *slots; // never more than half of them are taken
    uint32_t slot_count;
    uint32_t taken;
};

struct Known {
    Places by_id; // of those that have one
    Places by_name;
};

// What Known has to be told of an array of definitions.
struct Definitions {
    const void *array;
    uint32_t (*id_of)(const void *array, uint32_t place);
    const char *(*name_of)(const void *array, uint32_t place);
};

// Whether one of them has this id, which 0 is none of, or this name: what the first that has either of both has, the id
// if it has both.
enum class Taken { nothing, id, name };
Taken taken_by(const Known &known, const Definitions &definitions, uint32_t id, const char *name);

// Room for one definition more; false without storage, and then nothing has changed. Raises are the caller's to hold
// off, here and below.
bool make_room(Known &known);

// Notes the definition that stands at that place, behind make_room.
void note(Known &known, const Definitions &definitions, uint32_t place);

void release(Known &known);

} // namespace velia::sched_utl_parse
