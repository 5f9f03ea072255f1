// Looking settings up: by id, by name, one after the other.
#include <cstring>
#include <iterator>

#include <rvzd/client/rvzd_knob/knob.h>
#include <support/strutl.h>

using namespace velia;
using namespace velia::rvzd_knob;

namespace {

bool is_any_name_missing() {
    return memchr(name_lengths, 0, sizeof name_lengths) != nullptr;
}

// Lengths go before texts, since hardly two names are equally long: they differ from their spellings in case only.
const Knob *find_by_name(const char *name) {
    const size_t length = name != nullptr ? strlen(name) : 0;
    if (length == 0 || length >= name_size)
        return nullptr;
    if (is_any_name_missing())
        rvzd_knob_initialize_all_strings();
    const uint8_t *end = std::end(name_lengths);
    for (const uint8_t *at = name_lengths; at != end; ++at) {
        at = static_cast<const uint8_t *>(memchr(at, static_cast<int>(length), static_cast<size_t>(end - at)));
        if (at == nullptr)
            return nullptr;
        const Knob &knob = rvzd_knobs[at - name_lengths];
        if (strutl_stricoll(knob.name, name) == 0)
            return &knob;
    }
    return nullptr;
}

// A row that says that it has the knoblet, and of which kind it is.
tbs_status_t check_row_of_next(uint32_t id, rvzd_knoblet_kind_t kind, bool &is_wanted) {
    const Knob *knob = find_knob(id);
    if (knob == nullptr)
        return TBS_ST_ERROR;
    const Knoblet *slot = slot_of(*knob, kind);
    is_wanted = slot != nullptr && slot->present != 0;
    if (!is_wanted || slot->kind == kind)
        return TBS_ST_OK;
    print_error(KNOB_MSG_INVALID_KNOBLET, name_of(*knob), kind);
    return TBS_ST_ERROR;
}

} // namespace

tbs_status_t rvzd_knob_name(uint32_t id, const char **name) {
    return with_knob_alone(id, [&](const Knob &knob) -> tbs_status_t {
        *name = name_of(knob);
        return knob.name_ready != 0 ? TBS_ST_OK : TBS_ST_ERROR;
    });
}

tbs_status_t rvzd_knob_description(uint32_t id, const char **text) {
    return with_knob_alone(id, [&](const Knob &knob) -> tbs_status_t {
        *text = description_of(knob);
        return knob.description_ready != 0 ? TBS_ST_OK : TBS_ST_NO_MEMORY;
    });
}

tbs_status_t rvzd_knob_type(uint32_t id, rvzd_knob_type_t *type) {
    return with_knob_alone(id, [&](const Knob &knob) -> tbs_status_t {
        *type = knob.type;
        return TBS_ST_OK;
    });
}

tbs_status_t rvzd_knob_id_by_name(const char *name, uint32_t *id) {
    *id = 0;
    return with_catalogue([&]() -> tbs_status_t {
        const Knob *knob = find_by_name(name);
        if (knob == nullptr)
            return TBS_ST_NOT_FOUND;
        *id = knob->id;
        return TBS_ST_OK;
    });
}

tbs_status_t rvzd_knob_id_by_name_and_knoblet(const char *name, rvzd_knoblet_kind_t kind, uint32_t *id) {
    return with_catalogue([&]() -> tbs_status_t {
        const Knob *knob = find_by_name(name);
        const Knoblet *slot = knob != nullptr ? slot_of(*knob, kind) : nullptr;
        if (slot == nullptr || slot->present == 0)
            return TBS_ST_NOT_FOUND;
        *id = knob->id;
        return TBS_ST_OK;
    });
}

int32_t rvzd_knob_next(int32_t cursor, uint32_t *id) {
    *id = 0;
    if (cursor < 0 || cursor >= static_cast<int32_t>(knob_count))
        return 0;
    *id = with_catalogue([&] { return rvzd_knobs[cursor].id; });
    return *id != 0 ? cursor + 1 : 0;
}

int32_t rvzd_knob_next_with_knoblet(rvzd_knoblet_kind_t kind, int32_t cursor, uint32_t *id) {
    return with_catalogue([&]() -> int32_t {
        bool is_wanted = false;
        while ((cursor = rvzd_knob_next(cursor, id)) != 0 && !is_wanted) {
            if (check_row_of_next(*id, kind, is_wanted) != TBS_ST_OK) {
                *id = 0;
                return 0;
            }
            if (is_wanted)
                return cursor;
        }
        return 0;
    });
}

tbs_status_t rvzd_knob_range(uint32_t id, rvzd_knob_range_t *range) {
    return with_knob_alone(id, [&](const Knob &knob) -> tbs_status_t {
        *range = {INT32_MIN, INT32_MAX, nullptr};
        const auto kind = knob.int_range_kind;
        if (kind == IntegerRange::nonnegative)
            range->minimum = 0;
        if (kind == IntegerRange::minimum || kind == IntegerRange::between)
            range->minimum = knob.int_min;
        if (kind == IntegerRange::maximum)
            range->maximum = knob.int_min;
        if (kind == IntegerRange::between)
            range->maximum = knob.int_max;
        if (knob.str_range_kind == StringRange::list)
            range->list = knob.str_range_list;
        return TBS_ST_OK;
    });
}
