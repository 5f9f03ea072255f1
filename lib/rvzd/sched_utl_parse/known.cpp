// Two tables with open slots. What stands in them is compared by the definitions themselves, which own the names.
#include <rvzd/sched_utl_parse/known.h>

#include <cstring>

#include <support/stg.h>

namespace velia::sched_utl_parse {

namespace {

constexpr uint32_t no_place = UINT32_MAX; // behind all others
constexpr uint32_t first_slot_count = 64; // a power of two, and so are those that follow

uint32_t hash_of(uint32_t id) {
    constexpr uint64_t odd = 0x9E3779B97F4A7C15;
    return static_cast<uint32_t>((id * odd) >> 32);
}

uint32_t hash_of(const char *name) { // FNV-1a
    uint64_t hash = 0xCBF29CE484222325;
    for (; *name != '\0'; ++name)
        hash = (hash ^ static_cast<uint8_t>(*name)) * 0x100000001B3;
    return static_cast<uint32_t>(hash);
}

// The slot that holds what is wanted, or the free one where it belongs; there is always a free one.
template <class IsWanted>
Slot &slot_for(const Places &places, uint32_t hash, IsWanted &&is_wanted) {
    const uint32_t mask = places.slot_count - 1;
    uint32_t at = hash & mask;
    while (places.slots[at].place_and_one != 0 && !is_wanted(places.slots[at]))
        at = (at + 1) & mask;
    return places.slots[at];
}

template <class IsWanted>
uint32_t find(const Places &places, uint32_t hash, IsWanted &&is_wanted) {
    if (places.slot_count == 0)
        return no_place;
    const auto has_key = [&](const Slot &slot) { return slot.hash == hash && is_wanted(slot.place_and_one - 1); };
    return slot_for(places, hash, has_key).place_and_one - 1;
}

void take_free_slot(const Places &places, const Slot &taken) {
    slot_for(places, taken.hash, [](const Slot &) { return false; }) = taken;
}

bool make_room_in(Places &places) {
    if (2 * (uint64_t{places.taken} + 1) <= places.slot_count)
        return true;
    const uint32_t slot_count = places.slot_count != 0 ? 2 * places.slot_count : first_slot_count;
    Places grown = {static_cast<Slot *>(stg_malloc(slot_count * sizeof(Slot))), slot_count, places.taken};
    if (grown.slots == nullptr)
        return false;
    memset(grown.slots, 0, slot_count * sizeof(Slot));
    for (uint32_t i = 0; i < places.slot_count; ++i)
        if (places.slots[i].place_and_one != 0)
            take_free_slot(grown, places.slots[i]);
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

bool make_room(Known &known) {
    return make_room_in(known.by_id) && make_room_in(known.by_name);
}

void note(Known &known, const Definitions &definitions, uint32_t place) {
    const uint32_t id = definitions.id_of(definitions.array, place);
    if (id != 0) {
        take_free_slot(known.by_id, {place + 1, hash_of(id)});
        ++known.by_id.taken;
    }
    take_free_slot(known.by_name, {place + 1, hash_of(definitions.name_of(definitions.array, place))});
    ++known.by_name.taken;
}

void release(Known &known) {
    stg_free(known.by_id.slots);
    stg_free(known.by_name.slots);
    known = {};
}

} // namespace velia::sched_utl_parse
