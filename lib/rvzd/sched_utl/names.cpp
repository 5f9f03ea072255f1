// Masks and enumerations to and from their texts.
#include <veliaxdr/sched_check.h>

namespace {

constexpr char separator[] = ",";

template <size_t Count>
uint32_t mask_from(const char *text, const strutl_flag_item_t (&table)[Count]) {
    return strutl_flags_from_str(text, 0, separator, table, Count, nullptr);
}

// The last row stands for what is in none.
template <size_t Count>
int32_t row_of(const char *text, const sched_str_map_t (&map)[Count]) {
    int32_t row = 0;
    while (row < static_cast<int32_t>(Count) - 1 && strutl_stricoll(map[row].text, text) != 0)
        ++row;
    return row;
}

} // namespace

const char *sched_utl_notify_event_mask_to_str(sched_event_mask_t mask) {
    return strutl_flags_to_str(mask, separator, event_mask_flags, SCHED_EVENT_MASK_FLAGS);
}

sched_event_mask_t sched_utl_notify_event_mask_from_str(const char *text) {
    return mask_from(text, event_mask_flags);
}

sched_notify_delivery_mask_t sched_utl_notify_delivery_mask_from_str(const char *text) {
    return mask_from(text, delivery_mask_flags);
}

sched_sched_dow_mask_t sched_utl_dow_mask_from_str(const char *text) {
    return mask_from(text, dow_flags);
}

sched_sched_mds_ordinal_t sched_utl_mds_ordinal_from_str(const char *text) {
    return row_of(text, mds_ordinal_str_map);
}

sched_sched_mds_kind_t sched_utl_mds_kind_from_str(const char *text) {
    return row_of(text, mds_kind_str_map);
}
