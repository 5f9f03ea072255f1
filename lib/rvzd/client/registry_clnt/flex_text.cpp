// Flex text: one line of items "name=value;" back to back, taken apart and put together.
#include <rvzd/client/registry_clnt/flex_text.h>

#include <algorithm>
#include <cstring>

#include <rvzd/client/registry_clnt/registry_clnt.h>

using namespace velia::registry_clnt;

namespace {

constexpr int32_t first_capacity = 8; // most entries have no more

rgy_item_t *new_items(int32_t capacity) {
    return static_cast<rgy_item_t *>(stg_malloc(static_cast<size_t>(capacity) * sizeof(rgy_item_t)));
}

bool make_vector(rgy_flex_entry_t &flex) {
    flex = {0, first_capacity, new_items(first_capacity)};
    return flex.items != nullptr;
}

// Where the value ends that begins at `value`: at the semicolon of the first ";-", or at the one that ends the whole
// text. Null if there is neither. Other semicolons belong to the value.
const char *end_of_value(const char *value, const char *end_of_text) {
    for (const char *semicolon = strchr(value, ';'); semicolon != nullptr; semicolon = strchr(semicolon + 1, ';'))
        if (semicolon[1] == '-' || semicolon + 1 == end_of_text)
            return semicolon;
    return nullptr;
}

char *copy_between(const char *begin, const char *end) {
    const auto length = static_cast<size_t>(end - begin);
    auto *copy = static_cast<char *>(stg_malloc(length + 1));
    if (copy == nullptr)
        return nullptr;
    memcpy(copy, begin, length);
    copy[length] = '\0';
    return copy;
}

bool append_copies(rgy_flex_entry_t &flex, const char *name, const char *equal_sign, const char *end) {
    rgy_item_t &item = flex.items[flex.count];
    item = {copy_between(name, equal_sign), copy_between(equal_sign + 1, end)};
    ++flex.count;
    return item.name != nullptr && item.value != nullptr;
}

tbs_status_t take_items(const char *text, rgy_flex_entry_t &flex) {
    const char *end_of_text = text + strlen(text);
    for (const char *name = text; name != end_of_text;) {
        const char *equal_sign = strchr(name, '=');
        if (equal_sign == nullptr || !make_room(flex))
            return TBS_ST_INVALID_ARG;
        const char *end = end_of_value(equal_sign + 1, end_of_text);
        if (end == nullptr || !append_copies(flex, name, equal_sign, end))
            return TBS_ST_INVALID_ARG;
        name = end + 1;
    }
    return TBS_ST_OK;
}

// A buffer of RGY_FLEX_TEXT_SIZE bytes that takes text as long as a terminator still fits behind it.
struct FlexWriter {
    char *text;
    size_t used;

    bool append(const char *piece) {
        const size_t length = strlen(piece);
        if (length >= RGY_FLEX_TEXT_SIZE - used)
            return false;
        memcpy(text + used, piece, length + 1);
        used += length;
        return true;
    }
};

bool write_items(const rgy_flex_entry_t &flex, char *text) {
    FlexWriter writer = {text, 0};
    text[0] = '\0';
    for (int32_t i = 0; i < flex.count; ++i) {
        const rgy_item_t &item = flex.items[i];
        if (rgy_validate_string(item.value) != TBS_ST_OK || !writer.append(item.name) || !writer.append("=") ||
            !writer.append(item.value) || !writer.append(";"))
            return false;
    }
    return true;
}

// One status for every failure: a decision of this operation alone.
tbs_status_t gather(const rgy_flex_entry_t &flex, char *&out) {
    out = static_cast<char *>(stg_malloc(RGY_FLEX_TEXT_SIZE));
    if (out == nullptr)
        return TBS_ST_ERROR;
    if (write_items(flex, out))
        return TBS_ST_OK;
    stg_free(out);
    out = nullptr;
    return TBS_ST_ERROR;
}

} // namespace

bool velia::registry_clnt::make_room(rgy_flex_entry_t &flex) {
    if (flex.capacity > flex.count)
        return true;
    const int32_t capacity = std::max(flex.count + 1, flex.capacity * 2);
    rgy_item_t *items = new_items(capacity);
    if (items == nullptr)
        return false;
    std::copy_n(flex.items, flex.count, items);
    stg_free(flex.items);
    flex.items = items;
    flex.capacity = capacity;
    return true;
}

tbs_status_t velia::registry_clnt::expand(const char *text, rgy_flex_entry_t &out) {
    out = {};
    if (text == nullptr)
        return TBS_ST_INVALID_ARG;
    const tbs_status_t status = make_vector(out) ? take_items(text, out) : tbs_status_t{TBS_ST_NO_MEMORY};
    if (status != TBS_ST_OK)
        rgy_destroy_flex_entry(&out);
    return status;
}

tbs_status_t rgy_expand_flex_entry(const char *text, rgy_flex_entry_t *out) {
    if (out == nullptr)
        return TBS_ST_INVALID_ARG;
    *out = {};
    return all_or_nothing([&] { return expand(text, *out); }, [&] { rgy_destroy_flex_entry(out); });
}

tbs_status_t rgy_gather_flex_entry(const rgy_flex_entry_t *flex, char **out) {
    if (flex == nullptr || out == nullptr)
        return TBS_ST_ERROR;
    *out = nullptr;
    return all_or_nothing([&] { return gather(*flex, *out); },
                          [&] {
                              stg_free(*out);
                              *out = nullptr;
                          });
}

void rgy_destroy_flex_entry(rgy_flex_entry_t *flex) {
    if (flex == nullptr)
        return;
    velia::with_inhibit([&] {
        for (int32_t i = flex->count - 1; i >= 0; --i) {
            stg_free(flex->items[i].name);
            stg_free(flex->items[i].value);
        }
        stg_free(flex->items);
        *flex = {};
    });
}

rgy_item_t *rgy_find_item(const rgy_flex_entry_t *flex, const char *name) {
    if (flex == nullptr || name == nullptr)
        return nullptr;
    for (int32_t i = flex->count - 1; i >= 0; --i)
        if (strcmp(flex->items[i].name, name) == 0)
            return &flex->items[i];
    return nullptr;
}

tbs_status_t rgy_validate_string(const char *text) {
    const bool is_valid = text == nullptr || (strchr(text, ';') == nullptr && strchr(text, '\n') == nullptr);
    return is_valid ? TBS_ST_OK : TBS_ST_INVALID_ARG;
}
