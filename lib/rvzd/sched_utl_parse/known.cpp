// Two tables with open slots. What stands in them is compared by the definitions themselves, which own the names.
#include <rvzd/sched_utl_parse/known.h>

#include <cstring>

#include <support/stg.h>

namespace velia::sched_utl_parse {

namespace {

constexpr uint32_t no_place = UINT32_MAX; // behind all others
constexpr uint32_t first_slot_count = 64; // a power of two, and so are those that follow

uint64_t hash_of(uint32_t id) {
    constexpr uint64_t odd = 0x9E3779B97F4A7C15;
    return (id * odd) >> 32;
}

uint64_t hash_of(const char *name) { // FNV-1a
    uint64_t hash = 0xCBF29CE484222325;
    for (; *name != '\0'; ++name)
        hash = (hash ^ static_cast<uint8_t>(*name)) * 0x100000001B3;
    return hash;
}

// The slot that holds what is wanted, or the free one where it belongs; there is always a free one.
template <class IsWanted>
uint32_t *slot_for(const Places &places, uint64_t hash, IsWanted &&is_wanted) {
    const uint32_t mask = places.slot_count - 1;
    auto at = static_cast<uint32_t>(hash) & mask;
    while (places.slots[at] != 0 && !is_wanted(places.slots[at] - 1))
        at = (at + 1) & mask;
    return &places.slots[at];
}

template <class IsWanted>
uint32_t find(const Places &places, uint64_t hash, IsWanted &&is_wanted) {
    return places.slot_count == 0 ? no_place : *slot_for(places, hash, is_wanted) - 1;
}

void take_free_slot(const Places &places, uint64_t hash, uint32_t place) {
    *slot_for(places, hash, [](uint32_t) { return false; }) = place + 1;
}

template <class HashAt>
bool make_room_in(Places &places, HashAt &&hash_at) {
    if (2 * (uint64_t{places.taken} + 1) <= places.slot_count)
        return true;
    const uint32_t slot_count = places.slot_count != 0 ? 2 * places.slot_count : first_slot_count;
    Places grown = {static_cast<uint32_t *>(stg_malloc(slot_count * sizeof(uint32_t))), slot_count, places.taken};
    if (grown.slots == nullptr)
        return false;
    memset(grown.slots, 0, slot_count * sizeof(uint32_t));
    for (uint32_t i = 0; i < places.slot_count; ++i)
        if (places.slots[i] != 0)
            take_free_slot(grown, hash_at(places.slots[i] - 1), places.slots[i] - 1);
    stg_free(places.slots);
    places = grown;
    return true;
}

} // namespace

Taken taken_by(const Known &known, const Definitions &definitions, uint32_t id, const char *name) {
    const uint32_t place_of_name = find(known.by_name, hash_of(name), [&](uint32_t place) {
        return strcmp(definitions.name_of(definitions.array, place), name) == 0;
    });
    const uint32_t place_of_id = id == 0 ? no_place : find(known.by_id, hash_of(id), [&](uint32_t place) {
        return definitions.id_of(definitions.array, place) == id;
    });
    if (place_of_id != no_place && place_of_id <= place_of_name)
        return Taken::id;
    return place_of_name != no_place ? Taken::name : Taken::nothing;
}

bool make_room(Known &known, const Definitions &definitions) {
    const auto hash_of_id = [&](uint32_t place) { return hash_of(definitions.id_of(definitions.array, place)); };
    const auto hash_of_name = [&](uint32_t place) { return hash_of(definitions.name_of(definitions.array, place)); };
    return make_room_in(known.by_id, hash_of_id) && make_room_in(known.by_name, hash_of_name);
}

void note(Known &known, const Definitions &definitions, uint32_t place) {
    const uint32_t id = definitions.id_of(definitions.array, place);
    if (id != 0) {
        take_free_slot(known.by_id, hash_of(id), place);
        ++known.by_id.taken;
    }
    take_free_slot(known.by_name, hash_of(definitions.name_of(definitions.array, place)), place);
    ++known.by_name.taken;
}

void release(Known &known) {
    stg_free(known.by_id.slots);
    stg_free(known.by_name.slots);
    known = {};
}

} // namespace velia::sched_utl_parse
