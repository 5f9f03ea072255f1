// Reading, changing and deleting one entry.
#include <rvzd/client/registry_clnt/entry.h>

#include <algorithm>
#include <cstddef>
#include <cstring>

#include <rvzd/client/registry_clnt/flex_text.h>
#include <rvzd/client/registry_clnt/item_keys.h>
#include <rvzd/client/registry_clnt/registry_clnt.h>
#include <support/strutl.h>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#include <sanitizer/lsan_interface.h>
#endif
#endif

using namespace velia;
using namespace velia::registry_clnt;

static_assert(sizeof(rgy_item_t) == 16 && sizeof(rgy_flex_entry_t) == 16 && sizeof(rgy_svr_entry_t) == 16);
static_assert(sizeof(rgy_dtm_pair_t) == 32 && offsetof(rgy_dtm_pair_t, svr_dtm) == 16);
static_assert(offsetof(rgy_entry_t, host) == 8 && offsetof(rgy_entry_t, dtm) == 16);
static_assert(offsetof(rgy_entry_t, entry_id) == 48 && offsetof(rgy_entry_t, flex) == 56);

namespace {

// The storage of a replaced value is given up on purpose: an entry lives for one operation, and what a caller was lent
// stays good. Leak reports are told of this value and no other.
void give_up([[maybe_unused]] char *replaced_value) {
#if defined(SANITIZER_LSAN_INTERFACE_H)
    __lsan_ignore_object(replaced_value);
#endif
}

tbs_status_t replace_value(rgy_item_t &item, const char *text) {
    char *copy = stg_strdup(text);
    if (copy == nullptr)
        return TBS_ST_NO_MEMORY;
    give_up(item.value);
    item.value = copy;
    return TBS_ST_OK;
}

tbs_status_t append_item(rgy_flex_entry_t &flex, const char *key, const char *text) {
    if (!make_room(flex))
        return TBS_ST_NO_MEMORY;
    const rgy_item_t item = {stg_strdup(key), stg_strdup(text)};
    if (item.name == nullptr || item.value == nullptr) {
        stg_free(item.name);
        stg_free(item.value);
        return TBS_ST_NO_MEMORY;
    }
    flex.items[flex.count++] = item;
    return TBS_ST_OK;
}

bool is_settable(const char *text) {
    return text != nullptr && strnlen(text, RGY_ITEM_TEXT_SIZE) < RGY_ITEM_TEXT_SIZE &&
           rgy_validate_string(text) == TBS_ST_OK;
}

} // namespace

tbs_status_t rgy_getstring_from_entry_const(const rgy_entry_t *entry, uint32_t item, const char **out) {
    if (!is_alive(entry) || out == nullptr)
        return TBS_ST_INVALID_ARG;
    const rgy_item_t *found = rgy_find_item(&entry->flex, item_key(item));
    if (found == nullptr)
        return TBS_ST_NOT_FOUND;
    *out = found->value;
    return TBS_ST_OK;
}

tbs_status_t rgy_getstring_from_entry(const rgy_entry_t *entry, uint32_t item, size_t size, char *buffer) {
    if (buffer == nullptr)
        return TBS_ST_INVALID_ARG;
    const char *value = nullptr;
    const auto status = rgy_getstring_from_entry_const(entry, item, &value);
    if (status != TBS_ST_OK)
        return status;
    // The copy comes before the test: what does not fit has been written as far as it goes, without a terminator.
    const size_t length = strlen(value);
    const size_t copied = std::min(length, size);
    memcpy(buffer, value, copied);
    memset(buffer + copied, 0, size - copied);
    return length < size ? TBS_ST_OK : TBS_ST_INVALID_ARG;
}

tbs_status_t rgy_getuuid_from_entry_fast(const rgy_entry_t *entry, uint32_t item, tbs_uuid_t *out) {
    if (out == nullptr)
        return TBS_ST_INVALID_ARG;
    const char *value = nullptr;
    const auto status = rgy_getstring_from_entry_const(entry, item, &value);
    return status == TBS_ST_OK ? tbs_str_to_uuid(value, out) : status;
}

tbs_status_t rgy_getuuid_from_entry(const rgy_entry_t *entry, uint32_t item, tbs_uuid_t *out) {
    return rgy_getuuid_from_entry_fast(entry, item, out);
}

tbs_status_t rgy_setstring_in_entry(rgy_entry_t *entry, uint32_t item, const char *text) {
    if (!is_alive(entry) || !is_settable(text))
        return TBS_ST_INVALID_ARG;
    return with_inhibit([&] {
        const char *key = item_key(item);
        rgy_item_t *found = rgy_find_item(&entry->flex, key);
        return found != nullptr ? replace_value(*found, text) : append_item(entry->flex, key, text);
    });
}

tbs_status_t rgy_setuuid_in_entry(rgy_entry_t *entry, uint32_t item, const tbs_uuid_t *uuid) {
    char text[TBS_UUID_STR_SIZE];
    if (uuid == nullptr || tbs_uuid_to_str(uuid, text) == nullptr)
        return TBS_ST_INVALID_ARG;
    return rgy_setstring_in_entry(entry, item, text);
}

tbs_status_t rgy_get_item_from_entry(const rgy_entry_t *entry, uint32_t position, size_t name_size, char *name_buffer,
                                     size_t value_size, char *value_buffer) {
    if (!is_alive(entry) || name_buffer == nullptr || value_buffer == nullptr)
        return TBS_ST_INVALID_ARG;
    if (position >= static_cast<uint32_t>(entry->flex.count))
        return TBS_ST_NOT_FOUND;
    const rgy_item_t &item = entry->flex.items[position];
    if (strlen(item.value) >= value_size || strlen(item.name) >= name_size)
        return TBS_ST_INVALID_ARG;
    strutl_cpy_buf(name_buffer, item.name, name_size);
    strutl_cpy_buf(value_buffer, item.value, value_size);
    return TBS_ST_OK;
}

// The guard word stays: it is the cleared pointer that makes a second delete harmless.
tbs_status_t rgy_delete_entry(rgy_entry_t **entry) {
    if (entry == nullptr || !is_alive(*entry))
        return TBS_ST_INVALID_ARG;
    with_inhibit([&] {
        stg_free((*entry)->host);
        rgy_destroy_flex_entry(&(*entry)->flex);
        stg_free(*entry);
        *entry = nullptr;
    });
    return TBS_ST_OK;
}
